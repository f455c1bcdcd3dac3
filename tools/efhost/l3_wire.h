// Addresses and wire constants shared by the L3 engine's pieces: Ethernet
// types, ARP and ICMPv6 neighbour-discovery sizes and codes and the address
// kinds it keys its tables with; fields are read and written through the
// platform's big-endian helpers.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "config.h"
#include "ef_byteorder.h"

namespace efhost::l3 {

using Mac = std::array<uint8_t, 6>;

// A host address, IPv4 in the first 4 bytes; the rest stays zero.
struct IpAddr {
    int family = 0;
    std::array<uint8_t, 16> addr{};
    auto operator<=>(const IpAddr &) const = default;
    size_t size() const;
    bool unspecified() const;
};

IpAddr host_of(const IpPrefix &p);
// True when a lies in the prefix p (same family, first p.len bits equal).
bool prefix_contains(const IpPrefix &p, const IpAddr &a);

constexpr size_t kEthHeader = 14;
constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr uint16_t kEtherArp = 0x0806;
constexpr uint16_t kEtherIpv6 = 0x86DD;

constexpr size_t kArpBody = 28;
constexpr uint16_t kArpHwEthernet = 1;
constexpr uint16_t kArpRequest = 1;
constexpr uint16_t kArpReply = 2;

constexpr size_t kIpv4Header = 20;
constexpr size_t kIpv6Header = 40;
constexpr uint8_t kProtoIcmpv6 = 58;
constexpr uint8_t kNdHopLimit = 255;
constexpr uint8_t kNeighbourSolicit = 135;
constexpr uint8_t kNeighbourAdvert = 136;
// Type, code, checksum, flags or reserved word, target address.
constexpr size_t kNdBody = 24;
constexpr size_t kNdLinkOption = 8;
constexpr uint8_t kOptSourceLinkAddr = 1;
constexpr uint8_t kOptTargetLinkAddr = 2;
constexpr uint32_t kNaSolicited = 0x40000000;
constexpr uint32_t kNaOverride = 0x20000000;

constexpr Mac kBroadcastMac{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr Mac kAllNodesMac{0x33, 0x33, 0x00, 0x00, 0x00, 0x01};

// The ICMPv6 checksum of body (checksum field included as it stands) under
// the IPv6 pseudo-header of src and dst.
uint16_t icmpv6_checksum(const IpAddr &src, const IpAddr &dst, const uint8_t *body, size_t len);

}  // namespace efhost::l3
