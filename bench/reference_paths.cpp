// Minimal references of the packet paths: for each, the lookups, header
// writes and checksums the path cannot do without, the platform's buffers
// and L3 hand-off, and nothing else. Written for speed the plain way: small
// open-addressing tables, prebuilt outer headers, a word-at-a-time
// checksum.
#include "reference_paths.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <memory>

#include "bench_setup.h"
#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efrt_bcast.h"
#include "efrt_l3.h"
#include "efrt_pipeline.h"
#include "vxlan_ef_tables.h"

namespace vxbench {

namespace {

constexpr size_t kTunnelCount = 4;
// Where the pseudo-header's addresses lie: source and destination side by
// side in both families.
constexpr size_t kIpv4Addrs = offsetof(ef_ipv4_hdr, src);
constexpr size_t kIpv4AddrsLen = sizeof(ef_ipv4_hdr::src) + sizeof(ef_ipv4_hdr::dst);
constexpr size_t kIpv6Addrs = offsetof(ef_ipv6_hdr, src);
constexpr size_t kIpv6AddrsLen = sizeof(ef_ipv6_hdr::src) + sizeof(ef_ipv6_hdr::dst);
// Inner IPv4 payload one packet carries at most: whole 8-byte units keeping
// an outer IPv4 packet within a 1500-byte underlay. One limit for both
// families, as the module's defaults let a 1450-byte frame through either
// tunnel whole.
constexpr size_t kFragPayload =
    (1500 - EF_VXLAN_IPV4_OVERHEAD - EF_IPV4_HLEN) / 8 * 8;

// ---- bytes -----------------------------------------------------------------

uint32_t get24(const uint8_t *p) { return static_cast<uint32_t>(p[0] << 16 | p[1] << 8 | p[2]); }

void put24(uint8_t *p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v >> 16);
    ef_put_be16(p + 1, static_cast<uint16_t>(v));
}

template <typename T>
T load(const uint8_t *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

uint64_t mac_key(const uint8_t *mac)
{
    uint64_t k = 0;
    std::memcpy(&k, mac, EF_ETH_ALEN);
    return k;
}

uint8_t *data_of(const efmp_buff_t *b) { return b->head + b->data_off; }

// ---- checksums -------------------------------------------------------------

// One's-complement sum in memory order, eight bytes at a time with the carry
// wrapped round: folded and stored as it is, it is the checksum in network
// order on a host of either byte order.
uint64_t sum_bytes(const uint8_t *p, size_t n, uint64_t acc = 0)
{
    auto add = [&acc](uint64_t w) {
        acc += w;
        acc += acc < w;
    };
    for (; n >= 8; p += 8, n -= 8)
        add(load<uint64_t>(p));
    if (n >= 4) {
        add(load<uint32_t>(p));
        p += 4, n -= 4;
    }
    if (n >= 2) {
        add(load<uint16_t>(p));
        p += 2, n -= 2;
    }
    if (n != 0) {
        uint16_t last = 0;
        std::memcpy(&last, p, 1);
        add(last);
    }
    return acc;
}

uint16_t fold(uint64_t acc)
{
    acc = (acc & 0xFFFFFFFF) + (acc >> 32);
    acc = (acc & 0xFFFFFFFF) + (acc >> 32);
    acc = (acc & 0xFFFF) + (acc >> 16);
    acc = (acc & 0xFFFF) + (acc >> 16);
    return static_cast<uint16_t>(acc);
}

void store_checksum(uint8_t *at, uint64_t acc)
{
    const auto sum = static_cast<uint16_t>(~fold(acc));
    std::memcpy(at, &sum, 2);
}

// The textbook sum of big-endian words, for checking the fast one's results.
uint32_t be_sum(const uint8_t *p, size_t n, uint32_t acc = 0)
{
    for (size_t i = 0; i + 1 < n; i += 2)
        acc += ef_get_be16(p + i);
    if (n % 2 != 0)
        acc += static_cast<uint32_t>(p[n - 1]) << 8;
    return acc;
}

bool sums_to_ones(uint32_t acc)
{
    while (acc > 0xFFFF)
        acc = (acc & 0xFFFF) + (acc >> 16);
    return acc == 0xFFFF;
}

// ---- tables ----------------------------------------------------------------

// Open addressing with linear probing; the segment fills a few of its
// slots, so a lookup ends at the first or second.
template <typename V>
class SmallMap {
public:
    void put(uint64_t key, V *value)
    {
        size_t i = start(key);
        while (slots_[i].value != nullptr)
            i = next(i);
        slots_[i] = Slot{key, value};
    }

    V *get(uint64_t key) const
    {
        for (size_t i = start(key);; i = next(i))
            if (slots_[i].value == nullptr || slots_[i].key == key)
                return slots_[i].value;
    }

private:
    static constexpr size_t kSlots = 16;
    struct Slot {
        uint64_t key;
        V *value;
    };
    static size_t start(uint64_t key) { return (key * 0x9E3779B97F4A7C15ull) >> 60; }
    static size_t next(size_t i) { return (i + 1) & (kSlots - 1); }
    std::array<Slot, kSlots> slots_{};
};

// Where a destination MAC leads: the outer IP, UDP and VXLAN headers
// prebuilt, lengths, identification, source port and checksums left to
// fill. No outer Ethernet header: the L3 engine writes it, as it does for
// the module's packets.
struct Tunnel {
    lsm_intfcb_t *intf = nullptr;
    bool ipv6 = false;
    std::array<uint8_t, EF_IPV6_HLEN + EF_UDP_HLEN + EF_VXLAN_HLEN> header{};
    uint16_t next_id = 0;
    uint16_t next_sport = 0;
};

// What a VNI or one of its access ports leads to.
struct Instance {
    uint32_t vni = 0;
    std::array<Tunnel *, kTunnelCount> tunnels{};
    std::array<uint32_t, 2> ports{};
};

struct Tables {
    std::array<Tunnel, kTunnelCount> tunnels;
    Instance instance;
    SmallMap<Tunnel> by_mac;
    SmallMap<Instance> by_vni;
    SmallMap<Instance> by_port;
    SmallMap<lsm_intfcb_t> by_source;  // outer IPv4 source -> tunnel interface
};

// The segment's tunnels as bench_setup configures them.
struct TunnelConfig {
    uint32_t ifx;
    bool ipv6;
    const char *local;
    const char *remote;
};

constexpr std::array<TunnelConfig, kTunnelCount> kTunnelConfigs{{
    {kTunnel1, false, kLocalVtep4, kRemoteVtep1},
    {kTunnel2, false, kLocalVtep4, "10.0.0.2"},
    {kTunnel3, false, kLocalVtep4, "10.0.0.3"},
    {kTunnel6, true, "2001:db8::1", kRemoteVtep6},
}};

void build_header(Tunnel &t, const TunnelConfig &s, uint32_t vni)
{
    uint8_t *ip = t.header.data();
    if (s.ipv6) {
        auto *h = reinterpret_cast<ef_ipv6_hdr *>(ip);
        h->ver_tc_flow[0] = EF_IPV6_VERSION << 4;
        h->next_hdr = EF_IPPROTO_UDP;
        h->hop_limit = 255;
        inet_pton(AF_INET6, s.local, h->src);
        inet_pton(AF_INET6, s.remote, h->dst);
    } else {
        auto *h = reinterpret_cast<ef_ipv4_hdr *>(ip);
        h->ver_ihl = EF_IPV4_VER_IHL;
        ef_put_be16(h->frag, EF_IPV4_DONT_FRAGMENT);  // as the module sends
        h->ttl = 64;
        h->proto = EF_IPPROTO_UDP;
        inet_pton(AF_INET, s.local, h->src);
        inet_pton(AF_INET, s.remote, h->dst);
    }
    uint8_t *udp = ip + (s.ipv6 ? EF_IPV6_HLEN : EF_IPV4_HLEN);
    ef_put_be16(reinterpret_cast<ef_udp_hdr *>(udp)->dport, EF_VXLAN_PORT);
    auto *vx = reinterpret_cast<ef_vxlan_hdr *>(udp + EF_UDP_HLEN);
    vx->flags = EF_VXLAN_FLAG_I;
    put24(vx->vni, vni);
}

std::shared_ptr<Tables> build_tables()
{
    auto t = std::make_shared<Tables>();
    t->instance.vni = kVni;
    t->instance.ports = {kAccessPort, kOtherPort};
    for (size_t i = 0; i < kTunnelCount; ++i) {
        Tunnel &tn = t->tunnels[i];
        tn.intf = lsm_get_intfcb(kTunnelConfigs[i].ifx);
        tn.ipv6 = kTunnelConfigs[i].ipv6;
        build_header(tn, kTunnelConfigs[i], kVni);
        t->instance.tunnels[i] = &tn;
        if (!tn.ipv6)
            t->by_source.put(load<uint32_t>(reinterpret_cast<const ef_ipv4_hdr *>(tn.header.data())->dst),
                             tn.intf);
    }
    t->by_mac.put(mac_key(kRemoteMac4.data()), &t->tunnels[0]);
    t->by_mac.put(mac_key(kRemoteMac6.data()), &t->tunnels[3]);
    t->by_vni.put(kVni, &t->instance);
    for (uint32_t port : t->instance.ports)
        t->by_port.put(port, &t->instance);
    return t;
}

// ---- the paths -------------------------------------------------------------

void fill_ipv4(uint8_t *ip, Tunnel &t, uint16_t udp_len)
{
    auto *h = reinterpret_cast<ef_ipv4_hdr *>(ip);
    ef_put_be16(h->total_len, static_cast<uint16_t>(EF_IPV4_HLEN + udp_len));
    ef_put_be16(h->id, t.next_id++);
    store_checksum(h->csum, sum_bytes(ip, EF_IPV4_HLEN));
}

// Over the pseudo-header and the whole UDP packet, for both families.
void fill_udp_checksum(const uint8_t *ip, bool ipv6, uint8_t *udp, uint16_t udp_len)
{
    const uint8_t fields[4] = {0, EF_IPPROTO_UDP, static_cast<uint8_t>(udp_len >> 8),
                               static_cast<uint8_t>(udp_len)};
    const uint64_t pseudo = ipv6 ? sum_bytes(ip + kIpv6Addrs, kIpv6AddrsLen, load<uint32_t>(fields))
                                 : sum_bytes(ip + kIpv4Addrs, kIpv4AddrsLen, load<uint32_t>(fields));
    const uint64_t acc = sum_bytes(udp, udp_len, pseudo);
    uint8_t *csum = reinterpret_cast<ef_udp_hdr *>(udp)->csum;
    // A computed zero goes out as all ones: zero means "no checksum".
    if (fold(acc) == 0xFFFF)
        ef_put_be16(csum, 0xFFFF);
    else
        store_checksum(csum, acc);
}

// The template in front of the frame, then what varies per packet. The
// copies have constant sizes, so they compile to a few moves.
bool encapsulate(efmp_buff_t *b, Tunnel &t)
{
    const size_t ip_len = t.ipv6 ? EF_IPV6_HLEN : EF_IPV4_HLEN;
    const auto udp_len = static_cast<uint16_t>(EF_UDP_HLEN + EF_VXLAN_HLEN + b->len);
    uint8_t *ip = efmp_buff_push(b, static_cast<uint32_t>(ip_len + EF_UDP_HLEN + EF_VXLAN_HLEN));
    if (ip == nullptr)
        return false;
    if (t.ipv6)
        std::memcpy(ip, t.header.data(), EF_IPV6_HLEN + EF_UDP_HLEN + EF_VXLAN_HLEN);
    else
        std::memcpy(ip, t.header.data(), EF_IPV4_HLEN + EF_UDP_HLEN + EF_VXLAN_HLEN);
    uint8_t *udp = ip + ip_len;
    t.next_sport = static_cast<uint16_t>(t.next_sport + 1) | 0xC000;
    ef_put_be16(reinterpret_cast<ef_udp_hdr *>(udp)->sport, t.next_sport);
    ef_put_be16(reinterpret_cast<ef_udp_hdr *>(udp)->len, udp_len);
    if (t.ipv6)
        ef_put_be16(reinterpret_cast<ef_ipv6_hdr *>(ip)->payload_len, udp_len);
    else
        fill_ipv4(ip, t, udp_len);
    fill_udp_checksum(ip, t.ipv6, udp, udp_len);
    b->l3_off = b->data_off;
    b->flags |= EFMP_F_VXLAN_ENCAP;
    return true;
}

// The platform's hand-off to the L3 engine, as its contract asks: the chain
// appended to this CPU's slot under the slot's lock, then the worker woken.
bool hand_to_l3(efmp_buff_t *first, efmp_buff_t *last, uint32_t count)
{
    const uint32_t cpu = g_efmp_cpu_num;
    efmp_skip_slot_t &slot = efmp_skip_top.slots[cpu];
    pthread_spin_lock(&slot.lock);
    const bool room = slot.count + count <= efmp_skip_top.capacity;
    if (room) {
        (slot.head == nullptr ? slot.head : slot.tail->next) = first;
        slot.tail = last;
        __atomic_store_n(&slot.count, slot.count + count, __ATOMIC_RELAXED);
    }
    pthread_spin_unlock(&slot.lock);
    efmp_vth_active_async(efmp_skip_top.worker, cpu);
    if (!room)
        efmp_buff_chain_free_sw_user(kBuffReason, first, 0, count);
    return room;
}

// An inner IPv4 header made a fragment's: length, offset, MF, checksum.
void make_fragment_header(uint8_t *ip, size_t offset, size_t payload, bool more)
{
    auto *h = reinterpret_cast<ef_ipv4_hdr *>(ip);
    const size_t ihl = size_t{h->ver_ihl & 0x0Fu} * 4;
    ef_put_be16(h->total_len, static_cast<uint16_t>(ihl + payload));
    ef_put_be16(h->frag, static_cast<uint16_t>((more ? EF_IPV4_MORE_FRAGMENTS : 0) | offset / 8));
    ef_put_be16(h->csum, 0);
    store_checksum(h->csum, sum_bytes(ip, ihl));
}

// The frame's headers and one slice of its IP payload in a fresh buffer.
efmp_buff_t *fragment_copy(const efmp_buff_t *b, size_t headers, size_t offset, size_t payload)
{
    const auto len = static_cast<uint32_t>(headers + payload);
    efmp_buff_t *c = efmp_buff_alloc_sw_user(kBuffReason, len);
    if (c == nullptr)
        return nullptr;
    std::memcpy(data_of(c), data_of(b), headers);
    std::memcpy(data_of(c) + headers, data_of(b) + headers + offset, payload);
    make_fragment_header(data_of(c) + EF_ETH_HLEN, offset, payload, offset + payload < b->len - headers);
    return c;
}

// The first fragment stays in the frame's buffer, cut short; the others are
// copied out of it first. Each is encapsulated; one chain goes to the queue.
bool fragment_frame(efmp_buff_t *b, Tunnel &t)
{
    uint8_t *ip = data_of(b) + EF_ETH_HLEN;
    const auto *h = reinterpret_cast<const ef_ipv4_hdr *>(ip);
    const size_t headers = EF_ETH_HLEN + size_t{h->ver_ihl & 0x0Fu} * 4;
    const size_t payload = b->len - headers;
    efmp_buff_t *last = b;
    uint32_t n = 1;
    bool ok = (ef_get_be16(h->frag) & EF_IPV4_DONT_FRAGMENT) == 0;
    for (size_t off = kFragPayload; ok && off < payload; off += kFragPayload, n++) {
        last->next = fragment_copy(b, headers, off, std::min(kFragPayload, payload - off));
        ok = last->next != nullptr;
        last = ok ? last->next : last;
    }
    const size_t first = std::min(kFragPayload, payload);
    b->len = static_cast<uint32_t>(headers + first);
    make_fragment_header(ip, 0, first, first < payload);
    for (efmp_buff_t *f = b; ok && f != nullptr; f = f->next)
        ok = encapsulate(f, t);
    if (!ok) {
        efmp_buff_chain_free_sw_user(kBuffReason, b, 0, 0);
        return false;
    }
    return hand_to_l3(b, last, n);
}

// Fragmented when the inner IPv4 payload exceeds the limit; takes the buffer.
bool send_to_tunnel(efmp_buff_t *b, Tunnel &t)
{
    if (b->pkt_type == EFMP_PKT_IPV4 && b->len > b->l2_len + EF_IPV4_HLEN + kFragPayload)
        return fragment_frame(b, t);
    if (encapsulate(b, t))
        return hand_to_l3(b, b, 1);
    efmp_buff_free_sw_user(kBuffReason, b);
    return false;
}

// The outer headers checked, the VNI and the sending tunnel looked up, the
// outer headers pulled off: the frame now comes from its tunnel.
bool decapsulate(efmp_buff_t *b, const Tables &t)
{
    constexpr size_t kShortest = EF_ETH_HLEN + EF_IPV4_HLEN + EF_UDP_HLEN + EF_VXLAN_HLEN;
    const uint8_t *eth = data_of(b);
    if (b->len < kShortest || ef_get_be16(reinterpret_cast<const ef_eth_hdr *>(eth)->type) != EF_ETHERTYPE_IPV4)
        return false;
    const auto *ip = reinterpret_cast<const ef_ipv4_hdr *>(eth + EF_ETH_HLEN);
    const size_t ihl = size_t{ip->ver_ihl & 0x0Fu} * 4;
    if (ip->ver_ihl >> 4 != EF_IPV4_VERSION || ihl < EF_IPV4_HLEN || ip->proto != EF_IPPROTO_UDP)
        return false;
    const size_t outer = EF_ETH_HLEN + ihl + EF_UDP_HLEN + EF_VXLAN_HLEN;
    const auto *udp = reinterpret_cast<const ef_udp_hdr *>(eth + EF_ETH_HLEN + ihl);
    const auto *vx = reinterpret_cast<const ef_vxlan_hdr *>(eth + EF_ETH_HLEN + ihl + EF_UDP_HLEN);
    if (b->len < outer || ef_get_be16(udp->dport) != EF_VXLAN_PORT || (vx->flags & EF_VXLAN_FLAG_I) == 0)
        return false;
    const Instance *in = t.by_vni.get(get24(vx->vni));
    lsm_intfcb_t *tunnel = t.by_source.get(load<uint32_t>(ip->src));
    if (in == nullptr || tunnel == nullptr)
        return false;
    b->vni_tag[0] = vx->flags;
    efmp_buff_set_vni(b, in->vni);
    efmp_buff_pull(b, static_cast<uint32_t>(outer));
    b->src_intf = tunnel;
    b->l3_off = static_cast<uint16_t>(b->data_off + EF_ETH_HLEN);
    b->flags |= EFMP_F_VXLAN_DECAP;
    return true;
}

efmp_buff_t *copy_of(const efmp_buff_t *b)
{
    efmp_buff_t *c = efmp_buff_alloc_sw_user(kBuffReason, b->len);
    if (c != nullptr)
        std::memcpy(data_of(c), data_of(b), b->len);
    return c;
}

// One fresh copy per tunnel of the segment, queued as one chain; the frame
// itself to the other access ports. The caller frees it.
bool flood_frame(efmp_buff_t *b, const Tables &t)
{
    const Instance *in = t.by_port.get(b->src_ifx);
    if (in == nullptr || (data_of(b)[0] & 1) == 0)
        return false;
    efmp_buff_t *first = nullptr, *last = nullptr;
    uint32_t n = 0;
    for (Tunnel *tn : in->tunnels) {
        efmp_buff_t *c = copy_of(b);
        if (c == nullptr || !encapsulate(c, *tn)) {
            efmp_buff_free_sw_user(kBuffReason, c);
            continue;
        }
        (first == nullptr ? first : last->next) = c;
        last = c;
        n++;
    }
    const bool queued = n != 0 && hand_to_l3(first, last, n);
    for (uint32_t port : in->ports)
        if (port != b->src_ifx)
            efrt::port_send(port, b, true);
    return queued && n == in->tunnels.size();
}

// ---- workloads -------------------------------------------------------------

struct RefDecap {
    Bytes frame;
    lsm_intfcb_t *uplink;
    lsm_intfcb_t *tunnel;
    std::shared_ptr<const Tables> tables;

    bool operator()() const
    {
        efmp_buff_t *b = harness::receive(frame, uplink);
        if (b == nullptr)
            return false;
        const bool ok = decapsulate(b, *tables) && b->src_intf == tunnel;
        efmp_buff_free_sw_user(kBuffReason, b);
        return ok;
    }
};

struct RefEncap {
    Bytes frame;
    lsm_intfcb_t *port;
    vxlan_ef_ip_addr_t vtep;
    size_t expected_out;
    std::shared_ptr<Tables> tables;

    // From the received buffer to the L3 queue; takes the buffer.
    bool path(efmp_buff_t *b) const
    {
        Tunnel *t = tables->by_mac.get(mac_key(data_of(b)));
        if (t != nullptr)
            return send_to_tunnel(b, *t);
        efmp_buff_free_sw_user(kBuffReason, b);
        return false;
    }

    bool operator()() const
    {
        efmp_buff_t *b = harness::receive(frame, port);
        if (b == nullptr)
            return false;
        const bool queued = path(b);
        const harness::Drained d = harness::drain_l3(&vtep);
        return d.count == expected_out && queued && d.first_to_vtep;
    }
};

struct RefFlood {
    Bytes frame;
    lsm_intfcb_t *port;
    std::shared_ptr<Tables> tables;

    bool operator()() const
    {
        efmp_buff_t *b = harness::receive(frame, port);
        if (b == nullptr)
            return false;
        const bool queued = flood_frame(b, *tables);
        efmp_buff_free_sw_user(kBuffReason, b);
        return harness::drain_l3().count == kTunnelCount && queued;
    }
};

// ---- the one full check before timing --------------------------------------

// The inner frame of a packet as the L3 engine takes it, once its outer
// headers, lengths and both checksums have passed the textbook sums;
// nullptr when one of them is wrong.
const uint8_t *checked_inner(const efmp_buff_t *b, const uint8_t *vtep, bool ipv6)
{
    const uint8_t *ip = data_of(b);
    const size_t ip_len = ipv6 ? EF_IPV6_HLEN : EF_IPV4_HLEN;
    if (b->len < ip_len + EF_UDP_HLEN + EF_VXLAN_HLEN)
        return nullptr;
    const size_t udp_len = b->len - ip_len;
    const uint8_t *udp = ip + ip_len;
    const auto *h6 = reinterpret_cast<const ef_ipv6_hdr *>(ip);
    const auto *h4 = reinterpret_cast<const ef_ipv4_hdr *>(ip);
    const bool ip_ok = ipv6 ? h6->ver_tc_flow[0] >> 4 == EF_IPV6_VERSION && ef_get_be16(h6->payload_len) == udp_len &&
                                  h6->next_hdr == EF_IPPROTO_UDP && std::memcmp(h6->dst, vtep, sizeof h6->dst) == 0
                            : h4->ver_ihl == EF_IPV4_VER_IHL &&
                                  ef_get_be16(h4->total_len) == b->len && h4->proto == EF_IPPROTO_UDP &&
                                  sums_to_ones(be_sum(ip, EF_IPV4_HLEN)) &&
                                  std::memcmp(h4->dst, vtep, sizeof h4->dst) == 0;
    const uint32_t pseudo = (ipv6 ? be_sum(ip + kIpv6Addrs, kIpv6AddrsLen) : be_sum(ip + kIpv4Addrs, kIpv4AddrsLen)) +
                            EF_IPPROTO_UDP + static_cast<uint32_t>(udp_len);
    const auto *u = reinterpret_cast<const ef_udp_hdr *>(udp);
    const auto *vx = reinterpret_cast<const ef_vxlan_hdr *>(udp + EF_UDP_HLEN);
    const bool ok = ip_ok && ef_get_be16(u->dport) == EF_VXLAN_PORT && ef_get_be16(u->len) == udp_len &&
                    ef_get_be16(u->csum) != 0 && sums_to_ones(be_sum(udp, udp_len, pseudo)) &&
                    vx->flags == EF_VXLAN_FLAG_I && get24(vx->vni) == kVni;
    return ok ? udp + EF_UDP_HLEN + EF_VXLAN_HLEN : nullptr;
}

// Packet k of count carries the whole frame (count 1) or its k-th fragment:
// the frame's headers with length, offset, MF and checksum made the
// fragment's, then the slice of the payload.
bool valid_inner(const uint8_t *in, size_t len, const Bytes &frame, size_t k, size_t count)
{
    if (count == 1)
        return len == frame.size() && std::memcmp(in, frame.data(), len) == 0;
    constexpr size_t kHeaders = EF_ETH_HLEN + EF_IPV4_HLEN;
    const size_t payload = frame.size() - kHeaders;
    const size_t off = k * kFragPayload;
    const size_t slice = std::min(kFragPayload, payload - std::min(off, payload));
    const bool more = k + 1 < count;
    const auto *ip = reinterpret_cast<const ef_ipv4_hdr *>(in + EF_ETH_HLEN);
    const auto *orig = reinterpret_cast<const ef_ipv4_hdr *>(frame.data() + EF_ETH_HLEN);
    // Unchanged: the Ethernet header with the IP version, length and type
    // of service; the id; the TTL and protocol; the addresses.
    return len == kHeaders + slice && (more || off + slice == payload) &&
           std::memcmp(in, frame.data(), offsetof(ef_ipv4_hdr, total_len) + EF_ETH_HLEN) == 0 &&
           ef_get_be16(ip->total_len) == EF_IPV4_HLEN + slice && std::memcmp(ip->id, orig->id, sizeof ip->id) == 0 &&
           ef_get_be16(ip->frag) == ((more ? EF_IPV4_MORE_FRAGMENTS : 0) | off / 8) &&
           ip->ttl == orig->ttl && ip->proto == orig->proto &&
           sums_to_ones(be_sum(in + EF_ETH_HLEN, EF_IPV4_HLEN)) &&
           std::memcmp(ip->src, orig->src, kIpv4AddrsLen) == 0 &&
           std::memcmp(in + kHeaders, frame.data() + kHeaders + off, slice) == 0;
}

bool valid_packet(const efmp_buff_t *b, const Bytes &frame, const uint8_t *vtep, bool ipv6,
                  size_t k = 0, size_t count = 1)
{
    const uint8_t *in = checked_inner(b, vtep, ipv6);
    const size_t outer = (ipv6 ? EF_IPV6_HLEN : EF_IPV4_HLEN) + EF_UDP_HLEN + EF_VXLAN_HLEN;
    return in != nullptr && valid_inner(in, b->len - outer, frame, k, count);
}

bool check_encap(const RefEncap &e)
{
    efmp_buff_t *b = harness::receive(e.frame, e.port);
    bool ok = b != nullptr && e.path(b);
    efmp_buff_t *chain = efrt::l3_take_chain();
    const bool ipv6 = e.vtep.family != VXLAN_EF_AF_INET;
    size_t k = 0;
    for (const efmp_buff_t *p = chain; p != nullptr; p = p->next, k++)
        ok = ok && valid_packet(p, e.frame, e.vtep.addr, ipv6, k, e.expected_out);
    efmp_buff_chain_free_sw_user(kBuffReason, chain, 0, 0);
    return ok && k == e.expected_out;
}

bool check_decap(const RefDecap &d, const Bytes &inner)
{
    efmp_buff_t *b = harness::receive(d.frame, d.uplink);
    if (b == nullptr)
        return false;
    const bool ok = decapsulate(b, *d.tables) && b->src_intf == d.tunnel &&
                    efmp_buff_vni(b) == kVni && b->len == inner.size() &&
                    std::memcmp(data_of(b), inner.data(), inner.size()) == 0;
    efmp_buff_free_sw_user(kBuffReason, b);
    return ok;
}

struct PortSends {
    uint32_t to_other = 0;
    uint32_t elsewhere = 0;
};

void count_send(uint32_t ifindex, const efmp_buff_t *, void *ctx)
{
    auto *s = static_cast<PortSends *>(ctx);
    (ifindex == kOtherPort ? s->to_other : s->elsewhere)++;
}

// Every tunnel once, in the segment's order, and the other access port once.
bool check_flood(const RefFlood &f)
{
    PortSends sends;
    efrt::set_port_tx(count_send, &sends);
    efmp_buff_t *b = harness::receive(f.frame, f.port);
    bool ok = b != nullptr && flood_frame(b, *f.tables);
    efmp_buff_free_sw_user(kBuffReason, b);
    efrt::set_port_tx(nullptr, nullptr);
    efmp_buff_t *chain = efrt::l3_take_chain();
    const efmp_buff_t *p = chain;
    for (const Tunnel &t : f.tables->tunnels) {
        const uint8_t *vtep = t.header.data() + (t.ipv6 ? 24 : 16);
        ok = ok && p != nullptr && valid_packet(p, f.frame, vtep, t.ipv6);
        p = p != nullptr ? p->next : nullptr;
    }
    efmp_buff_chain_free_sw_user(kBuffReason, chain, 0, 0);
    return ok && p == nullptr && sends.to_other == 1 && sends.elsewhere == 0;
}

// ---- the table of references -----------------------------------------------

Workload packet_workload(const std::string &name, size_t bytes, std::function<bool()> run,
                         bool checked)
{
    if (!checked)
        run = [] { return false; };
    return Workload{name, "packet", 1, bytes, 0, std::move(run)};
}

Workload ref_decap(const std::string &name, size_t inner_len)
{
    const Bytes inner = ipv4_frame(kLocalMac, kRemoteMac4, inner_len);
    const OuterHeaders outer{kUplinkMac, kNextHopMac, kRemoteVtep1, kLocalVtep4, kVni};
    RefDecap d{vxlan4_frame(outer, inner), lsm_get_intfcb(kUplinkPort), lsm_get_intfcb(kTunnel1),
               build_tables()};
    return packet_workload(name, d.frame.size(), d, check_decap(d, inner));
}

Workload ref_encap(const std::string &name, size_t frame_len, bool ipv6_tunnel,
                   size_t expected_out = 1)
{
    const Mac &dst = ipv6_tunnel ? kRemoteMac6 : kRemoteMac4;
    const vxlan_ef_ip_addr_t vtep = ipv6_tunnel ? ip6(kRemoteVtep6) : ip4(kRemoteVtep1);
    RefEncap e{ipv4_frame(dst, kLocalMac, frame_len), lsm_get_intfcb(kAccessPort), vtep,
               expected_out, build_tables()};
    return packet_workload(name, e.frame.size(), e, check_encap(e));
}

Workload ref_flood(const std::string &name)
{
    RefFlood f{ipv4_frame(kBroadcastMac, kLocalMac, 64), lsm_get_intfcb(kAccessPort),
               build_tables()};
    return packet_workload(name, f.frame.size(), f, check_flood(f));
}

struct Entry {
    const char *module_workload;
    Workload (*make)(const std::string &name);
};

constexpr Entry kReferences[] = {
    {"decap/64", [](const std::string &n) { return ref_decap(n, 64); }},
    {"decap/512", [](const std::string &n) { return ref_decap(n, 512); }},
    {"decap/1450", [](const std::string &n) { return ref_decap(n, 1450); }},
    {"local_to_tunnel4/64", [](const std::string &n) { return ref_encap(n, 64, false); }},
    {"local_to_tunnel4/512", [](const std::string &n) { return ref_encap(n, 512, false); }},
    {"local_to_tunnel4/1450", [](const std::string &n) { return ref_encap(n, 1450, false); }},
    {"local_to_tunnel6/64", [](const std::string &n) { return ref_encap(n, 64, true); }},
    {"local_to_tunnel6/512", [](const std::string &n) { return ref_encap(n, 512, true); }},
    {"local_to_tunnel6/1450", [](const std::string &n) { return ref_encap(n, 1450, true); }},
    {"encap_fragmented/4000", [](const std::string &n) { return ref_encap(n, 4000, false, 3); }},
    {"flood/64", ref_flood},
};

}  // namespace

bool has_reference(const std::string &module_workload)
{
    for (const Entry &e : kReferences)
        if (module_workload == e.module_workload)
            return true;
    return false;
}

std::optional<Workload> make_reference(const std::string &module_workload, const std::string &name)
{
    for (const Entry &e : kReferences)
        if (module_workload == e.module_workload)
            return e.make(name);
    return std::nullopt;
}

}  // namespace vxbench
