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

static volatile sig_atomic_t stop;
static void on_signal(int sig) { (void)sig; stop = 1; }

static int parse_mac(const char *s, uint8_t mac[6])
{
    unsigned v[6];
    char extra;
    if (sscanf(s, "%x:%x:%x:%x:%x:%x%c", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &extra) != 6)
        return -1;
    for (int i = 0; i < 6; i++) {
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
static void build_udp_frame(uint8_t *f, size_t len, const uint8_t dst[6], const uint8_t src[6],
                            struct in_addr sip, struct in_addr dip)
{
    memset(f, 0, len);
    memcpy(f, dst, 6);
    memcpy(f + 6, src, 6);
    f[12] = 0x08; f[13] = 0x00;
    uint8_t *ip = f + 14;
    size_t ip_len = len - 14;
    ip[0] = 0x45;
    ip[2] = (uint8_t)(ip_len >> 8); ip[3] = (uint8_t)ip_len;
    ip[6] = 0x40;   // don't fragment
    ip[8] = 64;
    ip[9] = 17;
    memcpy(ip + 12, &sip, 4);
    memcpy(ip + 16, &dip, 4);
    uint16_t c = ip_checksum(ip, 20);
    ip[10] = (uint8_t)(c >> 8); ip[11] = (uint8_t)c;
    uint8_t *udp = ip + 20;
    size_t udp_len = ip_len - 20;
    udp[0] = 0x30; udp[1] = 0x39;   // 12345
    udp[2] = 0x00; udp[3] = 0x09;   // discard
    udp[4] = (uint8_t)(udp_len >> 8); udp[5] = (uint8_t)udp_len;
}

#endif
