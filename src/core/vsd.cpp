// Creation and destruction of the instance record, the one place where all
// module state hangs.
#include <cstdlib>
#include <cstring>

#include "core_private.h"
#include "lsm.h"
#include "channel/channel_private.h"
#include "vxlan_ef_tables.h"

vxlan_ef_vsd_t *g_vxlan_vsd;

namespace vxlan_ef {
std::atomic<uint64_t> g_vxlan_ef_table_gen{0};
}  // namespace vxlan_ef

namespace {

int32_t vsd_id_from_env()
{
    const char *text = std::getenv("VSDID");
    return text != nullptr ? static_cast<int32_t>(std::strtol(text, nullptr, 10)) : -1;
}

}  // namespace

int vxlan_ef_vsd_init(void)
{
    g_vxlan_vsd = nullptr;
    auto *vsd = static_cast<vxlan_ef_vsd_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_VSD, sizeof(vxlan_ef_vsd_t), 0));
    if (vsd == nullptr) {
        vxlan_ef_log_dump("VXLAN-EF-ERR: kmalloc vxlan vsd memory failed.\n");
        return -1;
    }
    std::memset(static_cast<void *>(vsd), 0, sizeof *vsd);
    vsd->udp_port = VXLAN_EF_UDP_PORT_DEFAULT;
    vxlan_ef::store_barrier();
    g_vxlan_vsd = vsd;

    vsd->id = vsd_id_from_env();
    vxlan_ef::send_buf_reset(&vsd->rtime_buf);
    vxlan_ef::send_buf_reset(&vsd->batch_buf);
    vsd->intf_slot_4094 = lsm_get_intfcb(4094);
    vsd->intf_slot_other = lsm_get_intfcb(4095);
    const auto id = static_cast<uint32_t>(vsd->id);
    vxlan_ef_entry_init(id);
    vxlan_ef_intf_init(id);
    vxlan_ef_vrf_init(id);
    vxlan_ef_subif_init(id);
    pthread_rwlock_init(&vsd->rwlock, nullptr);
    vxlan_ef::tables_changing();
    return 0;
}

void vxlan_ef_vsd_exit(void)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    // The sub-interface table has no exit step.
    vxlan_ef_entry_exit();
    vxlan_ef_intf_exit();
    vxlan_ef_vrf_exit();
    pthread_rwlock_destroy(&vsd->rwlock);
    vxlan_ef::tables_changing();
    g_vxlan_vsd = nullptr;
    vxlan_ef::store_barrier();
    vxlan_ef_kfree(VXLAN_EF_MEM_VSD, vsd);
}
