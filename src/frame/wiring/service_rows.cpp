// The table of the module's pipeline services and the steps that publish and
// withdraw them.
#include "core/core_private.h"
#include "efmp.h"
#include "frame/wiring/wiring_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_parser.h"

namespace vxlan_ef {

namespace {

// Services that are not called with two words (the queries take a context
// word and a u32 key, the router-MAC service four arguments) are published as
// they are: the table is then built at load time rather than at compile time.
template <typename Fn>
efmp_handler_fn service_handler(Fn *fn)
{
    // Through the generic function pointer type, which converts to any other.
    return reinterpret_cast<efmp_handler_fn>(reinterpret_cast<void (*)(void)>(fn));
}

}  // namespace

const std::array<ServiceRow, 8> kServices{{
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

namespace {

efmp_service_t service_descriptor(const ServiceRow &row)
{
    return efmp_service_t{reinterpret_cast<void *>(row.handler), EFMP_MODULE_VXLAN, row.number};
}

}  // namespace

int register_service(const ServiceRow &row)
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

int deregister_service(const ServiceRow &row)
{
    efmp_service_t serv = service_descriptor(row);
    efmp_dereg_service(&serv);
    if (vxlan_ef_vsd_t *vsd = g_vxlan_vsd)
        vsd->flags &= ~row.mask;
    return 0;
}

int register_services(std::span<const ServiceRow> table)
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

void deregister_services(std::span<const ServiceRow> table)
{
    for (const ServiceRow &row : table)
        deregister_service(row);
}

}  // namespace vxlan_ef
