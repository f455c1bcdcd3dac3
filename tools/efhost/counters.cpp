// The text of efhost's counters; see counters.h.
#include "counters.h"

#include <cstdio>

#include "efrt_services.h"
#include "suppress.h"

namespace efhost {

namespace {

using ull = unsigned long long;

std::string format(const char *fmt, auto... args)
{
    char line[256];
    std::snprintf(line, sizeof line, fmt, args...);
    return line;
}

std::string port_name(const Config &cfg, uint32_t ifindex)
{
    for (const InterfaceConfig &ic : cfg.interfaces)
        if (ic.index == ifindex)
            return ic.name;
    return "?";
}

}  // namespace

std::vector<std::string> counter_lines(const CounterSources &from)
{
    std::vector<std::string> lines;
    if (from.pipeline != nullptr) {
        const PipelineStats s = from.pipeline->stats();
        lines.push_back(format("pipeline: received %llu, sent on ports %llu, taken by the module %llu, "
                               "parser drops %llu, without VNI %llu, dropped %llu, routed %llu, "
                               "underlay %llu, answered %llu",
                               ull{s.received}, ull{s.forwarded}, ull{s.consumed}, ull{s.parser_drops},
                               ull{s.no_vni}, ull{s.dropped}, ull{s.routed}, ull{s.underlay},
                               ull{s.answered}));
    }
    if (from.ports != nullptr && from.cfg != nullptr) {
        for (const auto &[ifx, port] : *from.ports) {
            const PortCounters c = port->counters();
            lines.push_back(format("port %u %s: in %llu, out %llu, lost in %llu, lost out %llu", ifx,
                                   port_name(*from.cfg, ifx).c_str(), ull{c.rx}, ull{c.tx},
                                   ull{c.rx_dropped}, ull{c.tx_dropped}));
        }
    }
    if (from.l3 != nullptr) {
        const L3Stats s = from.l3->stats();
        // Every encapsulated packet is freed once: by the L3 engine after it
        // took it, or by the module when the hand-off queue had no room.
        const uint64_t freed = efrt::buff_encapsulated_freed();
        const uint64_t handoff_lost = freed > s.taken ? freed - s.taken : 0;
        lines.push_back(format("l3: sent %llu, no route %llu, unresolved %llu, replies %llu, "
                               "waiting %llu, waiting queue full %llu, hand-off queue full %llu",
                               ull{s.sent}, ull{s.no_route}, ull{s.unresolved}, ull{s.arp_replies},
                               ull{s.queued}, ull{s.queue_full}, ull{handoff_lost}));
        lines.push_back(format("neighbours: %llu entries, %llu refused", ull{s.neighbours},
                               ull{s.neighbours_refused}));
    }
    lines.push_back(format("mac table: %llu entries, %llu refused", ull{efrt::bridge_mac_count()},
                           ull{efrt::bridge_mac_refused()}));
    const efrt::SuppressCounters n = efrt::suppress_counters();
    lines.push_back(format("suppression: arp answered %llu, arp handed on %llu, nd answered %llu, "
                           "nd handed on %llu, local bindings learned %llu, refused %llu",
                           ull{n.arp_answered}, ull{n.arp_handed_on}, ull{n.nd_answered},
                           ull{n.nd_handed_on}, ull{n.local_learned}, ull{n.local_refused}));
    lines.push_back(format("buffers: %ld in use", efrt::buff_live_total()));
    return lines;
}

}  // namespace efhost
