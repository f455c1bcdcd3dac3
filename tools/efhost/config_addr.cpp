// Parsing of MAC addresses, IP addresses, prefixes and VLAN ranges for
// efhost's configuration (see config_addr.h).
#include "config_addr.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <charconv>

namespace efhost::config_detail {

namespace {

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

// A whole string of decimal digits, nothing else.
std::optional<long> parse_decimal(std::string_view text)
{
    long v = 0;
    const char *end = text.data() + text.size();
    if (text.empty() || text.front() == '-' || text.front() == '+')
        return std::nullopt;
    const auto [ptr, ec] = std::from_chars(text.data(), end, v);
    if (ec != std::errc() || ptr != end)
        return std::nullopt;
    return v;
}

uint8_t max_len(int family)
{
    return family == AF_INET ? 32 : 128;
}

}  // namespace

std::optional<std::array<uint8_t, 6>> parse_mac(const std::string &text)
{
    constexpr size_t kLength = 17;  // "xx:" five times, then "xx"
    if (text.size() != kLength)
        return std::nullopt;
    std::array<uint8_t, 6> mac{};
    for (size_t i = 0; i < mac.size(); ++i) {
        const int hi = hex_digit(text[i * 3]);
        const int lo = hex_digit(text[i * 3 + 1]);
        if (hi < 0 || lo < 0 || (i < 5 && text[i * 3 + 2] != ':'))
            return std::nullopt;
        mac[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return mac;
}

std::optional<IpPrefix> parse_ip(const std::string &text)
{
    IpPrefix p;
    if (inet_pton(AF_INET, text.c_str(), p.addr.data()) == 1)
        p.family = AF_INET;
    else if (inet_pton(AF_INET6, text.c_str(), p.addr.data()) == 1)
        p.family = AF_INET6;
    else
        return std::nullopt;
    p.len = max_len(p.family);
    return p;
}

std::optional<IpPrefix> parse_prefix(const std::string &text, bool length_optional)
{
    const size_t slash = text.find('/');
    if (slash == std::string::npos)
        return length_optional ? parse_ip(text) : std::nullopt;
    std::optional<IpPrefix> p = parse_ip(text.substr(0, slash));
    const std::optional<long> len = parse_decimal(std::string_view(text).substr(slash + 1));
    if (!p || !len || *len > max_len(p->family))
        return std::nullopt;
    p->len = static_cast<uint8_t>(*len);
    return p;
}

IpPrefix network_of(const IpPrefix &p)
{
    IpPrefix n = p;
    for (size_t bit = p.len; bit < max_len(p.family); ++bit)
        n.addr[bit / 8] &= static_cast<uint8_t>(~(0x80u >> (bit % 8)));
    return n;
}

std::string format_prefix(const IpPrefix &p)
{
    char buf[INET6_ADDRSTRLEN] = "";
    inet_ntop(p.family, p.addr.data(), buf, sizeof buf);
    return std::string(buf) + "/" + std::to_string(p.len);
}

const char *family_name(int family)
{
    return family == AF_INET ? "IPv4" : "IPv6";
}

std::optional<VlanRange> parse_vlan_range(const std::string &text)
{
    const size_t dash = text.find('-');
    const std::string_view all(text);
    const std::optional<long> first = parse_decimal(all.substr(0, dash));
    const std::optional<long> last =
        dash == std::string::npos ? first : parse_decimal(all.substr(dash + 1));
    if (!first || !last)
        return std::nullopt;
    return VlanRange{*first, *last};
}

}  // namespace efhost::config_detail
