/* Public interface of libtq_vxlan_ef, the VXLAN data-plane module: the records
 * it shares with the platform and the names it exports with C linkage. Every
 * exported function and global begins with vxlan_ef_ or g_vxlan_. */
#ifndef VXLAN_EF_H
#define VXLAN_EF_H

#include <pthread.h>
#include <stdint.h>

#include "ef_list.h"
#include "ef_rbtree.h"
#include "ef_wire.h" /* EF_VXLAN_PORT */
#include "vxlan_ef_msg_frame.h" /* message limits (VXLAN_EF_MSG_*) */

#ifdef __cplusplus
#define VXLAN_EF_API extern "C" __attribute__((visibility("default")))
#else
#define VXLAN_EF_API extern __attribute__((visibility("default")))
#endif

/* Memory categories of vxlan_ef_kmalloc. */
enum {
    VXLAN_EF_MEM_VSD = 0,
    VXLAN_EF_MEM_ENTRY = 1,
    VXLAN_EF_MEM_ADJ = 2,
    VXLAN_EF_MEM_INTF = 3,
    VXLAN_EF_MEM_VID = 4,
    VXLAN_EF_MEM_MSG = 5,
    VXLAN_EF_MEM_SUBIF = 6,
    VXLAN_EF_MEM_VRF = 7,
    VXLAN_EF_MEM_CLASSES = 8,
};

/* The platform memory type under which the module allocates everything. */
#define VXLAN_EF_EF_MEM_TYPE 56u

/* Debug mask bits. */
#define VXLAN_EF_DBG_EVENT 0x1u
#define VXLAN_EF_DBG_ERR 0x2u
#define VXLAN_EF_DBG_FORWARD 0x8u
#define VXLAN_EF_DBG_ENCAP 0x10u
#define VXLAN_EF_DBG_PARSER 0x20u

/* Instance flags word bits. */
#define VXLAN_EF_F_NL_CONN 0x1u
#define VXLAN_EF_F_SYNC_START 0x2u
#define VXLAN_EF_F_SYNC_END 0x4u
#define VXLAN_EF_F_LEARN_MAC 0x8u
#define VXLAN_EF_F_LEARN_VTEP 0x10u
#define VXLAN_EF_F_SERV_PARSER 0x20u
#define VXLAN_EF_F_SERV_ENCAP 0x40u
#define VXLAN_EF_F_SERV_FORWARD 0x80u
#define VXLAN_EF_F_SERV_GET_OR 0x100u
#define VXLAN_EF_F_SERV_GET_VNI 0x200u
#define VXLAN_EF_F_TECH_DUMP 0x400u
#define VXLAN_EF_F_BRIDGE_FWD 0x800u
#define VXLAN_EF_F_ROUTER_MAC_FWD 0x1000u
#define VXLAN_EF_F_BCAST_PKT_ENCAP 0x2000u
#define VXLAN_EF_F_CAP_INIT 0x4000u
#define VXLAN_EF_F_SERV_OR_NO_ICMP 0x8000u

/* Message header; len sits unaligned at byte 1 and is read with memcpy. */
typedef struct vxlan_ef_msg_hdr {
    uint8_t ver;
    uint8_t len[2];
    uint8_t tlv_num;
} vxlan_ef_msg_hdr_t;

/* A send buffer: one whole message image. */
typedef struct vxlan_ef_send_buf {
    uint8_t data[VXLAN_EF_MSG_MAX_LEN];
} vxlan_ef_send_buf_t;

/* Inbound queue and its nodes. */
typedef struct vxlan_ef_msg_node {
    struct vxlan_ef_msg_node *next;
    struct vxlan_ef_msg_node *prev;
    uint32_t vsd_id;
    uint32_t length;
    uint8_t *data;
} vxlan_ef_msg_node_t;

typedef struct vxlan_ef_msg_queue {
    vxlan_ef_msg_node_t head; /* sentinel: only next and prev are used */
    uint64_t count;
    pthread_spinlock_t lock;
} vxlan_ef_msg_queue_t;

/* Red-black tree of sub-interfaces with its leftmost cache and count. */
typedef int (*vxlan_ef_subif_cmp_fn)(const void *a, const void *b, uint32_t mode);
typedef struct vxlan_ef_subif_tree {
    struct rb_root root;
    struct rb_node *leftmost;
    uint64_t count;
    vxlan_ef_subif_cmp_fn cmp;
} vxlan_ef_subif_tree_t;

#define VXLAN_EF_HASH_SIZE 512u
#define VXLAN_EF_VLAN_COUNT 4094u
#define VXLAN_EF_DUMP_LINE_LEN 260u
#define VXLAN_EF_UDP_PORT_DEFAULT ((unsigned)EF_VXLAN_PORT)

struct lsm_intfcb;

/* The instance record (VSD). */
typedef struct vxlan_ef_vsd {
    int32_t id;
    uint16_t debug_mask;
    uint32_t trace_ifx;
    uint32_t trace_budget;
    uint32_t flags;
    uint32_t user_pid;
    uint8_t anycast_mac[6];
    uint8_t anycast_mac_valid;
    uint8_t arp_suppress;
    uint8_t remote_arp_learn;
    uint8_t nd_suppress;
    uint8_t remote_nd_learn;
    uint8_t copy_dscp;
    pthread_rwlock_t rwlock;
    int dump_fd;
    char dump_line[VXLAN_EF_DUMP_LINE_LEN];
    /* VXLAN entry table */
    struct list_head entry_hash[VXLAN_EF_HASH_SIZE];
    struct list_head entry_list;
    uint32_t entry_count;
    uint32_t adj_count;
    uint32_t vid_vni[VXLAN_EF_VLAN_COUNT]; /* VLAN v at index v-1 */
    /* tunnel and router interface table */
    struct list_head tunnel_hash[VXLAN_EF_HASH_SIZE];
    struct list_head tunnel_list;
    uint32_t tunnel_count;
    struct list_head router_hash[VXLAN_EF_HASH_SIZE];
    struct list_head router_list;
    uint32_t router_count;
    /* sub-interface table */
    vxlan_ef_subif_tree_t subif_by_ifx;
    vxlan_ef_subif_tree_t subif_by_mifx;
    /* VRF table */
    struct list_head vrf_hash[VXLAN_EF_HASH_SIZE];
    struct list_head vrf_list;
    uint32_t vrf_count;
    uint16_t udp_port;
    uint8_t udp_port_dirty;
    uint16_t ipv4_id;
    uint16_t udp_sport;
    vxlan_ef_send_buf_t rtime_buf;
    vxlan_ef_send_buf_t batch_buf;
    struct lsm_intfcb *intf_slot_4094;
    struct lsm_intfcb *intf_slot_other;
    void *vid_node[VXLAN_EF_VLAN_COUNT]; /* VLAN v at index v-1 */
    uint32_t peerlink_ifx;               /* MLAG peer-link, 0 = none */
} vxlan_ef_vsd_t;

/* Module-wide capability record. */
typedef struct vxlan_ef_master {
    void *global_mom;
    uint8_t appdb_connected;
    uint8_t vxlan_base;
    uint8_t fwdmode_soft;
    uint8_t outside_center;
    uint8_t l2vni_mapping;
    uint8_t or_no_icmp;
} vxlan_ef_master_t;

/* ---- exported globals ---- */
VXLAN_EF_API vxlan_ef_vsd_t *g_vxlan_vsd;
VXLAN_EF_API vxlan_ef_master_t g_vxlan_ef_master;
VXLAN_EF_API uint32_t g_vxlan_ef_eve;
VXLAN_EF_API void *vxlan_ef_thread;
/* Live blocks per memory category. */
VXLAN_EF_API uint32_t g_vxlan_ef_kmem_count[VXLAN_EF_MEM_CLASSES];
VXLAN_EF_API vxlan_ef_msg_queue_t g_vxlan_ef_msg_queue;
/* The bridge module's services, null until it publishes them. */
VXLAN_EF_API void *vxlan_ef_bridge_mac_lookup;
VXLAN_EF_API void *vxlan_ef_bridge_intf_pvid_get;
VXLAN_EF_API void *vxlan_ef_l2protocol_pkt_check;
VXLAN_EF_API void *vxlan_ef_add_mac_entry;
VXLAN_EF_API void *vxlan_ef_intf_vlan_check;

/* ---- core: lifecycle, task, memory ---- */
VXLAN_EF_API int vxlan_ef_init(void);
VXLAN_EF_API void vxlan_ef_exit(void);
VXLAN_EF_API int vxlan_ef_vsd_init(void);
VXLAN_EF_API void vxlan_ef_vsd_exit(void);
VXLAN_EF_API void vxlan_ef_thread_init(void);
VXLAN_EF_API int vxlan_ef_task(void *arg);
VXLAN_EF_API void *vxlan_ef_kmalloc(uint32_t type, uint32_t size, uint32_t flags);
VXLAN_EF_API void vxlan_ef_kfree(uint32_t type, void *ptr);

/* ---- channel ---- */
VXLAN_EF_API int vxlan_ef_com_init(void);
VXLAN_EF_API void vxlan_ef_com_exit(void);
VXLAN_EF_API int vxlan_ef_com_connect(void *channel, int8_t connected);
VXLAN_EF_API int vxlan_ef_msg_read(void *message);
VXLAN_EF_API void vxlan_ef_msg_queue_init(vxlan_ef_msg_queue_t *queue);
VXLAN_EF_API void vxlan_ef_msg_inqueue(vxlan_ef_msg_queue_t *queue, vxlan_ef_msg_node_t *node);
VXLAN_EF_API vxlan_ef_msg_node_t *vxlan_ef_msg_dequeue(vxlan_ef_msg_queue_t *queue);
VXLAN_EF_API int vxlan_ef_msg_task(void);
VXLAN_EF_API const char *vxlan_ef_tlv_name(uint32_t type);
VXLAN_EF_API int vxlan_ef_msg_send(vxlan_ef_vsd_t *vsd, uint32_t type, uint16_t length,
                                   const uint8_t *value, int mode);
VXLAN_EF_API int vxlan_ef_msg_write(vxlan_ef_vsd_t *vsd, uint8_t *buffer, uint32_t length);

/* ---- global switches ---- */
VXLAN_EF_API int vxlan_ef_anycast_mac(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_arp_suppress_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_remote_arp_learn_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_nd_suppress_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_remote_nd_learn_deal(uint32_t vsd_id, const uint8_t *value);
VXLAN_EF_API int vxlan_ef_copy_dscp_deal(uint32_t vsd_id, const uint8_t *value);

/* ---- diagnostics ---- */
VXLAN_EF_API void vxlan_ef_show_line(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
VXLAN_EF_API void vxlan_ef_show_status(uint32_t vsd_id);
VXLAN_EF_API void vxlan_ef_show_cap(uint32_t vsd_id);
VXLAN_EF_API void vxlan_ef_tech_dump(uint32_t vsd_id);
VXLAN_EF_API void vxlan_ef_log_dump(const char *format, ...)
    __attribute__((format(printf, 1, 2)));

#endif
