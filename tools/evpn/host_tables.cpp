// efhost's tables that follow the kernel's EVPN state; see host_tables.h.
#include "host_tables.h"

#include <sstream>

namespace evpn {

namespace {

std::string vni_text(uint32_t vni) { return std::to_string(vni); }

void mac_changes(const HostTables &from, const HostTables &to, HostChange &c)
{
    for (const auto &[key, ifx] : to.remote_macs) {
        auto old = from.remote_macs.find(key);
        if (old != from.remote_macs.end() && old->second == ifx)
            continue;
        c.mac.push_back("remote add " + vni_text(key.first) + " " + key.second + " " + std::to_string(ifx));
        c.log.push_back("remote MAC " + key.second + " of VNI " + vni_text(key.first) + " installed toward tunnel " +
                        std::to_string(ifx));
    }
    for (const auto &[key, ifx] : from.remote_macs) {
        auto now = to.remote_macs.find(key);
        if (now != to.remote_macs.end() && now->second == ifx)
            continue;
        c.mac.push_back("remote remove " + vni_text(key.first) + " " + key.second + " " + std::to_string(ifx));
        if (now == to.remote_macs.end())
            c.log.push_back("remote MAC " + key.second + " of VNI " + vni_text(key.first) + " withdrawn");
    }
}

void binding_changes(const HostTables &from, const HostTables &to, HostChange &c)
{
    for (const auto &[key, mac] : to.remote_ips) {
        auto old = from.remote_ips.find(key);
        if (old != from.remote_ips.end() && old->second == mac)
            continue;
        c.neighbour.push_back("remote add " + vni_text(key.first) + " " + key.second + " " + mac);
        c.log.push_back("remote IP " + key.second + " (" + mac + ") of VNI " + vni_text(key.first) + " installed");
    }
    for (const auto &[key, mac] : from.remote_ips)
        if (!to.remote_ips.contains(key)) {
            c.neighbour.push_back("remote remove " + vni_text(key.first) + " " + key.second);
            c.log.push_back("remote IP " + key.second + " of VNI " + vni_text(key.first) + " withdrawn");
        }
}

void switch_changes(const HostTables &from, const HostTables &to, HostChange &c)
{
    std::set<uint32_t> vnis = from.suppressed;
    vnis.insert(to.suppressed.begin(), to.suppressed.end());
    for (uint32_t vni : vnis) {
        const bool on = to.suppressed.contains(vni);
        if (on == from.suppressed.contains(vni))
            continue;
        for (const char *protocol : {"arp", "nd"})
            c.neighbour.push_back("switch " + vni_text(vni) + " " + protocol + (on ? " on" : " off"));
        c.log.push_back("efhost answers ARP and ND of VNI " + vni_text(vni) + (on ? " from now on" : " no more"));
    }
}

}  // namespace

HostTables host_tables(const KernelState &kernel, const TunnelIndexes &indexes)
{
    HostTables t;
    for (const auto &[vni, k] : kernel) {
        if (k.suppress)
            t.suppressed.insert(vni);
        for (const auto &[mac, remote] : k.remote_macs)
            if (auto ifx = indexes.find({k.local, remote}))
                t.remote_macs[{vni, mac}] = *ifx;
        for (const auto &[ip, mac] : k.remote_ips)
            t.remote_ips[{vni, ip}] = mac;
    }
    return t;
}

HostChange host_change(const HostTables &from, const HostTables &to)
{
    HostChange c;
    mac_changes(from, to, c);
    switch_changes(from, to, c);
    binding_changes(from, to, c);
    return c;
}

HostTables host_tables_from_listing(const std::vector<std::string> &mac_lines,
                                    const std::vector<std::string> &binding_lines,
                                    const std::vector<std::string> &switch_lines)
{
    HostTables t;
    for (const std::string &line : mac_lines) {
        std::istringstream in(line);
        std::string mac, vlan, name, kind;
        uint32_t vni = 0, ifx = 0;
        if (in >> mac >> vni >> vlan >> ifx >> name >> kind && kind == "remote")
            t.remote_macs[{vni, mac}] = ifx;
    }
    for (const std::string &line : binding_lines) {
        std::istringstream in(line);
        std::string ip, mac, kind;
        uint32_t vni = 0;
        if (in >> vni >> ip >> mac >> kind && kind == "remote")
            t.remote_ips[{vni, ip}] = mac;
    }
    for (const std::string &line : switch_lines) {
        std::istringstream in(line);
        std::string arp, arp_on, nd, nd_on;
        uint32_t vni = 0;
        if (in >> vni >> arp >> arp_on >> nd >> nd_on && arp_on == "on" && nd_on == "on")
            t.suppressed.insert(vni);
    }
    return t;
}

}  // namespace evpn
