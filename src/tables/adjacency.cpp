// VTEP adjacencies: a VNI carried over one OverlayTunnel to one remote VTEP.
// Each lives in its entry's two hashes (by tunnel ifx, by destination IP) and
// list, and on its tunnel's chain so that tunnel changes reach it. ASSO_VTEP
// creates and removes them; the packet plane finds a received packet's tunnel
// through vxlan_ef_tunnel_get.
#include <cstring>

#include "lsm.h"
#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

constexpr uint32_t kAdjHashMask = VXLAN_EF_ENTRY_HASH_SIZE - 1;

// New adjacency of tunnel ifx, counted in the instance before its tunnel is
// known (the count is taken back if there is none).
vxlan_ef_adj_t *vxlan_ef_adj_alloc(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    auto *adj = static_cast<vxlan_ef_adj_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_ADJ, sizeof(vxlan_ef_adj_t), 0));
    if (adj == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] kmalloc adj memory failed, ifx: %u\n", ifx);
        return nullptr;
    }
    std::memset(static_cast<void *>(adj), 0, sizeof *adj);
    adj->ifx = ifx;
    INIT_LIST_HEAD(&adj->ifx_node);
    INIT_LIST_HEAD(&adj->dip_node);
    INIT_LIST_HEAD(&adj->entry_node);
    INIT_LIST_HEAD(&adj->tunnel_node);
    vsd->adj_count++;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] create new ef-adj node, total adj-count is %u.\n",
                   vsd->adj_count);
    return adj;
}

void adj_link(vxlan_ef_entry_t *entry, vxlan_ef_intf_t *tunnel, vxlan_ef_adj_t *adj)
{
    adj->sip = tunnel->sip;
    adj->dip = tunnel->dip;
    adj->entry = entry;
    store_barrier();
    list_add_tail(&adj->ifx_node, &entry->adj_by_ifx[adj->ifx & kAdjHashMask]);
    list_add_tail(&adj->dip_node, &entry->adj_by_dip[adj_dip_bucket(adj->dip)]);
    list_add_tail(&adj->entry_node, &entry->adj_list);
    list_add_tail(&adj->tunnel_node, &tunnel->adj_list);
    entry->adj_count++;
    store_barrier();
}

void associate(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, uint32_t ifx)
{
    vxlan_ef_adj_t *adj = vxlan_ef_adj_alloc(vsd, ifx);
    if (adj == nullptr)
        return;
    vxlan_ef_intf_t *tunnel = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_TUNNEL);
    if (tunnel != nullptr) {
        adj_link(entry, tunnel, adj);
        return;
    }
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_asso_vtep_deal",
                    "VXLAN-EF-ERR: [vsd %d %s] can't find tunnel so free ef-adj(vni %u, ifx %u).\n",
                    entry->vni, ifx);
    vsd->adj_count--;
    vxlan_ef_kfree(VXLAN_EF_MEM_ADJ, adj);
}

// Moves adj to the dip bucket of the tunnel's new destination address.
void adj_move_dip(vxlan_ef_adj_t *adj, const vxlan_ef_ip_addr_t &dip)
{
    list_del(&adj->dip_node);
    adj->dip = dip;
    store_barrier();
    list_add_tail(&adj->dip_node, &adj->entry->adj_by_dip[adj_dip_bucket(dip)]);
}

}  // namespace

namespace vxlan_ef {

uint32_t adj_dip_bucket(const vxlan_ef_ip_addr_t &dip)
{
    const uint8_t *a = dip.addr;
    if (dip.family == VXLAN_EF_AF_INET)
        return a[0];
    if (dip.family == VXLAN_EF_AF_INET6)
        return (a[0] + a[4] + a[8] + a[12]) & kAdjHashMask;
    return 0;
}

void adj_unlink(vxlan_ef_adj_t *adj)
{
    list_del(&adj->ifx_node);
    list_del(&adj->dip_node);
    list_del(&adj->entry_node);
    list_del(&adj->tunnel_node);
    store_barrier();
    if (adj->entry != nullptr)
        adj->entry->adj_count--;
    adj->entry = nullptr;
}

void adj_destroy(vxlan_ef_vsd_t *vsd, vxlan_ef_adj_t *adj)
{
    adj_unlink(adj);
    vsd->adj_count--;
    vxlan_ef_kfree(VXLAN_EF_MEM_ADJ, adj);
}

}  // namespace vxlan_ef

int vxlan_ef_asso_vtep_deal(uint32_t, const uint8_t *value)
{
    EntryGuard<tlv::kAssoVtep> guard(__func__, value);
    vxlan_ef_entry_t *entry = guard.entry();
    if (entry == nullptr)
        return -1;
    const uint32_t ifx = guard.get<"ifx">();
    const uint8_t oper = guard.get<"oper">();
    const uint32_t vni = guard.vni();
    vxlan_ef_vsd_t *vsd = guard.vsd();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to asso vtep, vni: %u, ifx: %u, oper: %d\n",
                   vni, ifx, oper);
    vxlan_ef_adj_t *adj = vxlan_ef_adj_get(vsd, nullptr, ifx, entry);
    if (oper != 0 && adj != nullptr) {
        adj->dirty = 0;
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] adj(ifx %u, vni %u) is exist.\n", ifx, vni);
    } else if (oper != 0) {
        associate(vsd, entry, ifx);
    } else if (adj != nullptr) {
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] free ef-adj(vni %u, ifx %u).\n", vni, ifx);
        adj_destroy(vsd, adj);
    }
    return 0;
}

vxlan_ef_adj_t *vxlan_ef_adj_get(vxlan_ef_vsd_t *vsd, const vxlan_ef_ip_addr_t *dip, uint32_t ifx,
                                 vxlan_ef_entry_t *entry)
{
    if (vsd == nullptr || entry == nullptr)
        return nullptr;
    if (ifx != 0 && dip != nullptr && ip_nonzero(*dip)) {
        static char key_text[kIpTextLen];
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] key error, dip: %s, ifx: %u\n",
                     ip_text(*dip, key_text), ifx);
        return nullptr;
    }
    if (ifx != 0) {
        list_head *bucket = &entry->adj_by_ifx[ifx & kAdjHashMask];
        for (list_head *node = bucket->next; node != bucket; node = node->next) {
            vxlan_ef_adj_t *adj = ef_container_of(node, vxlan_ef_adj_t, ifx_node);
            if (adj->ifx == ifx)
                return adj;
        }
        return nullptr;
    }
    if (dip == nullptr)
        return nullptr;
    list_head *bucket = &entry->adj_by_dip[adj_dip_bucket(*dip)];
    for (list_head *node = bucket->next; node != bucket; node = node->next) {
        vxlan_ef_adj_t *adj = ef_container_of(node, vxlan_ef_adj_t, dip_node);
        if (ip_equal(adj->dip, *dip))
            return adj;
    }
    return nullptr;
}

void vxlan_ef_adj_update(vxlan_ef_vsd_t *vsd, vxlan_ef_intf_t *tunnel, int keep)
{
    if (vsd == nullptr || tunnel == nullptr || tunnel->kind != LSM_IF_TYPE_OVERLAY_TUNNEL)
        return;
    list_walk_safe(&tunnel->adj_list, [&](list_head *node) {
        vxlan_ef_adj_t *adj = ef_container_of(node, vxlan_ef_adj_t, tunnel_node);
        const uint32_t vni = adj->entry->vni;
        if (keep == 0) {
            VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_adj_update",
                            "VXLAN-EF-EVENT: [vsd %d %s] free ef-adj(vni %u, ifx %u).\n", vni,
                            adj->ifx);
            adj_destroy(vsd, adj);
            return;
        }
        if (!ip_equal(adj->dip, tunnel->dip))
            adj_move_dip(adj, tunnel->dip);
        adj->sip = tunnel->sip;
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, "vxlan_ef_adj_update",
                        "VXLAN-EF-EVENT: [vsd %d %s] update ef-adj(vni %u, ifx %u).\n", vni,
                        adj->ifx);
    });
    store_barrier();
}

lsm_intfcb *vxlan_ef_tunnel_get(void *, vxlan_ef_entry_t *entry, const vxlan_ef_ip_addr_t *sip,
                                const vxlan_ef_ip_addr_t *dip)
{
    if (g_vxlan_vsd == nullptr || sip == nullptr || dip == nullptr)
        return nullptr;
    if (entry == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vxlan is not exist\n");
        return nullptr;
    }
    list_head *bucket = &entry->adj_by_dip[adj_dip_bucket(*dip)];
    for (list_head *node = bucket->next; node != bucket; node = node->next) {
        __builtin_prefetch(node->next);
        vxlan_ef_adj_t *adj = ef_container_of(node, vxlan_ef_adj_t, dip_node);
        if (ip_equal(adj->dip, *dip) && ip_equal(adj->sip, *sip))
            return lsm_get_intfcb(adj->ifx);
    }
    return nullptr;
}
