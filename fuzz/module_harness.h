// What the module's fuzz targets share: the module started on a fresh
// deterministic platform for every input and stopped after it, control
// messages delivered through the channel and drained by the module's task,
// the table consistency check after each step, and the segment that the
// packet targets run frames through.
//
// Every check that fails prints what it found and aborts, so that libFuzzer
// keeps the input as a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "efmp.h"

namespace fuzz {

using Bytes = std::vector<uint8_t>;

// Prints the text and aborts the run.
[[noreturn]] void fail(const std::string &what);

// Capabilities and bridge services an input starts the module with.
struct StartOptions {
    bool base = true;            // CAP_VXLAN_BASE: the packet plane exists
    bool soft = false;           // CAP_FWDMODE_SOFT
    bool l2vni_mapping = false;  // CAP_VXLAN_L2VNIMAPPING
    bool outside_center = false; // CAP_VXLAN_OUTSIDECENTER
    bool bridge_services = true; // the bridge module's services published
};

// A fresh platform and module globals, then the module started. Process-wide
// set-up (a scratch TMPDIR for the module's files) happens on the first call.
void start(const StartOptions &options);

// Sweeps every table with an empty resynchronisation (the sub-interface
// table has no exit step of its own), checks that nothing was left, stops
// the module, checks that it gave back every block and buffer it took, and
// resets the platform.
void stop();

// Hands one payload to the module's channel receive callback, as the
// channel thread would.
void deliver(const Bytes &payload);
// One run of the module's task: drains what the channel queued.
void run_task();
// deliver() then run_task() for each message, then the table check.
void deliver_all(const std::vector<Bytes> &messages);

// The table consistency check; fails with the problems it finds.
void check_tables(const char *when);

// ---- the segment of the packet targets ----
//
//   VNI 100: VLAN 10, tunnels T1 T2 T6, sub-interfaces S1 S2, router 300
//   VNI 200: VLAN 20, tunnel T1, ARP and ND suppression
//   VNI 300: VLAN 30, mapped to VNI 100; VNI 9000: L3 VNI of VRF 5
//   ports P1 ifx 11 (VLANs 10, 20, PVID 10), P2 ifx 12 (VLANs 10, 30),
//         UP ifx 20 (the underlay uplink), PL ifx 14 (MLAG peer-link, VLAN 10)
//   sub-interfaces S1 ifx 201 on P1 svid 40, S2 ifx 202 on P2 svid 50 cvid 60
//   tunnels T1 ifx 101 192.0.2.1 -> 10.0.0.1 (route learning)
//           T2 ifx 102 192.0.2.1 -> 10.0.0.2 (outside centre)
//           T6 ifx 106 2001:db8::1 -> 2001:db8::2 (MAC learning)
//   router interface 300 (OverlayRouter), the device 4094 (L2 local)
namespace seg {
constexpr uint32_t kVni = 100, kVniSuppressed = 200, kVniMapped = 300, kL3Vni = 9000;
constexpr uint32_t kP1 = 11, kP2 = 12, kUplink = 20, kPeerLink = 14;
constexpr uint32_t kS1 = 201, kS2 = 202;
constexpr uint32_t kT1 = 101, kT2 = 102, kT6 = 106;
constexpr uint32_t kRouter = 300, kL2Local = 4094;
}  // namespace seg

// start(), the segment's interfaces, bridge VLANs and MACs, and its
// configuration delivered as one resynchronisation.
void start_segment(const StartOptions &options);

// Every interface of the segment, in a fixed order (fuzz inputs pick from it
// by index), and the control block of one of them.
const std::vector<uint32_t> &segment_interfaces();
lsm_intfcb_t *intf(uint32_t ifindex);

// Frees what the module handed to the L3 engine; every outer packet is
// checked first: its IP and UDP lengths must describe the buffer, and a
// VXLAN header with the I flag must follow.
void drain_l3_queue();

}  // namespace fuzz
