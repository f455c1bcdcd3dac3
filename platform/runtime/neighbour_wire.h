// The neighbour messages the suppression step reads and writes: Ethernet/IPv4
// ARP and ICMPv6 neighbour solicitations and advertisements with their
// link-layer address options, in the formats of ef_wire.h. Readers take a
// pointer and the number of bytes really there and check every length before
// reading; writers fill a caller's buffer of the stated size.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "ef_wire.h"
#include "suppress.h"

namespace efrt::nwire {

using Ipv4Bytes = std::array<uint8_t, 4>;
using Ipv6Bytes = std::array<uint8_t, 16>;

// An answer is the bare frame; the port or the wire pads it.
constexpr size_t kArpFrameLen = EF_ETH_HLEN + EF_ARP_LEN;

struct ArpMessage {
    uint16_t op = 0;
    MacAddr sender_mac{};
    Ipv4Bytes sender_ip{};
    MacAddr target_mac{};
    Ipv4Bytes target_ip{};
};

// The ARP body at p, of len bytes: Ethernet hardware and IPv4 addresses of
// their own lengths, any operation. Nothing for anything shorter or other.
std::optional<ArpMessage> read_arp(const uint8_t *p, size_t len);

// An ARP reply frame of kArpFrameLen bytes: from_mac says that from_ip is at
// it, to (to_mac, to_ip).
void write_arp_reply(uint8_t *frame, const MacAddr &from_mac, const Ipv4Bytes &from_ip, const MacAddr &to_mac,
                     const Ipv4Bytes &to_ip);

// ---- ICMPv6 neighbour discovery ----
constexpr size_t kNaFrameLen = EF_ETH_HLEN + EF_IPV6_HLEN + EF_ND_LEN + EF_ND_LINK_ADDR_OPT_LEN;

// The neighbour-discovery type of the IPv6 packet at p (of len bytes) as
// the module tells ND apart: ICMPv6 right after the fixed header, types 133
// to 137. 0 for any other packet.
uint8_t nd_type(const uint8_t *p, size_t len);

struct NdMessage {
    uint8_t type = 0;  // EF_ND_NEIGHBOUR_SOLICIT or EF_ND_NEIGHBOUR_ADVERT
    Ipv6Bytes src{};
    Ipv6Bytes dst{};
    bool solicited = false;  // an advertisement's S flag
    Ipv6Bytes target{};
    // The source (solicitation) or target (advertisement) link-layer option.
    std::optional<MacAddr> link_addr;
};

// The solicitation or advertisement that is the IPv6 packet at p (of len
// bytes, perhaps followed by padding) when it is valid as a node must check
// it: version 6, ICMPv6 right after the fixed header, hop limit 255, code 0,
// a correct checksum, neither source nor target multicast, options that fill
// their lengths, no source link-layer option from the all-zero address.
// Nothing for anything else.
std::optional<NdMessage> read_nd(const uint8_t *p, size_t len);

// A solicited advertisement frame of kNaFrameLen bytes with the override
// flag: from_mac says that target is at it, to (to_mac, to_ip), from the
// target address itself, with the target link-layer option and its checksum.
void write_na(uint8_t *frame, const MacAddr &from_mac, const Ipv6Bytes &target, const MacAddr &to_mac,
              const Ipv6Bytes &to_ip);

// The ICMPv6 checksum of the message at msg (len bytes, its checksum field
// as it stands) under the pseudo-header of src and dst: the value to write
// into a zeroed field, or 0 when a received field is correct.
uint16_t icmpv6_checksum(const Ipv6Bytes &src, const Ipv6Bytes &dst, const uint8_t *msg, uint32_t len);

// ---- address kinds ----
// A MAC a host can have: neither a group address nor all zeros.
bool host_mac(const MacAddr &mac);
bool ipv6_all_zero(const Ipv6Bytes &ip);
bool ipv6_multicast(const Ipv6Bytes &ip);
// Neither 0.0.0.0 nor multicast, reserved or broadcast (224.0.0.0 up).
bool ipv4_host(const Ipv4Bytes &ip);

NeighbourIp neighbour_ip(const Ipv4Bytes &ip);
NeighbourIp neighbour_ip(const Ipv6Bytes &ip);

}  // namespace efrt::nwire
