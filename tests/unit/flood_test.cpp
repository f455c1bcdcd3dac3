// Flooding: the flooding decision (suppression, CPU copy), the copies and
// node lists handed to the broadcast engine, their failures, and the per-node
// callback's three branches with their trace lines and result codes.
#include <algorithm>

#include "ef_wire.h"
#include "efmp.h"
#include "forward_fixture.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_tables.h"

namespace {

using vxtest::ForwardTest;
using namespace vxtest;


class FloodTest : public ForwardTest {
protected:
    void SetUp() override
    {
        ForwardTest::SetUp();
        start_segment();
    }

    // Binds an overlay router interface to VNI 100.
    void add_router()
    {
        add_intf(kRouter, LSM_IF_TYPE_OVERLAY_ROUTER, "OR1");
        deliver_tlvs({set_router(kVni, kRouter, 1, 0, 1)});
        take_logs();
    }

    // A VNI whose only members are VLAN 30.
    void add_vlan_only_vni()
    {
        deliver_tlvs({set_entry(200), set_vlan(200, {30})});
        take_logs();
    }
};

TEST_F(FloodTest, BrgNotFwdIsReportedFloodedWithoutAnyCopy)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->flags |= EFMP_F_BRG_NOT_FWD;
    trace_on();
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
    EXPECT_EQ(take_logs(), (std::vector<std::string>{fwd_line(
                               "vxlan_ef_vni_bcast", "pkt:" + ptr(b) +
                                                         " BRG_NOT_FWD be set, no to vni bcast "
                                                         "return Broadcast.\n")}));
    EXPECT_TRUE(efrt::bcast_requests().empty());
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
    drop(b);
}

TEST_F(FloodTest, SuppressedArpConcerningTheDeviceIsKeptForTheCpuUnflooded)
{
    add_router();
    vsd()->arp_suppress = 1;
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kP1, kVni, EFMP_PKT_ARP);
    trace_on();
    EXPECT_EQ(vxlan_ef_bcast(b, kVni, vsd(), 1), EF_Reserve);
    const std::string p = ptr(b);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  fwd_line("vxlan_ef_bcast", "pkt: " + p +
                                                 " Broadcast or multicast dst mac, broadcast the "
                                                 "packet and also send the packet to cpu.\n"),
                  fwd_line("vxlan_ef_bcast",
                           "pkt: " + p + ", is arp pkt and arp_suppress enable so return Reserve\n")}));
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
}

TEST_F(FloodTest, SuppressedArpNotConcerningTheDeviceIsDropped)
{
    deliver_tlvs({vni_arp_suppress(kVni, 1)});
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kP1, kVni, EFMP_PKT_ARP);
    trace_on();
    EXPECT_EQ(vxlan_ef_bcast(b, kVni, vsd(), 1), EF_Drop);
    EXPECT_EQ(take_logs(), (std::vector<std::string>{fwd_line(
                               "vxlan_ef_bcast", "pkt: " + ptr(b) +
                                                     ", is arp pkt and arp_suppress enable so "
                                                     "return Drop\n")}));
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
}

TEST_F(FloodTest, LocalArpWithSuppressionIsFloodedAndThenDroppedWhenTheDeviceIsConcerned)
{
    add_router();
    vsd()->arp_suppress = 1;
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kP1, kVni, EFMP_PKT_ARP);
    b->flags |= EFMP_F_LOCAL;
    trace_on();
    EXPECT_EQ(vxlan_ef_bcast(b, kVni, vsd(), 1), EF_Drop);
    EXPECT_EQ(lines_of(take_logs(), "vxlan_ef_bcast").back(),
              fwd_line("vxlan_ef_bcast",
                       "pkt: " + ptr(b) + ", is local arp pkt after Broadcast return Drop\n"));
    EXPECT_EQ(destinations().tunnels.size(), 3u);
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodTest, LocalArpWithSuppressionIsFloodedWhenTheDeviceIsNotConcerned)
{
    vsd()->arp_suppress = 1;
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kP1, kVni, EFMP_PKT_ARP);
    b->flags |= EFMP_F_LOCAL;
    EXPECT_EQ(vxlan_ef_bcast(b, kVni, vsd(), 0), EF_Broadcast);
    EXPECT_EQ(destinations().tunnels.size(), 3u);
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodTest, FrameConcerningTheDeviceIsFloodedAndAlsoReservedForTheCpu)
{
    add_router();
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(vxlan_ef_bcast(b, kVni, vsd(), 1), EF_Reserve);
    EXPECT_EQ(lines_of(take_logs(), "vxlan_ef_bcast").back(),
              fwd_line("vxlan_ef_bcast",
                       "pkt: " + ptr(b) + ", is not local pkt after Broadcast return Reserve\n"));
    EXPECT_EQ(destinations().subifs.size(), 2u);
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodTest, NdSuppressionStopsIcmpv6Types133To137Only)
{
    vsd()->nd_suppress = 1;
    for (int type = 130; type <= 140; ++type) {
        efmp_buff_t *b = buff(icmpv6_frame(kBcastMac, static_cast<uint8_t>(type)), kP1, kVni, EFMP_PKT_IPV6);
        trace_on();
        const bool nd = type >= 133 && type <= 137;
        EXPECT_EQ(vxlan_ef_bcast(b, kVni, vsd(), 0), nd ? EF_Drop : EF_Broadcast) << type;
        const auto lines = lines_of(take_logs(), "vxlan_ef_bcast");
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(),
                  nd ? fwd_line("vxlan_ef_bcast", "pkt: " + ptr(b) +
                                                      ", is nd pkt and nd_suppress enable so return "
                                                      "Drop\n")
                     : fwd_line("vxlan_ef_bcast", "pkt:" + ptr(b) +
                                                      " Broadcast or multicast dst mac, broadcast "
                                                      "the packet.\n"))
            << type;
        EXPECT_EQ(destinations().tunnels.size(), nd ? 0u : 3u) << type;
        drop(b);
    }
    expect_nothing_left();
}

TEST_F(FloodTest, UnknownVniIsNotFlooded)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1, 999);
    trace_on();
    EXPECT_EQ(vxlan_ef_bcast(b, 999, vsd(), 1), EF_Drop);
    EXPECT_EQ(take_logs(), (std::vector<std::string>{fwd_line(
                               "vxlan_ef_bcast",
                               "pkt " + ptr(b) + ": vxlan entry is not exist, vni: 999\n")}));
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Drop);
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
}

TEST_F(FloodTest, VniWithoutTunnelMembersSaysSoAndFreesTheTunnelCopy)
{
    add_vlan_only_vni();
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1, 200);
    trace_on();
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
    const auto lines = lines_of(take_logs(), "vxlan_ef_bcast_send");
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], fwd_line("vxlan_ef_bcast_send", "Needn't to ot broadcast.\n"));
    EXPECT_EQ(lines[1], fwd_line("vxlan_ef_bcast_send", "Needn't to subif broadcast.\n"));
    EXPECT_EQ(lines[2], fwd_line("vxlan_ef_bcast_send", "Broadcast vlan now.\n"));
    const auto requests = efrt::bcast_requests();
    ASSERT_EQ(requests.size(), 2u);  // the VLAN copy, then its flood in VLAN 30
    EXPECT_EQ(lines[3], fwd_line("vxlan_ef_bcast_send",
                                 "clone pkt_copy: " + ptr(requests[0].buff) +
                                     " VNI[200] vlan broadcast success.\n"));
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodTest, CopiesCarryTheirNodesInReverseMemberOrderWithTheBroadcastMarks)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
    const auto requests = efrt::bcast_requests();
    std::vector<const efrt::BcastRequest *> lists;
    for (const auto &r : requests)
        if (!r.nodes.empty())
            lists.push_back(&r);
    ASSERT_EQ(lists.size(), 3u);
    const auto &ot = lists[0]->nodes;
    ASSERT_EQ(ot.size(), 3u);
    const uint32_t expected_ifx[3] = {kT3, kT2, kT1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ot[i].kind, 1u);
        EXPECT_EQ(ot[i].family, 2u);
        EXPECT_EQ(ot[i].adj_words[0], expected_ifx[i]);
        EXPECT_EQ(ot[i].dip[3], 3 - i);
        EXPECT_EQ(std::vector<uint8_t>(ot[i].sip, ot[i].sip + 4), bytes({192, 0, 2, 1}));
    }
    const auto &sub = lists[1]->nodes;
    ASSERT_EQ(sub.size(), 2u);
    EXPECT_EQ(sub[0].kind, 3u);
    EXPECT_EQ(sub[0].ifindex, kS2);
    EXPECT_EQ(sub[1].ifindex, kS1);
    const auto &vl = lists[2]->nodes;
    ASSERT_EQ(vl.size(), 2u);  // the VLAN list runs 20, 10
    EXPECT_EQ(vl[0].kind, 2u);
    EXPECT_EQ(vl[0].vid, 10u);
    EXPECT_EQ(vl[1].vid, 20u);
    for (const auto *r : lists) {
        EXPECT_EQ(r->flags & EFMP_F_BCAST_COPY, EFMP_F_BCAST_COPY);
        EXPECT_EQ(r->priv_flags & EFMP_PF_BCAST_COPY, EFMP_PF_BCAST_COPY);
        EXPECT_EQ(r->vni, kVni);
        EXPECT_EQ(r->src_ifx, kP1);
        EXPECT_EQ(r->frame, frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4));
    }
    destinations();
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodTest, MissingNodeSkipsOnlyThatMember)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    efrt::mcast_fail_alloc(1);
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
    EXPECT_EQ(lines_of(take_logs(), "vxlan_ef_bcast_node_create"),
              (std::vector<std::string>{
                  fwd_line("vxlan_ef_bcast_node_create", "alloc mcast_node failed.\n")}));
    EXPECT_EQ(destinations().tunnels, (std::set<std::string>{"10.0.0.2", "10.0.0.3"}));
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodTest, NoBufferForACopySkipsItsMemberClassWithItsMessage)
{
    add_vlan_only_vni();
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1, 200);
    trace_on();
    efrt::buff_fail_alloc(3);
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
    const std::string p = ptr(b);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  fwd_line("vxlan_ef_tunnel_bcast", "efmp_buff_clone FAIL: No buff left.\n"),
                  fwd_line("vxlan_ef_subif_bcast",
                           "pkt: " + p + " efmp_buff_clone FAIL: No buff left.\n"),
                  fwd_line("vxlan_ef_vlan_bcast", "efmp_buff_clone FAIL: No buff left.\n")}));
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodTest, RefusedCopyIsFreedWithItsNodes)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    efrt::bcast_fail_proc(1);
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
    const auto requests = efrt::bcast_requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_TRUE(requests[0].refused);
    const auto lines = lines_of(take_logs(), "vxlan_ef_bcast_send");
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], fwd_line("vxlan_ef_bcast_send", "Broadcast ot now.\n"));
    EXPECT_EQ(lines[1], fwd_line("vxlan_ef_bcast_send",
                                 "clone pkt_copy: " + ptr(requests[0].buff) +
                                     " VNI[100] ot broadcast failed, drop.\n"));
    EXPECT_TRUE(destinations().tunnels.empty());
    drop(b);
    expect_nothing_left();
}

// ---- the per-node callback ----

class BcastPktEncapTest : public FloodTest {
protected:
    efmp_mcast_node_t node(uint32_t kind)
    {
        efmp_mcast_node_t n{};
        n.kind = kind;
        return n;
    }

    // A buffer the callback may consume, as the engine's own would be.
    static efmp_buff_t *engine_buff(uint32_t src, size_t len = 60)
    {
        return buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4, len), src);
    }
};

TEST_F(BcastPktEncapTest, TunnelNodeIsEncapsulatedAndQueuedToTheL3Engine)
{
    const auto inner = frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, static_cast<uint32_t>(inner.size()));
    std::memcpy(b->head + b->data_off, inner.data(), inner.size());
    b->src_intf = intf(kP1);
    efmp_buff_set_vni(b, kVni);
    efmp_buff_set_tag_word(b, EFMP_TAG_VSD_MASK | 10);
    efmp_mcast_node_t n = node(1);
    n.family = 2;
    const uint8_t sip[4] = {192, 0, 2, 1}, dip[4] = {10, 0, 0, 2};
    std::memcpy(n.sip, sip, 4);
    std::memcpy(n.dip, dip, 4);
    n.adj_words[0] = kT2;
    trace_on();
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Lost);
    EXPECT_EQ(slot, nullptr);
    const auto lines = take_logs();
    const std::string p = ptr(b);
    EXPECT_EQ(lines.front(), encap_line("vxlan_ef_ot_bcast_pkt_encap",
                                        "pkt: " + p + " VNI[100] of ot broadcast encap.\n"));
    EXPECT_EQ(lines.back(), encap_line("vxlan_ef_bcast_pkt_encap", "pkt: " + p + ", ret: EF_Lost.\n"));
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        encap_line("vxlan_ef_ot_bcast_pkt_encap",
                                   "efmp_vxlan_skip_fw success: skip to l3-engin.\n")),
              lines.end());
    auto queued = efrt::l3_take();
    ASSERT_EQ(queued.size(), 1u);
    const uint8_t *o = queued[0]->head + queued[0]->data_off;
    ASSERT_EQ(queued[0]->len, 20u + 8u + 8u + inner.size());
    EXPECT_EQ(o[0], 0x45);
    EXPECT_EQ(o[9], 17);
    EXPECT_EQ(std::vector<uint8_t>(o + 12, o + 20), bytes({192, 0, 2, 1, 10, 0, 0, 2}));
    EXPECT_EQ(o[22], 0x12);  // UDP destination port 4789
    EXPECT_EQ(o[23], 0xB5);
    EXPECT_EQ(o[28], 0x08);  // VXLAN flags
    EXPECT_EQ(std::vector<uint8_t>(o + 32, o + 36), bytes({0, 0, 100, 0}));
    EXPECT_EQ(std::vector<uint8_t>(o + 36, o + 36 + inner.size()), inner);
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, queued[0]);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

TEST_F(BcastPktEncapTest, TunnelNodeOfAnUnknownFamilyIsDroppedIntact)
{
    efmp_buff_t *b = engine_buff(kP1);
    efmp_mcast_node_t n = node(1);
    n.family = 7;
    trace_on();
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Drop);
    EXPECT_EQ(slot, b);
    const std::string p = ptr(b);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  encap_line("vxlan_ef_ot_bcast_pkt_encap",
                             "pkt: " + p + " VNI[100] of ot broadcast encap.\n"),
                  encap_line("vxlan_ef_ot_bcast_pkt_encap",
                             "pkt: " + p + " will vxlan_ef_encap_header.\n"),
                  encap_line("vxlan_ef_ot_bcast_pkt_encap",
                             "vxlan_ef_encap_header failed.(Drop it!)\n"),
                  encap_line("vxlan_ef_bcast_pkt_encap", "pkt: " + p + ", ret: EF_Drop.\n")}));
    drop(b);
}

TEST_F(BcastPktEncapTest, VlanNodeFromATunnelFloodsEveryMemberWithNotExSrc)
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, 60);
    const auto f = frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4);
    std::memcpy(b->head + b->data_off, f.data(), f.size());
    b->src_intf = intf(kT1);
    b->vni_tag[0] = 0x08;
    efmp_buff_set_vni(b, kVni);
    efmp_mcast_node_t n = node(2);
    n.vid = 10;
    trace_on();
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Lost);
    EXPECT_EQ(slot, nullptr);
    const std::string p = ptr(b);
    const auto lines = take_logs();
    EXPECT_EQ(lines_of(lines, "vxlan_ef_vlan_bcast_pkt_encap"),
              (std::vector<std::string>{
                  encap_line("vxlan_ef_vlan_bcast_pkt_encap",
                             "pkt: " + p + " VNI[100] of VID[10] broadcast send.\n"),
                  encap_line("vxlan_ef_vlan_bcast_pkt_encap",
                             "pkt: " + p + " Broadcast this packet, NOT_EX_SRC be set\n"),
                  encap_line("vxlan_ef_vlan_bcast_pkt_encap",
                             "pkt: " + p + " VNI[100] VID[10] broadcast success.\n")}));
    EXPECT_EQ(lines.back(), encap_line("vxlan_ef_bcast_pkt_encap", "pkt: " + p + ", ret: EF_Lost.\n"));
    const auto requests = efrt::bcast_requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].nodes.empty());
    EXPECT_EQ(requests[0].vid, 10u);
    EXPECT_EQ(requests[0].vni, 0u);
    EXPECT_EQ(requests[0].vni_flags, 0x08);
    EXPECT_EQ(requests[0].flags & (EFMP_F_NOT_EX_SRC | EFMP_F_BCAST_COPY),
              EFMP_F_NOT_EX_SRC | EFMP_F_BCAST_COPY);
    EXPECT_EQ(destinations().ports,
              (std::set<std::pair<uint32_t, uint16_t>>{{kP1, 10}, {kP2, 10}, {kPL, 10}}));
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

TEST_F(BcastPktEncapTest, VlanNodeFromAPortLeavesThatPortOut)
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, 60);
    b->src_intf = intf(kP2);
    efmp_mcast_node_t n = node(2);
    n.vid = 20;
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Lost);
    const auto requests = efrt::bcast_requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].flags & EFMP_F_NOT_EX_SRC, 0u);
    EXPECT_EQ(destinations().ports, (std::set<std::pair<uint32_t, uint16_t>>{{kP3, 20}}));
}

TEST_F(BcastPktEncapTest, RefusedVlanFloodIsDropped)
{
    efmp_buff_t *b = engine_buff(kP1);
    efmp_mcast_node_t n = node(2);
    n.vid = 10;
    trace_on();
    efrt::bcast_fail_proc(1);
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Drop);
    EXPECT_EQ(slot, b);
    const std::string p = ptr(b);
    const auto lines = take_logs();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2],
              encap_line("vxlan_ef_vlan_bcast_pkt_encap",
                         "pkt: " + p + " VNI[100] VID[10] broadcast failed, drop.\n"));
    EXPECT_EQ(lines.back(), encap_line("vxlan_ef_bcast_pkt_encap", "pkt: " + p + ", ret: EF_Drop.\n"));
    drop(b);
}

TEST_F(BcastPktEncapTest, SubifNodePointsTheCopyAtTheSubInterface)
{
    efmp_buff_t *b = engine_buff(kP1);
    b->vni_tag[0] = 0x08;
    efmp_mcast_node_t n = node(3);
    n.ifindex = kS2;
    set_mask(VXLAN_EF_DBG_ENCAP);
    vsd()->trace_budget = 1;
    take_logs();
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Normal);
    EXPECT_EQ(slot, b);
    EXPECT_EQ(b->dst_intf, intf(kS2));
    EXPECT_EQ(b->flags & EFMP_F_DST_SET, EFMP_F_DST_SET);
    EXPECT_EQ(b->outer_family, 1);
    EXPECT_EQ(b->module_code, 33);
    EXPECT_EQ(vni_of(b), 0u);
    EXPECT_EQ(b->vni_tag[0], 0x08);
    const std::string p = ptr(b);
    const auto lines = take_logs();
    EXPECT_EQ(lines.front(), encap_line("vxlan_ef_subif_bcast_pkt_encap",
                                        "pkt: " + p + " VNI[100] of dst_intf[S2] broadcast send.\n"));
    EXPECT_TRUE(std::find(lines.begin(), lines.end(), "Packet position: subif-bcast(encap)\n") !=
                lines.end());
    EXPECT_EQ(lines.back(), encap_line("vxlan_ef_bcast_pkt_encap", "pkt: " + p + ", ret: EF_Normal.\n"));
    drop(b);
}

TEST_F(BcastPktEncapTest, SubifNodeOfAVanishedSubInterfaceIsDropped)
{
    efmp_buff_t *b = engine_buff(kP1);
    efmp_mcast_node_t n = node(3);
    n.ifindex = 777;
    trace_on();
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Drop);
    EXPECT_EQ(take_logs(),
              (std::vector<std::string>{
                  encap_line("vxlan_ef_subif_bcast_pkt_encap", "SUB-INTF(777) is not exist.\n"),
                  encap_line("vxlan_ef_bcast_pkt_encap", "pkt: " + ptr(b) + ", ret: EF_Drop.\n")}));
    drop(b);
}

TEST_F(FloodTest, MemberFloodsAfterExitMakeNoCopy)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    set_mask(0xFFFF);
    // Sub-interfaces have no exit step: remove them so exit leaves nothing.
    EXPECT_EQ(vxlan_ef_subif_delete(g_vxlan_vsd, kS1), 0);
    EXPECT_EQ(vxlan_ef_subif_delete(g_vxlan_vsd, kS2), 0);
    vxlan_ef_exit();
    take_logs();
    const long live = efrt::buff_live_total();
    vxlan_ef_tunnel_bcast(b, g_vxlan_vsd, nullptr);
    vxlan_ef_subif_bcast(b, g_vxlan_vsd, nullptr);
    EXPECT_EQ(vxlan_ef_vlan_bcast(b, g_vxlan_vsd, nullptr), EF_Drop);
    EXPECT_EQ(efrt::buff_live_total(), live);
    EXPECT_EQ(destinations(), Destinations{});
    EXPECT_TRUE(take_logs().empty());
    drop(b);
}

TEST_F(BcastPktEncapTest, MissingBufferNodeOrSourceIsDroppedSilently)
{
    efmp_buff_t *b = engine_buff(0);
    efmp_mcast_node_t n = node(3);
    n.ifindex = kS1;
    trace_on();
    efmp_buff_t *slot = b;
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, &n), EF_Drop);
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(nullptr, &n), EF_Drop);
    b->src_intf = intf(kP1);
    EXPECT_EQ(vxlan_ef_bcast_pkt_encap(&slot, nullptr), EF_Drop);
    EXPECT_TRUE(take_logs().empty());
    drop(b);
}

}  // namespace
