// The virtio-net header a packet socket with PACKET_VNET_HDR puts before
// every frame it reads and expects before every frame it sends: the offload
// a frame carries (checksum left to complete, TCP segmentation). Declared
// here because the kernel's <linux/virtio_net.h> does not compile as C++;
// the fields are in the host's byte order.
#pragma once

#include <cstdint>

namespace efhost {

struct VnetHeader {
    uint8_t flags = 0;
    uint8_t gso_type = 0;
    uint16_t hdr_len = 0;      // Ethernet, IP and TCP headers of a super-frame
    uint16_t gso_size = 0;     // payload bytes of each segment
    uint16_t csum_start = 0;   // where the checksum's sum starts
    uint16_t csum_offset = 0;  // where the checksum goes, from csum_start
};
static_assert(sizeof(VnetHeader) == 10, "the kernel's virtio_net_hdr is 10 bytes");

constexpr uint8_t kVnetNeedsChecksum = 1;
constexpr uint8_t kVnetGsoNone = 0;
constexpr uint8_t kVnetGsoTcpv4 = 1;
constexpr uint8_t kVnetGsoTcpv6 = 4;
constexpr uint8_t kVnetGsoEcn = 0x80;

}  // namespace efhost
