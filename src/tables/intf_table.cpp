// The tunnel and router interface table: OverlayTunnel records created by
// SET_VTEP (with their adjacency chains) and OverlayRouter records created by
// binding a router interface to a VNI, each kind in its own 512-bucket hash
// and list in the instance record.
#include <cstring>

#include "lsm.h"
#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

constexpr uint32_t kIntfHashMask = VXLAN_EF_HASH_SIZE - 1;

bool is_router(uint32_t kind) { return kind == LSM_IF_TYPE_OVERLAY_ROUTER; }

list_head *kind_hash(vxlan_ef_vsd_t *vsd, uint32_t kind)
{
    return is_router(kind) ? vsd->router_hash : vsd->tunnel_hash;
}

list_head *kind_list(vxlan_ef_vsd_t *vsd, uint32_t kind)
{
    return is_router(kind) ? &vsd->router_list : &vsd->tunnel_list;
}

uint32_t &kind_count(vxlan_ef_vsd_t *vsd, uint32_t kind)
{
    return is_router(kind) ? vsd->router_count : vsd->tunnel_count;
}

vxlan_ef_intf_t *vxlan_ef_intf_alloc(vxlan_ef_vsd_t *vsd, uint32_t ifx, uint32_t kind)
{
    if (kind != LSM_IF_TYPE_OVERLAY_TUNNEL && kind != LSM_IF_TYPE_OVERLAY_ROUTER)
        return nullptr;
    auto *intf = static_cast<vxlan_ef_intf_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_INTF, sizeof(vxlan_ef_intf_t), 0));
    if (intf == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] kmalloc vxlan_ef_intf memory failed, ifx: %u\n",
                     ifx);
        return nullptr;
    }
    std::memset(static_cast<void *>(intf), 0, sizeof *intf);
    intf->ifx = ifx;
    intf->kind = kind;
    INIT_LIST_HEAD(&intf->hash_node);
    INIT_LIST_HEAD(&intf->list_node);
    INIT_LIST_HEAD(&intf->adj_list);
    kind_count(vsd, kind)++;
    store_barrier();
    list_add_tail(&intf->hash_node, &kind_hash(vsd, kind)[ifx & kIntfHashMask]);
    list_add_tail(&intf->list_node, kind_list(vsd, kind));
    store_barrier();
    return intf;
}

void init_kind(vxlan_ef_vsd_t *vsd, uint32_t kind)
{
    list_head *hash = kind_hash(vsd, kind);
    for (uint32_t i = 0; i < VXLAN_EF_HASH_SIZE; ++i)
        INIT_LIST_HEAD(&hash[i]);
    INIT_LIST_HEAD(kind_list(vsd, kind));
    kind_count(vsd, kind) = 0;
}

void remove_all(vxlan_ef_vsd_t *vsd, uint32_t kind)
{
    list_walk_safe(kind_list(vsd, kind),
                   [vsd](list_head *node) { intf_remove(vsd, intf_of_list_node(node)); });
}

// The switch byte of the OverlayTunnel ifx, 0 when there is none.
int tunnel_switch(vxlan_ef_vsd_t *vsd, uint32_t ifx, uint8_t vxlan_ef_intf_t::*field)
{
    const vxlan_ef_intf_t *tunnel = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_TUNNEL);
    return tunnel != nullptr ? tunnel->*field : 0;
}

}  // namespace

namespace vxlan_ef {

vxlan_ef_intf_t *intf_of_list_node(list_head *node)
{
    return ef_container_of(node, vxlan_ef_intf_t, list_node);
}

void intf_remove(vxlan_ef_vsd_t *vsd, vxlan_ef_intf_t *intf)
{
    list_del(&intf->hash_node);
    list_del(&intf->list_node);
    store_barrier();
    kind_count(vsd, intf->kind)--;
    vxlan_ef_kfree(VXLAN_EF_MEM_INTF, intf);
}

}  // namespace vxlan_ef

uint32_t vxlan_ef_intf_init(uint32_t)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0xFFFFFFFFu;
    init_kind(vsd, LSM_IF_TYPE_OVERLAY_TUNNEL);
    init_kind(vsd, LSM_IF_TYPE_OVERLAY_ROUTER);
    return 0;
}

void vxlan_ef_intf_exit(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    // Adjacencies are not touched: the entry table has freed them already.
    remove_all(vsd, LSM_IF_TYPE_OVERLAY_TUNNEL);
    remove_all(vsd, LSM_IF_TYPE_OVERLAY_ROUTER);
}

vxlan_ef_intf_t *vxlan_ef_intf_get(vxlan_ef_vsd_t *vsd, uint32_t ifx, uint32_t kind)
{
    // A caller left with the instance pointer after exit holds no table.
    if (vsd == nullptr)
        return nullptr;
    list_head *bucket = &kind_hash(vsd, kind)[ifx & kIntfHashMask];
    for (list_head *node = bucket->next; node != bucket; node = node->next) {
        auto *intf = ef_container_of(node, vxlan_ef_intf_t, hash_node);
        if (intf->ifx == ifx)
            return intf;
    }
    return nullptr;
}

int vxlan_ef_intf_is_outside_center(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    return tunnel_switch(vsd, ifx, &vxlan_ef_intf_t::outside_center);
}

int vxlan_ef_check_tnl_mac_learn(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    return tunnel_switch(vsd, ifx, &vxlan_ef_intf_t::rmt_mac_learn);
}

int vxlan_ef_check_tnl_route_learn(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    return tunnel_switch(vsd, ifx, &vxlan_ef_intf_t::rmt_route_learn);
}

int vxlan_ef_intf_asso_vni(uint32_t, uint32_t ifx, uint32_t vni, uint32_t vrf_id, uint8_t oper)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return -1;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set OverlayRouter, ifx: %u, vni: %u, "
                   "oper: %d\n",
                   ifx, vni, oper);
    vxlan_ef_intf_t *router = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_ROUTER);
    if (oper == 0) {
        // One record per router interface, whichever VNI it was last bound to.
        if (router != nullptr)
            intf_remove(vsd, router);
        return 0;
    }
    if (router == nullptr)
        router = vxlan_ef_intf_alloc(vsd, ifx, LSM_IF_TYPE_OVERLAY_ROUTER);
    else
        router->dirty = 0;
    if (router == nullptr)
        return -1;
    router->vni = vni;
    router->vrf_id = vrf_id;
    store_barrier();
    return 0;
}

int vxlan_ef_set_vtep_deal(uint32_t, const uint8_t *value)
{
    HandlerGuard<tlv::kSetVtep> guard(__func__, value);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const uint32_t ifx = guard.get<"ifx">();
    const uint8_t oper = guard.get<"oper">();
    guard.lock();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set OverlayTunnel, ifx: %u, oper: %d\n", ifx,
                   oper);
    vxlan_ef_intf_t *tunnel = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_TUNNEL);
    if (oper == 0) {
        if (tunnel != nullptr) {
            vxlan_ef_adj_update(vsd, tunnel, 0);
            intf_remove(vsd, tunnel);
        }
        return 0;
    }
    if (tunnel == nullptr)
        tunnel = vxlan_ef_intf_alloc(vsd, ifx, LSM_IF_TYPE_OVERLAY_TUNNEL);
    else
        tunnel->dirty = 0;
    if (tunnel == nullptr)
        return -1;
    tunnel->sip = guard.get<"sip">();
    tunnel->dip = guard.get<"dip">();
    vxlan_ef_adj_update(vsd, tunnel, 1);
    return 0;
}
