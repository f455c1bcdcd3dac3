// Routed packets sent to an overlay router interface: the inner Ethernet
// header towards the next hop's router MAC, the L3 VNI and the tunnel of the
// next hop, the drops, and the no-ICMP answer.
#include "encap_fixture.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

namespace vxtest {
namespace {

constexpr uint32_t kRouterIfx = 400;
const uint8_t kRouterMac[6] = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0x01};
const uint8_t kNextHopMac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

class RouterMacForwardTest : public EncapTest {
protected:
    void start_router(bool ipv6_tunnel = false, uint32_t mtu = 1500)
    {
        start_encap(ipv6_tunnel);
        deliver_tlvs({set_router(kVni, kRouterIfx, 1, 0, 1)});
        ASSERT_NE(router(kRouterIfx), nullptr);
        lsm_intfcb_t cb = efrt::make_intf(kRouterIfx, LSM_IF_TYPE_OVERLAY_ROUTER, 0, "OR400");
        std::memcpy(cb.mac, kRouterMac, 6);
        cb.mtu = mtu;
        efrt::lsm_add(cb);
        next_hop_ = ipv6_tunnel ? ip6("2001:db8::20") : ip4("10.0.0.2");
        take_logs();
    }

    static lsm_intfcb_t *router_cb() { return lsm_get_intfcb(kRouterIfx); }

    // A routed packet: the IP packet of a frame built as FrameSpec says, with
    // or without its Ethernet header in front.
    static efmp_buff_t *routed(const FrameSpec &s, bool with_l2, std::vector<uint8_t> *ip_out)
    {
        const std::vector<uint8_t> frame = make_frame(s);
        efmp_buff_t *b = make_buff(frame, s, nullptr, 0);
        b->vni_tag[0] = 0;
        if (!with_l2) {
            efmp_buff_pull(b, 14);
            b->l2_len = 0;
        }
        if (ip_out != nullptr)
            ip_out->assign(frame.begin() + 14, frame.end());
        return b;
    }

    static std::vector<uint8_t> expected_inner(const std::vector<uint8_t> &ip, bool ipv6)
    {
        std::vector<uint8_t> f;
        for (uint8_t byte : kNextHopMac)
            f.push_back(byte);
        for (uint8_t byte : kRouterMac)
            f.push_back(byte);
        f.push_back(ipv6 ? 0x86 : 0x08);
        f.push_back(ipv6 ? 0xDD : 0x00);
        f.insert(f.end(), ip.begin(), ip.end());
        return f;
    }

    int forward(efmp_buff_t *b) { return vxlan_ef_router_mac_forward(b, router_cb(), &next_hop_, kNextHopMac); }

    std::vector<efmp_buff_t *> take()
    {
        auto out = efrt::l3_take();
        owned_.insert(owned_.end(), out.begin(), out.end());
        return out;
    }

    vxlan_ef_ip_addr_t next_hop_{};
};

TEST_F(RouterMacForwardTest, Ipv4PacketWithoutL2HeaderGetsOneAndIsEncapsulatedInTheL3Vni)
{
    start_router();
    std::vector<uint8_t> ip;
    efmp_buff_t *b = routed(FrameSpec{200}, false, &ip);
    ASSERT_EQ(forward(b), EF_Lost);
    auto out = take();
    ASSERT_EQ(out.size(), 1u);
    const SentOuter o = read_outer(buff_bytes(out[0]));
    EXPECT_EQ(o.vni, kVni);
    EXPECT_EQ(o.sip, v4("10.0.0.1"));
    EXPECT_EQ(o.dip, v4("10.0.0.2"));
    EXPECT_EQ(o.inner, expected_inner(ip, false));
    EXPECT_EQ(out[0]->vxlan_mtu, 1500);
}

TEST_F(RouterMacForwardTest, TraceShowsTheInterfaceNextHopAndMacThenTheL3Handoff)
{
    start_router();
    efmp_buff_t *b = routed(FrameSpec{200}, false, nullptr);
    const uint16_t data_off = b->data_off;
    const uint16_t l3_off = b->l3_off;
    ASSERT_EQ(forward(b), EF_Lost);
    take();
    const void *p = b;
    char l1[256], l2[160], l3[160];
    std::snprintf(l1, sizeof l1,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] pkt: %p receive pkt to "
                  "Router's MAC forward dest-intf OR400, dip 10.0.0.2, mac 0211.2233.4455\n",
                  p);
    std::snprintf(l2, sizeof l2,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] try to l2hdr replace, "
                  "l2_len:0, l2_offset: %u, ip_offset: %u\n",
                  data_off, l3_off);
    std::snprintf(l3, sizeof l3,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] pkt: %p will "
                  "vxlan_ef_encap_header.\n",
                  p);
    const Lines lines = lines_starting(take_logs(), "VXLAN-EF-ENCAP:");
    EXPECT_EQ(lines, (Lines{l1, l2, l3,
                            "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] "
                            "efmp_vxlan_skip_fw success: skip to l3-engin.\n"}));
}

TEST_F(RouterMacForwardTest, PacketWithItsL2HeaderKeepsItsLengthOnlyTheHeaderChanges)
{
    start_router();
    std::vector<uint8_t> ip;
    efmp_buff_t *b = routed(FrameSpec{300}, true, &ip);
    const uint16_t data_off = b->data_off;
    ASSERT_EQ(forward(b), EF_Lost);
    auto out = take();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(read_outer(buff_bytes(out[0])).inner, expected_inner(ip, false));
    EXPECT_EQ(out[0]->len, 300u + 36u) << "no header was added in front of the frame";
    EXPECT_EQ(out[0]->data_off, data_off - 36);
    EXPECT_TRUE(lines_starting(take_logs(), "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] "
                                            "try to l2hdr replace")
                    .empty());
}

TEST_F(RouterMacForwardTest, Ipv6PacketOverIpv4TunnelGetsEthertype86DDInsideAndIpv4Outside)
{
    start_router();
    FrameSpec s{200};
    s.ipv6 = true;
    std::vector<uint8_t> ip;
    efmp_buff_t *b = routed(s, false, &ip);
    ASSERT_EQ(forward(b), EF_Lost);
    auto out = take();
    ASSERT_EQ(out.size(), 1u);
    const SentOuter o = read_outer(buff_bytes(out[0]));
    EXPECT_FALSE(o.ipv6);
    EXPECT_EQ(o.inner, expected_inner(ip, true));
}

TEST_F(RouterMacForwardTest, OverlayRouterMtuIsTheTunnelMtuOfThePacket)
{
    start_router(false, 1000);
    std::vector<uint8_t> ip;
    efmp_buff_t *b = routed(FrameSpec{2000}, false, &ip);
    ASSERT_EQ(forward(b), EF_Lost);
    auto out = take();
    ASSERT_EQ(out.size(), 3u) << "limit 950 for 1966 bytes of payload";
    std::vector<std::vector<uint8_t>> inner;
    for (const efmp_buff_t *f : out)
        inner.push_back(read_outer(buff_bytes(f)).inner);
    EXPECT_EQ(reassemble_ipv4(inner, 950), expected_inner(ip, false));
}

TEST_F(RouterMacForwardTest, ArpOrOtherNonIpPacketIsDroppedWithThePktTypeTrace)
{
    start_router();
    FrameSpec s{60};
    s.arp = true;
    efmp_buff_t *b = routed(s, true, nullptr);
    EXPECT_EQ(forward(b), EF_Drop);
    char line[160];
    std::snprintf(line, sizeof line,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] pkt: %p pktType 2 is not "
                  "ipv4 or ipv6 so drop\n",
                  static_cast<void *>(b));
    EXPECT_EQ(take_logs().back(), line);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, PacketWithoutL2HeaderBelowOffset526IsDropped)
{
    start_router();
    std::vector<uint8_t> ip;
    efmp_buff_t *b = routed(FrameSpec{200}, false, &ip);
    std::memmove(b->head + 525, b->head + b->data_off, ip.size());
    b->data_off = b->l3_off = 525;
    EXPECT_EQ(forward(b), EF_Drop);
    EXPECT_EQ(take_logs().back(), "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] "
                                  "efmp_buff_push for Ethernet header failed\n");
    EXPECT_EQ(buff_bytes(b), ip);
    efmp_buff_free_sw_user(0, b);

    b = routed(FrameSpec{200}, false, &ip);
    std::memmove(b->head + 526, b->head + b->data_off, ip.size());
    b->data_off = b->l3_off = 526;
    // At 526 the Ethernet header fits (down to 512); the outer headers then
    // find no room left.
    EXPECT_EQ(forward(b), EF_Drop);
    EXPECT_EQ(take_logs().back(), "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] "
                                  "vxlan_ef_encap_header failed.(Drop it!)\n");
    EXPECT_EQ(b->data_off, 512);
    EXPECT_EQ(buff_bytes(b), expected_inner(ip, false));
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, VniWithoutAdjacencyForTheNextHopIsDroppedSilently)
{
    start_router();
    efmp_buff_t *b = routed(FrameSpec{200}, false, nullptr);
    g_vxlan_vsd->debug_mask = 0;
    next_hop_ = ip4("10.0.0.99");
    EXPECT_EQ(forward(b), EF_Drop);
    EXPECT_EQ(take_logs(), Lines{});
    EXPECT_EQ(efrt::l3_queued(), 0u);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, MissingArgumentsWrongInterfaceOrRefusedPacketAreDropped)
{
    start_router();
    efmp_buff_t *b = routed(FrameSpec{200}, false, nullptr);
    EXPECT_EQ(vxlan_ef_router_mac_forward(nullptr, router_cb(), &next_hop_, kNextHopMac), EF_Drop);
    EXPECT_EQ(vxlan_ef_router_mac_forward(b, nullptr, &next_hop_, kNextHopMac), EF_Drop);
    EXPECT_EQ(vxlan_ef_router_mac_forward(b, router_cb(), nullptr, kNextHopMac), EF_Drop);
    EXPECT_EQ(vxlan_ef_router_mac_forward(b, router_cb(), &next_hop_, nullptr), EF_Drop);
    EXPECT_EQ(vxlan_ef_router_mac_forward(b, tunnel_cb(), &next_hop_, kNextHopMac), EF_Drop);
    b->flags = EFMP_F_NO_OVERLAY_ROUTE;
    EXPECT_EQ(forward(b), EF_Drop);
    EXPECT_EQ(take_logs(), Lines{});
    EXPECT_EQ(b->data_off, EFMP_BUFF_START + 14);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, WithoutInstanceThePacketIsDropped)
{
    lsm_intfcb_t cb = efrt::make_intf(kRouterIfx, LSM_IF_TYPE_OVERLAY_ROUTER, 0, "OR400");
    efrt::lsm_add(cb);
    efmp_buff_t *b = routed(FrameSpec{200}, false, nullptr);
    next_hop_ = ip4("10.0.0.2");
    EXPECT_EQ(forward(b), EF_Drop);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, InstanceWithoutVxlanEntriesDropsWithItsTrace)
{
    start_tables(VXLAN_EF_DBG_ENCAP);
    g_vxlan_vsd->trace_budget = 5;
    efrt::lsm_add(efrt::make_intf(kRouterIfx, LSM_IF_TYPE_OVERLAY_ROUTER, 0, "OR400"));
    next_hop_ = ip4("10.0.0.2");
    efmp_buff_t *b = routed(FrameSpec{200}, false, nullptr);
    EXPECT_EQ(forward(b), EF_Drop);
    char line[160];
    std::snprintf(line, sizeof line,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] pkt: %p no vxlan create in "
                  "this vsd so drop\n",
                  static_cast<void *>(b));
    EXPECT_EQ(take_logs().back(), line);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, InterfaceWithoutOverlayRouterRecordIsDroppedWithItsTrace)
{
    start_router();
    efrt::lsm_add(efrt::make_intf(401, LSM_IF_TYPE_OVERLAY_ROUTER, 0, "OR401"));
    efmp_buff_t *b = routed(FrameSpec{200}, false, nullptr);
    EXPECT_EQ(vxlan_ef_router_mac_forward(b, lsm_get_intfcb(401), &next_hop_, kNextHopMac),
              EF_Drop);
    char line[160];
    std::snprintf(line, sizeof line,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] pkt: %p can't find orintf "
                  "or vni by OR401 so drop\n",
                  static_cast<void *>(b));
    EXPECT_EQ(take_logs().back(), line);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, NextHopOfAnotherFamilyIsShownAsDash)
{
    start_router();
    next_hop_.family = 7;
    efmp_buff_t *b = routed(FrameSpec{200}, false, nullptr);
    EXPECT_EQ(forward(b), EF_Drop);
    char line[256];
    std::snprintf(line, sizeof line,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_router_mac_forward] pkt: %p receive pkt to "
                  "Router's MAC forward dest-intf OR400, dip -, mac 0211.2233.4455\n",
                  static_cast<void *>(b));
    EXPECT_EQ(take_logs().front(), line);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(RouterMacForwardTest, Ipv6NextHopFindsTheIpv6Tunnel)
{
    start_router(true);
    std::vector<uint8_t> ip;
    efmp_buff_t *b = routed(FrameSpec{200}, false, &ip);
    ASSERT_EQ(forward(b), EF_Lost);
    auto out = take();
    ASSERT_EQ(out.size(), 1u);
    const SentOuter o = read_outer(buff_bytes(out[0]));
    EXPECT_TRUE(o.ipv6);
    EXPECT_EQ(o.dip, v6("2001:db8::20"));
    EXPECT_EQ(o.inner, expected_inner(ip, false));
}

TEST_F(RouterMacForwardTest, NoIcmpServiceReturnsTheCapabilityByte)
{
    g_vxlan_ef_master.or_no_icmp = 0;
    EXPECT_EQ(vxlan_ef_or_no_icmp_service(), 0);
    g_vxlan_ef_master.or_no_icmp = 1;
    EXPECT_EQ(vxlan_ef_or_no_icmp_service(), 1);
}

}  // namespace
}  // namespace vxtest
