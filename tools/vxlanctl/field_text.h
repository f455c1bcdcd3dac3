// Parsers for the texts people write for TLV field values: integers
// (decimal or 0x hex), IPv4/IPv6 addresses, MAC addresses and VLAN ranges.
// Shared by the command line (send, debug, show) and the apply file reader.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vxlanctl {

// An address as the module's value layouts carry it: family 2 (IPv4) or 10
// (IPv6), address bytes in network order (IPv4 in the first four).
struct IpAddr {
    uint32_t family = 0;
    std::array<uint8_t, 16> bytes{};
};

constexpr uint32_t kFamilyIpv4 = 2;
constexpr uint32_t kFamilyIpv6 = 10;

using Mac = std::array<uint8_t, 6>;

// A whole text as an unsigned number: decimal digits, or 0x and hex digits.
std::optional<uint64_t> parse_unsigned(std::string_view text);
// The same with an optional leading minus sign.
std::optional<int64_t> parse_signed(std::string_view text);
// An IPv4 dotted quad or an IPv6 address.
std::optional<IpAddr> parse_ip(std::string_view text);
// Six hex bytes separated by ':' or '-' (00:00:5e:00:01:01), or three dotted
// groups of four hex digits (0000.5e00.0101).
std::optional<Mac> parse_mac(std::string_view text);

// The VLANs a VNI can be extended into, on the command line and in the apply
// file alike: the module never looks at VLAN 0 or 4095.
constexpr uint16_t kFirstVlan = 1;
constexpr uint16_t kLastVlan = 4094;

// VNIs are 24 bits in the VXLAN header.
constexpr uint32_t kLastVni = 0xFFFFFF;

// "10" or "20-22" with both ends in kFirstVlan..kLastVlan. Returns the range,
// or nothing with error set to a sentence saying what was wrong.
struct VlanRange {
    uint16_t first;
    uint16_t last;
};
std::optional<VlanRange> parse_vlan_range(std::string_view text, std::string &error);

// The text in single quotes, for error messages. Built by appending: g++ 12
// at -O3 reports a false overlap for a literal added to a temporary string.
std::string quoted(std::string_view text);

}  // namespace vxlanctl
