// The words of efhost's text requests; see request_words.h.
#include "request_words.h"

#include <charconv>
#include <cstdio>
#include <sstream>

#include "config_addr.h"

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

std::optional<Mac> parse_mac(const std::string &text) { return config_detail::parse_mac(text); }

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
