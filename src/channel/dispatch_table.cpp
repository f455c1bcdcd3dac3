// One table from TLV type to handler; a type without a handler is reported as
// unknown or not cared for and skipped.
#include <array>

#include "channel_private.h"
#include "control_tlvs.h"
#include "dispatch_table.h"

namespace {

using vxlan_ef::TlvHandler;

struct Route {
    uint16_t type;
    TlvHandler handler;
};

constexpr Route kRoutes[] = {
    {0, vxlan_ef::sync_data_req},
    {1, vxlan_ef::sync_data_begin},
    {2, vxlan_ef::sync_data_over},
    {8, vxlan_ef_set_entry_deal},
    {9, vxlan_ef_set_vlan_deal},
    {12, vxlan_ef_set_udp_port_deal},
    {13, vxlan_ef_set_router_deal},
    {14, vxlan_ef_set_vtep_deal},
    {15, vxlan_ef_asso_vtep_deal},
    {18, vxlan_ef_anycast_mac},
    {28, vxlan_ef_arp_suppress_deal},
    {29, vxlan_ef_copy_dscp_deal},
    {37, vxlan_ef_intf_outside_center_deal},
    {42, vxlan_ef_set_switch_proteched_deal},
    {64, vxlan_ef::ef_dbg},
    {65, vxlan_ef::vxlan_ef_show_deal},
    {66, vxlan_ef::vxlan_ef_ctrl_deal},
    {67, vxlan_ef_remote_arp_learn_deal},
    {77, vxlan_ef_set_vni_map_deal},
    {78, vxlan_ef_set_vrf_deal},
    {79, vxlan_ef_vni_arp_suppress_deal},
    {80, vxlan_ef_tnl_mac_learn_deal},
    {81, vxlan_ef_tnl_route_learn_deal},
    {86, vxlan_ef_remote_nd_learn_deal},
    {87, vxlan_ef_nd_suppress_deal},
    {88, vxlan_ef_vni_nd_suppress_deal},
    {90, vxlan_ef_subif_deal},
};

constexpr std::array<TlvHandler, vxlan_ef::kTlvNameCount> make_table()
{
    std::array<TlvHandler, vxlan_ef::kTlvNameCount> table{};
    for (const Route &route : kRoutes)
        table[route.type] = route.handler;
    return table;
}

constexpr auto kTable = make_table();

}  // namespace

namespace vxlan_ef {

TlvHandler tlv_handler(uint16_t type) { return type < kTable.size() ? kTable[type] : nullptr; }

}  // namespace vxlan_ef
