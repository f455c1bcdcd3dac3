// Registration of the packet plane with the platform: interface events of the
// interface manager, the per-interface parsers, the module's pipeline
// services, service-change notifications and the bridge services. The whole
// packet plane exists only while CAP_VXLAN_BASE is on.
#include <array>

#include "core/core_private.h"
#include "frame/wiring/wiring_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_frame.h"

namespace {

struct LsmStack {
    uint32_t stack;
    const char *failure;
};

constexpr std::array<LsmStack, 3> kLsmStacks{{
    {LSM_IF_STACK_RAW, "VXLAN-EF-ERR: lsm_reg_msg_handler_ex failed on LSM_IF_STACK_RAW.\n"},
    {LSM_IF_STACK_BRIDGE, "VXLAN-EF-ERR: lsm_reg_msg_handler_ex failed on LSM_IF_STACK_BRIDGE.\n"},
    {LSM_IF_STACK_TCPIP, "VXLAN-EF-ERR: lsm_reg_msg_handler_ex failed on LSM_IF_STACK_TCPIP.\n"},
}};

constexpr uint32_t kWalkArg1 = 0;
constexpr uint32_t kWalkArg2 = 1;

int subscribe_interface_events()
{
    for (const LsmStack &s : kLsmStacks) {
        if (lsm_reg_msg_handler_ex(s.stack, vxlan_ef_lsm_event_handle) != 0) {
            vxlan_ef_log_dump("%s", s.failure);
            return -1;
        }
    }
    return 0;
}

// Tunnel parsers are attached only by creation events, never by this walk.
// Every interface gets its encapsulation hook before any gets its parser.
void attach_parsers()
{
    lsm_walk_through_ex(vxlan_ef_reg_intf_encap, kWalkArg1, kWalkArg2);
    lsm_walk_through_ex(vxlan_ef_reg_intf_parser, kWalkArg1, kWalkArg2);
}

void detach_parsers()
{
    lsm_walk_through_ex(vxlan_ef_dereg_intf_encap, kWalkArg1, kWalkArg2);
    lsm_walk_through_ex(vxlan_ef_dereg_intf_parser, kWalkArg1, kWalkArg2);
}

}  // namespace

// A failure returns -1 without undoing the earlier steps: start-up's unwinding
// calls vxlan_ef_frame_exit.
int vxlan_ef_frame_init(void)
{
    if (!vxlan_ef::load_relaxed(g_vxlan_ef_master.vxlan_base))
        return 0;
    if (subscribe_interface_events() != 0)
        return -1;
    attach_parsers();
    if (vxlan_ef::register_services(vxlan_ef::kServices) != 0)
        return -1;
    if (efmp_reg_serv_change_handler(vxlan_ef_frame_serv_chg_func) != 0) {
        vxlan_ef_log_dump("VXLAN-EF-ERR: reg serv change handler error.\n");
        return -1;
    }
    vxlan_ef::fetch_bridge_services();
    return 0;
}

// Only the raw stack's subscription is dropped: the bridge and TCP/IP stack
// subscriptions stay, as do the tunnel parsers and the bridge service
// pointers.
void vxlan_ef_frame_exit(void)
{
    if (!vxlan_ef::load_relaxed(g_vxlan_ef_master.vxlan_base))
        return;
    lsm_unreg_msg_handler_ex(LSM_IF_STACK_RAW, vxlan_ef_lsm_event_handle);
    detach_parsers();
    vxlan_ef::deregister_services(vxlan_ef::kServices);
}
