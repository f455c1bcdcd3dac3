// The three per-tunnel switches (outside center, remote MAC learning, remote
// route learning), each set by its own message for an existing OverlayTunnel
// and each carrying its own mark for resynchronisation.
#include "lsm.h"
#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

struct TunnelSwitch {
    uint8_t vxlan_ef_intf_t::*field;
    uint8_t vxlan_ef_intf_t::*dirty;
    const char *event;
    const char *failure;
};

constexpr TunnelSwitch kOutsideCenter{
    &vxlan_ef_intf_t::outside_center, &vxlan_ef_intf_t::outside_center_dirty,
    "VXLAN-EF-EVENT: [vsd %d %s] try to set OverlayTunnel outside center, ifx: %u, oper: %d\n",
    "VXLAN-EF-ERR: [vsd %d %s] failed to set OverlayTunnel outside center, can't find intf by "
    "ifx(%u)\n"};

constexpr TunnelSwitch kMacLearn{
    &vxlan_ef_intf_t::rmt_mac_learn, &vxlan_ef_intf_t::rmt_mac_learn_dirty,
    "VXLAN-EF-EVENT: [vsd %d %s] try to set OverlayTunnel mac learn, ifx: %u, oper: %d\n",
    "VXLAN-EF-ERR: [vsd %d %s] failed to set OverlayTunnel mac learn, can't find intf by "
    "ifx(%u)\n"};

constexpr TunnelSwitch kRouteLearn{
    &vxlan_ef_intf_t::rmt_route_learn, &vxlan_ef_intf_t::rmt_route_learn_dirty,
    "VXLAN-EF-EVENT: [vsd %d %s] try to set OverlayTunnel route learn, ifx: %u, oper: %d\n",
    "VXLAN-EF-ERR: [vsd %d %s] failed to set OverlayTunnel route learn, can't find intf by "
    "ifx(%u)\n"};

template <tlv::Code C>
int tunnel_switch_deal(const char *func, const TunnelSwitch &sw, const uint8_t *value)
{
    HandlerGuard<C> guard(func, value);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const uint32_t ifx = guard.template get<"ifx">();
    const uint8_t setting = guard.template get<"value">();
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, func, sw.event, ifx, setting);
    guard.lock();
    vxlan_ef_intf_t *tunnel = vxlan_ef_intf_get(vsd, ifx, LSM_IF_TYPE_OVERLAY_TUNNEL);
    if (tunnel == nullptr) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, func, sw.failure, ifx);
        return -1;
    }
    tunnel->*sw.field = setting;
    tunnel->*sw.dirty = 0;
    store_barrier();
    return 0;
}

}  // namespace

int vxlan_ef_intf_outside_center_deal(uint32_t, const uint8_t *value)
{
    return tunnel_switch_deal<tlv::kSetOutsideCenterTunnel>(__func__, kOutsideCenter, value);
}

int vxlan_ef_tnl_mac_learn_deal(uint32_t, const uint8_t *value)
{
    return tunnel_switch_deal<tlv::kSetTunnelMacLearn>(__func__, kMacLearn, value);
}

int vxlan_ef_tnl_route_learn_deal(uint32_t, const uint8_t *value)
{
    return tunnel_switch_deal<tlv::kSetTunnelRouteLearn>(__func__, kRouteLearn, value);
}
