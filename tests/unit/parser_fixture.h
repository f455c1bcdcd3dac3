// Fixture of the receive parser tests: a started module with a VXLAN segment,
// a port, an IPv4 and an IPv6 tunnel, frame builders (Ethernet, 802.1Q, VXLAN
// over IPv4 and IPv6), packet buffers that hold them, and readers of the
// buffer words and of the parser's trace lines.
//
//   port eth10 (ifx 10) --- VLAN 100 ---> VNI 5000
//   tunnel1 (45001): local 10.0.0.1      <-> remote 10.0.0.2      (VNI 5000)
//   tunnel2 (45002): local 2001:db8::1   <-> remote 2001:db8::2   (VNI 5000)
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "table_fixture.h"

namespace vxtest {

constexpr const char *kCapBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
constexpr const char *kCapSoft = "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT";
constexpr const char *kCapL2vni = "g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING";

constexpr uint32_t kPort = 10;
constexpr uint32_t kTunnel4 = 45001;
constexpr uint32_t kTunnel6 = 45002;
constexpr uint32_t kVni = 5000;
constexpr uint16_t kVlan = 100;
constexpr int kBuffReason = 77;

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

constexpr Mac kInnerDst{0x00, 0x00, 0x5E, 0x00, 0x53, 0x01};
constexpr Mac kInnerSrc{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr Mac kOuterDst{0x02, 0xAA, 0x00, 0x00, 0x00, 0x01};
constexpr Mac kOuterSrc{0x02, 0xBB, 0x00, 0x00, 0x00, 0x02};

inline void put16(Bytes &b, size_t at, uint16_t v)
{
    b[at] = static_cast<uint8_t>(v >> 8);
    b[at + 1] = static_cast<uint8_t>(v);
}

inline uint16_t get16(const Bytes &b, size_t at) { return static_cast<uint16_t>(b[at] << 8 | b[at + 1]); }

// An Ethernet frame with a payload of counting bytes.
inline Bytes ether(const Mac &dst, const Mac &src, uint16_t type, size_t payload = 46)
{
    Bytes f(EF_ETH_HLEN + payload);
    auto *eth = reinterpret_cast<ef_eth_hdr *>(f.data());
    std::copy(dst.begin(), dst.end(), eth->dst);
    std::copy(src.begin(), src.end(), eth->src);
    ef_put_be16(eth->type, type);
    for (size_t i = 0; i < payload; ++i)
        f[EF_ETH_HLEN + i] = static_cast<uint8_t>(i);
    return f;
}

// The same frame with a new outermost 802.1Q tag.
inline Bytes tagged(Bytes f, uint16_t tci)
{
    Bytes tag(EF_VLAN_TAG_LEN);
    auto *t = reinterpret_cast<ef_vlan_tag *>(tag.data());
    ef_put_be16(t->tpid, EF_ETHERTYPE_VLAN);
    ef_put_be16(t->tci, tci);
    f.insert(f.begin() + EF_ETH_ADDRS_LEN, tag.begin(), tag.end());
    return f;
}

inline Bytes inner_ipv4() { return ether(kInnerDst, kInnerSrc, EF_ETHERTYPE_IPV4, 46); }

// What a VXLAN frame's outer headers carry.
struct Outer {
    std::string src;
    std::string dst;
    uint32_t vni = kVni;
    uint8_t flags = EF_VXLAN_FLAG_I;
    uint16_t dport = EF_VXLAN_PORT;
    uint8_t proto = EF_IPPROTO_UDP;
};

inline Bytes udp_vxlan(const Outer &o, const Bytes &inner)
{
    Bytes u(EF_UDP_HLEN + EF_VXLAN_HLEN);
    auto *udp = reinterpret_cast<ef_udp_hdr *>(u.data());
    ef_put_be16(udp->sport, 49152);
    ef_put_be16(udp->dport, o.dport);
    ef_put_be16(udp->len, static_cast<uint16_t>(u.size() + inner.size()));
    auto *vx = reinterpret_cast<ef_vxlan_hdr *>(u.data() + EF_UDP_HLEN);
    vx->flags = o.flags;
    vx->vni[0] = static_cast<uint8_t>(o.vni >> 16);
    vx->vni[1] = static_cast<uint8_t>(o.vni >> 8);
    vx->vni[2] = static_cast<uint8_t>(o.vni);
    u.insert(u.end(), inner.begin(), inner.end());
    return u;
}

// VXLAN in UDP in IPv4 (without options) in Ethernet.
inline Bytes vxlan4(const Outer &o, const Bytes &inner)
{
    const Bytes udp = udp_vxlan(o, inner);
    Bytes f = ether(kOuterDst, kOuterSrc, EF_ETHERTYPE_IPV4, 0);
    Bytes ip(EF_IPV4_HLEN);
    auto *h = reinterpret_cast<ef_ipv4_hdr *>(ip.data());
    h->ver_ihl = EF_IPV4_VER_IHL;
    ef_put_be16(h->total_len, static_cast<uint16_t>(EF_IPV4_HLEN + udp.size()));
    h->ttl = 64;
    h->proto = o.proto;
    inet_pton(AF_INET, o.src.c_str(), h->src);
    inet_pton(AF_INET, o.dst.c_str(), h->dst);
    f.insert(f.end(), ip.begin(), ip.end());
    f.insert(f.end(), udp.begin(), udp.end());
    return f;
}

// VXLAN in UDP in IPv6 (no extension header) in Ethernet.
inline Bytes vxlan6(const Outer &o, const Bytes &inner)
{
    const Bytes udp = udp_vxlan(o, inner);
    Bytes f = ether(kOuterDst, kOuterSrc, EF_ETHERTYPE_IPV6, 0);
    Bytes ip(EF_IPV6_HLEN);
    auto *h = reinterpret_cast<ef_ipv6_hdr *>(ip.data());
    h->ver_tc_flow[0] = EF_IPV6_VERSION << 4;
    ef_put_be16(h->payload_len, static_cast<uint16_t>(udp.size()));
    h->next_hdr = o.proto;
    h->hop_limit = 64;
    inet_pton(AF_INET6, o.src.c_str(), h->src);
    inet_pton(AF_INET6, o.dst.c_str(), h->dst);
    f.insert(f.end(), ip.begin(), ip.end());
    f.insert(f.end(), udp.begin(), udp.end());
    return f;
}

inline Outer from_tunnel4(uint32_t vni = kVni)
{
    Outer o;
    o.src = "10.0.0.2";
    o.dst = "10.0.0.1";
    o.vni = vni;
    return o;
}

inline Outer from_tunnel6(uint32_t vni = kVni)
{
    Outer o;
    o.src = "2001:db8::2";
    o.dst = "2001:db8::1";
    o.vni = vni;
    return o;
}

// printf into a string, for expected log lines that name a buffer.
inline std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));
inline std::string fmt(const char *format, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    return text;
}

class ParserTest : public TableTest {
protected:
    void TearDown() override
    {
        for (efmp_buff_t *b : buffers_)
            efmp_buff_free_sw_user(kBuffReason, b);
        buffers_.clear();
        TableTest::TearDown();
    }

    // Starts the module on a port and two tunnels carrying VNI 5000, with
    // VLAN 100 extended into it, no bridge service, logging off and the log
    // empty.
    void start_parser(bool soft = false, bool l2vni = false, uint16_t port_status = 0)
    {
        set_cap(kCapBase);
        set_cap(kCapSoft, soft);
        set_cap(kCapL2vni, l2vni);
        lsm_intfcb_t port = efrt::make_intf(kPort, 3, LSM_IF_STACK_BRIDGE, "eth10");
        port.status = port_status;
        efrt::lsm_add(port);
        efrt::lsm_add(efrt::make_intf(kTunnel4, 45, LSM_IF_STACK_RAW, "tunnel1"));
        efrt::lsm_add(efrt::make_intf(kTunnel6, 45, LSM_IF_STACK_RAW, "tunnel2"));
        start_tables(0);
        // Each test publishes the bridge services it needs.
        efrt::bridge_withdraw_all();
        deliver_tlvs({set_entry(kVni), set_vlan(kVni, {kVlan}),
                      set_vtep(kTunnel4, ip4("10.0.0.1"), ip4("10.0.0.2")),
                      set_vtep(kTunnel6, ip6("2001:db8::1"), ip6("2001:db8::2")),
                      asso_vtep(kVni, kTunnel4), asso_vtep(kVni, kTunnel6)});
        take_logs();
    }

    // Parser tracing of one interface with a budget of packets.
    static void trace_on(uint32_t ifx = kPort, uint32_t budget = 10)
    {
        g_vxlan_vsd->debug_mask = VXLAN_EF_DBG_PARSER;
        g_vxlan_vsd->trace_ifx = ifx;
        g_vxlan_vsd->trace_budget = budget;
    }

    static lsm_intfcb_t *intf(uint32_t ifx) { return lsm_get_intfcb(ifx); }

    // A buffer holding frame as received on interface ifx.
    efmp_buff_t *receive(const Bytes &frame, uint32_t ifx = kPort)
    {
        efmp_buff_t *b = efmp_buff_alloc_sw_user(kBuffReason, static_cast<uint32_t>(frame.size()));
        EXPECT_NE(b, nullptr);
        if (b == nullptr)
            return nullptr;
        std::copy(frame.begin(), frame.end(), b->head + b->data_off);
        b->src_intf = intf(ifx);
        b->src_ifx = ifx;
        buffers_.push_back(b);
        return b;
    }

    static Bytes frame_of(const efmp_buff_t *b)
    {
        return Bytes(b->head + b->data_off, b->head + b->data_off + b->len);
    }

    // The outer tag word as a number, and the VNI word's bytes.
    static uint32_t tag_word(const efmp_buff_t *b) { return efmp_buff_tag_word(b); }
    static void set_tag_word(efmp_buff_t *b, uint32_t word) { efmp_buff_set_tag_word(b, word); }
    static Bytes vni_word(const efmp_buff_t *b) { return Bytes(b->vni_tag, b->vni_tag + 4); }
    static Bytes vni_bytes(uint8_t first, uint32_t vni)
    {
        return Bytes{first, static_cast<uint8_t>(vni >> 16), static_cast<uint8_t>(vni >> 8),
                     static_cast<uint8_t>(vni)};
    }

    // The parser's trace lines and the dump positions logged since the last take.
    struct Trace {
        std::vector<std::string> parser;
        std::vector<std::string> dumps;
    };
    static Trace take_trace()
    {
        Trace t;
        for (const auto &l : take_logs()) {
            if (l.rfind("VXLAN-EF-PARSER:", 0) == 0)
                t.parser.push_back(l);
            else if (l.rfind("Packet position: ", 0) == 0)
                t.dumps.push_back(l);
        }
        return t;
    }

    static std::vector<efrt::BridgeMac> learned() { return efrt::bridge_macs(); }

private:
    std::vector<efmp_buff_t *> buffers_;
};

}  // namespace vxtest
