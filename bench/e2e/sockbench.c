// sockbench: measures one packet-socket method of receiving or sending on one
// device, on one thread, so that efhost's AF_PACKET port (port_afpacket.cpp)
// can keep the faster of each pair. sockbench.sh builds it, offers frames with
// pktblast for the receive methods and runs every method in turn.
//
//   sockbench -m METHOD -i DEV [--dst-mac MAC] [--duration S] [--cpu N]
//             [--batch N] [--no-vnet-hdr] [--block-tov MS] [--latency]
//             [--interval-us U]
//
// It prints one line on standard output when done:
//   method=M frames=N seconds=S pps=R cpu_s=C cpu_s_per_M=X drops=D errors=E
// where cpu_s is the user and system time of the measuring thread
// (getrusage(RUSAGE_THREAD)), drops the kernel's count of frames the socket
// had no room for (receive) and errors the failed or refused sends (transmit).
//
// Latency: tx-stamp sends one frame every --interval-us (on average) carrying the
// CLOCK_MONOTONIC time taken just before send(); rx-mmsg or rx-ring with
// --latency, in another namespace of the same host (one clock), add to the
// line how long stamped frames took to reach user space:
//   stamped=N p50_us=A p90_us=B p99_us=C max_us=D
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <linux/if_packet.h>
#include <linux/virtio_net.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#define PKT_PROG "sockbench"
#include "pkt_common.h"

#define MAX_BATCH 256
#define SLOT 2048            // a receive slot or ring frame: a full-sized frame and its headers
#define VNET_LEN ((int)sizeof(struct virtio_net_hdr))
#define RX_BLOCK (1u << 20)  // receive ring: 64 blocks of 1 MiB, retired after 4 ms
#define RX_BLOCKS 64
#define RX_TIMEOUT_MS 4   // the default of --block-tov
#define TX_BLOCK (1u << 16)  // transmit ring: 2048 frames of 2 KiB
#define TX_BLOCKS 64

struct opts {
    const char *method, *dev;
    uint8_t dst_mac[EF_ETH_ALEN];
    long duration, cpu, batch, block_tov, interval_us;
    int vnet, latency;
};

struct result {
    unsigned long long frames, drops, errors;
    unsigned long long sink;   // keeps the reads of each frame from being optimised away
    double *lat_us;            // --latency: one figure per stamped frame seen
    size_t lat_n, lat_cap;
};

// What tx-stamp writes after the UDP header of its frames: a mark, so that
// other traffic on the device (IPv6 neighbour discovery) is not taken for a
// stamp, and the send time in nanoseconds, in host order (one host).
#define STAMP_MARK 0x73627374u
#define STAMP_AT (EF_ETH_HLEN + EF_IPV4_HLEN + EF_UDP_HLEN)
#define MAX_STAMPS (1u << 22)

static void usage(FILE *to)
{
    fprintf(to,
        "Usage: sockbench -m METHOD -i DEV [options]\n"
        "Receives or sends 64-byte frames on DEV with one packet-socket method, on one thread.\n"
        "Methods:\n"
        "  rx-mmsg         recvmmsg in batches, PACKET_AUXDATA, non-blocking, poll() when empty\n"
        "  rx-ring         TPACKET_V3 receive ring, %d blocks of %u KiB, %d ms block timeout\n"
        "  tx-mmsg         sendmmsg in batches through the device's qdisc\n"
        "  tx-mmsg-bypass  sendmmsg in batches with PACKET_QDISC_BYPASS\n"
        "  tx-ring         TPACKET_V2 transmit ring, one send() per batch, through the qdisc\n"
        "  tx-ring-bypass  the same with PACKET_QDISC_BYPASS\n"
        "  tx-stamp        one frame every --interval-us on average (each gap 0.5 to 1.5\n"
        "                  of it), stamped just before send()\n"
        "Options:\n"
        "  -m, --method M      one of the methods above (required)\n"
        "  -i, --dev DEV       device to receive on or send out of (required)\n"
        "  -d, --dst-mac MAC   destination MAC of the frames sent (default ff:ff:ff:ff:ff:ff)\n"
        "  -t, --duration S    seconds to measure (default 5)\n"
        "  -c, --cpu N         CPU to pin the thread to (default: not pinned)\n"
        "  -b, --batch N       frames per call or per kick (1..%d, default 64)\n"
        "      --no-vnet-hdr   without PACKET_VNET_HDR (default: a 10-byte virtio-net\n"
        "                      header comes with every frame, as in efhost's port)\n"
        "      --block-tov MS  rx-ring's block timeout (1..1000, default %d)\n"
        "      --latency       rx-*: also report how long tx-stamp's frames took\n"
        "                      to reach user space\n"
        "      --interval-us U tx-stamp: microseconds between frames (10..10000000,\n"
        "                      default 10000)\n"
        "  -h, --help          this text\n"
        "Prints: method=M frames=N seconds=S pps=R cpu_s=C cpu_s_per_M=X drops=D errors=E\n"
        "        and with --latency: stamped=N p50_us=A p90_us=B p99_us=C max_us=D\n",
        RX_BLOCKS, RX_BLOCK >> 10, RX_TIMEOUT_MS, MAX_BATCH, RX_TIMEOUT_MS);
}

static void die(const char *what)
{
    fprintf(stderr, "sockbench: %s: %s\n", what, strerror(errno));
    exit(1);
}

static long long now_ns(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

static double thread_cpu_s(void)
{
    struct rusage ru;
    getrusage(RUSAGE_THREAD, &ru);
    return (double)(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           (double)(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

static void set_int(int fd, int level, int opt, int value, const char *what)
{
    if (setsockopt(fd, level, opt, &value, sizeof value)) die(what);
}

// A socket bound to DEV: for ETH_P_ALL when it receives, for no protocol when
// it only sends, so that a sender takes in nothing. Options that the kernel
// refuses once a ring exists are set here, before the ring.
static int open_socket(const struct opts *o, int receive)
{
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd < 0) die("socket(AF_PACKET)");
    if (o->vnet) set_int(fd, SOL_PACKET, PACKET_VNET_HDR, 1, "PACKET_VNET_HDR");
    if (receive) {
        set_int(fd, SOL_PACKET, PACKET_AUXDATA, 1, "PACKET_AUXDATA");
        set_int(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1, "PACKET_IGNORE_OUTGOING");
        int size = 8 << 20;   // as efhost's port asks
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    }
    return fd;
}

static void bind_socket(int fd, const struct opts *o, int receive)
{
    struct sockaddr_ll addr;
    memset(&addr, 0, sizeof addr);
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = receive ? htons(ETH_P_ALL) : 0;
    addr.sll_ifindex = (int)if_nametoindex(o->dev);
    if (addr.sll_ifindex == 0) die(o->dev);
    if (bind(fd, (struct sockaddr *)&addr, sizeof addr)) die("bind");
}

// Frames the socket had no room for since the last call (the kernel resets
// the counts on every read).
static unsigned long long rx_drops(int fd, int v3)
{
    union { struct tpacket_stats v2; struct tpacket_stats_v3 v3; } st;
    socklen_t len = v3 ? sizeof st.v3 : sizeof st.v2;
    memset(&st, 0, sizeof st);
    if (getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &st, &len)) die("PACKET_STATISTICS");
    return v3 ? st.v3.tp_drops : st.v2.tp_drops;
}

static void wait_readable(int fd)
{
    struct pollfd p = {.fd = fd, .events = POLLIN};
    poll(&p, 1, 100);
}

// What efhost's port reads of every frame: the auxiliary data (stripped tag,
// checksum state), the virtio-net header and the Ethernet type.
static unsigned long long touch(const uint8_t *frame, size_t len, unsigned status, unsigned tci)
{
    return (len >= EF_ETH_HLEN ? ef_get_be16(frame + EF_ETH_TYPE_OFFSET) : 0u) + status + tci;
}

// Keeps the delay of a stamped frame seen by user space at SEEN (ns).
static void note_stamp(const uint8_t *frame, size_t len, long long seen, struct result *r)
{
    uint32_t mark;
    long long sent;
    if (len < STAMP_AT + sizeof mark + sizeof sent) return;
    memcpy(&mark, frame + STAMP_AT, sizeof mark);
    if (mark != STAMP_MARK) return;
    memcpy(&sent, frame + STAMP_AT + sizeof mark, sizeof sent);
    if (r->lat_n < r->lat_cap) r->lat_us[r->lat_n++] = (double)(seen - sent) / 1e3;
}

static int cmp_double(const void *a, const void *b)
{
    const double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

// Nearest rank: the smallest figure that at least P of all are at or below.
static double percentile(const double *sorted, size_t n, double p)
{
    size_t rank = (size_t)(p * (double)n + 0.999999);
    return sorted[rank ? rank - 1 : 0];
}

static void print_latency(struct result *r)
{
    if (r->lat_n == 0) { printf(" stamped=0 p50_us=- p90_us=- p99_us=- max_us=-"); return; }
    qsort(r->lat_us, r->lat_n, sizeof *r->lat_us, cmp_double);
    printf(" stamped=%zu p50_us=%.1f p90_us=%.1f p99_us=%.1f max_us=%.1f", r->lat_n,
           percentile(r->lat_us, r->lat_n, 0.50), percentile(r->lat_us, r->lat_n, 0.90),
           percentile(r->lat_us, r->lat_n, 0.99), r->lat_us[r->lat_n - 1]);
}

static void rx_mmsg(const struct opts *o, int fd, double end, struct result *r)
{
    static uint8_t data[MAX_BATCH][SLOT];
    static uint8_t control[MAX_BATCH][CMSG_SPACE(sizeof(struct tpacket_auxdata))];
    static struct mmsghdr msgs[MAX_BATCH];
    static struct iovec iovs[MAX_BATCH];
    const size_t skip = o->vnet ? VNET_LEN : 0;
    while (!stop && now_s() < end) {
        for (int i = 0; i < o->batch; i++) {
            iovs[i] = (struct iovec){data[i], SLOT};
            memset(&msgs[i].msg_hdr, 0, sizeof msgs[i].msg_hdr);
            msgs[i].msg_hdr.msg_iov = &iovs[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
            msgs[i].msg_hdr.msg_control = control[i];
            msgs[i].msg_hdr.msg_controllen = sizeof control[i];
        }
        int n = recvmmsg(fd, msgs, (unsigned)o->batch, MSG_TRUNC | MSG_DONTWAIT, NULL);
        if (n <= 0) {
            wait_readable(fd);
            continue;
        }
        const long long seen = o->latency ? now_ns() : 0;
        for (int i = 0; i < n; i++) {
            const struct msghdr *m = &msgs[i].msg_hdr;
            unsigned status = 0, tci = 0;
            for (struct cmsghdr *c = CMSG_FIRSTHDR(m); c; c = CMSG_NXTHDR((struct msghdr *)m, c)) {
                if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA) continue;
                struct tpacket_auxdata aux;
                memcpy(&aux, CMSG_DATA(c), sizeof aux);
                status = aux.tp_status;
                tci = aux.tp_vlan_tci;
            }
            size_t len = msgs[i].msg_len;
            if (len < skip) continue;
            r->sink += touch(data[i] + skip, len - skip, status, tci) + data[i][0];
            if (o->latency) note_stamp(data[i] + skip, len - skip, seen, r);
        }
        r->frames += (unsigned long long)n;
    }
    r->drops = rx_drops(fd, 0);
}

// The mapped ring of the rx-ring and tx-ring methods, made before the socket
// is bound so that no frame is queued outside it.
static uint8_t *g_ring;

static void map_rx_ring(const struct opts *o, int fd)
{
    set_int(fd, SOL_PACKET, PACKET_VERSION, TPACKET_V3, "PACKET_VERSION");
    struct tpacket_req3 req = {
        .tp_block_size = RX_BLOCK, .tp_block_nr = RX_BLOCKS, .tp_frame_size = SLOT,
        .tp_frame_nr = RX_BLOCK / SLOT * RX_BLOCKS, .tp_retire_blk_tov = (unsigned)o->block_tov};
    if (setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &req, sizeof req)) die("PACKET_RX_RING");
    g_ring = mmap(NULL, (size_t)RX_BLOCK * RX_BLOCKS, PROT_READ | PROT_WRITE,
                  MAP_SHARED | MAP_LOCKED, fd, 0);
    if (g_ring == MAP_FAILED) die("mmap of the receive ring");
}

static void rx_ring(const struct opts *o, int fd, double end, struct result *r)
{
    uint8_t *ring = g_ring;
    unsigned block = 0;
    while (!stop && now_s() < end) {
        struct tpacket_block_desc *b = (void *)(ring + (size_t)block * RX_BLOCK);
        if (!(__atomic_load_n(&b->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER)) {
            wait_readable(fd);
            continue;
        }
        const unsigned n = b->hdr.bh1.num_pkts;
        const long long seen = o->latency ? now_ns() : 0;
        const uint8_t *p = (uint8_t *)b + b->hdr.bh1.offset_to_first_pkt;
        for (unsigned i = 0; i < n; i++) {
            const struct tpacket3_hdr *h = (const void *)p;
            const uint8_t *frame = p + h->tp_mac;
            // With PACKET_VNET_HDR the header sits just before the frame.
            r->sink += touch(frame, h->tp_snaplen, h->tp_status, h->hv1.tp_vlan_tci) +
                       (o->vnet ? frame[-VNET_LEN] : 0);
            if (o->latency) note_stamp(frame, h->tp_snaplen, seen, r);
            p += h->tp_next_offset;
        }
        r->frames += n;
        __atomic_store_n(&b->hdr.bh1.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
        block = (block + 1) % RX_BLOCKS;
    }
    r->drops = rx_drops(fd, 1);
}

// Ethernet + IPv4 + UDP, 60 bytes (64 on the wire with the FCS the device
// adds), after a zeroed virtio-net header when there is one (no offload asked).
static size_t build_frame(uint8_t *f, const struct opts *o, int fd)
{
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", o->dev);
    if (ioctl(fd, SIOCGIFHWADDR, &ifr)) die("SIOCGIFHWADDR");
    const size_t head = o->vnet ? VNET_LEN : 0, len = EF_ETH_MIN_FRAME;
    memset(f, 0, head);
    struct in_addr sip = {htonl(0xC0A80A01)}, dip = {htonl(0xC0A80A02)};  // 192.168.10.1, .2
    build_udp_frame(f + head, len, o->dst_mac, (const uint8_t *)ifr.ifr_hwaddr.sa_data, sip, dip);
    return head + len;
}

static void tx_mmsg(const struct opts *o, int fd, double end, struct result *r)
{
    static uint8_t frame[SLOT];
    static struct mmsghdr msgs[MAX_BATCH];
    struct iovec iov = {frame, build_frame(frame, o, fd)};
    for (int i = 0; i < o->batch; i++) {
        msgs[i].msg_hdr.msg_iov = &iov;
        msgs[i].msg_hdr.msg_iovlen = 1;
    }
    while (!stop && now_s() < end) {
        int n = sendmmsg(fd, msgs, (unsigned)o->batch, 0);
        if (n < 0) {
            if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR) die("sendmmsg");
            r->errors++;
            continue;
        }
        r->frames += (unsigned long long)n;
    }
}

// Frames are filled at head and given back at tail: a frame the kernel has
// sent returns to TP_STATUS_AVAILABLE, one it refused to TP_STATUS_WRONG_FORMAT.
static void map_tx_ring(const struct opts *o, int fd)
{
    (void)o;
    set_int(fd, SOL_PACKET, PACKET_VERSION, TPACKET_V2, "PACKET_VERSION");
    struct tpacket_req req = {.tp_block_size = TX_BLOCK, .tp_block_nr = TX_BLOCKS,
                              .tp_frame_size = SLOT, .tp_frame_nr = TX_BLOCK / SLOT * TX_BLOCKS};
    if (setsockopt(fd, SOL_PACKET, PACKET_TX_RING, &req, sizeof req)) die("PACKET_TX_RING");
    g_ring = mmap(NULL, (size_t)TX_BLOCK * TX_BLOCKS, PROT_READ | PROT_WRITE,
                  MAP_SHARED | MAP_LOCKED, fd, 0);
    if (g_ring == MAP_FAILED) die("mmap of the transmit ring");
}

static void tx_ring(const struct opts *o, int fd, double end, struct result *r)
{
    uint8_t *ring = g_ring;
    const unsigned nr = TX_BLOCK / SLOT * TX_BLOCKS;
    static uint8_t frame[SLOT];
    const size_t len = build_frame(frame, o, fd);
    const size_t data = TPACKET2_HDRLEN - sizeof(struct sockaddr_ll);
    unsigned long long head = 0, tail = 0;
    while (!stop && now_s() < end) {
        for (; tail < head; tail++) {
            struct tpacket2_hdr *h = (void *)(ring + (size_t)(tail % nr) * SLOT);
            unsigned s = __atomic_load_n(&h->tp_status, __ATOMIC_ACQUIRE);
            if (s & (TP_STATUS_SEND_REQUEST | TP_STATUS_SENDING)) break;
            if (s & TP_STATUS_WRONG_FORMAT) r->errors++; else r->frames++;
        }
        for (long i = 0; i < o->batch && head - tail < nr; i++, head++) {
            struct tpacket2_hdr *h = (void *)(ring + (size_t)(head % nr) * SLOT);
            memcpy((uint8_t *)h + data, frame, len);
            h->tp_len = (uint32_t)len;
            __atomic_store_n(&h->tp_status, TP_STATUS_SEND_REQUEST, __ATOMIC_RELEASE);
        }
        if (send(fd, NULL, 0, 0) < 0) {
            if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR) die("send (ring kick)");
            r->errors++;
        }
    }
}

// Uniform in [0, n), n > 0; the gaps only need to be spread, not unpredictable.
static long long spread(long long n)
{
    static uint64_t x = 0x9e3779b97f4a7c15u;
    x ^= x << 13; x ^= x >> 7; x ^= x << 17;
    return (long long)(x % (uint64_t)n);
}

// One frame per interval on average, each gap drawn from half to one and a
// half intervals: with fixed gaps a whole number of the ring's retire period,
// every frame would land at the same point of the kernel's timer and the
// figures would show one phase of it instead of all. After a stall (this
// thread not run for longer than a gap) the schedule restarts from now rather
// than sending the missed frames in a burst that would queue behind each other.
static void tx_stamp(const struct opts *o, int fd, double end, struct result *r)
{
    static uint8_t frame[SLOT];
    const size_t len = build_frame(frame, o, fd), at = (o->vnet ? VNET_LEN : 0) + STAMP_AT;
    const uint32_t mark = STAMP_MARK;
    memcpy(frame + at, &mark, sizeof mark);
    const long long step = o->interval_us * 1000LL;
    long long next = now_ns();
    while (!stop && now_s() < end) {
        const long long gap = step / 2 + spread(step);
        next += gap;
        struct timespec ts = {.tv_sec = next / 1000000000LL, .tv_nsec = next % 1000000000LL};
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL) == EINTR && !stop) {}
        const long long sent = now_ns();
        if (sent > next + gap) next = sent;
        memcpy(frame + at + sizeof mark, &sent, sizeof sent);
        if (send(fd, frame, len, 0) < 0) {
            if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR) die("send");
            r->errors++;
            continue;
        }
        r->frames++;
    }
}

struct method {
    const char *name;
    int receive, bypass;
    void (*map)(const struct opts *, int fd);
    void (*run)(const struct opts *, int, double, struct result *);
};

static const struct method methods[] = {
    {"rx-mmsg", 1, 0, NULL, rx_mmsg},
    {"rx-ring", 1, 0, map_rx_ring, rx_ring},
    {"tx-mmsg", 0, 0, NULL, tx_mmsg},
    {"tx-mmsg-bypass", 0, 1, NULL, tx_mmsg},
    {"tx-ring", 0, 0, map_tx_ring, tx_ring},
    {"tx-ring-bypass", 0, 1, map_tx_ring, tx_ring},
    {"tx-stamp", 0, 0, NULL, tx_stamp},
};

static void parse(int argc, char **argv, struct opts *o)
{
    static const struct option longopts[] = {
        {"method", required_argument, 0, 'm'}, {"dev", required_argument, 0, 'i'},
        {"dst-mac", required_argument, 0, 'd'}, {"duration", required_argument, 0, 't'},
        {"cpu", required_argument, 0, 'c'},    {"batch", required_argument, 0, 'b'},
        {"no-vnet-hdr", no_argument, 0, 1},    {"help", no_argument, 0, 'h'},
        {"block-tov", required_argument, 0, 2}, {"latency", no_argument, 0, 3},
        {"interval-us", required_argument, 0, 4}, {0, 0, 0, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "m:i:d:t:c:b:h", longopts, NULL)) != -1) {
        switch (c) {
        case 'm': o->method = optarg; break;
        case 'i': o->dev = optarg; break;
        case 'd':
            if (parse_mac(optarg, o->dst_mac)) { fprintf(stderr, "sockbench: bad MAC '%s'\n", optarg); exit(2); }
            break;
        case 't': o->duration = parse_num(optarg, "--duration", 1, 3600); break;
        case 'c': o->cpu = parse_num(optarg, "--cpu", 0, CPU_SETSIZE - 1); break;
        case 'b': o->batch = parse_num(optarg, "--batch", 1, MAX_BATCH); break;
        case 1: o->vnet = 0; break;
        case 2: o->block_tov = parse_num(optarg, "--block-tov", 1, 1000); break;
        case 3: o->latency = 1; break;
        case 4: o->interval_us = parse_num(optarg, "--interval-us", 10, 10000000); break;
        case 'h': usage(stdout); exit(0);
        default: usage(stderr); exit(2);
        }
    }
    if (!o->method || !o->dev || optind != argc) { usage(stderr); exit(2); }
}

int main(int argc, char **argv)
{
    struct opts o = {.duration = 5, .cpu = -1, .batch = 64, .vnet = 1,
                     .block_tov = RX_TIMEOUT_MS, .interval_us = 10000};
    memset(o.dst_mac, 0xff, sizeof o.dst_mac);
    parse(argc, argv, &o);
    const struct method *m = NULL;
    for (size_t i = 0; i < sizeof methods / sizeof methods[0]; i++)
        if (!strcmp(methods[i].name, o.method)) m = &methods[i];
    if (!m) { fprintf(stderr, "sockbench: no method '%s' (see --help)\n", o.method); return 2; }
    if (o.latency && !m->receive) {
        fprintf(stderr, "sockbench: --latency is for the rx-* methods; tx-stamp sends the frames\n");
        return 2;
    }
    if (o.cpu >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET((int)o.cpu, &set);
        if (sched_setaffinity(0, sizeof set, &set)) die("sched_setaffinity");
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);

    int fd = open_socket(&o, m->receive);
    if (m->bypass) set_int(fd, SOL_PACKET, PACKET_QDISC_BYPASS, 1, "PACKET_QDISC_BYPASS");
    if (m->map) m->map(&o, fd);
    bind_socket(fd, &o, m->receive);
    if (m->receive) rx_drops(fd, m->map != NULL);   // what came before the measurement is not counted

    struct result r = {0};
    if (o.latency) {
        r.lat_cap = MAX_STAMPS;
        r.lat_us = malloc(r.lat_cap * sizeof *r.lat_us);
        if (!r.lat_us) die("malloc of the latency figures");
    }
    const double cpu0 = thread_cpu_s(), start = now_s();
    m->run(&o, fd, start + (double)o.duration, &r);
    const double secs = now_s() - start, cpu = thread_cpu_s() - cpu0;
    printf("method=%s frames=%llu seconds=%.3f pps=%.0f cpu_s=%.3f cpu_s_per_M=%.3f drops=%llu errors=%llu",
           m->name, r.frames, secs, (double)r.frames / secs, cpu,
           r.frames ? cpu / ((double)r.frames / 1e6) : 0.0, r.drops, r.errors);
    if (o.latency) print_latency(&r);
    printf("\n");
    fprintf(stderr, "sockbench: checksum %llu\n", r.sink);
    close(fd);
    return 0;
}
