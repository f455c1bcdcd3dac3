// Text forms of the addresses in efhost's configuration: MAC addresses, IP
// addresses and prefixes, VLAN lists. Pure parsing, no messages: the caller
// says what was wrong.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "config.h"

namespace efhost::config_detail {

// Six hex pairs separated by colons, e.g. 02:00:00:00:00:01.
std::optional<std::array<uint8_t, 6>> parse_mac(const std::string &text);
// An IPv4 or IPv6 address without a length; len is set to 32 or 128.
std::optional<IpPrefix> parse_ip(const std::string &text);
// ADDRESS/LEN; without "/LEN" the result is a host prefix when
// length_optional, and nothing otherwise.
std::optional<IpPrefix> parse_prefix(const std::string &text, bool length_optional);
// The prefix with every bit beyond its length cleared.
IpPrefix network_of(const IpPrefix &p);
std::string format_prefix(const IpPrefix &p);
const char *family_name(int family);

// One item of a VLAN list: a VLAN ("10") or an ascending range ("20-22").
struct VlanRange {
    long first = 0;
    long last = 0;
};
std::optional<VlanRange> parse_vlan_range(const std::string &text);

}  // namespace efhost::config_detail
