// Addresses shared by the L3 engine's pieces: the address kinds it keys its
// tables with, the groups it sends to, and the neighbour-advertisement flags
// as the word it carries them in; the frames' formats are ef_wire.h's and
// their fields are read and written through the platform's big-endian
// helpers.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "config.h"
#include "ef_byteorder.h"
#include "ef_wire.h"

namespace efhost::l3 {

using Mac = std::array<uint8_t, EF_ETH_ALEN>;

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

// An advertisement's flags word is read and written whole; its flags are
// in the first of its four bytes.
constexpr uint32_t kNaSolicited = uint32_t{EF_ND_NA_SOLICITED} << 24;
constexpr uint32_t kNaOverride = uint32_t{EF_ND_NA_OVERRIDE} << 24;

constexpr Mac kBroadcastMac{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr Mac kAllNodesMac{0x33, 0x33, 0x00, 0x00, 0x00, 0x01};

// The ICMPv6 checksum of body (checksum field included as it stands) under
// the IPv6 pseudo-header of src and dst.
uint16_t icmpv6_checksum(const IpAddr &src, const IpAddr &dst, const uint8_t *body, size_t len);

}  // namespace efhost::l3
