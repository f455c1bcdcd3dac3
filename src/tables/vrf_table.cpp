// The VRF table: per VRF id its L3 VNI and L3 interface, in a 512-bucket
// hash by the id's low 9 bits and a list in creation order (SET_VRF).
#include <cstring>

#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

constexpr uint32_t kVrfHashMask = VXLAN_EF_HASH_SIZE - 1;

list_head *vrf_bucket(vxlan_ef_vsd_t *vsd, int32_t vrf_id)
{
    return &vsd->vrf_hash[static_cast<uint32_t>(vrf_id) & kVrfHashMask];
}

vxlan_ef_vrf_t *vxlan_ef_vrf_alloc(vxlan_ef_vsd_t *vsd, int32_t vrf_id)
{
    auto *vrf = static_cast<vxlan_ef_vrf_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_VRF, sizeof(vxlan_ef_vrf_t), 0));
    if (vrf == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] kmalloc vrf memory failed, vrf id: %d\n", vrf_id);
        return nullptr;
    }
    std::memset(static_cast<void *>(vrf), 0, sizeof *vrf);
    vrf->vrf_id = vrf_id;
    vsd->vrf_count++;
    store_barrier();
    list_add_tail(&vrf->hash_node, vrf_bucket(vsd, vrf_id));
    list_add_tail(&vrf->list_node, &vsd->vrf_list);
    store_barrier();
    return vrf;
}

}  // namespace

namespace vxlan_ef {

vxlan_ef_vrf_t *vrf_of_list_node(list_head *node)
{
    return ef_container_of(node, vxlan_ef_vrf_t, list_node);
}

void vrf_remove(vxlan_ef_vsd_t *vsd, vxlan_ef_vrf_t *vrf)
{
    list_del(&vrf->hash_node);
    list_del(&vrf->list_node);
    store_barrier();
    vsd->vrf_count--;
    vxlan_ef_kfree(VXLAN_EF_MEM_VRF, vrf);
}

}  // namespace vxlan_ef

uint32_t vxlan_ef_vrf_init(uint32_t)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0xFFFFFFFFu;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] set total vrf to zero.\n");
    for (list_head &bucket : vsd->vrf_hash)
        INIT_LIST_HEAD(&bucket);
    INIT_LIST_HEAD(&vsd->vrf_list);
    vsd->vrf_count = 0;
    return 0;
}

void vxlan_ef_vrf_exit(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] free total vrf.\n");
    list_walk_safe(&vsd->vrf_list,
                   [vsd](list_head *node) { vrf_remove(vsd, vrf_of_list_node(node)); });
}

vxlan_ef_vrf_t *vxlan_ef_vrf_get(vxlan_ef_vsd_t *vsd, int32_t vrf_id)
{
    // A caller left with the instance pointer after exit holds no table.
    if (vsd == nullptr)
        return nullptr;
    list_head *bucket = vrf_bucket(vsd, vrf_id);
    for (list_head *node = bucket->next; node != bucket; node = node->next) {
        auto *vrf = ef_container_of(node, vxlan_ef_vrf_t, hash_node);
        if (vrf->vrf_id == vrf_id)
            return vrf;
    }
    return nullptr;
}

int vxlan_ef_set_vrf_deal(uint32_t, const uint8_t *value)
{
    HandlerGuard<tlv::kSetVrf> guard(__func__, value, kArgsNullStop);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const int32_t vrf_id = guard.get<"vrf_id">();
    const uint8_t oper = guard.get<"oper">();
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to set vrf, vrf id: %d, oper: %s\n", vrf_id,
                   oper != 0 ? "set" : "unset");
    {
        WriteLock lock(vsd);
        vxlan_ef_vrf_t *vrf = vxlan_ef_vrf_get(vsd, vrf_id);
        if (oper != 0) {
            if (vrf == nullptr)
                vrf = vxlan_ef_vrf_alloc(vsd, vrf_id);
            if (vrf == nullptr) {
                VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] Fail to alloc vrf memory.\n");
                return -1;
            }
            vrf->l3vni = guard.get<"l3vni">();
            vrf->l3ifx = guard.get<"l3ifx">();
            vrf->dirty = 0;
            return 0;
        }
        if (vrf != nullptr) {
            vrf_remove(vsd, vrf);
            return 0;
        }
    }
    // The lock is released before this line.
    VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] vrf is not exist.\n");
    return -1;
}
