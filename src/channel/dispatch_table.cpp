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
    {18, vxlan_ef_anycast_mac},
    {28, vxlan_ef_arp_suppress_deal},
    {29, vxlan_ef_copy_dscp_deal},
    {64, vxlan_ef::ef_dbg},
    {65, vxlan_ef::vxlan_ef_show_deal},
    {66, vxlan_ef::vxlan_ef_ctrl_deal},
    {67, vxlan_ef_remote_arp_learn_deal},
    {86, vxlan_ef_remote_nd_learn_deal},
    {87, vxlan_ef_nd_suppress_deal},
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
