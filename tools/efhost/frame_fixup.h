// Turning what a Linux device hands to a packet socket into frames as they
// would be on a wire: stripped 802.1Q tags put back, checksums left to the
// device completed, and TCP super-frames (GSO/GRO) cut into segments that fit
// the device MTU. Pure functions on byte vectors; the AF_PACKET port applies
// them to what its receive ring reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ef_wire.h"
#include "ip_layout.h"

namespace efhost {

using Frame = std::vector<uint8_t>;

// What the kernel reported about a received frame beside its bytes.
struct RxOffloadInfo {
    bool vlan_stripped = false;  // the outer tag was taken out of the bytes
    uint16_t vlan_tpid = EF_ETHERTYPE_VLAN;
    uint16_t vlan_tci = 0;
    bool checksum_pending = false;  // a local sender left the L4 checksum to offload
    // Where that checksum is, when the kernel said (its virtio-net header):
    // summed from checksum_start (0: not said), written checksum_offset
    // bytes further, both counted in the frame as read (tag not put back).
    uint16_t checksum_start = 0;
    uint16_t checksum_offset = 0;
    // The sender's segment size of a TCP super-frame (0: not a super-frame,
    // or the kernel did not say).
    uint16_t gso_size = 0;
};

// Puts a tag (tpid, tci) back right after the source MAC. A frame too short
// to hold two MACs is left as it is.
void insert_vlan_tag(Frame &frame, uint16_t tpid, uint16_t tci);

// True when the frame carries more than mtu bytes after its Ethernet header
// and tags.
bool exceeds_mtu(const uint8_t *frame, size_t len, uint32_t mtu);

// Writes the TCP, UDP or ICMPv6 checksum of an IPv4 or IPv6 packet (tagged
// or not) computed over its pseudo-header and L4 bytes. False, with the frame
// unchanged, for anything else (other protocols, fragments, truncated
// headers).
bool complete_l4_checksum(Frame &frame);

// Completes a checksum the sender left as the pseudo-header's sum: the sum
// of the frame from start is written at start + offset. False, unchanged,
// when the frame does not hold the field.
bool complete_checksum_at(Frame &frame, size_t start, size_t offset);

// Cuts a TCP super-frame into frames of at most mtu bytes of IP and at most
// gso_size bytes of payload (when not 0), each with its own sequence number,
// length, IPv4 id and checksums; FIN and PSH stay on the last segment only
// and CWR on the first only. Empty when the frame is not unfragmented TCP
// over IPv4 or IPv6 or when the MTU leaves no room for payload.
std::vector<Frame> segment_tcp(const Frame &frame, uint32_t mtu, uint16_t gso_size = 0);

// For a VXLAN packet (to the standard UDP port) whose inner checksum a kernel VTEP on
// this machine left to offload: completes the inner frame's L4 checksum and
// refreshes the outer UDP checksum when one is used. False, unchanged, for
// anything else.
bool complete_vxlan_inner_checksum(Frame &frame);

// Cuts a VXLAN packet carrying a TCP super-frame (UDP tunnel segmentation
// left to offload) into VXLAN packets of at most mtu bytes of outer IP, each
// inner segment as segment_tcp makes it and each outer header fixed (lengths,
// IPv4 id and checksum, UDP length and checksum); gso_size (when not 0)
// bounds the inner segments' payload. Empty for anything else.
std::vector<Frame> segment_vxlan_tcp(const Frame &frame, uint32_t mtu, uint16_t gso_size = 0);

// The whole receive fix-up: tag reinsertion, then segmentation of a TCP
// super-frame (plain or inside VXLAN; one the kernel named, or any frame
// above the MTU) or completion of a pending checksum (where the kernel said,
// else of a VXLAN packet's inner frame, else of the frame's own L4). frames
// is empty and dropped true when the frame is oversize and cannot be
// segmented.
struct FixupResult {
    std::vector<Frame> frames;
    bool dropped = false;
};
FixupResult fix_up_received_frame(const uint8_t *frame, size_t len, const RxOffloadInfo &info,
                                  uint32_t mtu);

}  // namespace efhost
