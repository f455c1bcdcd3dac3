// The TLV sequence of a full resynchronisation: SYNC_DATA_BEGIN, the UDP
// port, the global switches, the anycast MAC, each VNI (entry, VLANs, L2
// mapping, router, per-VNI switches), each tunnel (VTEP, associations,
// tunnel switches), the VRFs, the sub-interfaces, SYNC_DATA_OVER.
//
// The module refuses a mapping while either VNI lacks its entry, so a VNI
// mapped to one listed later has its SET_VNI_MAP sent right after that later
// VNI's SET_ENTRY instead of in its own block.
//
// A SET_VLAN add leaves a VLAN that another VNI holds where it is, and the
// sweep then frees it with that VNI or keeps it there; a VLAN that moves is
// therefore deleted first. Only moving VLANs are: deleting the others would
// break their traffic for a moment for nothing.
#include <map>
#include <set>

#include "apply_config.h"

namespace vxlanctl {

namespace {

constexpr int64_t kAdd = 1;
constexpr int64_t kDelete = 0;

Tlv flag_tlv(uint16_t code, const char *key_field, uint32_t key, bool on, const char *value_field)
{
    return TlvWriter(code).number(key_field, key).number(value_field, on).tlv();
}

Tlv vni_map_tlv(uint32_t vni, uint32_t map_vni)
{
    return TlvWriter(kSetVniMap).number("vni", vni).number("map_vni", map_vni).number("oper", kAdd).tlv();
}

void add_globals(const ApplyConfig &config, std::vector<Tlv> &out)
{
    if (config.udp_port)
        out.push_back(TlvWriter(kSetUdpPort).number("port", *config.udp_port).tlv());
    for (size_t i = 0; i < kSwitchDefs.size(); ++i)
        if (config.switches[i])
            out.push_back(TlvWriter(kSwitchDefs[i].code).number("enable", *config.switches[i]).tlv());
    if (config.anycast_mac)
        out.push_back(TlvWriter(kSetAnycastMac).mac("mac", *config.anycast_mac).number("oper", kAdd).tlv());
}

Tlv vlan_tlv(uint32_t vni, int64_t oper, const std::vector<uint16_t> &vlans)
{
    TlvWriter vlan(kSetVlan);
    vlan.number("vni", vni).number("oper", oper);
    for (uint16_t vid : vlans)
        vlan.vlan("vlans", vid);
    return vlan.tlv();
}

std::vector<uint16_t> moving_vlans(const VniConf &v, const VlanOwners &owners)
{
    std::vector<uint16_t> moving;
    for (uint16_t vid : v.vlans) {
        auto it = owners.find(vid);
        if (it != owners.end() && it->second != v.vni)
            moving.push_back(vid);
    }
    return moving;
}

void add_vni(const VniConf &v, const VlanOwners &owners, const std::multimap<uint32_t, uint32_t> &waiting,
             std::set<uint32_t> &created, std::vector<Tlv> &out)
{
    out.push_back(TlvWriter(kSetEntry).number("vni", v.vni).number("oper", kAdd).tlv());
    created.insert(v.vni);
    auto [first, last] = waiting.equal_range(v.vni);
    for (auto it = first; it != last; ++it)
        out.push_back(vni_map_tlv(it->second, v.vni));
    if (const auto moving = moving_vlans(v, owners); !moving.empty())
        out.push_back(vlan_tlv(v.vni, kDelete, moving));
    if (!v.vlans.empty())
        out.push_back(vlan_tlv(v.vni, kAdd, v.vlans));
    if (v.map_vni && created.contains(*v.map_vni))
        out.push_back(vni_map_tlv(v.vni, *v.map_vni));
    if (v.router)
        out.push_back(TlvWriter(kSetRouter)
                          .number("vni", v.vni)
                          .number("router_ifx", v.router->interface)
                          .number("vrf_id", v.router->vrf)
                          .number("anycast", v.router->anycast)
                          .number("oper", kAdd)
                          .tlv());
    if (v.arp_suppress)
        out.push_back(flag_tlv(kSetVniArpSuppress, "vni", v.vni, *v.arp_suppress, "enable"));
    if (v.nd_suppress)
        out.push_back(flag_tlv(kSetVniNdSuppress, "vni", v.vni, *v.nd_suppress, "enable"));
    if (v.protect)
        out.push_back(flag_tlv(kSetSwitchProtected, "vni", v.vni, *v.protect, "value"));
}

void add_vnis(const std::vector<VniConf> &vnis, const VlanOwners &owners, std::vector<Tlv> &out)
{
    // Mappings whose target comes later in the list, by target.
    std::multimap<uint32_t, uint32_t> waiting;
    std::set<uint32_t> seen;
    for (const VniConf &v : vnis) {
        if (v.map_vni && !seen.contains(*v.map_vni))
            waiting.emplace(*v.map_vni, v.vni);
        seen.insert(v.vni);
    }
    std::set<uint32_t> created;
    for (const VniConf &v : vnis)
        add_vni(v, owners, waiting, created, out);
}

void add_tunnel(const TunnelConf &t, std::vector<Tlv> &out)
{
    out.push_back(TlvWriter(kSetVtep)
                      .number("ifx", t.interface)
                      .ip("sip", t.source)
                      .ip("dip", t.destination)
                      .number("oper", kAdd)
                      .tlv());
    for (uint32_t vni : t.vnis)
        out.push_back(TlvWriter(kAssoVtep).number("vni", vni).number("ifx", t.interface).number("oper", kAdd).tlv());
    if (t.outside_center)
        out.push_back(flag_tlv(kSetOutsideCenterTunnel, "ifx", t.interface, *t.outside_center, "value"));
    if (t.mac_learn)
        out.push_back(flag_tlv(kSetTunnelMacLearn, "ifx", t.interface, *t.mac_learn, "value"));
    if (t.route_learn)
        out.push_back(flag_tlv(kSetTunnelRouteLearn, "ifx", t.interface, *t.route_learn, "value"));
}

}  // namespace

std::vector<Tlv> apply_tlvs(const ApplyConfig &config, const VlanOwners &owners)
{
    std::vector<Tlv> out{TlvWriter(kSyncDataBegin).tlv()};
    add_globals(config, out);
    add_vnis(config.vnis, owners, out);
    for (const TunnelConf &t : config.tunnels)
        add_tunnel(t, out);
    for (const VrfConf &v : config.vrfs)
        out.push_back(TlvWriter(kSetVrf)
                          .number("vrf_id", v.id)
                          .number("l3vni", v.l3vni)
                          .number("l3ifx", v.l3_interface)
                          .number("oper", kAdd)
                          .tlv());
    for (const SubifConf &s : config.subinterfaces)
        out.push_back(TlvWriter(kSubInterface)
                          .number("ifx", s.interface)
                          .number("main_ifx", s.parent)
                          .number("vni", s.vni)
                          .number("svid", s.svid)
                          .number("cvid", s.cvid)
                          .number("oper", kAdd)
                          .tlv());
    out.push_back(TlvWriter(kSyncDataOver).tlv());
    return out;
}

}  // namespace vxlanctl
