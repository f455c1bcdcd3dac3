// The sub-interface show (EF_SHOW id 6): the count and one row per
// sub-interface in ascending sub-interface index order, with short names.
// The header is printed for an empty table too. Takes no lock of its own.
#include "lsm.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

void vxlan_ef_subif_show(uint32_t)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    vxlan_ef_show_line("Total subif Count: %lu\n",
                       static_cast<unsigned long>(vsd->subif_by_ifx.count));
    vxlan_ef_show_line("SUBINTF        MAININTF       VLAN  CVLAN VXLAN    \n");
    vxlan_ef_show_line("-------------- -------------- ----- ----- ---------\n");
    for (vxlan_ef_subif_t *subif = subif_first(vsd); subif != nullptr; subif = subif_next(subif)) {
        char sub_name[LSM_IF_NAME_LEN] = {};
        char main_name[LSM_IF_NAME_LEN] = {};
        lsm_if_get_sname(subif->ifx, sub_name, sizeof sub_name);
        lsm_if_get_sname(subif->main_ifx, main_name, sizeof main_name);
        vxlan_ef_show_line("%-15s%-15s%-6u%-6u%-9u\n", sub_name, main_name,
                           static_cast<unsigned>(subif->svid), static_cast<unsigned>(subif->cvid),
                           subif->vni);
    }
}
