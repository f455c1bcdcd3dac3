// Frames the benchmarks push through the packet paths: access frames carrying
// an IPv4 packet, and the same frames inside VXLAN over UDP over IPv4.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ef_wire.h"

namespace vxbench {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, EF_ETH_ALEN>;

// An Ethernet frame of frame_len bytes (at least 42) holding an IPv4/UDP
// packet with DF clear and a valid header checksum.
Bytes ipv4_frame(const Mac &dst, const Mac &src, size_t frame_len);

// What the outer headers of a VXLAN frame carry.
struct OuterHeaders {
    Mac dst_mac;
    Mac src_mac;
    const char *src_ip;
    const char *dst_ip;
    uint32_t vni;
    uint16_t dport = EF_VXLAN_PORT;
};

// inner in VXLAN in UDP in IPv4 (without options) in Ethernet.
Bytes vxlan4_frame(const OuterHeaders &o, const Bytes &inner);

}  // namespace vxbench
