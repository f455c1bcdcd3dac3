/* Public declarations of the module's wiring to the platform: registration with
 * the packet pipeline and the interface manager, the bridge service follower,
 * the capability follower and the MLAG peer-link follower. */
#ifndef VXLAN_EF_FRAME_H
#define VXLAN_EF_FRAME_H

#include <stdbool.h>
#include <stdint.h>

#include "ef_mom.h"
#include "efmp.h"
#include "libtq_cap.h"
#include "lsm.h"
#include "vxlan_ef.h"

/* ---- pipeline registration ---- */
VXLAN_EF_API int vxlan_ef_frame_init(void);
VXLAN_EF_API void vxlan_ef_frame_exit(void);
VXLAN_EF_API int vxlan_ef_reg_parser_service(void);
VXLAN_EF_API int vxlan_ef_dereg_parser_service(void);
VXLAN_EF_API int vxlan_ef_reg_encap_service(void);
VXLAN_EF_API int vxlan_ef_dereg_encap_service(void);
VXLAN_EF_API int vxlan_ef_reg_forward_service(void);
VXLAN_EF_API int vxlan_ef_dereg_forward_service(void);
VXLAN_EF_API int vxlan_ef_reg_get_vni_intfcb_service(void);
VXLAN_EF_API int vxlan_ef_dereg_get_vni_intfcb_service(void);
VXLAN_EF_API int vxlan_ef_reg_get_intfcb_vni_service(void);
VXLAN_EF_API int vxlan_ef_dereg_get_intfcb_vni_service(void);
VXLAN_EF_API int vxlan_ef_reg_router_mac_forward_service(void);
VXLAN_EF_API int vxlan_ef_dereg_router_mac_forward_service(void);
VXLAN_EF_API int vxlan_ef_reg_bcast_pkt_encap_service(void);
VXLAN_EF_API int vxlan_ef_dereg_bcast_pkt_encap_service(void);
VXLAN_EF_API int vxlan_ef_reg_or_no_icmp_service(void);
VXLAN_EF_API int vxlan_ef_dereg_or_no_icmp_service(void);

/* ---- per-interface hooks and interface events ---- */
VXLAN_EF_API bool vxlan_ef_is_intf_parser(const lsm_intfcb_t *intf);
VXLAN_EF_API int vxlan_ef_reg_intf_parser(lsm_intfcb_t *intf);
VXLAN_EF_API int vxlan_ef_dereg_intf_parser(lsm_intfcb_t *intf);
VXLAN_EF_API int vxlan_ef_reg_tunnel_parser(lsm_intfcb_t *intf);
VXLAN_EF_API int vxlan_ef_dereg_tunnel_parser(lsm_intfcb_t *intf);
VXLAN_EF_API int vxlan_ef_lsm_event_handle(uint32_t event, void *msg);

/* ---- bridge services ---- */
VXLAN_EF_API void vxlan_ef_frame_serv_chg_func(uint32_t change, efmp_service_t *serv);

/* ---- capability follower ---- */
typedef void (*vxlan_ef_cap_setter_fn)(bool value);
VXLAN_EF_API int vxlan_ef_cap_init(void);
VXLAN_EF_API void vxlan_ef_cap_g_bool_get(const char *path, vxlan_ef_cap_setter_fn setter);
VXLAN_EF_API void vxlan_ef_cap_g_bool_subscribe(const char *path, libtq_cap_cb callback);
VXLAN_EF_API void vxlan_ef_cap_vxlan_base_set(bool value);
VXLAN_EF_API void vxlan_ef_cap_xmac_learn_get(bool value);
VXLAN_EF_API void vxlan_ef_cap_outside_center_set(bool value);
VXLAN_EF_API void vxlan_ef_cap_l2vni_mapping_set(bool value);
VXLAN_EF_API void vxlan_ef_cap_or_no_icmp_set(bool value);
VXLAN_EF_API int vxlan_ef_cap_vxlan_base_sub_cb(void *ctx, libtq_cap_msg_t *msg);
VXLAN_EF_API int vxlan_ef_cap_xmac_learn_sub_cb(void *ctx, libtq_cap_msg_t *msg);
VXLAN_EF_API int vxlan_ef_cap_outside_center_sub_cb(void *ctx, libtq_cap_msg_t *msg);
VXLAN_EF_API int vxlan_ef_cap_l2vni_mapping_sub_cb(void *ctx, libtq_cap_msg_t *msg);

/* ---- MLAG peer-link follower ---- */
VXLAN_EF_API ef_mom_reg_t g_vxlan_ef_mom_reg;
VXLAN_EF_API int vxlan_ef_mom_init(void);
VXLAN_EF_API int vxlan_ef_mom_exit(void);
VXLAN_EF_API int vxlan_ef_mom_peerlink_sub(void);
VXLAN_EF_API int vxlan_ef_mom_peerlink_callback(void *ctx, tq_mom_notify_t *msg);
VXLAN_EF_API int vxlan_ef_mom_peerlink_scan_cb(void *ctx, tq_mom_notify_t *msg);

#endif
