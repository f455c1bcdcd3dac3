// The capability record and its show.
#include "core/core_private.h"
#include "vxlan_ef.h"

vxlan_ef_master_t g_vxlan_ef_master;

namespace {
const char *on_off(uint8_t value) { return value ? "ON" : "OFF"; }
}  // namespace

void vxlan_ef_show_cap(uint32_t)
{
    const vxlan_ef_master_t &m = g_vxlan_ef_master;
    vxlan_ef_show_line("\n------------- DUMP CAP -------------\n");
    vxlan_ef_show_line("global_mom:              %p\n", m.global_mom);
    vxlan_ef_show_line("vxlan_ef_add_mac_entry:  %p\n", vxlan_ef_add_mac_entry);
    vxlan_ef_show_line("vxlan_ef_intf_vlan_check:  %p\n", vxlan_ef_intf_vlan_check);
    vxlan_ef_show_line("CAP_VXLAN_BASE: %s\n", on_off(vxlan_ef::load_relaxed(m.vxlan_base)));
    vxlan_ef_show_line("CAP_FWDMODE_SOFT: %s\n", on_off(vxlan_ef::load_relaxed(m.fwdmode_soft)));
    vxlan_ef_show_line("CAP_OUTSIDECENTER: %s\n", on_off(vxlan_ef::load_relaxed(m.outside_center)));
    vxlan_ef_show_line("CAP_L2VNIMAPPING: %s\n", on_off(vxlan_ef::load_relaxed(m.l2vni_mapping)));
    vxlan_ef_show_line("CAP_OR_NO_ICMP: %s\n", on_off(vxlan_ef::load_relaxed(m.or_no_icmp)));
}
