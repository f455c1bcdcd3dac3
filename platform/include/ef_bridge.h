/* The bridge module (module number 14): the services it publishes through the
 * efmp service registry and the records they take. */
#ifndef EF_BRIDGE_H
#define EF_BRIDGE_H

#include <stdint.h>

#include "efmp.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Service numbers under EFMP_MODULE_BRIDGE. */
#define EF_BRIDGE_SERV_ADD_MAC 4u
#define EF_BRIDGE_SERV_MAC_LOOKUP 8u
#define EF_BRIDGE_SERV_INTF_VLAN_CHECK 20u
#define EF_BRIDGE_SERV_INTF_PVID_GET 22u
#define EF_BRIDGE_SERV_L2PROTOCOL_CHECK 25u

/* A bridge domain key: a VLAN id, or a VNI with this bit set. */
#define EF_BRIDGE_KEY_VNI (1ull << 32)

/* Results of the MAC lookup. */
#define EF_BRIDGE_MAC_FILTER 0
#define EF_BRIDGE_MAC_FOUND 1
#define EF_BRIDGE_MAC_NOT_FOUND 4

/* Output of the MAC lookup. */
typedef struct ef_bridge_mac_out {
    uint32_t ifindex;
    uint16_t vid;
} ef_bridge_mac_out_t;

/* A MAC learning request. */
typedef struct ef_bridge_mac_req {
    uint8_t mac[6];
    uint16_t vid;
    uint64_t key;      /* domain key, EF_BRIDGE_KEY_VNI | vni for a VNI */
    uint32_t ifindex;  /* interface the MAC was seen on */
    uint8_t kind[2];   /* entry kind, kept as given */
    uint8_t reserved[10];
} ef_bridge_mac_req_t;

/* Service 4: learns (or moves) a MAC; 0 on success. */
typedef int (*ef_bridge_add_mac_fn)(const ef_bridge_mac_req_t *req);
/* Service 8: finds the destination of a MAC in a domain; EF_BRIDGE_MAC_*. */
typedef int (*ef_bridge_mac_lookup_fn)(int32_t vsd_id, uint64_t key, const uint8_t *mac,
                                       ef_bridge_mac_out_t *out);
/* Service 20: 1 when the interface is a member of the VLAN, else 0. */
typedef int (*ef_bridge_intf_vlan_check_fn)(uint32_t ifindex, uint16_t vid);
/* Service 22: the port VLAN of an interface into *pvid; 0, or -1 without one. */
typedef int (*ef_bridge_intf_pvid_get_fn)(uint32_t ifindex, uint16_t *pvid);
/* Service 25: 1 when the frame is a layer-2 protocol frame, else 0. */
typedef int (*ef_bridge_l2protocol_check_fn)(const efmp_buff_t *buff);

#ifdef __cplusplus
}
#endif

#endif
