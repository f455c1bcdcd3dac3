// The per-interface hooks of the packet plane: which interfaces take the
// Ethernet-level parser, and attaching and detaching it and the overlay
// tunnel parser.
#include "core/core_private.h"
#include "frame/wiring/wiring_private.h"
#include "vxlan_ef_frame.h"

namespace {

constexpr uint32_t kTypeRoutedPort = 21;
constexpr uint32_t kTypeEthFirst = 2;
constexpr uint32_t kTypeEthLast = 10;

}  // namespace

bool vxlan_ef_is_intf_parser(const lsm_intfcb_t *intf)
{
    if (intf == nullptr)
        return false;
    if (intf->type == kTypeRoutedPort)
        return true;
    return intf->type >= kTypeEthFirst && intf->type <= kTypeEthLast &&
           (intf->stack == LSM_IF_STACK_BRIDGE || intf->stack == LSM_IF_STACK_TCPIP);
}

int vxlan_ef_reg_intf_parser(lsm_intfcb_t *intf)
{
    return vxlan_ef::attach_eth_parser(intf, vxlan_ef::kPacketHooks.eth_parser);
}

int vxlan_ef_dereg_intf_parser(lsm_intfcb_t *intf) { return vxlan_ef::detach_eth_parser(intf); }

int vxlan_ef_reg_tunnel_parser(lsm_intfcb_t *intf)
{
    return vxlan_ef::attach_tunnel_parser(intf, vxlan_ef::kPacketHooks.tunnel_parser);
}

int vxlan_ef_dereg_tunnel_parser(lsm_intfcb_t *intf)
{
    return vxlan_ef::detach_tunnel_parser(intf, vxlan_ef::kPacketHooks.tunnel_parser);
}
