// VLAN extension of VXLAN entries (SET_VLAN): per entry a list of VLAN nodes
// in descending VLAN order, and the instance's flat VLAN-to-VNI and
// VLAN-to-node arrays that the packet plane resolves a VLAN with. A VLAN
// belongs to the first VNI that took it.
#include <cstring>

#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

vxlan_ef_vid_t *vid_node_of(const vxlan_ef_vsd_t *vsd, uint32_t vid)
{
    return static_cast<vxlan_ef_vid_t *>(vsd->vid_node[vid - 1]);
}

vxlan_ef_vid_t *vxlan_ef_vid_alloc(uint32_t vid)
{
    auto *node = static_cast<vxlan_ef_vid_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_VID, sizeof(vxlan_ef_vid_t), 0));
    if (node == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] kmalloc vid memory failed, vid: %u\n", vid);
        return nullptr;
    }
    std::memset(static_cast<void *>(node), 0, sizeof *node);
    node->vid = static_cast<uint16_t>(vid);
    INIT_LIST_HEAD(&node->node);
    return node;
}

// Links node before the first node of a lower VLAN, keeping the list descending.
void link_descending(vxlan_ef_vid_t *node, list_head *head)
{
    list_head *pos = head->next;
    while (pos != head && ef_container_of(pos, vxlan_ef_vid_t, node)->vid > node->vid)
        pos = pos->next;
    store_barrier();
    list_add_tail(&node->node, pos);
    store_barrier();
}

void vid_add(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, uint32_t vid)
{
    if (vxlan_ef_vid_t *owned = vid_node_of(vsd, vid)) {
        owned->dirty = 0;
        return;
    }
    vxlan_ef_vid_t *node = vxlan_ef_vid_alloc(vid);
    if (node == nullptr)
        return;
    link_descending(node, &entry->vid_list);
    vsd->vid_vni[vid - 1] = entry->vni;
    vsd->vid_node[vid - 1] = node;
    store_barrier();
}

void vid_free(vxlan_ef_vsd_t *vsd, vxlan_ef_vid_t *node)
{
    vsd->vid_vni[node->vid - 1] = 0;
    vsd->vid_node[node->vid - 1] = nullptr;
    list_unlink(&node->node);
    vxlan_ef_kfree(VXLAN_EF_MEM_VID, node);
}

void vid_delete(vxlan_ef_vsd_t *vsd, uint32_t vid)
{
    if (vxlan_ef_vid_t *node = vid_node_of(vsd, vid))
        vid_free(vsd, node);
}

}  // namespace

namespace vxlan_ef {

void entry_free_vids(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, bool only_dirty,
                     const char *fmt, const char *func)
{
    list_walk_safe(&entry->vid_list, [&](list_head *pos) {
        auto *node = ef_container_of(pos, vxlan_ef_vid_t, node);
        if (only_dirty && node->dirty == 0)
            return;
        if (fmt != nullptr)
            VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, func, fmt, entry->vni,
                            static_cast<unsigned>(node->vid));
        vid_free(vsd, node);
    });
}

}  // namespace vxlan_ef

int vxlan_ef_set_vlan_deal(uint32_t, const uint8_t *value)
{
    EntryGuard<tlv::kSetVlan> guard(__func__, value);
    vxlan_ef_entry_t *entry = guard.entry();
    if (entry == nullptr)
        return -1;
    const uint8_t oper = guard.get<"oper">();
    const VlanWords vlans = guard.get<"vlans">();
    vxlan_ef_vsd_t *vsd = guard.vsd();
    // Increasing VLAN order; VLANs 0 and 4095 are never looked at.
    for (uint32_t w = 0; w < vlans.size(); ++w) {
        uint64_t bits = vlans[w];
        while (bits != 0) {
            const uint32_t vid = w * 64 + static_cast<uint32_t>(__builtin_ctzll(bits));
            bits &= bits - 1;
            if (vid < 1 || vid > VXLAN_EF_VLAN_COUNT)
                continue;
            if (oper != 0)
                vid_add(vsd, entry, vid);
            else
                vid_delete(vsd, vid);
        }
    }
    return 0;
}
