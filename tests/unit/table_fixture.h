// Fixture and message builders for the configuration-table tests: one TLV
// builder per table message in its value layout, IP address helpers, the
// platform interfaces the shows name, and readers of table contents and
// show text.
#pragma once

#include <arpa/inet.h>

#include <string>
#include <vector>

#include "module_fixture.h"
#include "vxlan_ef_tables.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace vxtest {

// ---- TLV type codes of the table messages, under the tests' short names ----
namespace tlv = vxlan_ef::tlv;
enum : uint16_t {
    kSyncBegin = tlv::kSyncDataBegin,
    kSyncOver = tlv::kSyncDataOver,
    kSetEntry = tlv::kSetEntry,
    kSetVlan = tlv::kSetVlan,
    kSetUdpPort = tlv::kSetUdpPort,
    kSetRouter = tlv::kSetRouter,
    kSetVtep = tlv::kSetVtep,
    kAssoVtep = tlv::kAssoVtep,
    kOutsideCenter = tlv::kSetOutsideCenterTunnel,
    kSwitchProtected = tlv::kSetSwitchProtected,
    kEfShow = tlv::kEfShow,
    kVniMap = tlv::kSetVniMap,
    kSetVrf = tlv::kSetVrf,
    kVniArpSuppress = tlv::kSetVniArpSuppress,
    kTunnelMacLearn = tlv::kSetTunnelMacLearn,
    kTunnelRouteLearn = tlv::kSetTunnelRouteLearn,
    kVniNdSuppress = tlv::kSetVniNdSuppress,
    kSubif = tlv::kSubInterface,
};

// Writes a field into a value already sized for its layout.
template <typename T>
inline void store(std::vector<uint8_t> &v, size_t at, T value)
{
    std::memcpy(v.data() + at, &value, sizeof value);
}

inline vxlan_ef_ip_addr_t ip4(const char *text)
{
    vxlan_ef_ip_addr_t ip{};
    ip.family = VXLAN_EF_AF_INET;
    inet_pton(AF_INET, text, ip.addr);
    return ip;
}

inline vxlan_ef_ip_addr_t ip6(const char *text)
{
    vxlan_ef_ip_addr_t ip{};
    ip.family = VXLAN_EF_AF_INET6;
    inet_pton(AF_INET6, text, ip.addr);
    return ip;
}

inline bool same_ip(const vxlan_ef_ip_addr_t &a, const vxlan_ef_ip_addr_t &b)
{
    return a.family == b.family && std::memcmp(a.addr, b.addr, sizeof a.addr) == 0;
}

inline void put_ip(std::vector<uint8_t> &v, size_t at, const vxlan_ef_ip_addr_t &ip)
{
    store(v, at, ip.family);
    std::memcpy(v.data() + at + 4, ip.addr, 16);
}

inline Tlv sync_begin() { return Tlv{kSyncBegin, {}}; }
inline Tlv sync_over() { return Tlv{kSyncOver, {}}; }

inline Tlv set_entry(uint32_t vni, uint8_t oper = 1)
{
    std::vector<uint8_t> v(5);
    store(v, 0, vni);
    v[4] = oper;
    return Tlv{kSetEntry, v};
}

inline Tlv set_vlan(uint32_t vni, const std::vector<uint16_t> &vids, uint8_t oper = 1)
{
    std::vector<uint8_t> v(16 + 512);
    store(v, 0, vni);
    v[6] = oper;
    for (uint16_t vid : vids)
        v[16 + vid / 8] |= static_cast<uint8_t>(1u << (vid % 8));  // little-endian u64 words
    return Tlv{kSetVlan, v};
}

inline Tlv set_udp_port(uint16_t port)
{
    std::vector<uint8_t> v(2);
    store(v, 0, port);
    return Tlv{kSetUdpPort, v};
}

inline Tlv set_router(uint32_t vni, uint32_t rifx, uint32_t vrf, uint8_t anycast, uint8_t oper)
{
    std::vector<uint8_t> v(22);
    store(v, 0, vni);
    store(v, 4, rifx);
    store(v, 8, vrf);
    v[20] = anycast;
    v[21] = oper;
    return Tlv{kSetRouter, v};
}

inline Tlv set_vtep(uint32_t ifx, const vxlan_ef_ip_addr_t &sip, const vxlan_ef_ip_addr_t &dip,
                    uint8_t oper = 1)
{
    std::vector<uint8_t> v(69);
    store(v, 4, ifx);
    put_ip(v, 8, sip);
    put_ip(v, 28, dip);
    v[68] = oper;
    return Tlv{kSetVtep, v};
}

inline Tlv asso_vtep(uint32_t vni, uint32_t ifx, uint8_t oper = 1)
{
    std::vector<uint8_t> v(17);
    store(v, 0, vni);
    store(v, 4, ifx);
    v[16] = oper;
    return Tlv{kAssoVtep, v};
}

inline Tlv vni_byte(uint16_t type, uint32_t vni, uint8_t value)
{
    std::vector<uint8_t> v(5);
    store(v, 0, vni);
    v[4] = value;
    return Tlv{type, v};
}

inline Tlv outside_center(uint32_t ifx, uint8_t value) { return vni_byte(kOutsideCenter, ifx, value); }
inline Tlv switch_protected(uint32_t vni, uint8_t value) { return vni_byte(kSwitchProtected, vni, value); }
inline Tlv vni_arp_suppress(uint32_t vni, uint8_t value) { return vni_byte(kVniArpSuppress, vni, value); }
inline Tlv vni_nd_suppress(uint32_t vni, uint8_t value) { return vni_byte(kVniNdSuppress, vni, value); }

inline Tlv tunnel_learn(uint16_t type, uint32_t ifx, uint8_t value)
{
    std::vector<uint8_t> v(25);
    store(v, 0, ifx);
    v[24] = value;
    return Tlv{type, v};
}

inline Tlv tunnel_mac_learn(uint32_t ifx, uint8_t value) { return tunnel_learn(kTunnelMacLearn, ifx, value); }
inline Tlv tunnel_route_learn(uint32_t ifx, uint8_t value) { return tunnel_learn(kTunnelRouteLearn, ifx, value); }

inline Tlv vni_map(uint32_t vni, uint32_t map_vni, uint8_t oper = 1)
{
    std::vector<uint8_t> v(9);
    store(v, 0, vni);
    store(v, 4, map_vni);
    v[8] = oper;
    return Tlv{kVniMap, v};
}

inline Tlv set_vrf(int32_t vrf_id, uint32_t l3vni, uint32_t l3ifx, uint8_t oper = 1)
{
    std::vector<uint8_t> v(13);
    store(v, 0, vrf_id);
    store(v, 4, l3vni);
    store(v, 8, l3ifx);
    v[12] = oper;
    return Tlv{kSetVrf, v};
}

inline Tlv subif(uint32_t ifx, uint32_t main_ifx, uint32_t vni, uint16_t svid, uint16_t cvid,
                 uint8_t oper = 1)
{
    std::vector<uint8_t> v(18);
    store(v, 0, ifx);
    store(v, 4, main_ifx);
    store(v, 8, vni);
    store(v, 12, svid);
    store(v, 14, cvid);
    v[17] = oper;
    return Tlv{kSubif, v};
}

inline Tlv show(uint16_t id, uint32_t vni = 0)
{
    std::vector<uint8_t> v(8);
    store(v, 0, id);
    store(v, 4, vni);
    return Tlv{kEfShow, v};
}

class TableTest : public ModuleTest {
protected:
    void TearDown() override
    {
        // The sub-interface table has no exit step: empty it so that nothing
        // outlives the instance.
        drop_subifs();
        ModuleTest::TearDown();
    }

    static void drop_subifs()
    {
        vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
        if (vsd == nullptr)
            return;
        while (vsd->subif_by_ifx.leftmost != nullptr) {
            auto *s = ef_container_of(vsd->subif_by_ifx.leftmost, vxlan_ef_subif_t, ifx_node);
            pthread_rwlock_wrlock(&vsd->rwlock);
            vxlan_ef_subif_delete(vsd, s->ifx);
            pthread_rwlock_unlock(&vsd->rwlock);
        }
    }

    // Starts the module with every log category on and an empty log.
    void start_tables(uint16_t mask = VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR)
    {
        start("3");
        set_mask(mask);
        take_logs();
    }

    static void add_intf(uint32_t ifx, uint32_t type, const char *name, const char *sname = "",
                         bool up = true)
    {
        lsm_intfcb_t cb{};
        cb.ifindex = ifx;
        cb.type = type;
        cb.link_up = up ? 1 : 0;
        std::snprintf(cb.name, sizeof cb.name, "%s", name);
        std::snprintf(cb.sname, sizeof cb.sname, "%s", sname);
        efrt::lsm_add(cb);
    }

    // Delivers the TLVs and returns what was logged meanwhile.
    std::vector<std::string> run(const std::vector<Tlv> &tlvs)
    {
        take_logs();
        deliver_tlvs(tlvs);
        return take_logs();
    }

    // The handler lines only: the channel's own lines are left out.
    static std::vector<std::string> table_lines(const std::vector<std::string> &lines)
    {
        static const char *kChannel[] = {"vxlan_ef_msg_read]", "vxlan_ef_msg_task]",
                                         "vxlan_ef_msg_deal]", "vxlan_ef_tlv_parse]",
                                         "vxlan_ef_msg_send]", "vxlan_ef_msg_write]"};
        std::vector<std::string> out;
        for (const auto &l : lines) {
            bool channel = false;
            for (const char *c : kChannel)
                channel = channel || l.find(c) != std::string::npos;
            if (!channel)
                out.push_back(l);
        }
        return out;
    }

    std::vector<std::string> run_table(const std::vector<Tlv> &tlvs) { return table_lines(run(tlvs)); }

    // The show text of a request: the show lines without their prefix.
    std::vector<std::string> show_text(uint16_t id, uint32_t vni = 0)
    {
        const std::string prefix = "VXLAN-EF-SHOW: [vsd 3] ";
        std::vector<std::string> out;
        for (const auto &l : run({show(id, vni)}))
            if (l.compare(0, prefix.size(), prefix) == 0)
                out.push_back(l.substr(prefix.size()));
        return out;
    }

    static vxlan_ef_vsd_t *vsd() { return g_vxlan_vsd; }
    static vxlan_ef_entry_t *entry(uint32_t vni) { return vxlan_ef_entry_get(g_vxlan_vsd, vni); }
    static vxlan_ef_intf_t *tunnel(uint32_t ifx)
    {
        return vxlan_ef_intf_get(g_vxlan_vsd, ifx, LSM_IF_TYPE_OVERLAY_TUNNEL);
    }
    static vxlan_ef_intf_t *router(uint32_t ifx)
    {
        return vxlan_ef_intf_get(g_vxlan_vsd, ifx, LSM_IF_TYPE_OVERLAY_ROUTER);
    }
    static vxlan_ef_adj_t *adj(uint32_t vni, uint32_t ifx)
    {
        vxlan_ef_entry_t *e = entry(vni);
        return e == nullptr ? nullptr : vxlan_ef_adj_get(g_vxlan_vsd, nullptr, ifx, e);
    }

    // VLAN ids of an entry in list order.
    static std::vector<uint16_t> vids(const vxlan_ef_entry_t *e)
    {
        std::vector<uint16_t> out;
        for (const list_head *n = e->vid_list.next; n != &e->vid_list; n = n->next)
            out.push_back(ef_container_of(n, vxlan_ef_vid_t, node)->vid);
        return out;
    }

    // Tunnel ifx of an entry's adjacencies in list order.
    static std::vector<uint32_t> adj_ifxs(const vxlan_ef_entry_t *e)
    {
        std::vector<uint32_t> out;
        for (const list_head *n = e->adj_list.next; n != &e->adj_list; n = n->next)
            out.push_back(ef_container_of(n, vxlan_ef_adj_t, entry_node)->ifx);
        return out;
    }

    // Sub-interface ifx of an entry's flooding list in order.
    static std::vector<uint32_t> subif_ifxs(const vxlan_ef_entry_t *e)
    {
        std::vector<uint32_t> out;
        for (const list_head *n = e->subif_list.next; n != &e->subif_list; n = n->next)
            out.push_back(ef_container_of(n, vxlan_ef_subif_t, vni_node)->ifx);
        return out;
    }

    // Number of nodes in a list.
    static size_t list_size(const list_head *head)
    {
        size_t n = 0;
        for (const list_head *p = head->next; p != head; p = p->next)
            n++;
        return n;
    }
};

}  // namespace vxtest
