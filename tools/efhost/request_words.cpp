// The words of efhost's text requests; see request_words.h.
#include "request_words.h"

#include <charconv>
#include <cstdio>
#include <sstream>

namespace efhost {

namespace {

template <class T>
std::optional<T> parse_number(const std::string &text, T min, T max)
{
    T value{};
    const char *end = text.data() + text.size();
    auto [p, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || p != end || value < min || value > max)
        return std::nullopt;
    return value;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

std::vector<std::string> request_words(const std::string &request)
{
    std::istringstream in(request);
    std::vector<std::string> words;
    for (std::string w; in >> w;)
        words.push_back(w);
    return words;
}

std::optional<uint32_t> parse_vni(const std::string &text) { return parse_number<uint32_t>(text, 1, 16777215); }

std::optional<uint32_t> parse_ifindex(const std::string &text)
{
    return parse_number<uint32_t>(text, 1, UINT32_MAX);
}

std::optional<uint64_t> parse_generation(const std::string &text)
{
    return parse_number<uint64_t>(text, 0, UINT64_MAX);
}

std::optional<Mac> parse_mac(const std::string &text)
{
    if (text.size() != 17)
        return std::nullopt;
    Mac mac{};
    for (size_t i = 0; i < 6; ++i) {
        const int hi = hex_digit(text[i * 3]);
        const int lo = hex_digit(text[i * 3 + 1]);
        if (hi < 0 || lo < 0 || (i < 5 && text[i * 3 + 2] != ':'))
            return std::nullopt;
        mac[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return mac;
}

std::string mac_text(const uint8_t *mac)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

std::string not_a_vni(const std::string &text) { return "'" + text + "' is not a VNI 1..16777215"; }

std::string not_a_mac(const std::string &text) { return "'" + text + "' is not a MAC address aa:bb:cc:dd:ee:ff"; }

std::string not_an_ifindex(const std::string &text)
{
    return "'" + text + "' is not an interface index 1..4294967295";
}

std::string not_a_generation(const std::string &text) { return "'" + text + "' is not a generation number"; }

}  // namespace efhost
