// Fixture and helpers for the encapsulation tests: a configured VNI with a
// tunnel, frames built byte by byte, the test's own Internet checksums, a
// reader of the outer headers of what reached the L3 queue, and reassembly
// of IPv4 and IPv6 fragments.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efrt_l3.h"
#include "frame/transmit/transmit_private.h"
#include "table_fixture.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

namespace vxtest {

using Lines = std::vector<std::string>;

constexpr uint32_t kVni = 5000;
constexpr uint32_t kTunnelIfx = 300;

// ---- the test's own checksum: RFC 1071 over a byte string ----
inline uint16_t inet_sum(const std::vector<uint8_t> &bytes)
{
    uint64_t acc = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        const uint64_t hi = bytes[i];
        const uint64_t lo = i + 1 < bytes.size() ? bytes[i + 1] : 0;
        acc += hi * 256 + lo;
    }
    while (acc > 0xFFFF)
        acc = (acc & 0xFFFF) + (acc >> 16);
    return static_cast<uint16_t>(acc);
}

inline uint16_t be16_at(const std::vector<uint8_t> &v, size_t at)
{
    return static_cast<uint16_t>(v.at(at) * 256 + v.at(at + 1));
}

inline uint32_t be32_at(const std::vector<uint8_t> &v, size_t at)
{
    return static_cast<uint32_t>(be16_at(v, at)) << 16 | be16_at(v, at + 2);
}

// The bytes of a buffer from its data start.
inline std::vector<uint8_t> buff_bytes(const efmp_buff_t *b)
{
    return std::vector<uint8_t>(b->head + b->data_off, b->head + b->data_off + b->len);
}

// ---- frames ----
struct FrameSpec {
    uint32_t frame_len = 60;    // Ethernet header included
    bool ipv6 = false;          // inner family
    uint8_t tos = 0;            // inner TOS or traffic class
    bool arp = false;           // an ARP frame instead of IP
    uint16_t ident = 0x1234;    // inner IPv4 identification
    uint8_t proto = EF_IPPROTO_UDP;  // inner protocol / next header
};

// An Ethernet frame with an inner IP packet filling frame_len, payload bytes
// counting up from its first payload byte.
inline std::vector<uint8_t> make_frame(const FrameSpec &s)
{
    std::vector<uint8_t> f(s.frame_len, 0);
    const uint8_t dmac[EF_ETH_ALEN] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t smac[EF_ETH_ALEN] = {0x00, 0x66, 0x77, 0x88, 0x99, 0xAA};
    auto *eth = reinterpret_cast<ef_eth_hdr *>(f.data());
    std::copy(dmac, dmac + EF_ETH_ALEN, eth->dst);
    std::copy(smac, smac + EF_ETH_ALEN, eth->src);
    ef_put_be16(eth->type, s.arp ? EF_ETHERTYPE_ARP : s.ipv6 ? EF_ETHERTYPE_IPV6 : EF_ETHERTYPE_IPV4);
    const uint32_t ip_len = s.frame_len - EF_ETH_HLEN;
    size_t payload = EF_ETH_HLEN;
    if (s.arp) {
        payload = EF_ETH_HLEN;
    } else if (!s.ipv6) {
        auto *ip = reinterpret_cast<ef_ipv4_hdr *>(&f[EF_ETH_HLEN]);
        ip->ver_ihl = EF_IPV4_VER_IHL;
        ip->tos = s.tos;
        ef_put_be16(ip->total_len, static_cast<uint16_t>(ip_len));
        ef_put_be16(ip->id, s.ident);
        ip->ttl = 64;
        ip->proto = s.proto;
        const uint8_t src[4] = {192, 168, 1, 1}, dst[4] = {192, 168, 2, 2};
        std::copy(src, src + 4, ip->src);
        std::copy(dst, dst + 4, ip->dst);
        payload = EF_ETH_HLEN + EF_IPV4_HLEN;
        const uint16_t c = static_cast<uint16_t>(
            ~inet_sum(std::vector<uint8_t>(f.begin() + EF_ETH_HLEN, f.begin() + static_cast<long>(payload))));
        ef_put_be16(ip->csum, c);
    } else {
        auto *ip = reinterpret_cast<ef_ipv6_hdr *>(&f[EF_ETH_HLEN]);
        ef_put_be32(ip->ver_tc_flow, uint32_t{EF_IPV6_VERSION} << 28 | static_cast<uint32_t>(s.tos) << 20 | 0x12345);
        ef_put_be16(ip->payload_len, static_cast<uint16_t>(ip_len - EF_IPV6_HLEN));
        ip->next_hdr = s.proto;
        ip->hop_limit = 64;
        ip->src[0] = 0x20;
        ip->src[1] = 0x01;
        ip->src[15] = 0x01;
        ip->dst[0] = 0x20;
        ip->dst[1] = 0x01;
        ip->dst[15] = 0x02;
        payload = EF_ETH_HLEN + EF_IPV6_HLEN;
    }
    for (size_t i = payload; i < f.size(); i++)
        f[i] = static_cast<uint8_t>(i - payload);
    return f;
}

// A buffer holding the frame, classified as the forwarding decision leaves
// it, sent to dst. A buffer the module is to free is allocated with the
// reason the module frees with.
inline efmp_buff_t *make_buff(const std::vector<uint8_t> &frame, const FrameSpec &s,
                              lsm_intfcb_t *dst, uint32_t vni = kVni, int reason = 0)
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(reason, static_cast<uint32_t>(frame.size()));
    if (b == nullptr)
        return nullptr;
    std::copy(frame.begin(), frame.end(), b->head + b->data_off);
    b->l2_len = 14;
    b->l3_off = static_cast<uint16_t>(b->data_off + 14);
    b->l4_off = static_cast<uint16_t>(b->l3_off + (s.ipv6 ? 40 : 20));
    b->pkt_type = s.arp ? EFMP_PKT_ARP : s.ipv6 ? EFMP_PKT_IPV6 : EFMP_PKT_IPV4;
    b->dst_intf = dst;
    b->vni_tag[0] = 0x08;
    efmp_buff_set_vni(b, vni);
    return b;
}

// ---- outer headers ----
struct SentOuter {
    bool ipv6 = false;
    uint8_t tos = 0;
    uint16_t ident = 0;
    std::vector<uint8_t> sip, dip;
    uint16_t sport_raw = 0;  // the two bytes read in host order
    uint16_t dport = 0;
    uint32_t vni = 0;
    std::vector<uint8_t> inner;  // the encapsulated Ethernet frame
};

// Checks every outer IP, UDP and VXLAN field that does not depend on the
// test (fixed values, lengths, both checksums recomputed here) and returns
// the others for the test to compare.
inline SentOuter read_outer(const std::vector<uint8_t> &pkt)
{
    SentOuter o;
    EXPECT_GE(pkt.size(), 36u);
    if (pkt.size() < 36)
        return o;
    size_t udp = 0;
    std::vector<uint8_t> pseudo;
    o.ipv6 = (pkt[0] >> 4) == 6;
    if (!o.ipv6) {
        EXPECT_EQ(pkt[0], 0x45);
        o.tos = pkt[1];
        EXPECT_EQ(be16_at(pkt, 2), pkt.size());
        o.ident = be16_at(pkt, 4);
        EXPECT_EQ(be16_at(pkt, 6), 0x4000);
        EXPECT_EQ(pkt[8], 64);
        EXPECT_EQ(pkt[9], 17);
        EXPECT_EQ(inet_sum(std::vector<uint8_t>(pkt.begin(), pkt.begin() + 20)), 0xFFFF)
            << "outer IPv4 header checksum";
        o.sip.assign(pkt.begin() + 12, pkt.begin() + 16);
        o.dip.assign(pkt.begin() + 16, pkt.begin() + 20);
        udp = 20;
    } else {
        const uint32_t w = be32_at(pkt, 0);
        o.tos = static_cast<uint8_t>(w >> 20);
        EXPECT_EQ(w & 0xFFFFF, 0u) << "flow label";
        EXPECT_EQ(be16_at(pkt, 4), pkt.size() - 40);
        EXPECT_EQ(pkt[6], 17);
        EXPECT_EQ(pkt[7], 255);
        o.sip.assign(pkt.begin() + 8, pkt.begin() + 24);
        o.dip.assign(pkt.begin() + 24, pkt.begin() + 40);
        udp = 40;
    }
    const uint16_t udp_len = be16_at(pkt, udp + 4);
    EXPECT_EQ(udp_len, pkt.size() - udp);
    pseudo = o.sip;
    pseudo.insert(pseudo.end(), o.dip.begin(), o.dip.end());
    pseudo.push_back(0);
    pseudo.push_back(17);
    pseudo.push_back(static_cast<uint8_t>(udp_len >> 8));
    pseudo.push_back(static_cast<uint8_t>(udp_len));
    // Pseudo-header first: it is a multiple of 2 bytes, so the UDP part keeps
    // its word alignment.
    std::vector<uint8_t> all = pseudo;
    all.insert(all.end(), pkt.begin() + static_cast<long>(udp), pkt.end());
    const uint16_t stored = be16_at(pkt, udp + 6);
    if (stored != 0) {
        EXPECT_EQ(inet_sum(all), 0xFFFF) << "UDP checksum";
    }
    o.sport_raw = static_cast<uint16_t>(pkt[udp] | pkt[udp + 1] << 8);
    o.dport = be16_at(pkt, udp + 2);
    const size_t vx = udp + 8;
    EXPECT_EQ(pkt[vx], 0x08);
    EXPECT_EQ(pkt[vx + 1], 0);
    EXPECT_EQ(pkt[vx + 2], 0);
    EXPECT_EQ(pkt[vx + 3], 0);
    EXPECT_EQ(pkt[vx + 7], 0);
    o.vni = be32_at(pkt, vx + 4) >> 8;
    o.inner.assign(pkt.begin() + static_cast<long>(vx + 8), pkt.end());
    return o;
}

// The UDP checksum the test expects for a finished packet, computed from
// scratch with the checksum field taken as 0.
inline uint16_t expected_udp_checksum(std::vector<uint8_t> pkt)
{
    const bool v6 = (pkt[0] >> 4) == 6;
    const size_t udp = v6 ? 40 : 20;
    const size_t alen = v6 ? 16 : 4;
    const size_t sa = v6 ? 8 : 12;
    pkt[udp + 6] = pkt[udp + 7] = 0;
    std::vector<uint8_t> all(pkt.begin() + static_cast<long>(sa),
                             pkt.begin() + static_cast<long>(sa + 2 * alen));
    all.push_back(0);
    all.push_back(17);
    all.push_back(pkt[udp + 4]);
    all.push_back(pkt[udp + 5]);
    all.insert(all.end(), pkt.begin() + static_cast<long>(udp), pkt.end());
    return static_cast<uint16_t>(~inet_sum(all));
}

// ---- reassembly of the inner fragments ----
// Reassembles inner IPv4 fragments (Ethernet frames) into one frame: the
// first fragment's Ethernet and IP headers, total length and fragment word
// restored, header checksum recomputed. Checks every fragment on the way.
inline std::vector<uint8_t> reassemble_ipv4(const std::vector<std::vector<uint8_t>> &frames,
                                            uint32_t max_payload)
{
    std::map<uint32_t, std::vector<uint8_t>> parts;
    std::vector<uint8_t> head;
    bool saw_last = false;
    uint16_t ident = 0;
    for (size_t i = 0; i < frames.size(); i++) {
        const auto &f = frames[i];
        std::vector<uint8_t> ip(f.begin() + 14, f.end());
        const uint32_t hlen = (ip[0] & 0xF) * 4u;
        EXPECT_EQ(be16_at(ip, 2), ip.size()) << "fragment " << i << " total length";
        EXPECT_EQ(inet_sum(std::vector<uint8_t>(ip.begin(), ip.begin() + hlen)), 0xFFFF)
            << "fragment " << i << " header checksum";
        const uint16_t word = be16_at(ip, 6);
        const uint32_t off = (word & 0x1FFFu) * 8u;
        const bool mf = (word & 0x2000) != 0;
        const uint32_t data = static_cast<uint32_t>(ip.size()) - hlen;
        EXPECT_LE(data, max_payload) << "fragment " << i;
        if (mf) {
            EXPECT_EQ(data % 8, 0u) << "fragment " << i;
        }
        if (i == 0) {
            ident = be16_at(ip, 4);
            head.assign(f.begin(), f.begin() + 14 + hlen);
        }
        EXPECT_EQ(be16_at(ip, 4), ident) << "fragment " << i << " identification";
        EXPECT_EQ(mf, i + 1 != frames.size()) << "fragment " << i << " MF";
        saw_last = saw_last || !mf;
        parts[off] = std::vector<uint8_t>(ip.begin() + hlen, ip.end());
    }
    EXPECT_TRUE(saw_last);
    std::vector<uint8_t> out = head;
    for (const auto &[off, bytes] : parts) {
        EXPECT_EQ(out.size() - head.size(), off) << "gap or overlap at " << off;
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    if (out.size() < 34)
        return out;
    const uint32_t total = static_cast<uint32_t>(out.size()) - 14;
    out[16] = static_cast<uint8_t>(total >> 8);
    out[17] = static_cast<uint8_t>(total);
    out[20] = out[21] = 0;
    out[24] = out[25] = 0;
    const uint32_t hlen = (out[14] & 0xF) * 4u;
    const uint16_t c = static_cast<uint16_t>(
        ~inet_sum(std::vector<uint8_t>(out.begin() + 14, out.begin() + 14 + hlen)));
    out[24] = static_cast<uint8_t>(c >> 8);
    out[25] = static_cast<uint8_t>(c);
    return out;
}

// Reassembles inner IPv6 fragments carrying a Fragment header directly after
// the fixed header; the next header of the Fragment header goes back into
// the fixed header.
inline std::vector<uint8_t> reassemble_ipv6(const std::vector<std::vector<uint8_t>> &frames,
                                            uint32_t max_payload)
{
    std::map<uint32_t, std::vector<uint8_t>> parts;
    std::vector<uint8_t> head;
    uint32_t ident = 0;
    for (size_t i = 0; i < frames.size(); i++) {
        const auto &f = frames[i];
        std::vector<uint8_t> ip(f.begin() + 14, f.end());
        EXPECT_EQ(be16_at(ip, 4), ip.size() - 40) << "fragment " << i << " payload length";
        EXPECT_LE(ip.size() - 40, max_payload) << "fragment " << i;
        EXPECT_EQ(ip[6], 44) << "fragment " << i << " next header";
        const uint16_t word = be16_at(ip, 42);
        const uint32_t off = word & 0xFFF8u;
        const bool more = (word & 1) != 0;
        EXPECT_EQ(word & 6, 0) << "reserved bits";
        EXPECT_EQ(ip[41], 0) << "reserved byte";
        if (i == 0) {
            ident = be32_at(ip, 44);
            head.assign(f.begin(), f.begin() + 54);
            head[20] = ip[40];
        }
        EXPECT_EQ(be32_at(ip, 44), ident) << "fragment " << i << " identification";
        EXPECT_EQ(more, i + 1 != frames.size()) << "fragment " << i << " M flag";
        const std::vector<uint8_t> data(ip.begin() + 48, ip.end());
        if (more) {
            EXPECT_EQ(data.size() % 8, 0u) << "fragment " << i;
        }
        parts[off] = data;
    }
    std::vector<uint8_t> out = head;
    for (const auto &[off, bytes] : parts) {
        EXPECT_EQ(out.size() - head.size(), off) << "gap or overlap at " << off;
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    const uint32_t plen = static_cast<uint32_t>(out.size()) - 54;
    out[18] = static_cast<uint8_t>(plen >> 8);
    out[19] = static_cast<uint8_t>(plen);
    return out;
}

// ---- fixture ----
class EncapTest : public TableTest {
protected:
    void TearDown() override
    {
        free_owned();
        for (efmp_buff_t *b : efrt::l3_take())
            efmp_buff_free_sw_user(0, b);
        TableTest::TearDown();
    }

    // Starts the module with the encap trace on and a VNI carried over an
    // IPv4 (or IPv6) tunnel.
    void start_encap(bool ipv6_tunnel = false, uint16_t mask = VXLAN_EF_DBG_ENCAP,
                     uint32_t budget = 100)
    {
        start_tables(0);
        add_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel300");
        const vxlan_ef_ip_addr_t sip = ipv6_tunnel ? ip6("2001:db8::10") : ip4("10.0.0.1");
        const vxlan_ef_ip_addr_t dip = ipv6_tunnel ? ip6("2001:db8::20") : ip4("10.0.0.2");
        deliver_tlvs({set_entry(kVni), set_vtep(kTunnelIfx, sip, dip), asso_vtep(kVni, kTunnelIfx)});
        ASSERT_NE(adj(kVni, kTunnelIfx), nullptr);
        g_vxlan_vsd->debug_mask = mask;
        g_vxlan_vsd->trace_budget = budget;
        take_logs();
    }

    static lsm_intfcb_t *tunnel_cb() { return lsm_get_intfcb(kTunnelIfx); }

    // Encapsulates one frame and returns the packets that reached the L3
    // queue (the test owns them through owned_).
    std::vector<efmp_buff_t *> encap(const FrameSpec &s, uint32_t *rc = nullptr,
                                     std::vector<uint8_t> *frame_out = nullptr)
    {
        const std::vector<uint8_t> frame = make_frame(s);
        if (frame_out != nullptr)
            *frame_out = frame;
        efmp_buff_t *b = make_buff(frame, s, tunnel_cb());
        const uint32_t r = vxlan_ef_encap_frame(b, VXLAN_EF_ENCAP_MODE_TUNNEL);
        if (rc != nullptr)
            *rc = r;
        if (r != EF_Lost)
            efmp_buff_free_sw_user(0, b);
        auto out = efrt::l3_take();
        owned_.insert(owned_.end(), out.begin(), out.end());
        return out;
    }

    void free_owned()
    {
        for (efmp_buff_t *b : owned_)
            efmp_buff_free_sw_user(0, b);
        owned_.clear();
    }

    static std::vector<uint8_t> v4(const char *t)
    {
        auto a = ip4(t);
        return std::vector<uint8_t>(a.addr, a.addr + 4);
    }
    static std::vector<uint8_t> v6(const char *t)
    {
        auto a = ip6(t);
        return std::vector<uint8_t>(a.addr, a.addr + 16);
    }

    std::vector<efmp_buff_t *> owned_;
};

}  // namespace vxtest
