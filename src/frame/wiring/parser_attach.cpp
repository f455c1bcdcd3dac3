// Attaching the packet plane's parsers to interfaces and taking them off.
#include "core/core_private.h"
#include "efmp.h"
#include "frame/wiring/wiring_private.h"
#include "lsm.h"
#include "vxlan_ef_frame.h"
#include "vxlan_ef_parser.h"

namespace vxlan_ef {

// The receive parser takes only the buffer; like the services, it is attached
// as it is.
const PacketHooks kPacketHooks{
    reinterpret_cast<ef_eth_parser_fn>(reinterpret_cast<void (*)(void)>(vxlan_ef_parser_service)),
    vxlan_ef_reg_tunnel_efmp_parser};

namespace {

constexpr uint32_t kEthParserArg = 0;
constexpr uint32_t kTunnelParserValue = 1;

}  // namespace

int attach_eth_parser(lsm_intfcb_t *intf, ef_eth_parser_fn parser)
{
    if (intf == nullptr)
        return -1;
    if (!vxlan_ef_is_intf_parser(intf))
        return 0;
    if (ef_eth_reg_parser(intf->ifindex, reinterpret_cast<void *>(parser), kEthParserArg,
                          EF_ETH_PARSER_SLOT_VXLAN) != 0) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_reg_intf_parser",
                        "VXLAN-EF-ERR: [vsd %d %s] ef_eth_reg_parser error!\n");
        return -1;
    }
    return 0;
}

int detach_eth_parser(lsm_intfcb_t *intf)
{
    if (intf == nullptr)
        return -1;
    if (!vxlan_ef_is_intf_parser(intf))
        return 0;
    ef_eth_dereg_parser(intf->ifindex, EF_ETH_PARSER_SLOT_VXLAN);
    return 0;
}

int attach_tunnel_parser(lsm_intfcb_t *intf, efmp_parser_fn parser)
{
    if (intf == nullptr)
        return -1;
    if (intf->type != LSM_IF_TYPE_OVERLAY_TUNNEL)
        return 0;
    efmp_parser_t desc{parser, intf, kTunnelParserValue};
    if (efmp_reg_parser(&desc) < 0) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_reg_tunnel_parser",
                        "VXLAN-EF-ERR: [vsd %d %s] efmp reg parser error!\n");
        return -1;
    }
    return 0;
}

int detach_tunnel_parser(lsm_intfcb_t *intf, efmp_parser_fn parser)
{
    if (intf == nullptr)
        return -1;
    if (intf->type != LSM_IF_TYPE_OVERLAY_TUNNEL)
        return 0;
    efmp_parser_t desc{parser, intf, kTunnelParserValue};
    if (efmp_dereg_parser(&desc) < 0) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, "vxlan_ef_dereg_tunnel_parser",
                        "VXLAN-EF-ERR: [vsd %d %s] efmp dereg parser error!\n");
        return -1;
    }
    return 0;
}

}  // namespace vxlan_ef
