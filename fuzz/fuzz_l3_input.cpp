// efhost's L3 engine input target: arbitrary frames offered to the engine on
// either underlay port (ARP and neighbour discovery for its own addresses
// are answered or learnt from), the ARP and ND parsers on their own, and
// what the engine sends afterwards for packets towards what it may have
// learnt. Every frame the engine sends must parse back as what it meant.
//
// Input: byte 0 the port (bit 0) and whether an IP packet towards the
// frame's sender follows (bit 1), then the frame.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efrt.h"
#include "l3_arp_nd.h"
#include "l3_clock.h"
#include "l3_engine.h"

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "\n==== fuzz check failed ====\n%s\n", what);
    std::abort();
}

class CapturePort : public efhost::Port {
public:
    bool open(std::string &) override { return true; }
    void start(efhost::RxHandler) override {}
    bool send(const uint8_t *frame, size_t len) override
    {
        frames.emplace_back(frame, frame + len);
        return true;
    }
    void stop() override {}
    bool input_done() const override { return true; }
    uint64_t rx_frames() const override { return 0; }
    uint64_t tx_frames() const override { return frames.size(); }
    efhost::PortCounters counters() const override { return {0, frames.size(), 0, 0}; }
    std::vector<std::vector<uint8_t>> frames;
};

efhost::IpPrefix prefix(int family, std::initializer_list<uint8_t> bytes, uint8_t len)
{
    efhost::IpPrefix p;
    p.family = family;
    std::copy(bytes.begin(), bytes.end(), p.addr.begin());
    p.len = len;
    return p;
}

// Whether the IPv6 packet at ip, which holds at least one byte past its
// header, is a neighbour solicitation or advertisement.
bool carries_nd(const uint8_t *ip)
{
    const auto *h = reinterpret_cast<const ef_ipv6_hdr *>(ip);
    const uint8_t type = reinterpret_cast<const ef_nd_msg *>(ip + EF_IPV6_HLEN)->type;
    return h->next_hdr == EF_IPPROTO_ICMPV6 &&
           (type == EF_ND_NEIGHBOUR_SOLICIT || type == EF_ND_NEIGHBOUR_ADVERT);
}

// Every frame the engine sent is an ARP or ND message it can read back, or
// an IP packet behind an Ethernet header.
void check_sent(const CapturePort &port)
{
    for (const auto &f : port.frames) {
        if (f.size() < EF_ETH_HLEN)
            fail("the engine sent a frame shorter than an Ethernet header");
        const uint16_t type = ef_get_be16(reinterpret_cast<const ef_eth_hdr *>(f.data())->type);
        if (type == EF_ETHERTYPE_ARP && !efhost::l3::parse_arp(f.data(), f.size()))
            fail("the engine sent an ARP frame its own parser refuses");
        if (type == EF_ETHERTYPE_IPV6 && f.size() > EF_ETH_HLEN + EF_IPV6_HLEN &&
            carries_nd(f.data() + EF_ETH_HLEN) && !efhost::l3::parse_nd(f.data(), f.size()))
            fail("the engine sent a neighbour discovery frame its own parser refuses");
    }
}

uint64_t g_now = 1000000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t *frame = data + 1;
    const size_t len = size - 1;
    (void)efhost::l3::parse_arp(frame, len);
    (void)efhost::l3::parse_nd(frame, len);

    efrt::reset();
    efhost::l3::set_clock([] { return g_now; });
    CapturePort port1, port2;
    std::vector<efhost::L3Port> ports(2);
    ports[0].ifindex = 1;
    ports[0].port = &port1;
    ports[0].mac = {2, 0, 0, 0, 0, 1};
    ports[0].addresses = {prefix(AF_INET, {10, 1, 0, 1}, 24),
                          prefix(AF_INET6, {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 64)};
    ports[1].ifindex = 2;
    ports[1].port = &port2;
    ports[1].mac = {2, 0, 0, 0, 0, 2};
    ports[1].addresses = {prefix(AF_INET, {10, 2, 0, 1}, 24)};
    std::vector<efhost::RouteConfig> routes(1);
    routes[0].prefix = prefix(AF_INET, {10, 9, 0, 0}, 16);
    routes[0].via = prefix(AF_INET, {10, 1, 0, 254}, 32);
    routes[0].interface = 1;
    {
        efhost::L3Engine engine(ports, routes, {});
        const uint32_t ifindex = (data[0] & 0x01) + 1;
        engine.handle_rx(ifindex, frame, len);
        if ((data[0] & 0x02) != 0) {
            // An IP packet towards the address the frame's sender claimed
            // (ARP sender or IPv6 source), which the engine may have learnt.
            const auto *eth = reinterpret_cast<const ef_eth_hdr *>(frame);
            const auto *arp = reinterpret_cast<const ef_arp *>(frame + EF_ETH_HLEN);
            const auto *ip6 = reinterpret_cast<const ef_ipv6_hdr *>(frame + EF_ETH_HLEN);
            if (len >= EF_ETH_HLEN + offsetof(ef_arp, sender_ip) + sizeof arp->sender_ip &&
                ef_get_be16(eth->type) == EF_ETHERTYPE_ARP) {
                uint8_t packet[EF_IPV4_HLEN + 4] = {0x45, 0, 0, 24, 0, 1, 0, 0, 64, EF_IPPROTO_UDP, 0, 0, 10, 1, 0, 1};
                std::memcpy(reinterpret_cast<ef_ipv4_hdr *>(packet)->dst, arp->sender_ip, sizeof arp->sender_ip);
                engine.send_ip(packet, sizeof packet);
            } else if (len >= EF_ETH_HLEN + EF_IPV6_HLEN && ef_get_be16(eth->type) == EF_ETHERTYPE_IPV6) {
                uint8_t packet[EF_IPV6_HLEN + 4] = {0x60, 0, 0, 0, 0, 4, EF_IPPROTO_UDP, 64};
                auto *h = reinterpret_cast<ef_ipv6_hdr *>(packet);
                std::memcpy(h->src, ports[0].addresses[1].addr.data(), sizeof h->src);
                std::memcpy(h->dst, ip6->src, sizeof h->dst);
                engine.send_ip(packet, sizeof packet);
            }
        }
        g_now += 5000;
        engine.poll();
    }
    check_sent(port1);
    check_sent(port2);
    efhost::l3::set_clock({});
    efrt::reset();
    return 0;
}
