// The segment every benchmark runs on: the module started on the
// deterministic reference platform with its packet pipeline, and configured
// through real control messages.
//
//   VNI 100, VLAN 10                      remote VTEPs (local 192.0.2.1)
//   access ports eth11, eth12 (VLAN 10)   tunnel1 ifx 101 -> 10.0.0.1
//   uplink port eth20 (VXLAN arrives)     tunnel2 ifx 102 -> 10.0.0.2
//                                         tunnel3 ifx 103 -> 10.0.0.3
//                                         tunnel6 ifx 106 2001:db8::1 -> 2001:db8::2
//   MACs: kRemoteMac4 behind tunnel1, kRemoteMac6 behind tunnel6,
//         kLocalMac on eth11
#pragma once

#include <string>

#include "bench_frames.h"
#include "bench_messages.h"
#include "efmp.h"

namespace vxbench {

constexpr uint32_t kVni = 100;
constexpr uint16_t kVlan = 10;
constexpr uint32_t kAccessPort = 11;
constexpr uint32_t kOtherPort = 12;
constexpr uint32_t kUplinkPort = 20;
constexpr uint32_t kTunnel1 = 101;
constexpr uint32_t kTunnel2 = 102;
constexpr uint32_t kTunnel3 = 103;
constexpr uint32_t kTunnel6 = 106;

// Buffers are counted under the module's own reason, so that what the module
// frees balances what the benchmark allocates.
constexpr int kBuffReason = EFMP_REASON_SW_USER;

constexpr Mac kRemoteMac4{0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
constexpr Mac kRemoteMac6{0x00, 0x11, 0x22, 0x33, 0x44, 0x06};
constexpr Mac kLocalMac{0x00, 0x11, 0x22, 0x33, 0x44, 0x0B};
constexpr Mac kBroadcastMac{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr Mac kUplinkMac{0x02, 0xAA, 0x00, 0x00, 0x00, 0x20};
constexpr Mac kNextHopMac{0x02, 0xBB, 0x00, 0x00, 0x00, 0x01};

constexpr const char *kLocalVtep4 = "192.0.2.1";
constexpr const char *kRemoteVtep1 = "10.0.0.1";
constexpr const char *kRemoteVtep6 = "2001:db8::2";

// Starts the module and configures the segment of the drawing. Returns an
// empty string, or what went wrong.
std::string start_segment();

// Stops the module and puts the platform back to its initial state; what is
// still queued for the L3 engine is freed first.
void stop_segment();

// Delivers one message on the control channel and runs the module's task
// once; false when the channel refused it.
bool deliver(const Bytes &msg);

// The control messages of the segment, in delivery order.
std::vector<Bytes> segment_config();

}  // namespace vxbench
