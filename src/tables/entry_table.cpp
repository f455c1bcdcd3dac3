// The VXLAN entry table: entries by VNI in a 512-bucket hash and a list in
// creation order, their creation and deletion by SET_ENTRY, the table's life
// with the instance, and the lookups by VNI that the packet plane and the
// other tables use.
#include <cstring>

#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

constexpr uint32_t kEntryHashMask = VXLAN_EF_HASH_SIZE - 1;
constexpr uint32_t kNoVrf = 0xFFFFFFFFu;

void init_heads(list_head *heads, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        INIT_LIST_HEAD(&heads[i]);
}

vxlan_ef_entry_t *vxlan_ef_entry_alloc(vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    if (vni < 1 || vni > VXLAN_EF_VNI_MAX) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] ERROR VNI: %u\n", vni);
        return nullptr;
    }
    auto *entry = static_cast<vxlan_ef_entry_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_ENTRY, sizeof(vxlan_ef_entry_t), 0));
    if (entry == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] kmalloc entry memory failed, vni: %u\n", vni);
        return nullptr;
    }
    std::memset(static_cast<void *>(entry), 0, sizeof *entry);
    entry->vni = vni;
    init_heads(entry->adj_by_ifx, VXLAN_EF_ENTRY_HASH_SIZE);
    init_heads(entry->adj_by_dip, VXLAN_EF_ENTRY_HASH_SIZE);
    INIT_LIST_HEAD(&entry->adj_list);
    INIT_LIST_HEAD(&entry->vid_list);
    INIT_LIST_HEAD(&entry->suber_list);
    INIT_LIST_HEAD(&entry->subif_list);
    entry->type = VXLAN_EF_ENTRY_NORMAL;
    entry->vrf_id = kNoVrf;
    entry->dirty = 0;
    store_barrier();
    list_link_tail(&entry->hash_node, &vsd->entry_hash[vni & kEntryHashMask]);
    list_link_tail(&entry->list_node, &vsd->entry_list);
    // Packet threads test the count without the lock.
    store_relaxed(vsd->entry_count, vsd->entry_count + 1);
    return entry;
}

// Sub-interfaces and Suber entries keep list links into their entry; when it
// goes they are left self-linked (and a Suber forgets its Super), so that no
// pointer into the freed record survives.
void detach_dependents(vxlan_ef_entry_t *entry)
{
    list_walk_safe(&entry->subif_list, [](list_head *node) { list_del_init(node); });
    if (entry->type == VXLAN_EF_ENTRY_SUBER) {
        list_del_init(&entry->suber_list);
        entry->super_entry = nullptr;
        return;
    }
    list_walk_safe(&entry->suber_list, [](list_head *node) {
        list_del_init(node);
        ef_container_of(node, vxlan_ef_entry_t, suber_list)->super_entry = nullptr;
    });
}

// The delete step of SET_ENTRY, with its free lines.
void vxlan_ef_entry_delete(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    entry_destroy(vsd, entry, "VXLAN-EF-EVENT: [vsd %d %s] free ef-adj(vni %u, ifx %u).",
                  "VXLAN-EF-EVENT: [vsd %d %s] free ef-vid(vni %u, vid %u).", __func__);
}

}  // namespace

namespace vxlan_ef {

vxlan_ef_entry_t *entry_of_list_node(list_head *node)
{
    return ef_container_of(node, vxlan_ef_entry_t, list_node);
}

void entry_free_adjs(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, bool only_dirty,
                     const char *fmt, const char *func)
{
    list_walk_safe(&entry->adj_list, [&](list_head *node) {
        auto *adj = ef_container_of(node, vxlan_ef_adj_t, entry_node);
        if (only_dirty && adj->dirty == 0)
            return;
        if (fmt != nullptr)
            VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, func, fmt, entry->vni, adj->ifx);
        adj_destroy(vsd, adj);
    });
}

void entry_destroy(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, const char *adj_fmt,
                   const char *vid_fmt, const char *func)
{
    entry_free_adjs(vsd, entry, false, adj_fmt, func);
    entry_free_vids(vsd, entry, false, vid_fmt, func);
    if (entry->router_ifx != 0)
        vxlan_ef_intf_asso_vni(static_cast<uint32_t>(vsd->id), entry->router_ifx, entry->vni,
                               entry->vrf_id, 0);
    detach_dependents(entry);
    list_unlink(&entry->hash_node);
    list_unlink(&entry->list_node);
    store_relaxed(vsd->entry_count, vsd->entry_count - 1);
    vxlan_ef_kfree(VXLAN_EF_MEM_ENTRY, entry);
}

}  // namespace vxlan_ef

uint32_t vxlan_ef_entry_init(uint32_t)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0xFFFFFFFFu;
    store_relaxed(vsd->entry_count, 0);
    vsd->adj_count = 0;
    VXLAN_EF_EVENT(
        "VXLAN-EF-EVENT: [vsd %d %s] vxlan_ef_entry_init: set total entry/adj-count to zero.\n");
    init_heads(vsd->entry_hash, VXLAN_EF_HASH_SIZE);
    INIT_LIST_HEAD(&vsd->entry_list);
    return 0;
}

void vxlan_ef_entry_exit(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] vxlan_ef_entry_exit: free total entry/adj.\n");
    list_walk_safe(&vsd->entry_list, [vsd](list_head *node) {
        entry_destroy(vsd, entry_of_list_node(node), nullptr, nullptr, "vxlan_ef_entry_exit");
    });
}

vxlan_ef_entry_t *vxlan_ef_entry_get(vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    // A caller left with the instance pointer after exit holds no table.
    if (vsd == nullptr)
        return nullptr;
    list_head *bucket = &vsd->entry_hash[vni & kEntryHashMask];
    for (list_head *node = bucket->next; node != bucket; node = node->next) {
        __builtin_prefetch(node->next);
        auto *entry = ef_container_of(node, vxlan_ef_entry_t, hash_node);
        if (entry->vni == vni)
            return entry;
    }
    return nullptr;
}

vxlan_ef_entry_t *vxlan_ef_manage_vxlan_get(vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (entry == nullptr)
        return nullptr;
    return entry->type < VXLAN_EF_ENTRY_SUBER ? entry : entry->super_entry;
}

uint32_t vxlan_ef_manage_vni_get(void *, uint32_t vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    ReadLock lock(vsd);
    const vxlan_ef_entry_t *manager = vxlan_ef_manage_vxlan_get(vsd, vni);
    if (manager == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] manage vxlan entry is not exist, vni: %u\n", vni);
        return 0;
    }
    return manager->vni;
}

int vxlan_ef_set_entry_deal(uint32_t, const uint8_t *value)
{
    HandlerGuard<tlv::kSetEntry> guard(__func__, value, kArgsNullStop);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const uint32_t vni = guard.get<"vni">();
    const uint8_t oper = guard.get<"oper">();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set entry, vni: %u, oper: %d\n", vni, oper);
    guard.lock();
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (oper != 0) {
        if (entry != nullptr)
            entry->dirty &= ~VXLAN_EF_ENTRY_DIRTY_SELF;
        else
            vxlan_ef_entry_alloc(vsd, vni);
    } else if (entry != nullptr) {
        vxlan_ef_entry_delete(vsd, entry);
    }
    return 0;
}
