// Private declarations of the pipeline wiring: the table of the module's
// pipeline services and the handlers the packet plane hands to the platform,
// with the registration steps that use them. The steps take the table or the
// handler as an argument, so that they work the same for any table.
#pragma once

#include <array>
#include <cstdint>

#include "core/core_private.h"
#include "efmp.h"
#include "lsm.h"

namespace vxlan_ef {

// ---- service_table.cpp ----

// One of the module's pipeline services.
struct ServiceRow {
    uint32_t number;           // service number under EFMP_MODULE_VXLAN
    efmp_handler_fn handler;   // the service's entry point
    uint32_t mask;             // bit of the registered-service mask
    const char *failure;       // the service's own failure text
    const char *init_failure;  // start-up's text for the same failure
};

// Services that are not called with two words (the queries take a context
// word and a u32 key, the router-MAC service four arguments) are published as
// they are: the table is then built at load time rather than at compile time.
template <typename Fn>
inline efmp_handler_fn service_handler(Fn *fn)
{
    // Through the generic function pointer type, which converts to any other.
    return reinterpret_cast<efmp_handler_fn>(reinterpret_cast<void (*)(void)>(fn));
}

// The eight services in start-up order, each with its real handler.
inline const std::array<ServiceRow, 8> kServices{{
    {EFMP_VXLAN_SERV_PARSER, service_handler(vxlan_ef_parser_service), VXLAN_EF_F_SERV_PARSER,
     "register vxlan parser service failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_parser_service failed.\n"},
    {EFMP_VXLAN_SERV_ENCAP, service_handler(vxlan_ef_encap_service), VXLAN_EF_F_SERV_ENCAP,
     "register vxlan parser service failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_encap_service failed.\n"},
    {EFMP_VXLAN_SERV_FORWARD, service_handler(vxlan_ef_forward), VXLAN_EF_F_SERV_FORWARD,
     "register vxlan forward failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_forward_service failed.\n"},
    {EFMP_VXLAN_SERV_GET_VNI_INTFCB, service_handler(vxlan_ef_overlayrouter_get), VXLAN_EF_F_SERV_GET_OR,
     "register vxlan get overlayrouter interface failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_get_vni_intfcb_service failed.\n"},
    {EFMP_VXLAN_SERV_GET_INTFCB_VNI, service_handler(vxlan_ef_vni_get), VXLAN_EF_F_SERV_GET_VNI,
     "register vxlan get overlayrouter interface failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_get_intfcb_vni_service failed.\n"},
    {EFMP_VXLAN_SERV_ROUTER_MAC_FORWARD, service_handler(vxlan_ef_router_mac_forward),
     VXLAN_EF_F_ROUTER_MAC_FWD,
     "register vxlan router's mac service failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_router_mac_forward_service failed.\n"},
    {EFMP_VXLAN_SERV_BCAST_PKT_ENCAP, service_handler(vxlan_ef_bcast_pkt_encap), VXLAN_EF_F_BCAST_PKT_ENCAP,
     "register vxlan broadcast packet encap service failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_bcast_pkt_encap_service failed.\n"},
    {EFMP_VXLAN_SERV_OR_NO_ICMP, service_handler(vxlan_ef_or_no_icmp_service), VXLAN_EF_F_SERV_OR_NO_ICMP,
     "register vxlan overlayrouter no icmp service failed.\n",
     "VXLAN-EF-ERR: vxlan_ef_reg_or_no_icmp_service failed.\n"},
}};

inline efmp_service_t service_descriptor(const ServiceRow &row)
{
    return efmp_service_t{reinterpret_cast<void *>(row.handler), EFMP_MODULE_VXLAN, row.number};
}

// Publishes one service and sets its mask bit; a refusal writes the row's
// failure text to the log file and returns -1.
inline int register_service(const ServiceRow &row)
{
    efmp_service_t serv = service_descriptor(row);
    if (efmp_reg_service(&serv) < 0) {
        vxlan_ef_log_dump("%s", row.failure);
        return -1;
    }
    if (vxlan_ef_vsd_t *vsd = g_vxlan_vsd)
        vsd->flags |= row.mask;
    return 0;
}

// Withdraws one service (the platform's answer does not matter) and clears
// its mask bit.
inline int deregister_service(const ServiceRow &row)
{
    efmp_service_t serv = service_descriptor(row);
    efmp_dereg_service(&serv);
    if (vxlan_ef_vsd_t *vsd = g_vxlan_vsd)
        vsd->flags &= ~row.mask;
    return 0;
}

// Start-up's service step: every row in table order (a row without a handler,
// which only a test's table has, is passed over); the first failure stops it
// with -1 and leaves the earlier services registered.
template <std::size_t N>
int register_services(const std::array<ServiceRow, N> &table)
{
    for (const ServiceRow &row : table) {
        if (row.handler == nullptr)
            continue;
        if (register_service(row) != 0) {
            vxlan_ef_log_dump("%s", row.init_failure);
            return -1;
        }
    }
    return 0;
}

template <std::size_t N>
void deregister_services(const std::array<ServiceRow, N> &table)
{
    for (const ServiceRow &row : table)
        deregister_service(row);
}

// ---- intf_hooks.cpp ----

// Handlers the packet plane attaches to interfaces: the Ethernet-level parser
// of interfaces that may carry VXLAN over IP, and the parser of overlay
// tunnels (a null handler would attach nothing).
struct PacketHooks {
    ef_eth_parser_fn eth_parser;
    efmp_parser_fn tunnel_parser;
};

// The receive parser takes only the buffer; like the services, it is attached
// as it is.
inline const PacketHooks kPacketHooks{
    reinterpret_cast<ef_eth_parser_fn>(reinterpret_cast<void (*)(void)>(vxlan_ef_parser_service)),
    vxlan_ef_reg_tunnel_efmp_parser};

constexpr uint32_t kEthParserArg = 0;
constexpr uint32_t kTunnelParserValue = 1;

// Attaches the Ethernet-level parser to a parser interface: -1 for no
// interface or a refusal (logged), 0 otherwise.
inline int attach_eth_parser(lsm_intfcb_t *intf, ef_eth_parser_fn parser)
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

inline int detach_eth_parser(lsm_intfcb_t *intf)
{
    if (intf == nullptr)
        return -1;
    if (!vxlan_ef_is_intf_parser(intf))
        return 0;
    ef_eth_dereg_parser(intf->ifindex, EF_ETH_PARSER_SLOT_VXLAN);
    return 0;
}

// Attaches (or detaches) the tunnel parser to an overlay tunnel: -1 for no
// interface or a refusal (logged), 0 otherwise.
inline int attach_tunnel_parser(lsm_intfcb_t *intf, efmp_parser_fn parser)
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

inline int detach_tunnel_parser(lsm_intfcb_t *intf, efmp_parser_fn parser)
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

// ---- serv_change.cpp ----

// Fetches the bridge services the packet plane uses (the two software-
// forwarding ones only with CAP_FWDMODE_SOFT).
void fetch_bridge_services();

}  // namespace vxlan_ef
