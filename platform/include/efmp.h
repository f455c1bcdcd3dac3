/* efmp, the packet pipeline: packet buffers, services published by modules,
 * per-interface parser and encapsulation hooks, fragmentation, the broadcast
 * engine and the hand-off queue to the L3 engine. */
#ifndef EFMP_H
#define EFMP_H

#include <pthread.h>
#include <stdint.h>

#include "ef_byteorder.h"
#include "lsm.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes of every pipeline hook. */
enum {
    EF_Normal = 0,
    EF_Drop = 1,
    EF_Reserve = 2,
    EF_Lost = 3,
    EF_Broadcast = 4,
    EF_Resv_Bcast = 5,
};

/* Buffer flag bits. */
#define EFMP_F_BRDG_FLOOD 0x40ull
#define EFMP_F_DST_SET 0x80ull
#define EFMP_F_TRACE 0x1000ull
#define EFMP_F_BRG_NOT_FWD 0x4000ull
#define EFMP_F_SUBIF_TAGGED 0x8000ull
#define EFMP_F_SWITCH_ENGINE 0x80000ull
#define EFMP_F_L2_HDR_OWNED 0x100000ull /* cleared once a VXLAN header is written */
#define EFMP_F_LOCAL 0x200000ull
#define EFMP_F_VXLAN_ENCAP 0x40000000ull /* the frame now travels inside VXLAN */
#define EFMP_F_NO_OVERLAY_ROUTE 0x100000000ull /* refused by router-MAC forwarding */
#define EFMP_F_NOT_EX_SRC 0x4000000ull
#define EFMP_F_BCAST_COPY 0x10000000ull
#define EFMP_F_VXLAN_DECAP 0x400000000ull
#define EFMP_F_TUNNEL_DST 0x800000000ull
#define EFMP_PF_BCAST_COPY 0x200000000ull

/* No push may move a buffer's data offset below this. */
#define EFMP_HEADROOM 512u

/* Module numbers of the pipeline's service registry. */
#define EFMP_MODULE_BRIDGE 14u
#define EFMP_MODULE_VXLAN 56u

/* Service numbers under EFMP_MODULE_VXLAN: the pipeline calls the forwarding
 * and broadcast-encapsulation services itself, other modules the rest. */
#define EFMP_VXLAN_SERV_PARSER 0u
#define EFMP_VXLAN_SERV_ENCAP 1u
#define EFMP_VXLAN_SERV_FORWARD 2u
#define EFMP_VXLAN_SERV_GET_VNI_INTFCB 3u
#define EFMP_VXLAN_SERV_GET_INTFCB_VNI 4u
#define EFMP_VXLAN_SERV_ROUTER_MAC_FORWARD 5u
#define EFMP_VXLAN_SERV_BCAST_PKT_ENCAP 6u
#define EFMP_VXLAN_SERV_OR_NO_ICMP 7u

/* Packet types of efmp_buff.pkt_type, as the parsers classify frames; 0 is
 * a frame no rule matched. Named after the protocol their match selects, or
 * after the match itself where the protocol is a vendor's own. */
#define EFMP_PKT_UNCLASSIFIED 0
#define EFMP_PKT_IPV4 1
#define EFMP_PKT_ARP 2
#define EFMP_PKT_PPPOE_DISCOVERY 9
#define EFMP_PKT_PPPOE_SESSION 10
#define EFMP_PKT_BPDU 26
#define EFMP_PKT_IPV6 27
#define EFMP_PKT_MPLS 29
#define EFMP_PKT_LLDP 36
#define EFMP_PKT_CDP 37
#define EFMP_PKT_TIPC 38
#define EFMP_PKT_TYPE_BB01 39
#define EFMP_PKT_CFM 40
#define EFMP_PKT_SLOW_PROTOCOLS 42
#define EFMP_PKT_GVRP 43
#define EFMP_PKT_PROTOCOL_44 44 /* never classified here; a protocol frame all the same */
#define EFMP_PKT_TYPE_0788 45
#define EFMP_PKT_RAPS 46
#define EFMP_PKT_DST_5CE2_07 48

/* The accounting reason of the buffers that software paths allocate and free
 * (the modules' copies and encapsulated chains, the pipeline's received
 * frames, the broadcast engine's clones): one reason, so that it balances on
 * its own. */
#define EFMP_REASON_SW_USER (-98)

struct efmp_mcast_node;

/* Packet buffer. The data lives in head[0..size); the frame starts at
 * data_off. */
typedef struct efmp_buff {
    struct efmp_buff *next;          /* next buffer of a chain */
    lsm_intfcb_t *src_intf;          /* receiving interface */
    uint64_t flags;                  /* EFMP_F_* */
    uint64_t priv_flags;             /* platform private flags */
    uint32_t len;                    /* bytes from data_off to the end */
    uint32_t vlan_tag;               /* outer 802.1Q tag word, network order */
    uint16_t l2_len;                 /* length of the L2 header */
    uint16_t data_off;               /* frame start, from head */
    uint16_t l3_off;                 /* L3 header, from head */
    uint16_t l4_off;                 /* L4 header, from head */
    uint8_t pkt_type;                /* 1 IPv4, 2 ARP, 27 IPv6 ... */
    uint8_t outer_family;            /* 2 IPv4 outer, 3 IPv6 outer */
    uint8_t module_code;
    uint8_t unclassified;            /* 1 when the parser could not classify */
    uint32_t src_ifx;                /* receiving interface index */
    uint8_t vni_tag[4];              /* flag byte, then the VNI in network order */
    uint8_t inner_tag;               /* first byte of a removed inner tag */
    uint16_t vxlan_mtu;              /* tunnel MTU to respect, 0 = default */
    lsm_intfcb_t *dst_intf;          /* chosen output interface */
    int32_t engine;
    int32_t module;
    lsm_intfcb_t *l3_src_intf;       /* interface handed to the L3 engine */
    uintptr_t l3_word1;
    uintptr_t l3_word2;
    uint32_t pid;
    struct efmp_mcast_node *mcast_nodes; /* destination list of a broadcast copy */
    uint32_t size;                   /* bytes of storage at head */
    uint8_t *head;
    int32_t vrf;                     /* VRF the packet is routed in */
} efmp_buff_t;

/* The VNI word: a byte of other use, then the 24-bit VNI in network order. */
#define EFMP_VNI_MASK 0x00FFFFFFu

static inline uint32_t efmp_buff_vni(const efmp_buff_t *buff)
{
    return ef_get_be32(buff->vni_tag) & EFMP_VNI_MASK;
}

/* Both writers leave the word's first byte alone: it is not theirs. */
static inline void efmp_buff_set_vni(efmp_buff_t *buff, uint32_t vni)
{
    buff->vni_tag[1] = (uint8_t)(vni >> 16);
    buff->vni_tag[2] = (uint8_t)(vni >> 8);
    buff->vni_tag[3] = (uint8_t)vni;
}

static inline void efmp_buff_or_vni(efmp_buff_t *buff, uint32_t vni)
{
    buff->vni_tag[1] |= (uint8_t)(vni >> 16);
    buff->vni_tag[2] |= (uint8_t)(vni >> 8);
    buff->vni_tag[3] |= (uint8_t)vni;
}

/* The outer tag word is stored in network order and always handled as the
 * big-endian number it spells: the 802.1Q tag control word in the low 16 bits
 * (VLAN id in bits 0 to 11, priority in 13 to 15) and the id of the instance
 * that parsed the frame in the top four. */
#define EFMP_TAG_VID_MASK 0x00000FFFu
#define EFMP_TAG_TCI_MASK 0x0000FFFFu
#define EFMP_TAG_VSD_SHIFT 28
#define EFMP_TAG_VSD_MASK 0xF0000000u

static inline uint32_t efmp_buff_tag_word(const efmp_buff_t *buff)
{
    return ef_get_be32((const uint8_t *)&buff->vlan_tag);
}

static inline void efmp_buff_set_tag_word(efmp_buff_t *buff, uint32_t word)
{
    ef_put_be32((uint8_t *)&buff->vlan_tag, word);
}

static inline uint16_t efmp_buff_tag_vid(const efmp_buff_t *buff)
{
    return (uint16_t)(efmp_buff_tag_word(buff) & EFMP_TAG_VID_MASK);
}

/* Replaces the VLAN id; priority, the rest of the word and the instance bits
 * stay. */
static inline void efmp_buff_set_tag_vid(efmp_buff_t *buff, uint16_t vid)
{
    efmp_buff_set_tag_word(buff, (efmp_buff_tag_word(buff) & ~EFMP_TAG_VID_MASK) |
                                     (vid & EFMP_TAG_VID_MASK));
}

typedef int (*efmp_handler_fn)(void *arg1, void *arg2);

/* Service descriptor: registration, deregistration and change notification. */
typedef struct efmp_service {
    void *handler;
    uint32_t module;
    uint32_t service;
} efmp_service_t;

#define EFMP_SERV_PUBLISHED 0u
#define EFMP_SERV_WITHDRAWN 1u

typedef void (*efmp_serv_chg_fn)(uint32_t change, efmp_service_t *serv);

int efmp_reg_service(efmp_service_t *serv);
int efmp_dereg_service(efmp_service_t *serv);
/* The handler currently published as (module, service), or NULL. */
void *efmp_get_service(uint32_t module, uint32_t service);
int efmp_reg_serv_change_handler(efmp_serv_chg_fn fn);

/* Parser hook on one interface's received packets. */
typedef int (*efmp_parser_fn)(efmp_buff_t *buff, uint32_t *result);
typedef struct efmp_parser {
    efmp_parser_fn handler;
    lsm_intfcb_t *intf;
    uint32_t value;
} efmp_parser_t;

int efmp_reg_parser(efmp_parser_t *parser);
int efmp_dereg_parser(efmp_parser_t *parser);

/* Encapsulation hook on one interface's sent packets. */
typedef int (*efmp_encap_fn)(efmp_buff_t *buff, lsm_intfcb_t *intf);
typedef struct efmp_encap {
    efmp_encap_fn handler;
    lsm_intfcb_t *intf;
    uint32_t value;
} efmp_encap_t;

int efmp_reg_encap(efmp_encap_t *encap);
int efmp_dereg_encap(efmp_encap_t *encap);

/* Ethernet-level parser attached to one interface. */
typedef int (*ef_eth_parser_fn)(void *arg1, void *arg2);
int ef_eth_reg_parser(uint32_t ifindex, void *fn, uint32_t arg, uint32_t slot);
/* The slot VXLAN over IP is recognised in. */
#define EF_ETH_PARSER_SLOT_VXLAN 5u
int ef_eth_dereg_parser(uint32_t ifindex, uint32_t slot);

/* Buffers. reason is the caller's accounting reason. A new buffer holds
 * length zeroed bytes at data_off EFMP_BUFF_START. */
#define EFMP_BUFF_START (EFMP_HEADROOM + 128u)
efmp_buff_t *efmp_buff_alloc_sw_user(int reason, uint32_t length);
/* Moves the frame start n bytes down and returns it; NULL (nothing changed)
 * when that would leave less than EFMP_HEADROOM bytes in front. */
uint8_t *efmp_buff_push(efmp_buff_t *buff, uint32_t n);
/* Moves the frame start n bytes up; NULL when fewer than n bytes remain. */
uint8_t *efmp_buff_pull(efmp_buff_t *buff, uint32_t n);
void efmp_buff_free_sw_user(int reason, efmp_buff_t *buff);
void efmp_buff_chain_free_sw_user(int reason, efmp_buff_t *first, uint32_t flags,
                                  uint32_t count);

/* Splits the inner IP packet of *first into a chain of buffers carrying at
 * most size bytes of IP payload each; returns the number of buffers, 0 on
 * failure. */
uint32_t efmp_frag_ipv4(efmp_buff_t **first, efmp_buff_t **last, uint32_t size);
uint32_t efmp_frag_ipv6(efmp_buff_t **first, efmp_buff_t **last, uint32_t size);

/* Broadcast engine. */
typedef struct efmp_mcast_node {
    struct efmp_mcast_node *next;
    uint32_t kind;        /* 1 overlay tunnel, 2 VLAN, 3 sub-interface */
    uint16_t vid;
    uint32_t ifindex;
    uint8_t family;
    uint8_t sip[16];
    uint8_t dip[16];
    uintptr_t adj_words[4];
    uintptr_t reserved[2];
} efmp_mcast_node_t;

efmp_mcast_node_t *efmp_mcast_alloc_nodes(uint32_t count);
void efmp_mcast_free_nodes(efmp_mcast_node_t *list);
int efmp_bcast_proc(efmp_buff_t *copy, uint32_t flags);

/* Per-CPU hand-off queue to the L3 engine. */
typedef struct efmp_skip_slot {
    efmp_buff_t *head;
    efmp_buff_t *tail;
    uint32_t count;
    pthread_spinlock_t lock;
} efmp_skip_slot_t;

typedef struct efmp_skip_queue {
    efmp_skip_slot_t *slots; /* one per CPU */
    uint32_t capacity;               /* most buffers one slot may hold */
    uint32_t cpu_count;
    void *worker;                    /* the L3 engine's worker, for efmp_vth_active_async */
} efmp_skip_queue_t;

extern efmp_skip_queue_t efmp_skip_top;
extern __thread uint32_t g_efmp_cpu_num;
void efmp_vth_active_async(void *worker, uint32_t cpu);

#ifdef __cplusplus
}
#endif

#endif
