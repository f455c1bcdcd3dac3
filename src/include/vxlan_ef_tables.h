/* Public interface of the module's configuration tables: the records of the
 * VXLAN entry, VLAN-extension, VTEP adjacency, tunnel and router interface,
 * sub-interface and VRF tables, and the functions the rest of the module and
 * the platform call on them.
 *
 * Lock context: lookups (the _get and _lookup_ functions, vxlan_ef_adj_update,
 * vxlan_ef_intf_asso_vni, vxlan_ef_subif_update and vxlan_ef_subif_delete)
 * expect the caller to hold the instance lock (read for lookups, write for
 * changes); message handlers (_deal) and sweeps take the write lock
 * themselves, marks take the read lock, shows take none. */
#ifndef VXLAN_EF_TABLES_H
#define VXLAN_EF_TABLES_H

#include <stdint.h>

#include "ef_list.h"
#include "ef_rbtree.h"
#include "vxlan_ef.h"

#define VXLAN_EF_ENTRY_HASH_SIZE 256u
#define VXLAN_EF_VNI_MAX 0xFFFFFFu
#define VXLAN_EF_AF_INET 2u
#define VXLAN_EF_AF_INET6 10u

/* Bits of vxlan_ef_entry.dirty. */
#define VXLAN_EF_ENTRY_DIRTY_SELF 0x001u
#define VXLAN_EF_ENTRY_DIRTY_ROUTER 0x002u
#define VXLAN_EF_ENTRY_DIRTY_PROTECTED 0x020u
#define VXLAN_EF_ENTRY_DIRTY_ARP 0x080u
#define VXLAN_EF_ENTRY_DIRTY_ND 0x100u
#define VXLAN_EF_ENTRY_DIRTY_ALL 0x1A3u

/* Entry types. */
#define VXLAN_EF_ENTRY_NORMAL 0u
#define VXLAN_EF_ENTRY_SUPER 1u
#define VXLAN_EF_ENTRY_SUBER 2u

/* An IP address: family (2 IPv4, 10 IPv6), then the address in network
 * order; IPv4 uses the first 4 bytes. */
typedef struct vxlan_ef_ip_addr {
    uint32_t family;
    uint8_t addr[16];
} vxlan_ef_ip_addr_t;

/* A VXLAN segment and everything hung off it. For a Super entry suber_list
 * heads its Suber entries; a Suber entry is linked into its Super's list
 * through its own suber_list field. */
typedef struct vxlan_ef_entry {
    uint32_t vni;
    uint32_t adj_count;
    struct list_head adj_by_ifx[VXLAN_EF_ENTRY_HASH_SIZE];
    struct list_head adj_by_dip[VXLAN_EF_ENTRY_HASH_SIZE];
    struct list_head adj_list;
    uint8_t anycast;
    uint8_t switch_proteched;
    uint8_t unallowed_bcast;
    uint32_t router_ifx;
    uint32_t vrf_id;
    uint32_t dirty;
    struct list_head hash_node;
    struct list_head list_node;
    struct list_head vid_list;
    struct list_head suber_list;
    uint32_t type;
    struct vxlan_ef_entry *super_entry;
    struct list_head subif_list;
    uint32_t map_vni_b;
    uint32_t map_vni_a;
    uint8_t map_dirty;
    uint8_t arp_suppress;
    uint8_t nd_suppress;
} vxlan_ef_entry_t;

/* A VLAN extended into a VXLAN entry ("ef-vid"). */
typedef struct vxlan_ef_vid {
    uint8_t dirty;
    uint16_t vid;
    struct list_head node;
} vxlan_ef_vid_t;

/* A VTEP adjacency ("ef-adj"): one VNI carried over one tunnel. */
typedef struct vxlan_ef_adj {
    uint32_t ifx;
    vxlan_ef_ip_addr_t dip;
    vxlan_ef_ip_addr_t sip;
    uint8_t dirty;
    struct vxlan_ef_entry *entry;
    struct list_head ifx_node;
    struct list_head dip_node;
    struct list_head entry_node;
    struct list_head tunnel_node;
} vxlan_ef_adj_t;

/* An OverlayTunnel (kind 45) or OverlayRouter (kind 46) interface. */
typedef struct vxlan_ef_intf {
    uint32_t ifx;
    uint32_t kind;
    uint32_t vni;
    uint32_t vrf_id;
    vxlan_ef_ip_addr_t sip;
    vxlan_ef_ip_addr_t dip;
    uint8_t dirty;
    uint8_t outside_center;
    uint8_t outside_center_dirty;
    uint8_t rmt_mac_learn;
    uint8_t rmt_mac_learn_dirty;
    uint8_t rmt_route_learn;
    uint8_t rmt_route_learn_dirty;
    struct list_head hash_node;
    struct list_head list_node;
    struct list_head adj_list;
} vxlan_ef_intf_t;

/* A sub-interface: (main_ifx, svid, cvid) bridged into vni. */
typedef struct vxlan_ef_subif {
    uint32_t ifx;
    uint32_t vni;
    uint32_t main_ifx;
    uint16_t svid;
    uint16_t cvid;
    uint8_t dirty;
    struct rb_node mifx_node;
    struct rb_node ifx_node;
    struct list_head vni_node;
} vxlan_ef_subif_t;

/* A VRF and its L3 VNI. */
typedef struct vxlan_ef_vrf {
    int32_t vrf_id;
    uint32_t l3vni;
    uint32_t l3ifx;
    uint8_t dirty;
    struct list_head hash_node;
    struct list_head list_node;
} vxlan_ef_vrf_t;

/* Comparison modes of vxlan_ef_subif_compare. */
#define VXLAN_EF_SUBIF_BY_IFX 0u
#define VXLAN_EF_SUBIF_BY_MIFX 1u

/* ---- VXLAN entry table (caller holds the instance lock unless a _deal) ---- */
VXLAN_EF_API uint32_t vxlan_ef_entry_init(uint32_t vsd_id);
VXLAN_EF_API void vxlan_ef_entry_exit(void);
VXLAN_EF_API vxlan_ef_entry_t *vxlan_ef_entry_get(vxlan_ef_vsd_t *vsd, uint32_t vni);
VXLAN_EF_API vxlan_ef_entry_t *vxlan_ef_manage_vxlan_get(vxlan_ef_vsd_t *vsd, uint32_t vni);
/* Takes the read lock itself. */
VXLAN_EF_API uint32_t vxlan_ef_manage_vni_get(void *context, uint32_t vni);
VXLAN_EF_API int vxlan_ef_set_entry_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_set_vlan_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_set_router_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_set_vni_map_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_set_switch_proteched_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_vni_arp_suppress_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_vni_nd_suppress_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_set_udp_port_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API void vxlan_ef_entry_sync_start(void);
VXLAN_EF_API void vxlan_ef_entry_sync_end(void);
/* No lock. */
VXLAN_EF_API void vxlan_ef_entry_show(uint32_t vsd_id, uint32_t vni);

/* ---- VTEP adjacency (caller holds the instance lock unless a _deal) ---- */
VXLAN_EF_API int vxlan_ef_asso_vtep_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API vxlan_ef_adj_t *vxlan_ef_adj_get(vxlan_ef_vsd_t *vsd, const vxlan_ef_ip_addr_t *dip,
                                              uint32_t ifx, vxlan_ef_entry_t *entry);
/* Caller holds the write lock. */
VXLAN_EF_API void vxlan_ef_adj_update(vxlan_ef_vsd_t *vsd, vxlan_ef_intf_t *tunnel, int keep);
VXLAN_EF_API struct lsm_intfcb *vxlan_ef_tunnel_get(void *context, vxlan_ef_entry_t *entry,
                                                    const vxlan_ef_ip_addr_t *sip,
                                                    const vxlan_ef_ip_addr_t *dip);

/* ---- tunnel and router interface table ---- */
VXLAN_EF_API uint32_t vxlan_ef_intf_init(uint32_t vsd_id);
VXLAN_EF_API void vxlan_ef_intf_exit(void);
VXLAN_EF_API vxlan_ef_intf_t *vxlan_ef_intf_get(vxlan_ef_vsd_t *vsd, uint32_t ifx, uint32_t kind);
VXLAN_EF_API int vxlan_ef_intf_is_outside_center(vxlan_ef_vsd_t *vsd, uint32_t ifx);
VXLAN_EF_API int vxlan_ef_check_tnl_mac_learn(vxlan_ef_vsd_t *vsd, uint32_t ifx);
VXLAN_EF_API int vxlan_ef_check_tnl_route_learn(vxlan_ef_vsd_t *vsd, uint32_t ifx);
/* Caller holds the write lock. */
VXLAN_EF_API int vxlan_ef_intf_asso_vni(uint32_t vsd_id, uint32_t ifx, uint32_t vni,
                                        uint32_t vrf_id, uint8_t oper);
VXLAN_EF_API int vxlan_ef_set_vtep_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_intf_outside_center_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_tnl_mac_learn_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_tnl_route_learn_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API void vxlan_ef_intf_sync_start(void);
VXLAN_EF_API void vxlan_ef_intf_sync_end(void);
/* No lock. */
VXLAN_EF_API void vxlan_ef_intf_show(uint32_t vsd_id);

/* ---- sub-interface table ---- */
VXLAN_EF_API uint32_t vxlan_ef_subif_init(uint32_t vsd_id);
VXLAN_EF_API int vxlan_ef_subif_compare(const void *a, const void *b, uint32_t mode);
VXLAN_EF_API int vxlan_ef_subif_deal(uint32_t vsd_id, const uint8_t *value);
/* Caller holds the write lock. */
VXLAN_EF_API int vxlan_ef_subif_update(vxlan_ef_vsd_t *vsd, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_subif_delete(vxlan_ef_vsd_t *vsd, uint32_t ifx);
/* Caller holds the instance lock. */
VXLAN_EF_API vxlan_ef_subif_t *vxlan_ef_subif_lookup_by_subifx(vxlan_ef_vsd_t *vsd, uint32_t ifx);
VXLAN_EF_API vxlan_ef_subif_t *vxlan_ef_subif_lookup_by_mainifx(vxlan_ef_vsd_t *vsd,
                                                                uint32_t main_ifx, uint16_t svid,
                                                                uint16_t cvid);
/* Take the read lock themselves; 1 found, 0 not. */
VXLAN_EF_API int vxlan_ef_subif_check(uint32_t ifx, uint32_t *main_ifx, uint16_t *svid,
                                      uint16_t *cvid, uint32_t *vni);
VXLAN_EF_API int vxlan_ef_subif_check_by_mifx_vid(uint32_t main_ifx, uint16_t svid, uint16_t cvid,
                                                  uint32_t *ifx, uint32_t *vni);
VXLAN_EF_API void vxlan_ef_subif_sync_start(void);
VXLAN_EF_API void vxlan_ef_subif_sync_end(void);
/* No lock. */
VXLAN_EF_API void vxlan_ef_subif_show(uint32_t vsd_id);

/* ---- VRF table ---- */
VXLAN_EF_API uint32_t vxlan_ef_vrf_init(uint32_t vsd_id);
VXLAN_EF_API void vxlan_ef_vrf_exit(void);
/* Caller holds the instance lock. */
VXLAN_EF_API vxlan_ef_vrf_t *vxlan_ef_vrf_get(vxlan_ef_vsd_t *vsd, int32_t vrf_id);
VXLAN_EF_API int vxlan_ef_set_vrf_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API void vxlan_ef_vrf_sync_start(void);
VXLAN_EF_API void vxlan_ef_vrf_sync_end(void);
/* No lock. */
VXLAN_EF_API void vxlan_ef_vrf_show(uint32_t vsd_id);

#endif
