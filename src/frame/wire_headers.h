// Wire formats the packet plane reads and writes: Ethernet, 802.1Q, IPv4,
// IPv6, UDP and VXLAN (RFC 7348). Multi-byte fields are kept as byte arrays
// and read or written through the platform's big-endian helpers (and the one
// below), whose names say the byte order, so that unaligned headers in a
// buffer are defined behaviour.
#pragma once

#include <cstdint>
#include <cstring>

#include "ef_byteorder.h"

namespace vxlan_ef::wire {

constexpr uint16_t kEthTypeIpv4 = 0x0800;
constexpr uint16_t kEthTypeArp = 0x0806;
constexpr uint16_t kEthTypeVlan = 0x8100;
constexpr uint16_t kEthTypeIpv6 = 0x86DD;
constexpr uint8_t kIpProtoUdp = 17;
constexpr uint8_t kIpProtoIcmpv6 = 58;
constexpr uint8_t kVxlanFlagI = 0x08;

struct EthHdr {
    uint8_t dst[6];
    uint8_t src[6];
    uint8_t type[2];
};
static_assert(sizeof(EthHdr) == 14);

struct VlanTag {
    uint8_t tpid[2];
    uint8_t tci[2];
};
static_assert(sizeof(VlanTag) == 4);

struct Ipv4Hdr {
    uint8_t ver_ihl;
    uint8_t tos;
    uint8_t total_len[2];
    uint8_t id[2];
    uint8_t frag[2];
    uint8_t ttl;
    uint8_t proto;
    uint8_t csum[2];
    uint8_t src[4];
    uint8_t dst[4];
};
static_assert(sizeof(Ipv4Hdr) == 20);

struct Ipv6Hdr {
    uint8_t ver_tc_flow[4];
    uint8_t payload_len[2];
    uint8_t next_hdr;
    uint8_t hop_limit;
    uint8_t src[16];
    uint8_t dst[16];
};
static_assert(sizeof(Ipv6Hdr) == 40);

struct UdpHdr {
    uint8_t sport[2];
    uint8_t dport[2];
    uint8_t len[2];
    uint8_t csum[2];
};
static_assert(sizeof(UdpHdr) == 8);

struct VxlanHdr {
    uint8_t flags;
    uint8_t reserved1[3];
    uint8_t vni[3];
    uint8_t reserved2;
};
static_assert(sizeof(VxlanHdr) == 8);

// Host (little-endian) order, for the fields the module deliberately writes
// unswapped.
inline void put_host16(uint8_t *p, uint16_t v) { std::memcpy(p, &v, sizeof v); }

}  // namespace vxlan_ef::wire
