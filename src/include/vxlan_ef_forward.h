/* Public declarations of the bridge forwarding decision, its unicast branch
 * and flooding: the forwarding service the pipeline calls for every bridged
 * frame of a VXLAN segment, and the per-node callback of the platform's
 * broadcast engine.
 *
 * Results are the pipeline's EF codes (EF_Normal ... EF_Resv_Bcast). None of
 * these functions consumes the buffer it is given, except
 * vxlan_ef_bcast_pkt_encap when it answers EF_Lost. */
#ifndef VXLAN_EF_FORWARD_H
#define VXLAN_EF_FORWARD_H

#include <stdint.h>

#include "efmp.h"
#include "vxlan_ef.h"
#include "vxlan_ef_tables.h"

/* Broadcast node kinds. */
#define VXLAN_EF_BCAST_NODE_OT 1u
#define VXLAN_EF_BCAST_NODE_VLAN 2u
#define VXLAN_EF_BCAST_NODE_SUBIF 3u

/* ---- forwarding decision (takes the read lock itself) ---- */
VXLAN_EF_API int vxlan_ef_forward(efmp_buff_t *buff);

/* ---- unicast branch (caller holds the read lock) ---- */
VXLAN_EF_API int vxlan_ef_ucast(efmp_buff_t *buff, const uint8_t *dmac, uint32_t vni,
                                vxlan_ef_vsd_t *vsd);

/* ---- flooding (caller holds the read lock) ---- */
VXLAN_EF_API int vxlan_ef_bcast(efmp_buff_t *buff, uint32_t vni, vxlan_ef_vsd_t *vsd,
                                int also_to_cpu);
VXLAN_EF_API int vxlan_ef_vni_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd);
VXLAN_EF_API void vxlan_ef_tunnel_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd,
                                        vxlan_ef_entry_t *entry);
VXLAN_EF_API void vxlan_ef_subif_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd,
                                       vxlan_ef_entry_t *entry);
VXLAN_EF_API int vxlan_ef_vlan_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd,
                                     vxlan_ef_entry_t *entry);
/* Pushes one node on the copy's list and counts it; -1 when the platform
 * has no node left (logged, the member is skipped). */
VXLAN_EF_API int vxlan_ef_bcast_node_create(efmp_buff_t *copy, vxlan_ef_vsd_t *vsd,
                                            uint32_t subif, uint16_t vid,
                                            const vxlan_ef_adj_t *tunnel, uint32_t kind,
                                            uint32_t *count);
/* Hands the copy with its nodes to the broadcast engine, or frees it when it
 * has none or the engine refuses it. The copy is gone either way. */
VXLAN_EF_API void vxlan_ef_bcast_send(efmp_buff_t *copy, vxlan_ef_vsd_t *vsd, uint32_t count,
                                      const char *kind);

/* ---- per-node callback of the broadcast engine (no lock) ----
 * *slot is the engine's buffer for this node. EF_Lost: the buffer has been
 * consumed (queued to the L3 engine, flooded, or freed) and *slot is set to
 * NULL; EF_Normal: it goes on to its destination interface; EF_Drop: the
 * engine drops it. */
VXLAN_EF_API int vxlan_ef_bcast_pkt_encap(efmp_buff_t **slot, efmp_mcast_node_t *node);

#endif
