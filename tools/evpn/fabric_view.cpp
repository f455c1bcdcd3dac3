// The follower's views and the changes between them; see fabric_view.h.
#include "fabric_view.h"

#include <charconv>

namespace evpn {

namespace {

using vxlanctl::TlvWriter;

constexpr int64_t kAdd = 1;
constexpr int64_t kDelete = 0;

vxlanctl::IpAddr address(const std::string &text)
{
    // Addresses come from the kernel as inet_ntop wrote them.
    return vxlanctl::parse_ip(text).value_or(vxlanctl::IpAddr{});
}

std::string tunnel_text(uint32_t ifx, const TunnelKey &key)
{
    return "tunnel " + std::to_string(ifx) + " (" + key.first + " -> " + key.second + ")";
}

vxlanctl::Tlv vlan_tlv(uint32_t vni, uint16_t vlan, int64_t oper)
{
    return TlvWriter(vxlanctl::kSetVlan).number("vni", vni).number("oper", oper).vlan("vlans", vlan).tlv();
}

vxlanctl::Tlv asso_tlv(uint32_t vni, uint32_t ifx, int64_t oper)
{
    return TlvWriter(vxlanctl::kAssoVtep).number("vni", vni).number("ifx", ifx).number("oper", oper).tlv();
}

vxlanctl::Tlv vtep_tlv(uint32_t ifx, const TunnelKey &key, int64_t oper)
{
    return TlvWriter(vxlanctl::kSetVtep)
        .number("ifx", ifx)
        .ip("sip", address(key.first))
        .ip("dip", address(key.second))
        .number("oper", oper)
        .tlv();
}

// Both switches go together: a VXLAN device has one neigh_suppress flag.
void suppress_tlvs(uint32_t vni, bool on, std::vector<vxlanctl::Tlv> &tlvs)
{
    for (uint16_t type : {vxlanctl::kSetVniArpSuppress, vxlanctl::kSetVniNdSuppress})
        tlvs.push_back(TlvWriter(type).number("vni", vni).number("enable", on ? 1 : 0).tlv());
}

// The follower's own writes are not news of the fabric.
bool same_but_own_entries(KernelVni a, KernelVni b)
{
    a.own_macs = b.own_macs;
    a.own_ips = b.own_ips;
    return a == b;
}

std::string vlan_text(const std::optional<uint16_t> &vlan)
{
    return vlan ? "VLAN " + std::to_string(*vlan) : "no VLAN";
}

}  // namespace

std::optional<uint16_t> vlan_from_alias(const std::string &alias)
{
    const std::string key = "vlan=";
    const size_t at = alias.find(key);
    if (at == std::string::npos || (at > 0 && alias[at - 1] != ' '))
        return std::nullopt;
    const char *first = alias.data() + at + key.size();
    const char *last = alias.data() + alias.size();
    const char *end = first;
    while (end < last && *end != ' ')
        ++end;
    unsigned v = 0;
    auto [p, ec] = std::from_chars(first, end, v);
    if (ec != std::errc() || p != end || v < 1 || v > 4094)
        return std::nullopt;
    return static_cast<uint16_t>(v);
}

ModuleView module_view(const KernelState &kernel)
{
    ModuleView view;
    for (const auto &[vni, k] : kernel) {
        view.vnis[vni] = k.vlan;
        if (k.suppress)
            view.suppressed.insert(vni);
        if (k.local.empty())
            continue;
        for (const std::string &remote : k.flood)
            if (remote != k.local)
                view.tunnels[{k.local, remote}].insert(vni);
    }
    return view;
}

uint32_t TunnelIndexes::index(const TunnelKey &key)
{
    auto it = by_key_.find(key);
    if (it != by_key_.end())
        return it->second;
    uint32_t ifx = 0;
    auto adopted = adopted_.find(name(key));
    if (adopted != adopted_.end()) {
        ifx = adopted->second;
        adopted_.erase(adopted);
    } else {
        std::set<uint32_t> used;
        for (const auto &[k, v] : by_key_)
            used.insert(v);
        for (const auto &[n, v] : adopted_)
            used.insert(v);
        ifx = base_;
        while (used.contains(ifx))
            ++ifx;
    }
    by_key_.emplace(key, ifx);
    return ifx;
}

void TunnelIndexes::adopt(uint32_t ifx, const std::string &name) { adopted_[name] = ifx; }

std::vector<uint32_t> TunnelIndexes::keep_only(const ModuleView &view)
{
    std::vector<uint32_t> dropped;
    for (auto it = by_key_.begin(); it != by_key_.end();) {
        if (view.tunnels.contains(it->first)) {
            ++it;
            continue;
        }
        dropped.push_back(it->second);
        it = by_key_.erase(it);
    }
    for (const auto &[n, ifx] : adopted_)
        dropped.push_back(ifx);
    adopted_.clear();
    return dropped;
}

vxlanctl::ApplyConfig apply_config(const ModuleView &view, TunnelIndexes &indexes)
{
    vxlanctl::ApplyConfig config;
    for (const auto &[vni, vlan] : view.vnis) {
        vxlanctl::VniConf v;
        v.vni = vni;
        if (vlan)
            v.vlans.push_back(*vlan);
        if (view.suppressed.contains(vni))
            v.arp_suppress = v.nd_suppress = true;
        config.vnis.push_back(v);
    }
    for (const auto &[key, vnis] : view.tunnels) {
        vxlanctl::TunnelConf t;
        t.interface = indexes.index(key);
        t.source = address(key.first);
        t.destination = address(key.second);
        t.vnis.assign(vnis.begin(), vnis.end());
        t.mac_learn = true;
        config.tunnels.push_back(t);
    }
    return config;
}

Change change(const ModuleView &from, const ModuleView &to, TunnelIndexes &indexes)
{
    Change c;
    // New VNIs and changed VLANs.
    for (const auto &[vni, vlan] : to.vnis) {
        auto old = from.vnis.find(vni);
        if (old == from.vnis.end()) {
            c.tlvs.push_back(TlvWriter(vxlanctl::kSetEntry).number("vni", vni).number("oper", kAdd).tlv());
            if (vlan)
                c.tlvs.push_back(vlan_tlv(vni, *vlan, kAdd));
            c.log.push_back("VNI " + std::to_string(vni) + " created with " + vlan_text(vlan));
        } else if (old->second != vlan) {
            if (old->second)
                c.tlvs.push_back(vlan_tlv(vni, *old->second, kDelete));
            if (vlan)
                c.tlvs.push_back(vlan_tlv(vni, *vlan, kAdd));
            c.log.push_back("VNI " + std::to_string(vni) + " moved from " + vlan_text(old->second) + " to " +
                            vlan_text(vlan));
        }
    }
    for (const auto &[vni, vlan] : to.vnis) {
        const bool on = to.suppressed.contains(vni);
        if (on != from.suppressed.contains(vni) && (on || from.vnis.contains(vni))) {
            suppress_tlvs(vni, on, c.tlvs);
            c.log.push_back("VNI " + std::to_string(vni) + " ARP and ND suppression " + (on ? "on" : "off"));
        }
    }
    // New tunnels, then the associations they gain.
    for (const auto &[key, vnis] : to.tunnels) {
        const uint32_t ifx = indexes.index(key);
        auto old = from.tunnels.find(key);
        if (old == from.tunnels.end()) {
            c.create_interfaces.emplace_back(ifx, TunnelIndexes::name(key));
            c.tlvs.push_back(vtep_tlv(ifx, key, kAdd));
            c.tlvs.push_back(
                TlvWriter(vxlanctl::kSetTunnelMacLearn).number("ifx", ifx).number("value", 1).tlv());
            c.log.push_back(tunnel_text(ifx, key) + " created");
        }
        for (uint32_t vni : vnis)
            if (old == from.tunnels.end() || !old->second.contains(vni)) {
                c.tlvs.push_back(asso_tlv(vni, ifx, kAdd));
                c.log.push_back("VNI " + std::to_string(vni) + " associated with " + tunnel_text(ifx, key));
            }
    }
    // Associations lost by tunnels that stay, then tunnels that go (taking
    // their associations with them), then VNIs that go.
    for (const auto &[key, vnis] : from.tunnels) {
        const uint32_t ifx = indexes.index(key);
        auto now = to.tunnels.find(key);
        if (now == to.tunnels.end())
            continue;
        for (uint32_t vni : vnis)
            if (!now->second.contains(vni)) {
                c.tlvs.push_back(asso_tlv(vni, ifx, kDelete));
                c.log.push_back("VNI " + std::to_string(vni) + " disassociated from " + tunnel_text(ifx, key));
            }
    }
    for (const auto &[key, vnis] : from.tunnels) {
        if (to.tunnels.contains(key))
            continue;
        const uint32_t ifx = indexes.index(key);
        c.tlvs.push_back(vtep_tlv(ifx, key, kDelete));
        c.remove_interfaces.push_back(ifx);
        c.log.push_back(tunnel_text(ifx, key) + " removed");
    }
    for (const auto &[vni, vlan] : from.vnis)
        if (!to.vnis.contains(vni)) {
            c.tlvs.push_back(TlvWriter(vxlanctl::kSetEntry).number("vni", vni).number("oper", kDelete).tlv());
            c.log.push_back("VNI " + std::to_string(vni) + " removed");
        }
    return c;
}

std::vector<std::string> describe_change(const KernelState &from, const KernelState &to)
{
    std::vector<std::string> lines;
    for (const auto &[vni, k] : to) {
        auto old = from.find(vni);
        if (old != from.end() && same_but_own_entries(old->second, k))
            continue;
        std::string line = "kernel: VNI " + std::to_string(vni) + " on " + k.device + ", local " +
                           (k.local.empty() ? "none" : k.local) + ", " + vlan_text(k.vlan) + ", flood to";
        if (k.flood.empty())
            line += " nobody";
        for (const std::string &r : k.flood)
            line += " " + r;
        line += ", " + std::to_string(k.remote_macs.size()) + " remote MACs, " +
                std::to_string(k.remote_ips.size()) + " remote IPs";
        if (k.suppress)
            line += ", suppression on";
        lines.push_back(line);
    }
    for (const auto &[vni, k] : from)
        if (!to.contains(vni))
            lines.push_back("kernel: VNI " + std::to_string(vni) + " gone (" + k.device + ")");
    return lines;
}

}  // namespace evpn
