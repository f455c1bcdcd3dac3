// Turning what a Linux device hands to a packet socket into frames as they
// would be on a wire: stripped 802.1Q tags put back, checksums left to the
// device completed, and TCP super-frames (GSO/GRO) cut into segments that fit
// the device MTU. Pure functions on byte vectors; the AF_PACKET port applies
// them to what its receive ring reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace efhost {

using Frame = std::vector<uint8_t>;

// What the kernel reported about a received frame beside its bytes.
struct RxOffloadInfo {
    bool vlan_stripped = false;  // the outer tag was taken out of the bytes
    uint16_t vlan_tpid = 0x8100;
    uint16_t vlan_tci = 0;
    bool checksum_pending = false;  // a local sender left the L4 checksum to offload
};

// Puts a tag (tpid, tci) back right after the source MAC. A frame too short
// to hold two MACs is left as it is.
void insert_vlan_tag(Frame &frame, uint16_t tpid, uint16_t tci);

// Length of the Ethernet header with every VLAN tag it carries, or 0 when
// the frame is too short to hold it.
size_t ethernet_header_length(const uint8_t *frame, size_t len);

// True when the frame carries more than mtu bytes after its Ethernet header
// and tags.
bool exceeds_mtu(const uint8_t *frame, size_t len, uint32_t mtu);

// Writes the TCP, UDP or ICMPv6 checksum of an IPv4 or IPv6 packet (tagged
// or not) computed over its pseudo-header and L4 bytes. False, with the frame
// unchanged, for anything else (other protocols, fragments, truncated
// headers).
bool complete_l4_checksum(Frame &frame);

// Cuts a TCP super-frame into frames of at most mtu bytes of IP, each with
// its own sequence number, length, IPv4 id and checksums; FIN and PSH stay
// on the last segment only and CWR on the first only. Empty when the frame
// is not unfragmented TCP over IPv4 or IPv6 or when the MTU leaves no room
// for payload.
std::vector<Frame> segment_tcp(const Frame &frame, uint32_t mtu);

// For a VXLAN packet (UDP port 4789) whose inner checksum a kernel VTEP on
// this machine left to offload: completes the inner frame's L4 checksum and
// refreshes the outer UDP checksum when one is used. False, unchanged, for
// anything else.
bool complete_vxlan_inner_checksum(Frame &frame);

// Cuts a VXLAN packet carrying a TCP super-frame (UDP tunnel segmentation
// left to offload) into VXLAN packets of at most mtu bytes of outer IP, each
// inner segment as segment_tcp makes it and each outer header fixed (lengths,
// IPv4 id and checksum, UDP length and checksum). Empty for anything else.
std::vector<Frame> segment_vxlan_tcp(const Frame &frame, uint32_t mtu);

// The whole receive fix-up: tag reinsertion, then segmentation of an
// oversize TCP frame (plain or inside VXLAN) or checksum completion (of a
// VXLAN packet's inner frame, else of the frame's own L4). frames is empty and dropped
// true when the frame is oversize and cannot be segmented.
struct FixupResult {
    std::vector<Frame> frames;
    bool dropped = false;
};
FixupResult fix_up_received_frame(const uint8_t *frame, size_t len, const RxOffloadInfo &info,
                                  uint32_t mtu);

}  // namespace efhost
