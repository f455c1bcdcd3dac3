// Model-based test of the configuration tables: thousands of random sequences
// of configuration messages (adds, deletes, updates, repeats, unknown VNIs and
// tunnels, mappings, sub-interface conflicts) with resynchronisations in
// between, each delivered on the channel and followed by a comparison of every
// table with a small reference model of what it must hold. Each sequence runs
// on a fresh module, and after its exit every allocation has been returned.
#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <tuple>

#include "table_check.h"
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using namespace vxtest;

constexpr uint32_t kNoVrf = 0xFFFFFFFFu;

// ---- the reference model ----

struct MAdj {
    uint32_t ifx;
    bool dirty;
};

struct MEntry {
    uint32_t router_ifx = 0;
    uint32_t vrf_id = kNoVrf;
    uint8_t anycast = 0, protect = 0, arp = 0, nd = 0;
    uint32_t map_a = 0, map_b = 0;
    bool map_dirty = false;
    uint32_t dirty = 0;
    std::vector<MAdj> adjs;          // creation order
    std::vector<uint32_t> subifs;    // flooding list order
};

struct MTunnel {
    vxlan_ef_ip_addr_t sip{}, dip{};
    bool dirty = false;
    uint8_t oc = 0, mac = 0, route = 0;
    bool oc_dirty = false, mac_dirty = false, route_dirty = false;
};

struct MRouter {
    uint32_t vni = 0, vrf = 0;
    bool dirty = false;
};

struct MVrf {
    uint32_t l3vni = 0, l3ifx = 0;
    bool dirty = false;
};

struct MSubif {
    uint32_t vni = 0, main_ifx = 0;
    uint16_t svid = 0, cvid = 0;
    bool dirty = false;
    uint32_t linked = 0;  // VNI whose flooding list holds it, 0 = none
};

struct MVid {
    uint32_t owner;
    bool dirty;
};

template <typename K>
void erase_value(std::vector<K> &v, K k)
{
    v.erase(std::remove(v.begin(), v.end(), k), v.end());
}

struct Model {
    std::map<uint32_t, MEntry> entries;
    std::vector<uint32_t> entry_order;
    std::map<uint16_t, MVid> vids;
    std::map<uint32_t, MTunnel> tunnels;
    std::vector<uint32_t> tunnel_order;
    std::map<uint32_t, MRouter> routers;
    std::vector<uint32_t> router_order;
    std::map<int32_t, MVrf> vrfs;
    std::vector<int32_t> vrf_order;
    std::map<uint32_t, MSubif> subifs;
    uint16_t udp_port = 4789;
    bool udp_dirty = false;

    void router_bind(uint32_t ifx, uint32_t vni, uint32_t vrf, uint8_t oper)
    {
        auto it = routers.find(ifx);
        if (oper == 0) {
            if (it != routers.end()) {
                routers.erase(it);
                erase_value(router_order, ifx);
            }
            return;
        }
        if (it == routers.end()) {
            router_order.push_back(ifx);
            it = routers.emplace(ifx, MRouter{}).first;
        }
        it->second = MRouter{vni, vrf, false};
    }

    void unlink_subif(MSubif &s, uint32_t ifx)
    {
        if (s.linked != 0)
            erase_value(entries[s.linked].subifs, ifx);
        s.linked = 0;
    }

    void link_subif(MSubif &s, uint32_t ifx)
    {
        auto it = entries.find(s.vni);
        if (it == entries.end())
            return;
        it->second.subifs.push_back(ifx);
        s.linked = s.vni;
    }

    void remove_subif(uint32_t ifx)
    {
        auto it = subifs.find(ifx);
        if (it == subifs.end())
            return;
        unlink_subif(it->second, ifx);
        subifs.erase(it);
    }

    void free_vids_of(uint32_t vni, bool only_dirty)
    {
        for (auto it = vids.begin(); it != vids.end();)
            it = (it->second.owner == vni && (!only_dirty || it->second.dirty)) ? vids.erase(it) : std::next(it);
    }

    void entry_delete(uint32_t vni)
    {
        auto it = entries.find(vni);
        if (it == entries.end())
            return;
        free_vids_of(vni, false);
        if (it->second.router_ifx != 0)
            router_bind(it->second.router_ifx, vni, it->second.vrf_id, 0);
        for (uint32_t ifx : it->second.subifs)
            subifs[ifx].linked = 0;
        entries.erase(it);
        erase_value(entry_order, vni);
    }

    void set_entry(uint32_t vni, uint8_t oper)
    {
        auto it = entries.find(vni);
        if (oper == 0) {
            entry_delete(vni);
        } else if (it != entries.end()) {
            it->second.dirty &= ~1u;
        } else if (vni >= 1 && vni <= 0xFFFFFF) {
            entries.emplace(vni, MEntry{});
            entry_order.push_back(vni);
        }
    }

    void set_vlan(uint32_t vni, const std::set<uint16_t> &list, uint8_t oper)
    {
        if (entries.count(vni) == 0)
            return;
        for (uint16_t vid : list) {
            if (vid < 1 || vid > 4094)
                continue;
            auto it = vids.find(vid);
            if (oper == 0) {
                if (it != vids.end())
                    vids.erase(it);
            } else if (it != vids.end()) {
                it->second.dirty = false;
            } else {
                vids[vid] = MVid{vni, false};
            }
        }
    }

    void set_router(uint32_t vni, uint32_t rifx, uint32_t vrf, uint8_t anycast, uint8_t oper)
    {
        auto it = entries.find(vni);
        if (it == entries.end())
            return;
        MEntry &e = it->second;
        e.dirty &= ~2u;
        router_bind(rifx, vni, oper ? vrf : 0, oper);
        e.router_ifx = oper ? rifx : 0;
        e.vrf_id = oper ? vrf : kNoVrf;
        e.anycast = anycast;
    }

    void drop_adjs_of_tunnel(uint32_t ifx)
    {
        for (auto &[vni, e] : entries)
            e.adjs.erase(std::remove_if(e.adjs.begin(), e.adjs.end(), [ifx](const MAdj &a) { return a.ifx == ifx; }),
                         e.adjs.end());
    }

    void set_vtep(uint32_t ifx, const vxlan_ef_ip_addr_t &sip, const vxlan_ef_ip_addr_t &dip, uint8_t oper)
    {
        auto it = tunnels.find(ifx);
        if (oper == 0) {
            if (it != tunnels.end()) {
                drop_adjs_of_tunnel(ifx);
                tunnels.erase(it);
                erase_value(tunnel_order, ifx);
            }
            return;
        }
        if (it == tunnels.end()) {
            tunnel_order.push_back(ifx);
            it = tunnels.emplace(ifx, MTunnel{}).first;
        }
        it->second.dirty = false;
        it->second.sip = sip;
        it->second.dip = dip;
    }

    void asso_vtep(uint32_t vni, uint32_t ifx, uint8_t oper)
    {
        auto it = entries.find(vni);
        if (it == entries.end())
            return;
        auto &adjs = it->second.adjs;
        auto a = std::find_if(adjs.begin(), adjs.end(), [ifx](const MAdj &x) { return x.ifx == ifx; });
        if (oper == 0) {
            if (a != adjs.end())
                adjs.erase(a);
        } else if (a != adjs.end()) {
            a->dirty = false;
        } else if (tunnels.count(ifx) != 0) {
            adjs.push_back(MAdj{ifx, false});
        }
    }

    void tunnel_switch(uint16_t type, uint32_t ifx, uint8_t value)
    {
        auto it = tunnels.find(ifx);
        if (it == tunnels.end())
            return;
        MTunnel &t = it->second;
        if (type == kOutsideCenter) {
            t.oc = value;
            t.oc_dirty = false;
        } else if (type == kTunnelMacLearn) {
            t.mac = value;
            t.mac_dirty = false;
        } else {
            t.route = value;
            t.route_dirty = false;
        }
    }

    void vni_switch(uint16_t type, uint32_t vni, uint8_t value)
    {
        auto it = entries.find(vni);
        if (it == entries.end())
            return;
        MEntry &e = it->second;
        if (type == kSwitchProtected) {
            e.protect = value;
            e.dirty &= ~0x20u;
        } else if (type == kVniArpSuppress) {
            e.arp = value;
            e.dirty &= ~0x80u;
        } else {
            e.nd = value;
            e.dirty &= ~0x100u;
        }
    }

    void vni_map(uint32_t a_vni, uint32_t b_vni, uint8_t oper)
    {
        if (entries.count(a_vni) == 0 || entries.count(b_vni) == 0)
            return;
        MEntry &a = entries[a_vni];
        MEntry &b = entries[b_vni];
        a.map_b = oper ? b_vni : 0;
        a.map_a = 0;
        b.map_b = 0;
        b.map_a = oper ? a_vni : 0;
        a.map_dirty = false;
        b.map_dirty = false;
    }

    void set_vrf(int32_t id, uint32_t l3vni, uint32_t l3ifx, uint8_t oper)
    {
        auto it = vrfs.find(id);
        if (oper == 0) {
            if (it != vrfs.end()) {
                vrfs.erase(it);
                erase_value(vrf_order, id);
            }
            return;
        }
        if (it == vrfs.end())
            vrf_order.push_back(id);
        vrfs[id] = MVrf{l3vni, l3ifx, false};
    }

    void subif_update(uint32_t ifx, uint32_t main_ifx, uint32_t vni, uint16_t svid, uint16_t cvid)
    {
        bool relink = false;
        auto it = subifs.find(ifx);
        if (it == subifs.end()) {
            it = subifs.emplace(ifx, MSubif{vni, main_ifx, svid, cvid, false, 0}).first;
            relink = true;
        } else {
            MSubif &s = it->second;
            s.dirty = false;
            if (s.main_ifx == main_ifx && s.svid == svid && s.cvid == cvid) {
                if (s.vni != vni) {
                    unlink_subif(s, ifx);
                    s.vni = vni;
                    link_subif(s, ifx);
                }
                return;
            }
            s.main_ifx = main_ifx;
            s.svid = svid;
            s.cvid = cvid;
            if (s.vni != vni) {
                unlink_subif(s, ifx);
                s.vni = vni;
                relink = true;
            }
        }
        for (auto &[other_ifx, o] : subifs) {
            if (other_ifx != ifx && o.main_ifx == main_ifx && o.svid == svid && o.cvid == cvid) {
                remove_subif(other_ifx);
                break;
            }
        }
        if (relink)
            link_subif(subifs[ifx], ifx);
    }

    void sync_begin()
    {
        for (auto &[ifx, t] : tunnels)
            t.dirty = t.oc_dirty = t.mac_dirty = t.route_dirty = true;
        for (auto &[ifx, r] : routers)
            r.dirty = true;
        udp_dirty = true;
        for (auto &[vni, e] : entries) {
            e.dirty = 0x1A3;
            for (MAdj &a : e.adjs)
                a.dirty = true;
            if (e.map_a != 0 || e.map_b != 0)
                e.map_dirty = true;
        }
        for (auto &[vid, v] : vids)
            v.dirty = true;
        for (auto &[id, v] : vrfs)
            v.dirty = true;
        for (auto &[ifx, s] : subifs)
            s.dirty = true;
    }

    void sweep_tunnels()
    {
        for (uint32_t ifx : std::vector<uint32_t>(tunnel_order)) {
            MTunnel &t = tunnels[ifx];
            if (t.dirty) {
                set_vtep(ifx, t.sip, t.dip, 0);
                continue;
            }
            if (t.oc_dirty)
                t.oc = 0, t.oc_dirty = false;
            if (t.mac_dirty)
                t.mac = 0, t.mac_dirty = false;
            if (t.route_dirty)
                t.route = 0, t.route_dirty = false;
        }
        for (uint32_t ifx : std::vector<uint32_t>(router_order))
            if (routers[ifx].dirty)
                router_bind(ifx, 0, 0, 0);
    }

    void sweep_entry(uint32_t vni)
    {
        MEntry &e = entries[vni];
        if (e.map_dirty)
            e.map_a = e.map_b = 0, e.map_dirty = false;
        e.adjs.erase(std::remove_if(e.adjs.begin(), e.adjs.end(), [](const MAdj &a) { return a.dirty; }), e.adjs.end());
        free_vids_of(vni, true);
        if (e.dirty == 0)
            return;
        if ((e.dirty & 1u) != 0) {
            entry_delete(vni);
            return;
        }
        if (e.dirty & 2u) {
            router_bind(e.router_ifx, vni, e.vrf_id, 0);
            e.router_ifx = 0;
        }
        if (e.dirty & 0x20u)
            e.protect = 0;
        if (e.dirty & 0x80u)
            e.arp = 0;
        if (e.dirty & 0x100u)
            e.nd = 0;
        e.dirty = 0;
    }

    void sync_over()
    {
        sweep_tunnels();
        if (udp_dirty)
            udp_port = 4789, udp_dirty = false;
        for (uint32_t vni : std::vector<uint32_t>(entry_order))
            sweep_entry(vni);
        for (int32_t id : std::vector<int32_t>(vrf_order))
            if (vrfs[id].dirty)
                set_vrf(id, 0, 0, 0);
        for (auto it = subifs.begin(); it != subifs.end();) {
            auto next = std::next(it);
            if (it->second.dirty)
                remove_subif(it->first);
            it = next;
        }
    }
};

// ---- comparing the module's tables with the model ----

class Mismatch {
public:
    template <typename A, typename B>
    void check(const A &actual, const B &expected, const char *what)
    {
        if (failed_ || actual == expected)
            return;
        std::ostringstream out;
        out << what;
        text_ = out.str();
        failed_ = true;
    }
    bool failed() const { return failed_; }
    const std::string &text() const { return text_; }

private:
    bool failed_ = false;
    std::string text_;
};

bool ip_same(const vxlan_ef_ip_addr_t &a, const vxlan_ef_ip_addr_t &b)
{
    return a.family == b.family && std::memcmp(a.addr, b.addr, 16) == 0;
}

void compare_entries(const Model &m, vxlan_ef_vsd_t *vsd, Mismatch &mm)
{
    std::vector<uint32_t> order;
    for (list_head *n = vsd->entry_list.next; n != &vsd->entry_list; n = n->next)
        order.push_back(ef_container_of(n, vxlan_ef_entry_t, list_node)->vni);
    mm.check(order, m.entry_order, "entry list order");
    mm.check(vsd->entry_count, m.entries.size(), "entry count");
    size_t adj_total = 0;
    for (const auto &[vni, me] : m.entries) {
        vxlan_ef_entry_t *e = vxlan_ef_entry_get(vsd, vni);
        mm.check(e != nullptr, true, "entry lookup");
        if (mm.failed())
            return;
        mm.check(e->router_ifx, me.router_ifx, "router_ifx");
        mm.check(e->vrf_id, me.vrf_id, "vrf_id");
        mm.check(e->anycast, me.anycast, "anycast");
        mm.check(e->switch_proteched, me.protect, "switch_proteched");
        mm.check(e->arp_suppress, me.arp, "arp_suppress");
        mm.check(e->nd_suppress, me.nd, "nd_suppress");
        mm.check(e->map_vni_a, me.map_a, "map_vni_a");
        mm.check(e->map_vni_b, me.map_b, "map_vni_b");
        mm.check(e->map_dirty != 0, me.map_dirty, "map_dirty");
        mm.check(e->dirty, me.dirty, "entry dirty");
        std::vector<uint16_t> vids, want_vids;
        for (list_head *n = e->vid_list.next; n != &e->vid_list; n = n->next)
            vids.push_back(ef_container_of(n, vxlan_ef_vid_t, node)->vid);
        for (auto it = m.vids.rbegin(); it != m.vids.rend(); ++it)
            if (it->second.owner == vni)
                want_vids.push_back(it->first);
        mm.check(vids, want_vids, "entry VLAN list");
        std::vector<uint32_t> adjs, want_adjs;
        for (list_head *n = e->adj_list.next; n != &e->adj_list; n = n->next) {
            auto *a = ef_container_of(n, vxlan_ef_adj_t, entry_node);
            adjs.push_back(a->ifx);
            mm.check(a->entry, e, "adjacency owner");
            mm.check(vxlan_ef_adj_get(vsd, nullptr, a->ifx, e), a, "adjacency by ifx");
            mm.check(vxlan_ef_adj_get(vsd, &a->dip, 0, e) != nullptr, true, "adjacency by dip");
            auto t = m.tunnels.find(a->ifx);
            mm.check(t != m.tunnels.end(), true, "adjacency tunnel");
            if (mm.failed())
                return;
            mm.check(ip_same(a->dip, t->second.dip) && ip_same(a->sip, t->second.sip), true, "adjacency addresses");
        }
        for (const MAdj &a : me.adjs) {
            want_adjs.push_back(a.ifx);
            vxlan_ef_adj_t *real = vxlan_ef_adj_get(vsd, nullptr, a.ifx, e);
            mm.check(real != nullptr && (real->dirty != 0) == a.dirty, true, "adjacency dirty");
        }
        mm.check(adjs, want_adjs, "adjacency list");
        mm.check(e->adj_count, me.adjs.size(), "entry adj_count");
        adj_total += me.adjs.size();
        std::vector<uint32_t> subs;
        for (list_head *n = e->subif_list.next; n != &e->subif_list; n = n->next)
            subs.push_back(ef_container_of(n, vxlan_ef_subif_t, vni_node)->ifx);
        mm.check(subs, me.subifs, "flooding list");
    }
    mm.check(vsd->adj_count, adj_total, "instance adj_count");
    for (uint16_t vid : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 4093, 4094}) {
        auto it = m.vids.find(vid);
        mm.check(vsd->vid_vni[vid - 1], it == m.vids.end() ? 0u : it->second.owner, "vid_vni");
        auto *node = static_cast<vxlan_ef_vid_t *>(vsd->vid_node[vid - 1]);
        mm.check(node == nullptr ? -1 : int(node->dirty != 0), it == m.vids.end() ? -1 : int(it->second.dirty),
                 "vid_node");
    }
    mm.check(vsd->udp_port, m.udp_port, "udp_port");
    mm.check(vsd->udp_port_dirty != 0, m.udp_dirty, "udp_port_dirty");
}

void compare_intfs(const Model &m, vxlan_ef_vsd_t *vsd, Mismatch &mm)
{
    std::vector<uint32_t> order;
    for (list_head *n = vsd->tunnel_list.next; n != &vsd->tunnel_list; n = n->next)
        order.push_back(ef_container_of(n, vxlan_ef_intf_t, list_node)->ifx);
    mm.check(order, m.tunnel_order, "tunnel list order");
    mm.check(vsd->tunnel_count, m.tunnels.size(), "tunnel count");
    for (const auto &[ifx, mt] : m.tunnels) {
        vxlan_ef_intf_t *t = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_TUNNEL);
        mm.check(t != nullptr, true, "tunnel lookup");
        if (mm.failed())
            return;
        mm.check(ip_same(t->sip, mt.sip) && ip_same(t->dip, mt.dip), true, "tunnel addresses");
        mm.check(std::vector<int>{t->dirty, t->outside_center, t->outside_center_dirty, t->rmt_mac_learn,
                                  t->rmt_mac_learn_dirty, t->rmt_route_learn, t->rmt_route_learn_dirty},
                 std::vector<int>{mt.dirty, mt.oc, mt.oc_dirty, mt.mac, mt.mac_dirty, mt.route, mt.route_dirty},
                 "tunnel switches");
        size_t chained = 0;
        for (list_head *n = t->adj_list.next; n != &t->adj_list; n = n->next)
            chained++;
        size_t want = 0;
        for (const auto &[vni, me] : m.entries)
            want += std::count_if(me.adjs.begin(), me.adjs.end(), [ifx = ifx](const MAdj &a) { return a.ifx == ifx; });
        mm.check(chained, want, "tunnel adjacency chain");
    }
    order.clear();
    for (list_head *n = vsd->router_list.next; n != &vsd->router_list; n = n->next)
        order.push_back(ef_container_of(n, vxlan_ef_intf_t, list_node)->ifx);
    mm.check(order, m.router_order, "router list order");
    mm.check(vsd->router_count, m.routers.size(), "router count");
    for (const auto &[ifx, mr] : m.routers) {
        vxlan_ef_intf_t *r = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_ROUTER);
        mm.check(r != nullptr, true, "router lookup");
        if (mm.failed())
            return;
        mm.check(std::vector<uint32_t>{r->vni, r->vrf_id, r->dirty}, std::vector<uint32_t>{mr.vni, mr.vrf, mr.dirty},
                 "router fields");
    }
}

void compare_vrfs_and_subifs(const Model &m, vxlan_ef_vsd_t *vsd, Mismatch &mm)
{
    std::vector<int32_t> order;
    for (list_head *n = vsd->vrf_list.next; n != &vsd->vrf_list; n = n->next)
        order.push_back(ef_container_of(n, vxlan_ef_vrf_t, list_node)->vrf_id);
    mm.check(order, m.vrf_order, "vrf list order");
    mm.check(vsd->vrf_count, m.vrfs.size(), "vrf count");
    for (const auto &[id, mv] : m.vrfs) {
        vxlan_ef_vrf_t *v = vxlan_ef_vrf_get(vsd, id);
        mm.check(v != nullptr, true, "vrf lookup");
        if (mm.failed())
            return;
        mm.check(std::vector<uint32_t>{v->l3vni, v->l3ifx, v->dirty}, std::vector<uint32_t>{mv.l3vni, mv.l3ifx, mv.dirty},
                 "vrf fields");
    }
    mm.check(vsd->subif_by_ifx.count, m.subifs.size(), "subif count by ifx");
    mm.check(vsd->subif_by_mifx.count, m.subifs.size(), "subif count by main key");
    mm.check(vsd->subif_by_ifx.leftmost, rb_first(&vsd->subif_by_ifx.root), "leftmost by ifx");
    mm.check(vsd->subif_by_mifx.leftmost, rb_first(&vsd->subif_by_mifx.root), "leftmost by main key");
    std::vector<uint32_t> walk, want;
    for (rb_node *n = rb_first(&vsd->subif_by_ifx.root); n != nullptr; n = rb_next(n))
        walk.push_back(ef_container_of(n, vxlan_ef_subif_t, ifx_node)->ifx);
    for (const auto &[ifx, s] : m.subifs)
        want.push_back(ifx);
    mm.check(walk, want, "subif walk by ifx");
    std::vector<std::tuple<uint32_t, uint16_t, uint16_t>> keys, want_keys;
    for (rb_node *n = rb_first(&vsd->subif_by_mifx.root); n != nullptr; n = rb_next(n)) {
        auto *s = ef_container_of(n, vxlan_ef_subif_t, mifx_node);
        keys.emplace_back(s->main_ifx, s->svid, s->cvid);
    }
    for (const auto &[ifx, s] : m.subifs)
        want_keys.emplace_back(s.main_ifx, s.svid, s.cvid);
    std::sort(want_keys.begin(), want_keys.end());
    mm.check(keys, want_keys, "subif walk by main key");
    for (const auto &[ifx, ms] : m.subifs) {
        vxlan_ef_subif_t *s = vxlan_ef_subif_lookup_by_subifx(vsd, ifx);
        mm.check(s != nullptr, true, "subif lookup");
        if (mm.failed())
            return;
        mm.check(vxlan_ef_subif_lookup_by_mainifx(vsd, ms.main_ifx, ms.svid, ms.cvid), s, "subif lookup by main key");
        mm.check(std::vector<uint32_t>{s->vni, s->dirty}, std::vector<uint32_t>{ms.vni, ms.dirty}, "subif fields");
        mm.check(s->vni_node.next == &s->vni_node, ms.linked == 0, "subif flooding link");
    }
}

void compare_memory(const Model &m, Mismatch &mm)
{
    size_t adjs = 0;
    for (const auto &[vni, e] : m.entries)
        adjs += e.adjs.size();
    mm.check(std::vector<size_t>{g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ADJ],
                                 g_vxlan_ef_kmem_count[VXLAN_EF_MEM_INTF], g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VID],
                                 g_vxlan_ef_kmem_count[VXLAN_EF_MEM_SUBIF], g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VRF]},
             std::vector<size_t>{m.entries.size(), adjs, m.tunnels.size() + m.routers.size(), m.vids.size(),
                                 m.subifs.size(), m.vrfs.size()},
             "live blocks per category");
}

// ---- random messages ----

class Generator {
public:
    explicit Generator(uint32_t seed) : rng_(seed) {}

    // One random message: usually one TLV, sometimes a few.
    std::vector<Tlv> message(Model &m)
    {
        std::vector<Tlv> tlvs;
        const int count = pick(10) == 0 ? 2 + pick(3) : 1;
        for (int i = 0; i < count; ++i)
            tlvs.push_back(tlv(m));
        return tlvs;
    }

private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    template <typename T>
    T one_of(std::initializer_list<T> values)
    {
        return *(values.begin() + pick(static_cast<int>(values.size())));
    }

    // Pools small enough for frequent repeats and hash-bucket collisions
    // (1 and 513, 100 and 612, 500 and 1012, -1 and 511 share buckets).
    uint32_t vni() { return pick(40) == 0 ? one_of<uint32_t>({0, 16777216}) : one_of<uint32_t>({1, 2, 3, 513, 511, 16777215}); }
    uint32_t tunnel_ifx() { return one_of<uint32_t>({100, 101, 612, 103}); }
    uint8_t oper() { return pick(3) == 0 ? 0 : static_cast<uint8_t>(1 + pick(2)); }

    vxlan_ef_ip_addr_t dip()
    {
        static const vxlan_ef_ip_addr_t pool[] = {ip4("10.0.0.1"), ip4("10.0.0.2"), ip4("11.0.0.1"),
                                                  ip6("2001:db8::1"), ip6("2001:db8::100")};
        return pool[pick(5)];
    }
    vxlan_ef_ip_addr_t sip() { return pick(2) ? ip4("1.1.1.1") : ip6("::1"); }

    std::vector<uint16_t> vlans(std::set<uint16_t> *out)
    {
        std::vector<uint16_t> v;
        for (int i = 0, n = 1 + pick(4); i < n; ++i) {
            const uint16_t vid = pick(8) == 0 ? one_of<uint16_t>({0, 4093, 4094, 4095}) : static_cast<uint16_t>(1 + pick(10));
            v.push_back(vid);
            out->insert(vid);
        }
        return v;
    }

    Tlv tlv(Model &m)
    {
        // Message kinds, repeated by weight; the two synchronisation markers
        // are rarer so that tables fill up between resynchronisations.
        static constexpr int kKinds[] = {0, 1, 2, 2, 3, 4, 5, 5, 6, 7, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
        switch (kKinds[pick(static_cast<int>(std::size(kKinds)))]) {
        case 0:
        case 1: {
            const uint32_t v = vni();
            const uint8_t o = pick(6) == 0 ? 0 : 1;
            m.set_entry(v, o);
            return set_entry(v, o);
        }
        case 2: {
            std::set<uint16_t> set;
            const uint32_t v = vni();
            const uint8_t o = pick(4) == 0 ? 0 : 1;
            const auto list = vlans(&set);
            m.set_vlan(v, set, o);
            return set_vlan(v, list, o);
        }
        case 3: {
            const uint16_t port = one_of<uint16_t>({0, 4789, 8472});
            m.udp_port = port;
            m.udp_dirty = false;
            return set_udp_port(port);
        }
        case 4: {
            const uint32_t v = vni(), rifx = one_of<uint32_t>({500, 501, 1012}), vrf = static_cast<uint32_t>(pick(3));
            const uint8_t any = static_cast<uint8_t>(pick(2)), o = oper();
            m.set_router(v, rifx, vrf, any, o);
            return set_router(v, rifx, vrf, any, o);
        }
        case 5:
        case 6: {
            const uint32_t ifx = one_of<uint32_t>({100, 101, 612});
            const auto s = sip(), d = dip();
            const uint8_t o = pick(6) == 0 ? 0 : 1;
            m.set_vtep(ifx, s, d, o);
            return set_vtep(ifx, s, d, o);
        }
        case 7:
        case 8: {
            const uint32_t v = vni(), ifx = tunnel_ifx();
            const uint8_t o = pick(5) == 0 ? 0 : 1;
            m.asso_vtep(v, ifx, o);
            return asso_vtep(v, ifx, o);
        }
        case 9: {
            const uint16_t type = one_of<uint16_t>({kOutsideCenter, kTunnelMacLearn, kTunnelRouteLearn});
            const uint32_t ifx = tunnel_ifx();
            const uint8_t value = static_cast<uint8_t>(pick(3));
            m.tunnel_switch(type, ifx, value);
            return type == kOutsideCenter ? outside_center(ifx, value) : tunnel_learn(type, ifx, value);
        }
        case 10: {
            const uint16_t type = one_of<uint16_t>({kSwitchProtected, kVniArpSuppress, kVniNdSuppress});
            const uint32_t v = vni();
            const uint8_t value = static_cast<uint8_t>(pick(2));
            m.vni_switch(type, v, value);
            return vni_byte(type, v, value);
        }
        case 11: {
            const uint32_t a = vni(), b = vni();
            const uint8_t o = oper();
            m.vni_map(a, b, o);
            return vni_map(a, b, o);
        }
        case 12: {
            const int32_t id = one_of<int32_t>({-1, 511, 0, 3, -513});
            const uint32_t l3vni = static_cast<uint32_t>(pick(3)), l3ifx = static_cast<uint32_t>(pick(3));
            const uint8_t o = oper();
            m.set_vrf(id, l3vni, l3ifx, o);
            return set_vrf(id, l3vni, l3ifx, o);
        }
        case 13:
        case 14: {
            const uint32_t ifx = static_cast<uint32_t>(1 + pick(6)), main = one_of<uint32_t>({50, 51});
            const uint32_t v = pick(5) == 0 ? 7 : vni();
            const uint16_t svid = static_cast<uint16_t>(1 + pick(2)), cvid = static_cast<uint16_t>(pick(2));
            const uint8_t o = oper();
            if (o != 0)
                m.subif_update(ifx, main, v, svid, cvid);
            else
                m.remove_subif(ifx);
            return subif(ifx, main, v, svid, cvid, o);
        }
        case 15:
            m.sync_begin();
            return sync_begin();
        default:
            m.sync_over();
            return sync_over();
        }
    }

    std::mt19937 rng_;
};

// How full the tables got, so that the test shows it exercised real content.
struct Coverage {
    size_t max_entries = 0, max_adjs = 0, max_subifs = 0, max_vids = 0;
    size_t steps_with_flooding_links = 0;

    void note(const Model &m)
    {
        size_t adjs = 0, links = 0;
        for (const auto &[vni, e] : m.entries) {
            adjs += e.adjs.size();
            links += e.subifs.size();
        }
        max_entries = std::max(max_entries, m.entries.size());
        max_adjs = std::max(max_adjs, adjs);
        max_subifs = std::max(max_subifs, m.subifs.size());
        max_vids = std::max(max_vids, m.vids.size());
        steps_with_flooding_links += links != 0 ? 1 : 0;
    }
};

class TableModelTest : public TableTest {};

constexpr int kSequences = 3000;
constexpr int kMessagesPerSequence = 60;

TEST_F(TableModelTest, RandomConfigurationSequencesMatchTheReferenceModelAfterEveryMessage)
{
    const long blocks_at_start = efrt::mem_live_blocks_total();
    uint32_t kmem_at_start[VXLAN_EF_MEM_CLASSES];
    std::memcpy(kmem_at_start, g_vxlan_ef_kmem_count, sizeof kmem_at_start);
    size_t messages = 0;
    Coverage coverage;
    for (int seq = 0; seq < kSequences; ++seq) {
        SCOPED_TRACE("sequence " + std::to_string(seq));
        start("3");
        Model model;
        Generator gen(0x5eed0000u + static_cast<uint32_t>(seq));
        for (int i = 0; i < kMessagesPerSequence; ++i) {
            deliver_tlvs(gen.message(model));
            messages++;
            Mismatch mm;
            compare_entries(model, vsd(), mm);
            compare_intfs(model, vsd(), mm);
            compare_vrfs_and_subifs(model, vsd(), mm);
            compare_memory(model, mm);
            ASSERT_FALSE(mm.failed()) << mm.text() << " after message " << i;
            ASSERT_EQ(table_problems_text(vsd()), "") << "after message " << i;
            coverage.note(model);
        }
        // A last full resynchronisation of whatever the model still holds
        // leaves the tables unchanged.
        deliver_tlvs({sync_begin()});
        model.sync_begin();
        std::vector<Tlv> resend;
        for (const auto &[ifx, t] : model.tunnels) {
            resend.push_back(set_vtep(ifx, t.sip, t.dip));
            model.set_vtep(ifx, t.sip, t.dip, 1);
        }
        for (uint32_t vni : model.entry_order) {
            resend.push_back(set_entry(vni));
            model.set_entry(vni, 1);
        }
        deliver_tlvs(resend);
        deliver_tlvs({sync_over()});
        model.sync_over();
        Mismatch mm;
        compare_entries(model, vsd(), mm);
        compare_intfs(model, vsd(), mm);
        compare_vrfs_and_subifs(model, vsd(), mm);
        compare_memory(model, mm);
        ASSERT_FALSE(mm.failed()) << mm.text() << " after the final resynchronisation";
        ASSERT_EQ(table_problems_text(vsd()), "") << "after the final resynchronisation";

        drop_subifs();  // the sub-interface table has no exit step
        vxlan_ef_exit();
        // Channel messages are freed outside the counters, so their category
        // only grows; every other category is back where it started.
        for (uint32_t c = 0; c < VXLAN_EF_MEM_CLASSES; ++c) {
            if (c == VXLAN_EF_MEM_MSG)
                continue;
            ASSERT_EQ(g_vxlan_ef_kmem_count[c], kmem_at_start[c]) << "category " << c;
        }
        ASSERT_EQ(efrt::mem_live_blocks_total(), blocks_at_start);
    }
    EXPECT_EQ(messages, static_cast<size_t>(kSequences) * kMessagesPerSequence);
    // The sequences did reach well-filled tables, not just empty ones.
    EXPECT_GE(coverage.max_entries, 5u);
    EXPECT_GE(coverage.max_adjs, 5u);
    EXPECT_GE(coverage.max_subifs, 5u);
    EXPECT_GE(coverage.max_vids, 8u);
    EXPECT_GT(coverage.steps_with_flooding_links, messages / 10);
    std::printf("model: %d sequences, %zu messages; largest tables: %zu entries, %zu adjacencies, %zu "
                "sub-interfaces, %zu VLANs\n",
                kSequences, messages, coverage.max_entries, coverage.max_adjs, coverage.max_subifs,
                coverage.max_vids);
}

}  // namespace
