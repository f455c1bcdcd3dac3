// efhost's L3 engine for the underlay: routes outer IPv4/IPv6 packets that
// the module handed off, resolves next-hop MACs with ARP and neighbour
// discovery (or static entries), answers ARP requests and neighbour
// solicitations for the ports' own addresses, and sends the frames.
#pragma once

#include <cstddef>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "port.h"

namespace efhost {

// One port as the L3 engine sees it.
struct L3Port {
    uint32_t ifindex = 0;
    Port *port = nullptr;                 // not owned
    std::array<uint8_t, 6> mac{};
    uint32_t mtu = 1500;
    std::vector<IpPrefix> addresses;      // own addresses, with their subnets
};

struct L3Stats {
    uint64_t sent = 0;          // IP packets sent on a port
    uint64_t no_route = 0;      // dropped: no route
    uint64_t unresolved = 0;    // dropped: next hop never resolved
    uint64_t arp_replies = 0;   // ARP replies and neighbour advertisements sent
    uint64_t queued = 0;        // packets waiting for resolution now
    uint64_t queue_full = 0;    // dropped: too many already waiting for one next hop
    uint64_t taken = 0;         // encapsulated packets taken off the hand-off queue
    uint64_t neighbours = 0;    // neighbour entries held
    uint64_t neighbours_refused = 0;  // new neighbours not learnt: the table was full
};

class L3Engine {
public:
    L3Engine(std::vector<L3Port> ports, std::vector<RouteConfig> routes,
             std::vector<NeighbourConfig> neighbours);
    ~L3Engine();
    L3Engine(const L3Engine &) = delete;
    L3Engine &operator=(const L3Engine &) = delete;

    // Routes one outer IP packet (no link header) and sends it with the
    // next hop's MAC, asking for it first when unknown (packets wait, a few
    // per next hop, and are dropped when no answer comes within 3 s).
    void send_ip(const uint8_t *packet, size_t len);
    // Offers a frame received on a port: ARP and neighbour discovery for our
    // addresses are answered or learnt from and consumed (true); anything
    // else is left to the caller (false).
    bool handle_rx(uint32_t ifindex, const uint8_t *frame, size_t len);
    // Starts the worker that drains the platform's per-CPU hand-off queue
    // (woken through efrt::l3_set_wake) and retries resolutions; stop() ends
    // it after sending what is queued.
    void start();
    void stop();
    // One round of the worker's work on the calling thread: sends and frees
    // every buffer of the hand-off queue, then retries or gives up the
    // resolutions that are due.
    void poll();
    // Sends what the module queued on the calling thread's own CPU slot. A
    // packet worker calls it after each frame, outside the module's locks,
    // so that what it encapsulated leaves on the thread that received it
    // (into its open transmit batch): no other thread is woken for it and
    // no queue between threads can fill up.
    void send_own_queue();
    // True when nothing waits in the hand-off queue or for resolution.
    bool idle() const;
    L3Stats stats() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace efhost
