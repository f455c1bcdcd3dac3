// The platform's packet pipeline, written once for every host (efhost, the
// benchmarks, the tests): a frame received on a port goes through the
// receiving interface's Ethernet parser, the tunnel's parser once it has been
// decapsulated, ARP and ND suppression, the VXLAN forwarding service, the
// destination interface's encapsulation hook and leaves through the port hook.
#pragma once

#include <cstddef>
#include <cstdint>

#include "efmp.h"

namespace efrt {

// Where one frame's way through the pipeline ended.
enum class PipeOutcome : uint8_t {
    ParserDrop,   // a receive parser dropped it
    NoVni,        // in no VXLAN segment (or no forwarding service): not ours
    Consumed,     // the module took it (encapsulated towards a tunnel)
    ForwardDrop,  // forwarding answered drop (floods leave the original so)
    Dropped,      // any other answer, or nowhere to send it
    Routed,       // handed to the switch engine: no overlay routing here
    Sent,         // sent on a port
    Answered,     // an ARP or ND request answered from the suppression table
};
constexpr size_t kPipeOutcomes = 8;

// The frame as the Ethernet layer hands it on: a new buffer (reason EFMP_REASON_SW_USER)
// holding a copy of the frame, received on ifindex, classified (L2 length,
// L3 start, packet type, up to two tags looked through) and given the tunnel
// MTU that suits its inner family. nullptr when the frame is shorter than an
// Ethernet header, the interface is unknown or no buffer is left.
efmp_buff_t *pipeline_frame(uint32_t ifindex, const uint8_t *frame, size_t len);

// The smallest MTU of the underlay the encapsulated packets leave on; 0 (the
// default) leaves the module's own default limit.
void pipeline_set_underlay_mtu(uint32_t mtu);

// The receive parsers: EF_Drop or EF_Normal. The buffer stays the caller's.
int pipeline_parse(efmp_buff_t *buff);

// The whole way, from the receive parsers to a port, with ARP and ND
// suppression (suppress.h) between the parsers and forwarding. Takes the
// buffer: it is freed here unless the module consumed it.
PipeOutcome pipeline_run(efmp_buff_t *buff);

// A buffer the forwarding decision left to the pipeline: through the
// destination interface's encapsulation hook to its port. Sent, Consumed or
// Dropped; the buffer stays the caller's unless Consumed.
PipeOutcome pipeline_deliver(efmp_buff_t *buff);

// Sends a buffer's frame through the port hook (efhost's ports) and records
// it for tests while recording is on. vlan_flood tells a VLAN member port
// from a destination interface.
void port_send(uint32_t ifindex, const efmp_buff_t *buff, bool vlan_flood);

}  // namespace efrt
