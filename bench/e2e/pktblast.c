// pktblast: offers small UDP/IPv4 frames on one interface as fast as the
// machine allows (or at a given rate), from an AF_PACKET socket that bypasses
// the qdisc, in batches of sendmmsg. compare.sh builds it with the C compiler
// and uses it where iperf3's own per-datagram system calls cap the offered rate.
//
//   pktblast -i DEV --dst-mac MAC [--src-mac MAC] [--src-ip IP] [--dst-ip IP]
//            [--size BYTES] [--rate PPS] [--duration S] [--cpu N] [--batch N]
//
// It prints one line on standard output when done:
//   offered=<frames the kernel accepted> seconds=<s> pps=<rate> errors=<failed sends>
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <getopt.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#define PKT_PROG "pktblast"
#include "pkt_common.h"

#define MAX_BATCH 1024
#define MAX_FRAME (EF_ETH_HLEN + 1500)   // a 1500-byte MTU

static void usage(FILE *to)
{
    fprintf(to,
        "Usage: pktblast -i DEV --dst-mac MAC [options]\n"
        "Sends UDP/IPv4 frames out of DEV from an AF_PACKET socket.\n"
        "  -i, --dev DEV        interface to send on (required)\n"
        "  -d, --dst-mac MAC    destination MAC (required)\n"
        "  -s, --src-mac MAC    source MAC (default: DEV's own)\n"
        "      --src-ip IP      source IPv4 address (default 192.168.10.1)\n"
        "      --dst-ip IP      destination IPv4 address (default 192.168.10.2)\n"
        "  -l, --size BYTES     frame size on the wire, FCS included (64..1518, default 64)\n"
        "  -r, --rate PPS       frames per second, 0 = as fast as possible (default 0)\n"
        "  -t, --duration S     seconds to send (default 10)\n"
        "  -c, --cpu N          CPU to pin to (default: not pinned)\n"
        "  -b, --batch N        frames per sendmmsg (1..%d, default 256)\n"
        "  -h, --help           this text\n"
        "Prints: offered=N seconds=S pps=R errors=E\n", MAX_BATCH);
}

int main(int argc, char **argv)
{
    const char *dev = NULL;
    uint8_t dst_mac[EF_ETH_ALEN], src_mac[EF_ETH_ALEN];
    int have_dst = 0, have_src = 0;
    struct in_addr sip, dip;
    inet_pton(AF_INET, "192.168.10.1", &sip);
    inet_pton(AF_INET, "192.168.10.2", &dip);
    long size = 64, rate = 0, duration = 10, cpu = -1, batch = 256;

    static const struct option opts[] = {
        {"dev", required_argument, 0, 'i'},     {"dst-mac", required_argument, 0, 'd'},
        {"src-mac", required_argument, 0, 's'}, {"src-ip", required_argument, 0, 1},
        {"dst-ip", required_argument, 0, 2},    {"size", required_argument, 0, 'l'},
        {"rate", required_argument, 0, 'r'},    {"duration", required_argument, 0, 't'},
        {"cpu", required_argument, 0, 'c'},     {"batch", required_argument, 0, 'b'},
        {"help", no_argument, 0, 'h'},          {0, 0, 0, 0}};
    int o;
    while ((o = getopt_long(argc, argv, "i:d:s:l:r:t:c:b:h", opts, NULL)) != -1) {
        switch (o) {
        case 'i': dev = optarg; break;
        case 'd':
            if (parse_mac(optarg, dst_mac)) { fprintf(stderr, "pktblast: bad MAC '%s'\n", optarg); return 2; }
            have_dst = 1; break;
        case 's':
            if (parse_mac(optarg, src_mac)) { fprintf(stderr, "pktblast: bad MAC '%s'\n", optarg); return 2; }
            have_src = 1; break;
        case 1:
            if (inet_pton(AF_INET, optarg, &sip) != 1) { fprintf(stderr, "pktblast: bad IPv4 address '%s'\n", optarg); return 2; }
            break;
        case 2:
            if (inet_pton(AF_INET, optarg, &dip) != 1) { fprintf(stderr, "pktblast: bad IPv4 address '%s'\n", optarg); return 2; }
            break;
        case 'l': size = parse_num(optarg, "--size", 64, MAX_FRAME + 4); break;
        case 'r': rate = parse_num(optarg, "--rate", 0, 100000000); break;
        case 't': duration = parse_num(optarg, "--duration", 1, 86400); break;
        case 'c': cpu = parse_num(optarg, "--cpu", 0, CPU_SETSIZE - 1); break;
        case 'b': batch = parse_num(optarg, "--batch", 1, MAX_BATCH); break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (!dev || !have_dst || optind != argc) { usage(stderr); return 2; }

    if (cpu >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET((int)cpu, &set);
        if (sched_setaffinity(0, sizeof set, &set)) { perror("pktblast: sched_setaffinity"); return 1; }
    }

    int fd = socket(AF_PACKET, SOCK_RAW, 0);   // protocol 0: send only, receives nothing
    if (fd < 0) { perror("pktblast: socket(AF_PACKET)"); return 1; }
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", dev);
    if (ioctl(fd, SIOCGIFINDEX, &ifr)) { fprintf(stderr, "pktblast: no interface '%s'\n", dev); return 1; }
    int ifindex = ifr.ifr_ifindex;
    if (!have_src) {
        if (ioctl(fd, SIOCGIFHWADDR, &ifr)) { perror("pktblast: SIOCGIFHWADDR"); return 1; }
        memcpy(src_mac, ifr.ifr_hwaddr.sa_data, EF_ETH_ALEN);
    }
    int one = 1;
    if (setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one))
        perror("pktblast: PACKET_QDISC_BYPASS (sending through the qdisc)");
    struct sockaddr_ll to;
    memset(&to, 0, sizeof to);
    to.sll_family = AF_PACKET;
    to.sll_ifindex = ifindex;
    to.sll_halen = EF_ETH_ALEN;
    memcpy(to.sll_addr, dst_mac, EF_ETH_ALEN);

    static uint8_t frame[MAX_FRAME];
    size_t len = (size_t)size - 4;
    build_udp_frame(frame, len, dst_mac, src_mac, sip, dip);
    static struct mmsghdr msgs[MAX_BATCH];
    static struct iovec iov;
    iov.iov_base = frame;
    iov.iov_len = len;
    for (int i = 0; i < batch; i++) {
        msgs[i].msg_hdr.msg_name = &to;
        msgs[i].msg_hdr.msg_namelen = sizeof to;
        msgs[i].msg_hdr.msg_iov = &iov;
        msgs[i].msg_hdr.msg_iovlen = 1;
    }

    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    unsigned long long offered = 0, errors = 0;
    double start = now_s(), end = start + (double)duration, t = start;
    while (!stop && t < end) {
        int n = (int)batch;
        if (rate > 0) {
            // Send what is due by now, at most one batch; otherwise wait a little.
            double due = (t - start) * (double)rate - (double)offered;
            if (due < 1) {
                struct timespec ts = {0, 20000};
                nanosleep(&ts, NULL);
                t = now_s();
                continue;
            }
            if (due < n) n = (int)due;
        }
        int sent = sendmmsg(fd, msgs, (unsigned)n, 0);
        if (sent < 0) {
            if (errno == EINTR) continue;
            errors++;
            if (errno != ENOBUFS && errno != EAGAIN) { perror("pktblast: sendmmsg"); break; }
        } else {
            offered += (unsigned long long)sent;
        }
        t = now_s();
    }
    double secs = now_s() - start;
    printf("offered=%llu seconds=%.3f pps=%.0f errors=%llu\n", offered, secs,
           secs > 0 ? (double)offered / secs : 0.0, errors);
    close(fd);
    return 0;
}
