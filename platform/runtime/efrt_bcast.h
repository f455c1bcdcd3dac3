// Test and host controls of the reference platform's broadcast engine: what
// each efmp_bcast_proc call was asked, what every node's callback answered,
// what each port sent, and failure injection for node allocation and for the
// engine itself.
#pragma once

#include <cstdint>
#include <vector>

#include "efmp.h"

namespace efrt {

// One destination node as the engine received it.
struct BcastNodeInfo {
    uint32_t kind;
    uint16_t vid;
    uint32_t ifindex;
    uint8_t family;
    uint8_t sip[16];
    uint8_t dip[16];
    uintptr_t adj_words[4];
};

// One efmp_bcast_proc call: the buffer's metadata and frame at the time of
// the call, and its node list in list order (empty for a single buffer
// flooded in its VLAN).
struct BcastRequest {
    const efmp_buff_t *buff;
    uint32_t flags_arg;
    bool refused;  // answered 1 by injection
    uint64_t flags;
    uint64_t priv_flags;
    uint32_t src_ifx;  // source interface's index, 0 without one
    uint32_t vni;      // low 24 bits of the VNI word
    uint8_t vni_flags; // first byte of the VNI word
    uint16_t vid;      // VLAN id of the VLAN field
    std::vector<uint8_t> frame;
    std::vector<BcastNodeInfo> nodes;
};

// What the broadcast-packet callback answered for one node.
struct BcastNodeResult {
    uint32_t kind;
    uint16_t vid;
    uint32_t ifindex;
    int result;
};

// One frame sent on a port (a VLAN member, or a sub-interface's main port
// after its encapsulation hook).
struct PortSend {
    uint32_t ifindex;
    uint16_t vid;      // VLAN id of the VLAN field when sent
    uint64_t flags;
    bool vlan_flood;   // a VLAN member port, not a node's destination interface
    std::vector<uint8_t> frame;
};

std::vector<BcastRequest> bcast_requests();
std::vector<BcastRequest> bcast_take_requests();
std::vector<BcastNodeResult> bcast_node_results();
std::vector<PortSend> port_sends();
std::vector<PortSend> port_take_sends();
// Where the engine's port sends go besides the record (efhost's ports);
// nullptr for none. Called on the sending thread.
using PortTx = void (*)(uint32_t ifindex, const efmp_buff_t *buff, void *ctx);
void set_port_tx(PortTx fn, void *ctx);
// Whether requests, node results and sends are recorded (on after reset; a
// long-running host turns it off).
void bcast_set_recording(bool on);
// The next n efmp_bcast_proc calls answer 1 and take nothing.
void bcast_fail_proc(unsigned n);
// The next n efmp_mcast_alloc_nodes calls give no node.
void mcast_fail_alloc(unsigned n);
// Nodes allocated and not yet freed.
long mcast_nodes_live();
// Forgets every record and injection. Live node counts stay, as buffer
// counts do, so that a leak shows across tests.
void bcast_reset();

}  // namespace efrt
