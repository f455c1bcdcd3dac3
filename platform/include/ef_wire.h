/* The packet formats every layer reads and writes, in one place: Ethernet
 * and 802.1Q (IEEE 802.3, 802.1Q), LLC/SNAP, IPv4 (RFC 791), IPv6 and its
 * fragment header (RFC 8200), UDP (RFC 768), TCP (RFC 9293), VXLAN
 * (RFC 7348), ARP (RFC 826) and ICMPv6 neighbour discovery (RFC 4861).
 * Shared by the platform, the modules, the tools, the benchmarks and the fuzz
 * targets, in C and C++.
 *
 * Multi-byte fields are byte arrays read and written through ef_byteorder.h,
 * so that a header at any offset of a buffer is defined behaviour, and every
 * struct's size is checked against the length its protocol gives. */
#ifndef EF_WIRE_H
#define EF_WIRE_H

#include <stdint.h>

#ifdef __cplusplus
#define EF_WIRE_SIZE(type, bytes) static_assert(sizeof(type) == (bytes), #type " is " #bytes " bytes")
#else
#define EF_WIRE_SIZE(type, bytes) _Static_assert(sizeof(type) == (bytes), #type " is " #bytes " bytes")
#endif

/* ---- Ethernet and 802.1Q ---- */
#define EF_ETH_ALEN 6
#define EF_ETH_HLEN 14
#define EF_ETH_ADDRS_LEN (2 * EF_ETH_ALEN) /* destination and source: the type follows */
#define EF_ETH_TYPE_OFFSET EF_ETH_ADDRS_LEN
#define EF_ETH_SRC_OFFSET EF_ETH_ALEN
#define EF_ETH_MIN_FRAME 60 /* without the frame check sequence */
#define EF_ETH_MTU 1500

#define EF_ETHERTYPE_IPV4 0x0800
#define EF_ETHERTYPE_ARP 0x0806
#define EF_ETHERTYPE_VLAN 0x8100
#define EF_ETHERTYPE_QINQ 0x88A8      /* 802.1ad service tag */
#define EF_ETHERTYPE_QINQ_OLD 0x9100  /* the service tag before 802.1ad */
#define EF_ETHERTYPE_IPV6 0x86DD
#define EF_ETHERTYPE_PPPOE_DISCOVERY 0x8863
#define EF_ETHERTYPE_PPPOE_SESSION 0x8864
#define EF_ETHERTYPE_MPLS 0x8847
#define EF_ETHERTYPE_SLOW_PROTOCOLS 0x8809 /* LACP, marker, OAM */
#define EF_ETHERTYPE_TIPC 0x88CA
#define EF_ETHERTYPE_LLDP 0x88CC
#define EF_ETHERTYPE_CFM 0x8902

struct ef_eth_hdr {
    uint8_t dst[EF_ETH_ALEN];
    uint8_t src[EF_ETH_ALEN];
    uint8_t type[2];
};
EF_WIRE_SIZE(struct ef_eth_hdr, EF_ETH_HLEN);

#define EF_VLAN_TAG_LEN 4
#define EF_VLAN_PCP_SHIFT 13
#define EF_VLAN_PCP_MASK (0x7 << EF_VLAN_PCP_SHIFT)

/* The tag as it stands between the addresses and the inner type. */
struct ef_vlan_tag {
    uint8_t tpid[2];
    uint8_t tci[2];
};
EF_WIRE_SIZE(struct ef_vlan_tag, EF_VLAN_TAG_LEN);

/* An 802.3 frame whose length field is followed by LLC/SNAP carries its
 * protocol type in the SNAP header, after the Ethernet header. */
#define EF_LLC_SNAP_SAP 0xAA
#define EF_LLC_SNAP_LEN 8
#define EF_LLC_SNAP_TYPE_OFFSET (EF_ETH_HLEN + 6)

struct ef_llc_snap {
    uint8_t dsap;
    uint8_t ssap;
    uint8_t control;
    uint8_t oui[3];
    uint8_t type[2];
};
EF_WIRE_SIZE(struct ef_llc_snap, EF_LLC_SNAP_LEN);

/* ---- IPv4 ---- */
#define EF_IPV4_HLEN 20 /* without options */
#define EF_IPV4_VERSION 4
#define EF_IPV4_VER_IHL (EF_IPV4_VERSION << 4 | EF_IPV4_HLEN / 4) /* a header without options */
#define EF_IPV4_DONT_FRAGMENT 0x4000
#define EF_IPV4_MORE_FRAGMENTS 0x2000
#define EF_IPV4_OFFSET_MASK 0x1FFF
#define EF_IP_FRAG_UNIT 8 /* IPv4 and IPv6 fragment offsets count in 8 bytes */
#define EF_IPV4_OPT_END 0
#define EF_IPV4_OPT_NOP 1
#define EF_IPV4_OPT_COPIED 0x80 /* the option is copied into every fragment */
#define EF_IPV4_CSUM_OFFSET 10

struct ef_ipv4_hdr {
    uint8_t ver_ihl;
    uint8_t tos;
    uint8_t total_len[2];
    uint8_t id[2];
    uint8_t frag[2];
    uint8_t ttl;
    uint8_t proto;
    uint8_t csum[2];
    uint8_t src[4];
    uint8_t dst[4];
};
EF_WIRE_SIZE(struct ef_ipv4_hdr, EF_IPV4_HLEN);

/* ---- IPv6 ---- */
#define EF_IPV6_HLEN 40
#define EF_IPV6_VERSION 6
#define EF_IPV6_FRAG_HLEN 8

/* IP protocol numbers, and the IPv6 extension headers a packet may carry
 * before its upper-layer header. */
#define EF_IPPROTO_HOP_BY_HOP 0
#define EF_IPPROTO_TCP 6
#define EF_IPPROTO_UDP 17
#define EF_IPPROTO_ROUTING 43
#define EF_IPPROTO_FRAGMENT 44
#define EF_IPPROTO_AH 51 /* authentication header */
#define EF_IPPROTO_ICMPV6 58
#define EF_IPPROTO_DEST_OPTS 60

struct ef_ipv6_hdr {
    uint8_t ver_tc_flow[4];
    uint8_t payload_len[2];
    uint8_t next_hdr;
    uint8_t hop_limit;
    uint8_t src[16];
    uint8_t dst[16];
};
EF_WIRE_SIZE(struct ef_ipv6_hdr, EF_IPV6_HLEN);

struct ef_ipv6_frag_hdr {
    uint8_t next_hdr;
    uint8_t reserved;
    uint8_t offset_flags[2]; /* offset in units of 8 bytes, then M in bit 0 */
    uint8_t id[4];
};
EF_WIRE_SIZE(struct ef_ipv6_frag_hdr, EF_IPV6_FRAG_HLEN);

/* ---- UDP and TCP ---- */
#define EF_UDP_HLEN 8
#define EF_UDP_CSUM_OFFSET 6

struct ef_udp_hdr {
    uint8_t sport[2];
    uint8_t dport[2];
    uint8_t len[2];
    uint8_t csum[2];
};
EF_WIRE_SIZE(struct ef_udp_hdr, EF_UDP_HLEN);

#define EF_TCP_HLEN 20 /* without options */
#define EF_TCP_CSUM_OFFSET 16
#define EF_TCP_FIN 0x01
#define EF_TCP_PSH 0x08
#define EF_TCP_ACK 0x10
#define EF_TCP_CWR 0x80

struct ef_tcp_hdr {
    uint8_t sport[2];
    uint8_t dport[2];
    uint8_t seq[4];
    uint8_t ack[4];
    uint8_t data_offset; /* header length in 32-bit words, in the upper four bits */
    uint8_t flags;
    uint8_t window[2];
    uint8_t csum[2];
    uint8_t urgent[2];
};
EF_WIRE_SIZE(struct ef_tcp_hdr, EF_TCP_HLEN);

/* ---- VXLAN ---- */
#define EF_VXLAN_HLEN 8
#define EF_VXLAN_PORT 4789
#define EF_VXLAN_FLAG_I 0x08 /* the VNI is valid */

struct ef_vxlan_hdr {
    uint8_t flags;
    uint8_t reserved1[3];
    uint8_t vni[3];
    uint8_t reserved2;
};
EF_WIRE_SIZE(struct ef_vxlan_hdr, EF_VXLAN_HLEN);

/* What a tunnel adds in front of the inner Ethernet frame. */
#define EF_VXLAN_IPV4_OVERHEAD (EF_ETH_HLEN + EF_IPV4_HLEN + EF_UDP_HLEN + EF_VXLAN_HLEN)
#define EF_VXLAN_IPV6_OVERHEAD (EF_ETH_HLEN + EF_IPV6_HLEN + EF_UDP_HLEN + EF_VXLAN_HLEN)

/* ---- ARP over Ethernet for IPv4 ---- */
#define EF_ARP_LEN 28
#define EF_ARP_HW_ETHERNET 1
#define EF_ARP_REQUEST 1
#define EF_ARP_REPLY 2

struct ef_arp {
    uint8_t hw_type[2];
    uint8_t proto_type[2];
    uint8_t hw_len;
    uint8_t proto_len;
    uint8_t op[2];
    uint8_t sender_mac[EF_ETH_ALEN];
    uint8_t sender_ip[4];
    uint8_t target_mac[EF_ETH_ALEN];
    uint8_t target_ip[4];
};
EF_WIRE_SIZE(struct ef_arp, EF_ARP_LEN);

/* ---- ICMPv6 and neighbour discovery ---- */
#define EF_ICMPV6_HLEN 4 /* type, code, checksum */
#define EF_ICMPV6_CSUM_OFFSET 2
#define EF_ND_HOP_LIMIT 255
#define EF_ND_FIRST_TYPE 133 /* router solicitation */
#define EF_ND_NEIGHBOUR_SOLICIT 135
#define EF_ND_NEIGHBOUR_ADVERT 136
#define EF_ND_LAST_TYPE 137 /* redirect */
#define EF_ND_NA_SOLICITED 0x40 /* in the first byte of the flags word */
#define EF_ND_NA_OVERRIDE 0x20
#define EF_ND_OPT_SOURCE_LINK_ADDR 1
#define EF_ND_OPT_TARGET_LINK_ADDR 2
#define EF_ND_OPT_UNIT 8 /* option lengths count in 8 bytes */

/* A solicitation or an advertisement: the ICMPv6 header, the reserved or
 * flags word, the target. */
#define EF_ND_LEN 24

struct ef_nd_msg {
    uint8_t type;
    uint8_t code;
    uint8_t csum[2];
    uint8_t flags[4];
    uint8_t target[16];
};
EF_WIRE_SIZE(struct ef_nd_msg, EF_ND_LEN);

/* An Ethernet link-layer address option: 8 bytes, length 1 in its units. */
#define EF_ND_LINK_ADDR_OPT_LEN 8

struct ef_nd_link_addr_opt {
    uint8_t type;
    uint8_t units;
    uint8_t mac[EF_ETH_ALEN];
};
EF_WIRE_SIZE(struct ef_nd_link_addr_opt, EF_ND_LINK_ADDR_OPT_LEN);

#endif
