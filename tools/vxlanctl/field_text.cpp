// Text parsers for field values; see field_text.h.
#include "field_text.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstring>

namespace vxlanctl {

namespace {

std::optional<uint64_t> digits(std::string_view text, int base)
{
    if (text.empty())
        return std::nullopt;
    uint64_t v = 0;
    const char *end = text.data() + text.size();
    auto [p, ec] = std::from_chars(text.data(), end, v, base);
    if (ec != std::errc() || p != end)
        return std::nullopt;
    return v;
}

std::optional<uint8_t> hex_byte(std::string_view text)
{
    if (text.size() != 2)
        return std::nullopt;
    auto v = digits(text, 16);
    return v ? std::optional<uint8_t>(static_cast<uint8_t>(*v)) : std::nullopt;
}

std::optional<Mac> separated_mac(std::string_view text, char sep)
{
    if (text.size() != 17)
        return std::nullopt;
    Mac mac{};
    for (size_t i = 0; i < 6; ++i) {
        auto b = hex_byte(text.substr(i * 3, 2));
        if (!b || (i < 5 && text[i * 3 + 2] != sep))
            return std::nullopt;
        mac[i] = *b;
    }
    return mac;
}

std::optional<Mac> dotted_mac(std::string_view text)
{
    if (text.size() != 14 || text[4] != '.' || text[9] != '.')
        return std::nullopt;
    Mac mac{};
    for (size_t g = 0; g < 3; ++g)
        for (size_t h = 0; h < 2; ++h) {
            auto b = hex_byte(text.substr(g * 5 + h * 2, 2));
            if (!b)
                return std::nullopt;
            mac[g * 2 + h] = *b;
        }
    return mac;
}

}  // namespace

std::optional<uint64_t> parse_unsigned(std::string_view text)
{
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        return digits(text.substr(2), 16);
    return digits(text, 10);
}

std::optional<int64_t> parse_signed(std::string_view text)
{
    const bool negative = !text.empty() && text[0] == '-';
    auto v = parse_unsigned(negative ? text.substr(1) : text);
    if (!v || *v > (negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1))
        return std::nullopt;
    return negative ? static_cast<int64_t>(0 - *v) : static_cast<int64_t>(*v);
}

std::optional<IpAddr> parse_ip(std::string_view text)
{
    const std::string s(text);
    IpAddr ip;
    if (inet_pton(AF_INET, s.c_str(), ip.bytes.data()) == 1) {
        ip.family = kFamilyIpv4;
        return ip;
    }
    if (inet_pton(AF_INET6, s.c_str(), ip.bytes.data()) == 1) {
        ip.family = kFamilyIpv6;
        return ip;
    }
    return std::nullopt;
}

std::optional<Mac> parse_mac(std::string_view text)
{
    if (auto mac = separated_mac(text, ':'))
        return mac;
    if (auto mac = separated_mac(text, '-'))
        return mac;
    return dotted_mac(text);
}

std::optional<VlanRange> parse_vlan_range(std::string_view text, std::string &error)
{
    const size_t dash = text.find('-');
    const auto first = parse_unsigned(text.substr(0, dash));
    const auto last = dash == std::string_view::npos ? first : parse_unsigned(text.substr(dash + 1));
    if (!first || !last) {
        error = quoted(text) + " is not a VLAN id or a range such as 20-22";
        return std::nullopt;
    }
    for (uint64_t v : {*first, *last})
        if (v < kFirstVlan || v > kLastVlan) {
            error = "VLAN " + std::to_string(v) + " is outside " + std::to_string(kFirstVlan) + ".." +
                    std::to_string(kLastVlan);
            return std::nullopt;
        }
    if (*last < *first) {
        error = "VLAN range " + std::string(text) + " runs backwards";
        return std::nullopt;
    }
    return VlanRange{static_cast<uint16_t>(*first), static_cast<uint16_t>(*last)};
}

std::string quoted(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + 2);
    out.append(1, '\'').append(text).append(1, '\'');
    return out;
}

}  // namespace vxlanctl
