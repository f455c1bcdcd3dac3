// The text of efhost's counters; see counters.h.
#include "counters.h"

#include <cstdio>

#include "efrt_services.h"
#include "module_counters.h"
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

std::string flow_text(const vxlan_ef_flow_counts_t &c)
{
    return format("decapsulated %llu frames %llu bytes, encapsulated %llu frames %llu bytes, "
                  "flood copies %llu frames %llu bytes",
                  ull{c.rx_frames}, ull{c.rx_bytes}, ull{c.tx_frames}, ull{c.tx_bytes}, ull{c.flood_frames},
                  ull{c.flood_bytes});
}

// The drops line names the reasons that counted something, in catalogue
// order; each VNI and tunnel the module counted gets a line of its own.
void module_lines(const ModuleFigures &m, std::vector<std::string> &lines)
{
    if (!m.present)
        return;
    uint64_t total = 0;
    std::string reasons;
    for (const DropFigure &d : m.drops) {
        total += d.count;
        if (d.count != 0)
            reasons += (reasons.empty() ? "" : ", ") + std::string(d.name) + " " + std::to_string(d.count);
    }
    lines.push_back("module drops: " + std::to_string(total) + (reasons.empty() ? "" : " (" + reasons + ")") +
                    ", untracked frames " + std::to_string(m.untracked));
    for (const FlowFigure &v : m.vnis)
        lines.push_back("vni " + std::to_string(v.key) + ": " + flow_text(v.counts));
    for (const FlowFigure &t : m.tunnels)
        lines.push_back("tunnel " + std::to_string(t.key) + " " + (t.name.empty() ? "?" : t.name) + ": " +
                        flow_text(t.counts));
}

}  // namespace

std::string port_name(const Config &cfg, uint32_t ifindex)
{
    for (const InterfaceConfig &ic : cfg.interfaces)
        if (ic.index == ifindex)
            return ic.name;
    return "?";
}

uint64_t handoff_queue_lost(const L3Stats &s)
{
    const uint64_t freed = efrt::buff_encapsulated_freed();
    return freed > s.taken ? freed - s.taken : 0;
}

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
        const uint64_t handoff_lost = handoff_queue_lost(s);
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
    module_lines(module_figures(from.module), lines);
    return lines;
}

}  // namespace efhost
