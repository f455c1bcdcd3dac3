// Fixture of the forwarding and flooding tests: a started module with its
// pipeline registered, a small VXLAN segment, frames built by the test, and
// readers of every destination a flood reached (the L3 queue for tunnels,
// the broadcast engine's sends for sub-interfaces and VLAN ports).
//
//   VNI 100                                  remote VTEPs
//   +--------------------------------+       T1 ifx 101 -> 10.0.0.1 (centre)
//   | tunnels T1 T2 T3               |-------T2 ifx 102 -> 10.0.0.2 (centre)
//   | sub-interfaces S1 S2           |       T3 ifx 103 -> 10.0.0.3 (outside)
//   | VLANs 10, 20                   |       local VTEP 192.0.2.1
//   +--------------------------------+
//   ports: P1 ifx 11 (VLAN 10), P2 ifx 12 (VLANs 10, 20), P3 ifx 13 (VLAN 20),
//          PL ifx 14 (VLAN 10, the MLAG peer-link)
//   sub-interfaces: S1 ifx 201 on P1 svid 30, S2 ifx 202 on P2 svid 40
//   the device: L2LOCAL ifx 4094 (type 32, the 4094 slot)
#pragma once

#include <arpa/inet.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efrt_bcast.h"
#include "efrt_l3.h"
#include "table_fixture.h"
#include "vxlan_ef_forward.h"

namespace vxtest {

constexpr const char *kCapBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
constexpr int kTestReason = -7;

constexpr uint32_t kVni = 100;
constexpr uint32_t kT1 = 101, kT2 = 102, kT3 = 103;
constexpr uint32_t kP1 = 11, kP2 = 12, kP3 = 13, kPL = 14;
constexpr uint32_t kS1 = 201, kS2 = 202;
constexpr uint32_t kL2Local = 4094;
constexpr uint32_t kRouter = 300;
constexpr uint32_t kPortType = 2;

inline const uint8_t kBcastMac[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
inline const uint8_t kHostA[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
inline const uint8_t kHostB[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x02};
inline const uint8_t kRouterMac[6] = {0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0x01};

// Where one flood went.
struct Destinations {
    std::set<std::string> tunnels;                 // outer destination IPs
    std::set<uint32_t> subifs;                     // sub-interfaces sent on
    std::set<std::pair<uint32_t, uint16_t>> ports; // (VLAN member port, VLAN)

    bool operator==(const Destinations &o) const
    {
        return tunnels == o.tunnels && subifs == o.subifs && ports == o.ports;
    }
};

inline std::ostream &operator<<(std::ostream &os, const Destinations &d)
{
    os << "tunnels{";
    for (const auto &t : d.tunnels)
        os << t << " ";
    os << "} subifs{";
    for (auto s : d.subifs)
        os << s << " ";
    os << "} ports{";
    for (const auto &p : d.ports)
        os << p.first << "/" << p.second << " ";
    return os << "}";
}

class ForwardTest : public TableTest {
protected:
    void TearDown() override
    {
        for (efmp_buff_t *b : efrt::l3_take())
            efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        TableTest::TearDown();
    }

    // Starts the module with the pipeline registered and the segment of the
    // drawing configured; logs are emptied and the debug mask is clear.
    void start_segment()
    {
        set_cap(kCapBase);
        start_tables(0);
        for (auto [ifx, name] : {std::pair{kP1, "P1"}, {kP2, "P2"}, {kP3, "P3"}, {kPL, "PL"}})
            add_intf(ifx, kPortType, name);
        for (auto [ifx, name] : {std::pair{kT1, "T1"}, {kT2, "T2"}, {kT3, "T3"}})
            add_intf(ifx, LSM_IF_TYPE_OVERLAY_TUNNEL, name);
        add_intf(kS1, kPortType, "S1");
        add_intf(kS2, kPortType, "S2");
        add_intf(kL2Local, 32, "L2LOCAL");
        vsd()->intf_slot_4094 = lsm_get_intfcb(kL2Local);
        vsd()->peerlink_ifx = kPL;
        efrt::bridge_add_vlan(kP1, 10);
        efrt::bridge_add_vlan(kP2, 10);
        efrt::bridge_add_vlan(kP2, 20);
        efrt::bridge_add_vlan(kP3, 20);
        efrt::bridge_add_vlan(kPL, 10);
        const auto local = ip4("192.0.2.1");
        deliver_tlvs({set_entry(kVni), set_vtep(kT1, local, ip4("10.0.0.1")),
                      set_vtep(kT2, local, ip4("10.0.0.2")), set_vtep(kT3, local, ip4("10.0.0.3")),
                      asso_vtep(kVni, kT1), asso_vtep(kVni, kT2), asso_vtep(kVni, kT3),
                      outside_center(kT3, 1), set_vlan(kVni, {10, 20}),
                      subif(kS1, kP1, kVni, 30, 0), subif(kS2, kP2, kVni, 40, 0)});
        take_logs();
    }

    static lsm_intfcb_t *intf(uint32_t ifx) { return lsm_get_intfcb(ifx); }

    // An Ethernet frame of len bytes: destination, source, EtherType, then a
    // counting payload.
    static std::vector<uint8_t> frame(const uint8_t *dst, const uint8_t *src, uint16_t type,
                                      size_t len = EF_ETH_MIN_FRAME)
    {
        std::vector<uint8_t> f(len);
        auto *eth = reinterpret_cast<ef_eth_hdr *>(f.data());
        std::memcpy(eth->dst, dst, EF_ETH_ALEN);
        std::memcpy(eth->src, src, EF_ETH_ALEN);
        ef_put_be16(eth->type, type);
        for (size_t i = EF_ETH_HLEN; i < len; ++i)
            f[i] = static_cast<uint8_t>(i);
        return f;
    }

    // An IPv6 frame carrying an ICMPv6 message of the given type.
    static std::vector<uint8_t> icmpv6_frame(const uint8_t *dst, uint8_t icmp_type)
    {
        std::vector<uint8_t> f = frame(dst, kHostA, EF_ETHERTYPE_IPV6, EF_ETH_HLEN + EF_IPV6_HLEN + EF_ND_LEN);
        std::memset(&f[EF_ETH_HLEN], 0, EF_IPV6_HLEN);
        auto *ip = reinterpret_cast<ef_ipv6_hdr *>(&f[EF_ETH_HLEN]);
        ip->ver_tc_flow[0] = EF_IPV6_VERSION << 4;
        ef_put_be16(ip->payload_len, EF_ND_LEN);
        ip->next_hdr = EF_IPPROTO_ICMPV6;
        ip->hop_limit = EF_ND_HOP_LIMIT;
        reinterpret_cast<ef_nd_msg *>(&f[EF_ETH_HLEN + EF_IPV6_HLEN])->type = icmp_type;
        return f;
    }

    // A buffer holding the frame, received on src in the VNI. The test owns it.
    static efmp_buff_t *buff(const std::vector<uint8_t> &f, uint32_t src, uint32_t vni = kVni,
                             uint8_t pkt_type = 0)
    {
        efmp_buff_t *b = efmp_buff_alloc_sw_user(kTestReason, static_cast<uint32_t>(f.size()));
        std::memcpy(b->head + b->data_off, f.data(), f.size());
        b->src_intf = src == 0 ? nullptr : lsm_get_intfcb(src);
        b->src_ifx = src;
        b->l2_len = 14;
        b->l3_off = static_cast<uint16_t>(b->data_off + 14);
        b->pkt_type = pkt_type;
        efmp_buff_set_vni(b, vni);
        return b;
    }

    static void drop(efmp_buff_t *b) { efmp_buff_free_sw_user(kTestReason, b); }

    static uint32_t vni_of(const efmp_buff_t *b) { return efmp_buff_vni(b); }

    static uint16_t vid_of(const efmp_buff_t *b) { return efmp_buff_tag_vid(b); }

    // Every destination reached since the last call; the packets that reached
    // the L3 queue are freed.
    static Destinations destinations()
    {
        Destinations d;
        for (efmp_buff_t *b : efrt::l3_take()) {
            char text[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, b->head + b->data_off + 16, text, sizeof text);
            d.tunnels.insert(text);
            efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        }
        for (const efrt::PortSend &s : efrt::port_take_sends()) {
            if (s.vlan_flood)
                d.ports.insert({s.ifindex, s.vid});
            else
                d.subifs.insert(s.ifindex);
        }
        return d;
    }

    // Floods a broadcast frame from src through the forwarding decision and
    // returns where it went; the result code goes to *result.
    Destinations flood_from(uint32_t src, int *result = nullptr, uint64_t flags = 0)
    {
        efmp_buff_t *b = buff(frame(kBcastMac, kHostA, 0x0800), src);
        b->flags |= flags;
        const int r = vxlan_ef_forward(b);
        if (result != nullptr)
            *result = r;
        drop(b);
        return destinations();
    }

    // Nothing made for a flood outlives it.
    static void expect_nothing_left()
    {
        EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
        EXPECT_EQ(efrt::mcast_nodes_live(), 0);
    }

    static std::string fwd_line(const std::string &func, const std::string &text)
    {
        return "VXLAN-EF-FORWARD: [vsd 3 " + func + "] " + text;
    }
    static std::string encap_line(const std::string &func, const std::string &text)
    {
        return "VXLAN-EF-ENCAP: [vsd 3 " + func + "] " + text;
    }
    static std::string ptr(const void *p)
    {
        char text[32];
        std::snprintf(text, sizeof text, "%p", p);
        return text;
    }

    // Turns forward and encap tracing on with a budget.
    void trace_on(uint32_t budget = 100)
    {
        set_mask(VXLAN_EF_DBG_FORWARD | VXLAN_EF_DBG_ENCAP);
        vsd()->trace_budget = budget;
        take_logs();
    }

    // The trace lines logged by one function, in order.
    static std::vector<std::string> lines_of(const std::vector<std::string> &lines,
                                             const std::string &func)
    {
        std::vector<std::string> out;
        for (const auto &l : lines)
            if (l.find(" " + func + "] ") != std::string::npos)
                out.push_back(l);
        return out;
    }
};

}  // namespace vxtest
