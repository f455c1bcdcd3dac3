// What bench/e2e's packet tools (pktblast, sockbench) share: the stop flag
// their signal handler sets, their option parsing, the clock, and the
// 64-byte UDP/IPv4 frame they send. Each tool defines PKT_PROG (its name,
// for messages) before including this file.
#ifndef PKT_COMMON_H
#define PKT_COMMON_H

#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "ef_byteorder.h"
#include "ef_wire.h"

static volatile sig_atomic_t stop;
static void on_signal(int sig) { (void)sig; stop = 1; }

static int parse_mac(const char *s, uint8_t mac[EF_ETH_ALEN])
{
    unsigned v[EF_ETH_ALEN];
    char extra;
    if (sscanf(s, "%x:%x:%x:%x:%x:%x%c", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &extra) != EF_ETH_ALEN)
        return -1;
    for (int i = 0; i < EF_ETH_ALEN; i++) {
        if (v[i] > 255) return -1;
        mac[i] = (uint8_t)v[i];
    }
    return 0;
}

static long parse_num(const char *s, const char *what, long lo, long hi)
{
    char *end;
    errno = 0;
    long v = strtol(s, &end, 10);
    if (errno || *end || end == s || v < lo || v > hi) {
        fprintf(stderr, PKT_PROG ": %s must be a number from %ld to %ld, not '%s'\n", what, lo, hi, s);
        exit(2);
    }
    return v;
}

static double now_s(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static uint16_t ip_checksum(const void *data, size_t len)
{
    const uint8_t *p = data;
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < len; i += 2) sum += (uint32_t)(p[i] << 8 | p[i + 1]);
    if (len & 1) sum += (uint32_t)(p[len - 1] << 8);
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return (uint16_t)~sum;
}

// Ethernet + IPv4 + UDP to the discard port with a zero UDP checksum
// (allowed over IPv4); the rest is padding. len excludes the FCS the device
// would add.
static void build_udp_frame(uint8_t *f, size_t len, const uint8_t dst[EF_ETH_ALEN],
                            const uint8_t src[EF_ETH_ALEN], struct in_addr sip, struct in_addr dip)
{
    memset(f, 0, len);
    struct ef_eth_hdr *eth = (struct ef_eth_hdr *)f;
    memcpy(eth->dst, dst, EF_ETH_ALEN);
    memcpy(eth->src, src, EF_ETH_ALEN);
    ef_put_be16(eth->type, EF_ETHERTYPE_IPV4);
    struct ef_ipv4_hdr *ip = (struct ef_ipv4_hdr *)(f + EF_ETH_HLEN);
    size_t ip_len = len - EF_ETH_HLEN;
    ip->ver_ihl = EF_IPV4_VER_IHL;
    ef_put_be16(ip->total_len, (uint16_t)ip_len);
    ef_put_be16(ip->frag, EF_IPV4_DONT_FRAGMENT);
    ip->ttl = 64;
    ip->proto = EF_IPPROTO_UDP;
    memcpy(ip->src, &sip, sizeof ip->src);
    memcpy(ip->dst, &dip, sizeof ip->dst);
    ef_put_be16(ip->csum, ip_checksum(ip, EF_IPV4_HLEN));
    struct ef_udp_hdr *udp = (struct ef_udp_hdr *)(f + EF_ETH_HLEN + EF_IPV4_HLEN);
    ef_put_be16(udp->sport, 12345);
    ef_put_be16(udp->dport, 9);   // discard
    ef_put_be16(udp->len, (uint16_t)(ip_len - EF_IPV4_HLEN));
}

#endif
