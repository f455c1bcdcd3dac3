// The VRF show (EF_SHOW id 5): the count, then one row per VRF in creation
// order with its L3 interface by name. Takes no lock of its own.
#include <cstring>

#include "lsm.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

void vxlan_ef_vrf_show(uint32_t)
{
    const vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    vxlan_ef_show_line("Total VRF Count: %u\n", vsd->vrf_count);
    vxlan_ef_show_line("VRF ID   L3VNI    L3IFX               \n");
    vxlan_ef_show_line("-------- -------- --------------------\n");
    char name[LSM_IF_NAME_LEN];
    const list_head *head = &vsd->vrf_list;
    for (const list_head *node = head->next; node != head; node = node->next) {
        const auto *vrf = ef_container_of(node, vxlan_ef_vrf_t, list_node);
        std::memset(name, 0, sizeof name);
        lsm_if_get_name(vrf->l3ifx, name, sizeof name);
        vxlan_ef_show_line("%-9d%-9u%-s\n", vrf->vrf_id, vrf->l3vni, name);
    }
}
