// Resynchronisation of every table by mark and sweep. SYNC_DATA_BEGIN marks
// each configured object (the marks are written under the read lock); the
// messages of the resent configuration clear the marks of what they name;
// SYNC_DATA_OVER removes or resets what is still marked, under the write
// lock, interfaces first so that a vanished tunnel takes its adjacencies with
// it before the entries are swept.
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

void mark_tunnel(vxlan_ef_intf_t *tunnel)
{
    tunnel->dirty = 1;
    tunnel->outside_center_dirty = 1;
    tunnel->rmt_mac_learn_dirty = 1;
    tunnel->rmt_route_learn_dirty = 1;
}

// A confirmed tunnel's switches that were not resent go back to 0.
void reset_unconfirmed_switches(vxlan_ef_intf_t *tunnel)
{
    struct Switch {
        uint8_t vxlan_ef_intf_t::*field;
        uint8_t vxlan_ef_intf_t::*dirty;
    };
    static constexpr Switch kSwitches[] = {
        {&vxlan_ef_intf_t::outside_center, &vxlan_ef_intf_t::outside_center_dirty},
        {&vxlan_ef_intf_t::rmt_mac_learn, &vxlan_ef_intf_t::rmt_mac_learn_dirty},
        {&vxlan_ef_intf_t::rmt_route_learn, &vxlan_ef_intf_t::rmt_route_learn_dirty},
    };
    for (const Switch &sw : kSwitches) {
        if (tunnel->*sw.dirty != 0) {
            tunnel->*sw.field = 0;
            tunnel->*sw.dirty = 0;
        }
    }
}

void mark_entry(vxlan_ef_entry_t *entry)
{
    entry->dirty = VXLAN_EF_ENTRY_DIRTY_ALL;
    list_walk_safe(&entry->adj_list, [](list_head *node) {
        ef_container_of(node, vxlan_ef_adj_t, entry_node)->dirty = 1;
    });
    list_walk_safe(&entry->vid_list, [](list_head *node) {
        ef_container_of(node, vxlan_ef_vid_t, node)->dirty = 1;
    });
    if (entry->map_vni_b != 0 || entry->map_vni_a != 0)
        entry->map_dirty = 1;
}

// Resets the unconfirmed settings of a confirmed entry; its anycast flag stays.
void reset_unconfirmed_settings(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    if (entry->dirty & VXLAN_EF_ENTRY_DIRTY_ROUTER) {
        vxlan_ef_intf_asso_vni(static_cast<uint32_t>(vsd->id), entry->router_ifx, entry->vni,
                               entry->vrf_id, 0);
        entry->router_ifx = 0;  // the VRF id is left as it was
    }
    if (entry->dirty & VXLAN_EF_ENTRY_DIRTY_PROTECTED)
        entry->switch_proteched = 0;
    if (entry->dirty & VXLAN_EF_ENTRY_DIRTY_ARP)
        entry->arp_suppress = 0;
    if (entry->dirty & VXLAN_EF_ENTRY_DIRTY_ND)
        entry->nd_suppress = 0;
    entry->dirty = 0;
}

void sweep_entry(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    constexpr const char *kFunc = "vxlan_ef_entry_sync_end";
    if (entry->map_dirty != 0) {
        entry->map_vni_b = 0;
        entry->map_vni_a = 0;
        entry->map_dirty = 0;
    }
    entry_free_adjs(vsd, entry, true,
                    "VXLAN-EF-EVENT: [vsd %d %s] (1)free ef-adj(vni %u, ifx %u).", kFunc);
    entry_free_vids(vsd, entry, true,
                    "VXLAN-EF-EVENT: [vsd %d %s] (1)free ef-vid(vni %u, vid %u).", kFunc);
    if (entry->dirty == 0)
        return;
    if ((entry->dirty & VXLAN_EF_ENTRY_DIRTY_SELF) == 0) {
        reset_unconfirmed_settings(vsd, entry);
        return;
    }
    entry_destroy(vsd, entry, "VXLAN-EF-EVENT: [vsd %d %s] (2)free ef-adj(vni %u, ifx %u).",
                  "VXLAN-EF-EVENT: [vsd %d %s] (2)free ef-vid(vni %u, vid %u).", kFunc);
}

}  // namespace

void vxlan_ef_intf_sync_start(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync start, try to set dirty flags in tunnel "
                   "table\n");
    ReadLock lock(vsd);
    list_walk_safe(&vsd->tunnel_list,
                   [](list_head *node) { mark_tunnel(intf_of_list_node(node)); });
    list_walk_safe(&vsd->router_list,
                   [](list_head *node) { intf_of_list_node(node)->dirty = 1; });
}

void vxlan_ef_intf_sync_end(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync end, try to clear dirty data in tunnel "
                   "table\n");
    WriteLock lock(vsd);
    list_walk_safe(&vsd->tunnel_list, [vsd](list_head *node) {
        vxlan_ef_intf_t *tunnel = intf_of_list_node(node);
        if (tunnel->dirty == 0) {
            reset_unconfirmed_switches(tunnel);
            return;
        }
        vxlan_ef_adj_update(vsd, tunnel, 0);
        intf_remove(vsd, tunnel);
    });
    // Entries that still name a removed router are not told here.
    list_walk_safe(&vsd->router_list, [vsd](list_head *node) {
        vxlan_ef_intf_t *router = intf_of_list_node(node);
        if (router->dirty != 0)
            intf_remove(vsd, router);
    });
    store_barrier();
}

void vxlan_ef_entry_sync_start(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync start, try to set dirty flags in entry "
                   "table\n");
    ReadLock lock(vsd);
    vsd->udp_port_dirty = 1;
    list_walk_safe(&vsd->entry_list,
                   [](list_head *node) { mark_entry(entry_of_list_node(node)); });
}

void vxlan_ef_entry_sync_end(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync end, try to clear dirty data in entry "
                   "table\n");
    WriteLock lock(vsd);
    if (vsd->udp_port_dirty != 0) {
        store_relaxed(vsd->udp_port, VXLAN_EF_UDP_PORT_DEFAULT);
        vsd->udp_port_dirty = 0;
    }
    list_walk_safe(&vsd->entry_list,
                   [vsd](list_head *node) { sweep_entry(vsd, entry_of_list_node(node)); });
    store_barrier();
}

void vxlan_ef_vrf_sync_start(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync start, try to set dirty flags in vrf "
                   "table\n");
    ReadLock lock(vsd);
    list_walk_safe(&vsd->vrf_list, [](list_head *node) { vrf_of_list_node(node)->dirty = 1; });
}

void vxlan_ef_vrf_sync_end(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync end, try to clear dirty data in vrf "
                   "table\n");
    WriteLock lock(vsd);
    list_walk_safe(&vsd->vrf_list, [vsd](list_head *node) {
        vxlan_ef_vrf_t *vrf = vrf_of_list_node(node);
        if (vrf->dirty != 0)
            vrf_remove(vsd, vrf);
    });
    store_barrier();
}

void vxlan_ef_subif_sync_start(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync start, try to set dirty flags in subif "
                   "table\n");
    if (vsd->subif_by_ifx.count == 0)
        return;  // not even the lock
    ReadLock lock(vsd);
    for (vxlan_ef_subif_t *subif = subif_first(vsd); subif != nullptr; subif = subif_next(subif))
        subif->dirty = 1;
}

void vxlan_ef_subif_sync_end(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] sync end, try to clear dirty node in subif "
                   "table\n");
    if (vsd->subif_by_ifx.count == 0)
        return;
    uint32_t removed = 0;
    {
        WriteLock lock(vsd);
        for (vxlan_ef_subif_t *subif = subif_first(vsd), *next; subif != nullptr; subif = next) {
            next = subif_next(subif);
            if (subif->dirty != 0) {
                subif_remove(vsd, subif);
                removed++;
            }
        }
        store_barrier();
    }
    if (removed != 0)
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] clear %u dirty node from subif table\n",
                       removed);
}
