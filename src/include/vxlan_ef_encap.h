/* Public declarations of VXLAN encapsulation: the tunnel and sub-interface
 * encapsulation paths and their per-interface hooks, router-MAC forwarding,
 * and the query services other forwarding modules call. */
#ifndef VXLAN_EF_ENCAP_H
#define VXLAN_EF_ENCAP_H

#include <stdbool.h>
#include <stdint.h>

#include "efmp.h"
#include "lsm.h"
#include "vxlan_ef.h"
#include "vxlan_ef_tables.h"

/* ---- encapsulation ---- */
/* Modes of vxlan_ef_encap_frame: the pipeline's encapsulation service; the
 * tunnel's own hook, which forwarding, flooding and router-MAC forwarding
 * use too; and the tunnel's mode that also clears the bridge's not-forward
 * mark. */
#define VXLAN_EF_ENCAP_MODE_SERVICE 1u
#define VXLAN_EF_ENCAP_MODE_TUNNEL 2u
#define VXLAN_EF_ENCAP_MODE_CLEAR_NOT_FWD 4u
/* 0 no destination interface, 1 not handled (caller drops), 3 consumed. */
VXLAN_EF_API uint32_t vxlan_ef_encap_frame(efmp_buff_t *buff, uint32_t mode);
/* 1 tagged, 0 not enough headroom. */
VXLAN_EF_API bool vxlan_ef_pkt_add_vlan_tag(uint32_t vsd_id, efmp_buff_t *buff, uint16_t svid,
                                            uint16_t cvid);
/* 0 done or nothing to do, 1 failure. */
VXLAN_EF_API uint32_t vxlan_ef_subif_encap_frame(efmp_buff_t *buff);
VXLAN_EF_API int vxlan_ef_reg_intf_encap(lsm_intfcb_t *intf);
VXLAN_EF_API int vxlan_ef_dereg_intf_encap(lsm_intfcb_t *intf);

/* ---- encapsulation entry points ---- */
VXLAN_EF_API int vxlan_ef_encap_service(efmp_buff_t *buff);
VXLAN_EF_API int vxlan_ef_encap_driver(efmp_buff_t *buff, lsm_intfcb_t *intf);
VXLAN_EF_API int vxlan_ef_subif_encap_driver(efmp_buff_t *buff, lsm_intfcb_t *intf);

/* ---- router-MAC forwarding ---- */
/* next_hop: the remote VTEP behind which the routed packet's next hop lies. */
VXLAN_EF_API int vxlan_ef_router_mac_forward(efmp_buff_t *buff, lsm_intfcb_t *dst_intf,
                                             const vxlan_ef_ip_addr_t *next_hop,
                                             const uint8_t *router_mac);
VXLAN_EF_API uint8_t vxlan_ef_or_no_icmp_service(void);

/* ---- query services (the first argument is the pipeline's context word) ---- */
VXLAN_EF_API lsm_intfcb_t *vxlan_ef_overlayrouter_get(void *context, uint32_t vni);
VXLAN_EF_API uint32_t vxlan_ef_vni_get(void *context, uint32_t ifx);
VXLAN_EF_API uint32_t vxlan_ef_mng_or_ifx_get(void *context, uint32_t vni);
VXLAN_EF_API uint32_t vxlan_ef_or_ifx_get(void *context, uint32_t vni);
VXLAN_EF_API uint32_t vxlan_ef_entry_type_get(void *context, uint32_t vni);
VXLAN_EF_API uint32_t vxlan_ef_entry_vrfid_get(void *context, uint32_t vni);
VXLAN_EF_API uint32_t vxlan_ef_or_vrf_get(void *context, uint32_t ifx);
VXLAN_EF_API uint32_t vxlan_ef_vrf_get_l3vni(void *context, uint32_t vrf_id);

#endif
