// The bridge MAC table requests; see mac_request.h.
#include "mac_request.h"

#include <cstdio>

#include "efrt.h"
#include "efrt_services.h"
#include "lsm.h"
#include "request_words.h"

namespace efhost {

namespace {

constexpr uint32_t kTypeOverlayTunnel = 45;
const char *const kForms = "list [vni V] [mac M], remote add VNI MAC IFX, remote remove VNI MAC IFX, local [since G]";

bool has_vni(const efrt::BridgeMac &m) { return (m.key & EF_BRIDGE_KEY_VNI) != 0; }
uint32_t vni_of(const efrt::BridgeMac &m) { return static_cast<uint32_t>(m.key & 0xFFFFFF); }

bool is_tunnel(uint32_t ifindex)
{
    const lsm_intfcb_t *intf = lsm_get_intfcb(ifindex);
    return intf != nullptr && intf->type == kTypeOverlayTunnel;
}

const char *kind_text(const efrt::BridgeMac &m)
{
    if (m.filter)
        return "filter";
    switch (m.kind) {
    case efrt::MacKind::Learned:
        return "learned";
    case efrt::MacKind::Configured:
        return "configured";
    case efrt::MacKind::Remote:
        return "remote";
    }
    return "?";
}

std::string interface_text(uint32_t ifindex)
{
    char name[LSM_IF_NAME_LEN] = "-";
    lsm_if_get_name(ifindex, name, sizeof name);
    return std::to_string(ifindex) + " " + name;
}

std::string entry_line(const efrt::BridgeMac &m, uint64_t now_ms)
{
    const std::string vni = has_vni(m) ? std::to_string(vni_of(m)) : "-";
    const uint32_t vlan = has_vni(m) ? m.vid : static_cast<uint32_t>(m.key & 0xFFFF);
    const std::string age =
        m.kind == efrt::MacKind::Learned && !m.filter ? std::to_string((now_ms - m.seen_ms) / 1000) + "s" : "-";
    char line[160];
    std::snprintf(line, sizeof line, "%-17s %-8s %-4s %-24s %-10s %s", mac_text(m.mac).c_str(), vni.c_str(),
                  vlan == 0 ? "-" : std::to_string(vlan).c_str(), interface_text(m.ifindex).c_str(), kind_text(m),
                  age.c_str());
    return line;
}

// list [vni V] [mac M], the two filters in either order.
RequestReply list(const std::vector<std::string> &w)
{
    std::optional<uint32_t> vni;
    std::optional<Mac> mac;
    for (size_t i = 1; i < w.size(); i += 2) {
        if (i + 1 >= w.size() || (w[i] != "vni" && w[i] != "mac"))
            return refuse("list takes vni V and mac M, got '" + w[i] + "'");
        if (w[i] == "vni" && !(vni = parse_vni(w[i + 1])))
            return refuse(not_a_vni(w[i + 1]));
        if (w[i] == "mac" && !(mac = parse_mac(w[i + 1])))
            return refuse(not_a_mac(w[i + 1]));
    }
    RequestReply reply{true, "", {"MAC               VNI      VLAN INTERFACE                KIND       AGE"}};
    const uint64_t now = efrt::clock_now_ms();
    size_t shown = 0;
    for (const efrt::BridgeMac &m : efrt::bridge_macs()) {
        if ((vni && (!has_vni(m) || vni_of(m) != *vni)) || (mac && !std::equal(mac->begin(), mac->end(), m.mac)))
            continue;
        reply.lines.push_back(entry_line(m, now));
        shown++;
    }
    reply.text = "ok " + std::to_string(shown) + " MAC entries";
    return reply;
}

RequestReply remote(const std::vector<std::string> &w)
{
    if (w.size() != 5 || (w[1] != "add" && w[1] != "remove"))
        return refuse("remote takes add|remove VNI MAC IFX");
    const auto vni = parse_vni(w[2]);
    const auto mac = parse_mac(w[3]);
    const auto ifx = parse_ifindex(w[4]);
    if (!vni)
        return refuse(not_a_vni(w[2]));
    if (!mac)
        return refuse(not_a_mac(w[3]));
    if (!ifx)
        return refuse(not_an_ifindex(w[4]));
    const uint64_t key = EF_BRIDGE_KEY_VNI | *vni;
    const std::string what = "remote MAC " + w[3] + " of VNI " + w[2] + " toward interface " + w[4];
    if (w[1] == "remove")
        return {true, efrt::bridge_remove_remote(key, mac->data(), *ifx) ? "ok removed " + what : "ok no " + what, {}};
    if (!is_tunnel(*ifx))
        return refuse("interface " + w[4] + " is not a tunnel interface");
    efrt::bridge_add_remote(key, mac->data(), *ifx);
    return {true, "ok " + what, {}};
}

// The MACs efhost's own ports learned: what a control process advertises
// for this VTEP. Asked with the generation it holds, it gets nothing back
// while nothing changed.
RequestReply local(const std::vector<std::string> &w)
{
    std::optional<uint64_t> since;
    if (w.size() == 3 && w[1] == "since") {
        if (!(since = parse_generation(w[2])))
            return refuse(not_a_generation(w[2]));
    } else if (w.size() != 1) {
        return refuse("local takes since G or nothing");
    }
    const uint64_t generation = efrt::bridge_mac_generation();
    std::vector<std::string> lines;
    if (!since || *since != generation)
        for (const efrt::BridgeMac &m : efrt::bridge_macs())
            if (has_vni(m) && !m.filter && m.kind == efrt::MacKind::Learned && !is_tunnel(m.ifindex))
                lines.push_back(std::to_string(vni_of(m)) + " " + mac_text(m.mac) + " " + std::to_string(m.ifindex));
    return changes_since(since, generation, std::move(lines), "local MACs");
}

}  // namespace

RequestReply mac_request(const std::string &request)
{
    const std::vector<std::string> w = request_words(request);
    if (!w.empty() && w[0] == "list")
        return list(w);
    if (!w.empty() && w[0] == "remote")
        return remote(w);
    if (!w.empty() && w[0] == "local")
        return local(w);
    return refuse("unknown request '" + request + "'; known: " + kForms);
}

}  // namespace efhost
