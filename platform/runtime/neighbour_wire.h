// Wire formats of the neighbour messages the suppression step reads and
// writes: Ethernet/IPv4 ARP (RFC 826) and ICMPv6 neighbour solicitations and
// advertisements (RFC 4861) with their link-layer address options. Readers
// take a pointer and the number of bytes really there and check every length
// before reading; writers fill a caller's buffer of the stated size. Fields
// are byte arrays read through the big-endian helpers, so that a header at
// any offset of a buffer is defined behaviour.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "suppress.h"

namespace efrt::nwire {

using Ipv4Bytes = std::array<uint8_t, 4>;
using Ipv6Bytes = std::array<uint8_t, 16>;

constexpr size_t kEthHeader = 14;
constexpr uint16_t kEtherArp = 0x0806;
constexpr uint16_t kEtherIpv6 = 0x86DD;

struct EthHdr {
    uint8_t dst[6];
    uint8_t src[6];
    uint8_t type[2];
};
static_assert(sizeof(EthHdr) == kEthHeader);

// ---- ARP ----
constexpr uint16_t kArpHwEthernet = 1;
constexpr uint16_t kArpProtoIpv4 = 0x0800;
constexpr uint16_t kArpRequest = 1;
constexpr uint16_t kArpReply = 2;

struct ArpBody {
    uint8_t hw_type[2];
    uint8_t proto_type[2];
    uint8_t hw_len;
    uint8_t proto_len;
    uint8_t op[2];
    uint8_t sender_mac[6];
    uint8_t sender_ip[4];
    uint8_t target_mac[6];
    uint8_t target_ip[4];
};
static_assert(sizeof(ArpBody) == 28);

// An answer is the bare frame; the port or the wire pads it.
constexpr size_t kArpFrameLen = kEthHeader + sizeof(ArpBody);

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
constexpr uint8_t kProtoIcmpv6 = 58;
constexpr uint8_t kNdHopLimit = 255;
constexpr uint8_t kNdFirstType = 133;  // router solicitation
constexpr uint8_t kNdLastType = 137;   // redirect
constexpr uint8_t kNeighbourSolicit = 135;
constexpr uint8_t kNeighbourAdvert = 136;
constexpr uint8_t kNaSolicited = 0x40;  // in the first byte of the flags word
constexpr uint8_t kNaOverride = 0x20;
constexpr uint8_t kOptSourceLinkAddr = 1;
constexpr uint8_t kOptTargetLinkAddr = 2;

struct Ipv6Hdr {
    uint8_t ver_tc_flow[4];
    uint8_t payload_len[2];
    uint8_t next_hdr;
    uint8_t hop_limit;
    uint8_t src[16];
    uint8_t dst[16];
};
static_assert(sizeof(Ipv6Hdr) == 40);

// A solicitation or an advertisement: the ICMPv6 header, the reserved or
// flags word, the target.
struct NdBody {
    uint8_t type;
    uint8_t code;
    uint8_t checksum[2];
    uint8_t flags[4];
    uint8_t target[16];
};
static_assert(sizeof(NdBody) == 24);

// An Ethernet link-layer address option (8 bytes, length 1 in its units).
struct LinkAddrOption {
    uint8_t type;
    uint8_t units;
    uint8_t mac[6];
};
static_assert(sizeof(LinkAddrOption) == 8);

constexpr size_t kNaFrameLen = kEthHeader + sizeof(Ipv6Hdr) + sizeof(NdBody) + sizeof(LinkAddrOption);

// The neighbour-discovery type of the IPv6 packet at p (of len bytes) as
// the module tells ND apart: ICMPv6 right after the fixed header, types 133
// to 137. 0 for any other packet.
uint8_t nd_type(const uint8_t *p, size_t len);

struct NdMessage {
    uint8_t type = 0;  // kNeighbourSolicit or kNeighbourAdvert
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
