// The registration and deregistration functions of the module's eight
// pipeline services, one pair per row of the service table.
#include "core/core_private.h"
#include "frame/wiring/wiring_private.h"
#include "vxlan_ef_frame.h"

using vxlan_ef::deregister_service;
using vxlan_ef::kServices;
using vxlan_ef::register_service;

int vxlan_ef_reg_parser_service(void) { return register_service(kServices[0]); }
int vxlan_ef_dereg_parser_service(void) { return deregister_service(kServices[0]); }
int vxlan_ef_reg_encap_service(void) { return register_service(kServices[1]); }
int vxlan_ef_dereg_encap_service(void) { return deregister_service(kServices[1]); }
int vxlan_ef_reg_forward_service(void) { return register_service(kServices[2]); }
int vxlan_ef_dereg_forward_service(void) { return deregister_service(kServices[2]); }
int vxlan_ef_reg_get_vni_intfcb_service(void) { return register_service(kServices[3]); }
int vxlan_ef_dereg_get_vni_intfcb_service(void) { return deregister_service(kServices[3]); }
int vxlan_ef_reg_get_intfcb_vni_service(void) { return register_service(kServices[4]); }
int vxlan_ef_dereg_get_intfcb_vni_service(void) { return deregister_service(kServices[4]); }
int vxlan_ef_reg_router_mac_forward_service(void) { return register_service(kServices[5]); }
int vxlan_ef_dereg_router_mac_forward_service(void) { return deregister_service(kServices[5]); }
int vxlan_ef_reg_bcast_pkt_encap_service(void) { return register_service(kServices[6]); }
int vxlan_ef_dereg_bcast_pkt_encap_service(void) { return deregister_service(kServices[6]); }
int vxlan_ef_reg_or_no_icmp_service(void) { return register_service(kServices[7]); }
int vxlan_ef_dereg_or_no_icmp_service(void) { return deregister_service(kServices[7]); }
