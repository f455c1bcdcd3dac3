/* Public declarations of the VXLAN receive parser: the Ethernet-level parser
 * of interfaces that may carry VXLAN over IP (decapsulation, or the local
 * access path with its VLAN, VNI and sub-interface), the parser of overlay
 * tunnel interfaces with its layer-2 header parse, and MAC learning into the
 * bridge.
 *
 * None of these consumes the buffer: every result leaves it to the caller,
 * EF_Drop asking the pipeline to drop it. */
#ifndef VXLAN_EF_PARSER_H
#define VXLAN_EF_PARSER_H

#include <stdint.h>

#include "efmp.h"
#include "lsm.h"
#include "vxlan_ef.h"

/* Pipeline service 0 and the Ethernet-level parser: EF_Normal or EF_Drop. */
VXLAN_EF_API int vxlan_ef_parser_service(efmp_buff_t *buff);

/* Parser of overlay tunnel interfaces: sets *result to 1, parses the layer-2
 * header and returns vxlan_ef_parser_tunnel_service's result. */
VXLAN_EF_API int vxlan_ef_tunnel_parser(efmp_buff_t *buff, uint32_t *result);
/* The handler of the tunnel parser descriptor; the same as the above. */
VXLAN_EF_API int vxlan_ef_reg_tunnel_efmp_parser(efmp_buff_t *buff, uint32_t *result);
/* Admits a tunnel frame whose VNI and tunnel are known: EF_Normal or EF_Drop. */
VXLAN_EF_API int vxlan_ef_parser_tunnel_service(efmp_buff_t *buff);

/* Removes up to two 802.1Q tags into the outer tag word and the inner tag
 * byte, sets the layer-2 fields and classifies the frame into pkt_type. */
VXLAN_EF_API void vxlan_ef_pkt_l2header_parse(efmp_buff_t *buff);

/* The sub-interface of (main_ifx, svid, cvid): its control block, its VNI in
 * *vni; NULL when there is none. Caller holds the instance lock. */
VXLAN_EF_API lsm_intfcb_t *vxlan_ef_sub_intf_parse(vxlan_ef_vsd_t *vsd, uint32_t main_ifx,
                                                   uint16_t svid, uint16_t cvid, uint32_t *vni);

/* Learns the frame's source MAC in VNI vni on intf through the bridge's
 * add-MAC service: the service's result, 4 when the bridge offers none. Called
 * without the instance lock. */
VXLAN_EF_API int vxlan_ef_learn_xmac(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni,
                                     uint16_t vid, lsm_intfcb_t *intf);

#endif
