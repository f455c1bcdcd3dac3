// The JSON of efhost's counters; see counters_json.h.
#include "counters_json.h"

#include "efrt_services.h"
#include "module_counters.h"
#include "suppress.h"

namespace efhost {

namespace {

using Json = nlohmann::ordered_json;

Json flow_json(const char *key_name, const FlowFigure &f)
{
    Json j;
    j[key_name] = f.key;
    if (std::string(key_name) == "ifindex")
        j["name"] = f.name;
    const vxlan_ef_flow_counts_t &c = f.counts;
    j["decapsulated_frames"] = c.rx_frames;
    j["decapsulated_bytes"] = c.rx_bytes;
    j["encapsulated_frames"] = c.tx_frames;
    j["encapsulated_bytes"] = c.tx_bytes;
    j["flood_frames"] = c.flood_frames;
    j["flood_bytes"] = c.flood_bytes;
    return j;
}

Json module_json(const ModuleFigures &m)
{
    Json j;
    Json drops = Json::object();
    for (const DropFigure &d : m.drops)
        drops[d.name] = d.count;
    j["drops"] = drops;
    j["untracked"] = m.untracked;
    j["vnis"] = Json::array();
    for (const FlowFigure &v : m.vnis)
        j["vnis"].push_back(flow_json("vni", v));
    j["tunnels"] = Json::array();
    for (const FlowFigure &t : m.tunnels)
        j["tunnels"].push_back(flow_json("ifindex", t));
    return j;
}

}  // namespace

Json counters_json(const CounterSources &from)
{
    Json j = Json::object();
    if (from.pipeline != nullptr) {
        const PipelineStats s = from.pipeline->stats();
        j["pipeline"] = Json{{"received", s.received},   {"forwarded", s.forwarded}, {"consumed", s.consumed},
                             {"parser_drops", s.parser_drops}, {"no_vni", s.no_vni},  {"dropped", s.dropped},
                             {"routed", s.routed},       {"underlay", s.underlay},   {"answered", s.answered}};
    }
    if (from.ports != nullptr && from.cfg != nullptr) {
        j["ports"] = Json::array();
        for (const auto &[ifx, port] : *from.ports) {
            const PortCounters c = port->counters();
            j["ports"].push_back(Json{{"ifindex", ifx},
                                      {"name", port_name(*from.cfg, ifx)},
                                      {"in", c.rx},
                                      {"out", c.tx},
                                      {"lost_in", c.rx_dropped},
                                      {"lost_out", c.tx_dropped}});
        }
    }
    if (from.l3 != nullptr) {
        const L3Stats s = from.l3->stats();
        const uint64_t handoff_lost = handoff_queue_lost(s);
        j["l3"] = Json{{"sent", s.sent},
                       {"no_route", s.no_route},
                       {"unresolved", s.unresolved},
                       {"replies", s.arp_replies},
                       {"waiting", s.queued},
                       {"waiting_queue_full", s.queue_full},
                       {"handoff_queue_full", handoff_lost}};
        j["neighbours"] = Json{{"entries", s.neighbours}, {"refused", s.neighbours_refused}};
    }
    j["mac_table"] = Json{{"entries", efrt::bridge_mac_count()}, {"refused", efrt::bridge_mac_refused()}};
    const efrt::SuppressCounters n = efrt::suppress_counters();
    j["suppression"] = Json{{"arp_answered", n.arp_answered},   {"arp_handed_on", n.arp_handed_on},
                            {"nd_answered", n.nd_answered},     {"nd_handed_on", n.nd_handed_on},
                            {"local_learned", n.local_learned}, {"local_refused", n.local_refused}};
    j["buffers_in_use"] = efrt::buff_live_total();
    const ModuleFigures m = module_figures(from.module);
    if (m.present)
        j["module"] = module_json(m);
    return j;
}

}  // namespace efhost
