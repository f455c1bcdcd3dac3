// The Prometheus text of efhost's counters; see metrics_text.h. Names follow
// Prometheus' conventions: efhost_ for what efhost counts, vxlan_ef_ for what
// the module counts, a unit before _total, labels for what a sample is of.
#include "metrics_text.h"

#include <map>
#include <vector>

namespace efhost {

namespace {

using Json = nlohmann::ordered_json;

// One metric family: its samples as label text and value.
struct Family {
    std::string help;
    std::string type;  // counter or gauge
    std::vector<std::pair<std::string, uint64_t>> samples;
};

// Families by name, in the order they were first added.
class Exposition {
public:
    void add(const std::string &name, const std::string &type, const std::string &help, const std::string &labels,
             uint64_t value)
    {
        auto [it, added] = families_.try_emplace(name, Family{help, type, {}});
        if (added)
            order_.push_back(name);
        it->second.samples.emplace_back(labels, value);
    }

    std::string text() const
    {
        std::string out;
        for (const std::string &name : order_) {
            const Family &f = families_.at(name);
            out += "# HELP " + name + " " + f.help + "\n";
            out += "# TYPE " + name + " " + f.type + "\n";
            for (const auto &[labels, value] : f.samples)
                out += name + (labels.empty() ? "" : "{" + labels + "}") + " " + std::to_string(value) + "\n";
        }
        return out;
    }

private:
    std::map<std::string, Family> families_;
    std::vector<std::string> order_;
};

std::string escaped(const std::string &value)
{
    std::string out;
    for (char c : value) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out;
}

std::string label(const std::string &name, const std::string &value) { return name + "=\"" + escaped(value) + "\""; }

uint64_t num(const Json &j, const char *key) { return j.at(key).get<uint64_t>(); }

// A figure of a group and the help of its metric.
struct Row {
    const char *key;
    const char *help;
};

// One counter family per row, named prefix + key + suffix, with the
// figures of j under labels.
template <size_t N>
void counters(Exposition &e, const std::string &prefix, const std::string &suffix, const Row (&rows)[N], const Json &j,
              const std::string &labels = "")
{
    for (const Row &r : rows)
        e.add(prefix + r.key + suffix, "counter", r.help, labels, num(j, r.key));
}

void pipeline(const Json &p, Exposition &e)
{
    const Row rows[] = {
        {"received", "Frames the pipeline received from the ports"},
        {"forwarded", "Frames the pipeline sent on a local port itself"},
        {"consumed", "Frames the module took (tunnels, floods)"},
        {"parser_drops", "Frames a parser dropped"},
        {"no_vni", "Frames in no VXLAN segment"},
        {"dropped", "Frames the forwarding decision dropped or could send nowhere"},
        {"routed", "Frames handed to the switch engine"},
        {"underlay", "ARP and ND frames for efhost's own addresses"},
        {"answered", "ARP and ND requests of a VNI answered from the suppression table"},
    };
    counters(e, "efhost_pipeline_", "_frames_total", rows, p);
}

void ports(const Json &list, Exposition &e)
{
    const Row rows[] = {
        {"in", "Frames received on the port"},
        {"out", "Frames sent on the port"},
        {"lost_in", "Frames lost on receive (no room, malformed offload)"},
        {"lost_out", "Frames the device refused or had no room for"},
    };
    for (const Json &port : list) {
        const std::string labels = label("port", port.at("name").get<std::string>()) + "," +
                                   label("ifindex", std::to_string(num(port, "ifindex")));
        counters(e, "efhost_port_", "_frames_total", rows, port, labels);
    }
}

void l3(const Json &l3, const Json &neighbours, Exposition &e)
{
    const Row rows[] = {
        {"sent", "IP packets the L3 engine sent on a port"},
        {"no_route", "Packets dropped for want of a route"},
        {"unresolved", "Packets dropped because their next hop never resolved"},
        {"replies", "ARP replies and neighbour advertisements sent"},
        {"waiting_queue_full", "Packets dropped because too many waited for one next hop"},
        {"handoff_queue_full", "Encapsulated packets dropped because the hand-off queue was full"},
    };
    counters(e, "efhost_l3_", "_packets_total", rows, l3);
    e.add("efhost_l3_waiting_packets", "gauge", "Packets waiting for their next hop to resolve", "",
          num(l3, "waiting"));
    e.add("efhost_neighbours", "gauge", "Neighbour entries held", "", num(neighbours, "entries"));
    e.add("efhost_neighbours_refused_total", "counter", "Neighbours not learnt because the table was full", "",
          num(neighbours, "refused"));
}

void tables(const Json &j, Exposition &e)
{
    e.add("efhost_mac_table_entries", "gauge", "Entries of the bridge MAC table", "",
          num(j.at("mac_table"), "entries"));
    e.add("efhost_mac_table_refused_total", "counter", "MACs not learnt because the table was full", "",
          num(j.at("mac_table"), "refused"));
    const Row rows[] = {
        {"arp_answered", "ARP requests answered from the suppression table"},
        {"arp_handed_on", "ARP requests left to the module"},
        {"nd_answered", "Neighbour solicitations answered from the suppression table"},
        {"nd_handed_on", "Neighbour solicitations left to the module"},
        {"local_learned", "Local bindings created or moved"},
        {"local_refused", "Local bindings not learnt"},
    };
    counters(e, "efhost_suppression_", "_total", rows, j.at("suppression"));
    e.add("efhost_buffers_in_use", "gauge", "Packet buffers in use", "", num(j, "buffers_in_use"));
}

void flows(const Json &list, const std::string &prefix, const std::string &what, bool tunnel, Exposition &e)
{
    const std::pair<const char *, const char *> rows[] = {
        {"decapsulated_frames", "rx_frames"}, {"decapsulated_bytes", "rx_bytes"},
        {"encapsulated_frames", "tx_frames"}, {"encapsulated_bytes", "tx_bytes"},
        {"flood_frames", "flood_frames"},     {"flood_bytes", "flood_bytes"},
    };
    const std::map<std::string, std::string> help = {
        {"rx_frames", "Frames decapsulated, per " + what},
        {"rx_bytes", "Inner bytes decapsulated, per " + what},
        {"tx_frames", "Frames encapsulated (flood copies included), per " + what},
        {"tx_bytes", "Inner bytes encapsulated (flood copies included), per " + what},
        {"flood_frames", "Flood copies encapsulated, per " + what},
        {"flood_bytes", "Inner bytes of flood copies encapsulated, per " + what},
    };
    for (const Json &row : list) {
        const std::string labels =
            tunnel ? label("tunnel", row.at("name").get<std::string>()) + "," +
                         label("ifindex", std::to_string(num(row, "ifindex")))
                   : label("vni", std::to_string(num(row, "vni")));
        for (const auto &[key, metric] : rows)
            e.add(prefix + metric + "_total", "counter", help.at(metric), labels, num(row, key));
    }
}

void module(const Json &m, Exposition &e)
{
    for (const auto &[reason, count] : m.at("drops").items())
        e.add("vxlan_ef_drops_total", "counter", "Frames the VXLAN module dropped, by reason",
              label("reason", reason), count.get<uint64_t>());
    e.add("vxlan_ef_untracked_frames_total", "counter",
          "Frames of a (VNI, tunnel) pair beyond those the module counts", "", num(m, "untracked"));
    flows(m.at("vnis"), "vxlan_ef_vni_", "VNI", false, e);
    flows(m.at("tunnels"), "vxlan_ef_tunnel_", "tunnel interface", true, e);
}

}  // namespace

std::string metrics_text(const Json &counters)
{
    Exposition e;
    if (counters.contains("pipeline"))
        pipeline(counters.at("pipeline"), e);
    if (counters.contains("ports"))
        ports(counters.at("ports"), e);
    if (counters.contains("l3"))
        l3(counters.at("l3"), counters.at("neighbours"), e);
    tables(counters, e);
    if (counters.contains("module"))
        module(counters.at("module"), e);
    return e.text();
}

}  // namespace efhost
