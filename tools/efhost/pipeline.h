// efhost's side of the platform's packet pipeline: frames received on its
// ports go through the platform's pipeline (efrt_pipeline.h), the underlay's
// own ARP and neighbour discovery go to the L3 engine, and frames the
// pipeline sends leave through efhost's ports, tagged as their port wants.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>

#include "config.h"
#include "efmp.h"
#include "l3_engine.h"
#include "port.h"

namespace efhost {

struct PipelineStats {
    uint64_t received = 0;
    uint64_t parser_drops = 0;  // dropped by a parser
    uint64_t no_vni = 0;        // not in any VXLAN segment: not ours to forward
    uint64_t forwarded = 0;     // sent on a local port by the pipeline itself
    uint64_t consumed = 0;      // taken by the module (tunnels, floods)
    uint64_t dropped = 0;       // forwarding said drop, or nowhere to send
    uint64_t routed = 0;        // handed to the switch engine: no overlay routing here
    uint64_t underlay = 0;      // ARP / ND for our own addresses
    uint64_t answered = 0;      // ARP / ND of a VNI answered from the suppression table
};

class Pipeline {
public:
    // ports: the port of each attached interface (not owned).
    Pipeline(const Config &cfg, std::map<uint32_t, Port *> ports, L3Engine *l3);

    // One received frame, on the receiving port's thread, to completion:
    // what the module encapsulated for it leaves on this thread too.
    void receive(uint32_t ifindex, const uint8_t *frame, size_t len);
    // Sends a buffer's frame on an interface's port, tagged with the
    // buffer's VLAN unless that is the port's own VLAN.
    void transmit(uint32_t ifindex, const efmp_buff_t *buff);
    // Hooks the pipeline into the platform's broadcast engine.
    void attach_to_platform();
    void detach_from_platform();
    PipelineStats stats() const;

private:
    struct PortInfo {
        Port *port = nullptr;
        uint16_t pvid = 0;
        bool has_addresses = false;
    };

    void handle(uint32_t ifindex, const uint8_t *frame, size_t len);
    void count(std::atomic<uint64_t> &counter) { counter.fetch_add(1, std::memory_order_relaxed); }

    std::map<uint32_t, PortInfo> ports_;
    L3Engine *l3_;
    uint32_t underlay_mtu_ = 0;
    struct Counters {
        std::atomic<uint64_t> received{0}, parser_drops{0}, no_vni{0}, forwarded{0}, consumed{0},
            dropped{0}, routed{0}, underlay{0}, answered{0};
    } counters_;
};

}  // namespace efhost
