// The bridge forwarding decision: bridge flood requests, destinations the
// bridge already chose, L2 VNI mapping, the not-forward mark and the remote
// learning gate, with their trace lines and result codes.
#include <algorithm>

#include "ef_wire.h"
#include "efmp.h"
#include "forward_fixture.h"
#include "vxlan_ef_forward.h"

namespace {

using vxtest::ForwardTest;
using namespace vxtest;

constexpr const char *kFwd = "vxlan_ef_forward";
constexpr uint32_t kMappedVni = 0x1064;  // holds every bit of 100 (0x64)

class ForwardDecisionTest : public ForwardTest {
protected:
    void SetUp() override
    {
        ForwardTest::SetUp();
        start_segment();
    }

    void add_router()
    {
        lsm_intfcb_t cb{};
        cb.ifindex = kRouter;
        cb.type = LSM_IF_TYPE_OVERLAY_ROUTER;
        cb.link_up = 1;
        std::memcpy(cb.mac, kRouterMac, 6);
        std::snprintf(cb.name, sizeof cb.name, "OR1");
        efrt::lsm_add(cb);
        deliver_tlvs({set_router(kVni, kRouter, 1, 0, 1)});
        take_logs();
    }

    // VNI 100 mapped to map_vni, whose only member is VLAN 30 on port P3.
    void map_to(uint32_t map_vni)
    {
        g_vxlan_ef_master.l2vni_mapping = 1;
        efrt::bridge_add_vlan(kP3, 30);
        deliver_tlvs({set_entry(map_vni), set_vlan(map_vni, {30}), vni_map(kVni, map_vni)});
        take_logs();
    }

    static std::vector<std::string> fwd_lines(const std::vector<std::string> &lines)
    {
        return lines_of(lines, kFwd);
    }

    static std::string rcv_line(const efmp_buff_t *b, const char *src, const char *smac,
                                const char *dmac, uint32_t vni)
    {
        return fwd_line(kFwd, "Rcv pkt: " + ptr(b) + ", src intf: " + src + "\n src mac: " + smac +
                                  " dst mac: " + dmac + " VNI: " + std::to_string(vni) + "\n");
    }
};

TEST_F(ForwardDecisionTest, BridgeFloodRequestFloodsCopiesAndDropsTheOriginal)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->flags |= EFMP_F_BRDG_FLOOD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    EXPECT_EQ(b->flags & EFMP_F_BRDG_FLOOD, 0u);
    const std::string p = ptr(b);
    EXPECT_EQ(fwd_lines(take_logs()),
              (std::vector<std::string>{
                  rcv_line(b, "P1", "0011.2233.4401", "ffff.ffff.ffff", 100),
                  fwd_line(kFwd, "pkt: " + p + ", efmp buff flags BRDG_FLOOD\n"),
                  fwd_line(kFwd, "pkt:" + p + " Broadcast or multicast dst mac, broadcast the packet.\n"),
                  fwd_line(kFwd, "pkt: " + p + ", set BRDG_FLOOD after Broadcast return Drop\n")}));
    const Destinations d = destinations();
    EXPECT_EQ(d.tunnels.size(), 3u);
    EXPECT_EQ(d.subifs.size(), 2u);
    EXPECT_EQ(d.ports.size(), 4u);
    drop(b);
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, BridgeFloodRequestWithoutEntryIsStillDropped)
{
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1, 999);
    b->flags |= EFMP_F_BRDG_FLOOD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    const std::string p = ptr(b);
    const auto lines = fwd_lines(take_logs());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], fwd_line(kFwd, "pkt " + p + ": vxlan entry is not exist, vni: 999\n"));
    EXPECT_EQ(lines[3], fwd_line(kFwd, "pkt: " + p + ", set BRDG_FLOOD after Broadcast return Drop\n"));
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
}

TEST_F(ForwardDecisionTest, BridgeFloodRequestOfASuppressedArpFloodsNothing)
{
    vsd()->arp_suppress = 1;
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kP1, kVni, EFMP_PKT_ARP);
    b->flags |= EFMP_F_BRDG_FLOOD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    const auto lines = fwd_lines(take_logs());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], fwd_line(kFwd, "pkt: " + ptr(b) +
                                           ", is arp pkt and arp_suppress enable so return Drop\n"));
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
}

TEST_F(ForwardDecisionTest, TunnelDestinationIsEncapsulatedAtOnceInFloodMode)
{
    const auto f = frame(kHostB, kHostA, EF_ETHERTYPE_IPV4);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, static_cast<uint32_t>(f.size()));
    std::memcpy(b->head + b->data_off, f.data(), f.size());
    b->src_intf = intf(kP1);
    efmp_buff_set_vni(b, kVni);
    b->dst_intf = intf(kT2);
    // Mode 2 leaves the not-forward mark alone (mode 4 would clear it).
    b->flags |= EFMP_F_DST_SET | EFMP_F_BRG_NOT_FWD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Lost);
    const auto lines = fwd_lines(take_logs());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], fwd_line(kFwd, "pkt: " + ptr(b) + ", dest intf is set: T2. so vxlan encap frame.\n"));
    EXPECT_EQ(lines[2], fwd_line(kFwd, "pkt: " + ptr(b) + ", vxlan encap return: EF_Lost.\n"));
    auto queued = efrt::l3_take();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0]->head[queued[0]->data_off + 19], 2);  // to 10.0.0.2
    EXPECT_EQ(queued[0]->flags & EFMP_F_BRG_NOT_FWD, EFMP_F_BRG_NOT_FWD);
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, queued[0]);
    EXPECT_TRUE(efrt::bcast_requests().empty());
}

TEST_F(ForwardDecisionTest, TunnelDestinationWithMappingCarriesTheMappedVniBits)
{
    map_to(200);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->dst_intf = intf(kT2);
    b->flags |= EFMP_F_DST_SET;
    // The mapped VNI is OR-ed into the word: 100 | 200 names no entry here.
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    EXPECT_EQ(vni_of(b), 100u | 200u);
    EXPECT_TRUE(efrt::l3_take().empty());
    drop(b);
}

TEST_F(ForwardDecisionTest, TunnelDestinationWithBit35IsForwardedAgain)
{
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->dst_intf = intf(kT2);
    b->flags |= EFMP_F_DST_SET | EFMP_F_TUNNEL_DST;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    const std::string p = ptr(b);
    const auto lines = fwd_lines(take_logs());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], fwd_line(kFwd, "pkt: " + p + ", dest intf is set: T2 and flag is set "
                                                     "overlaytunnel so continue forward.\n"));
    EXPECT_EQ(lines[2], fwd_line(kFwd, "pkt: " + p + " no BRG_NOT_FWD but ret is EF_Broadcast, org "
                                                     "pkt return EF_Drop\n"));
    EXPECT_EQ(lines[3], fwd_line(kFwd, "pkt: " + p + ", ret: EF_Drop.\n"));
    EXPECT_EQ(destinations().tunnels.size(), 3u);
    drop(b);
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, OtherDestinationGoesOnAsItIs)
{
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->dst_intf = intf(kP2);
    b->flags |= EFMP_F_DST_SET;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    const auto lines = fwd_lines(take_logs());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], fwd_line(kFwd, "pkt: " + ptr(b) + ", dest intf is set: P2 return Normal\n"));
    b->dst_intf = nullptr;
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    EXPECT_EQ(fwd_lines(take_logs()).size(), 1u);
    drop(b);
}

TEST_F(ForwardDecisionTest, MacUnknownInItsVniButKnownInTheMappedVniIsDeliveredThere)
{
    map_to(kMappedVni);
    efrt::bridge_add_mac(EF_BRIDGE_KEY_VNI | kMappedVni, kHostB, kP3, 30);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kP3));
    EXPECT_EQ(vid_of(b), 30u);
    EXPECT_EQ(vni_of(b), kMappedVni);
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
}

TEST_F(ForwardDecisionTest, MacUnknownInBothVnisIsFloodedInBoth)
{
    map_to(kMappedVni);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    EXPECT_EQ(vni_of(b), kVni);
    const Destinations d = destinations();
    EXPECT_EQ(d.tunnels.size(), 3u);
    EXPECT_EQ(d.ports, (std::set<std::pair<uint32_t, uint16_t>>{
                           {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}, {kP3, 30}}));
    const std::string p = ptr(b);
    const auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines.back(), fwd_line(kFwd, "pkt: " + p + ", ret: EF_Drop.\n"));
    EXPECT_EQ(lines[lines.size() - 2],
              fwd_line(kFwd, "pkt: " + p + " no BRG_NOT_FWD but ret is EF_Broadcast, org pkt return "
                                           "EF_Drop\n"));
    drop(b);
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, GroupDestinationWithMappingIsFloodedInBothVnis)
{
    map_to(kMappedVni);
    int r = -1;
    const Destinations d = flood_from(kP1, &r);
    EXPECT_EQ(r, EF_Drop);
    EXPECT_EQ(d.ports, (std::set<std::pair<uint32_t, uint16_t>>{
                           {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}, {kP3, 30}}));
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, NotForwardWithReserveBecomesSwitchHandOffThroughTheL2LocalSlot)
{
    add_router();
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->flags |= EFMP_F_BRG_NOT_FWD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kL2Local));
    EXPECT_EQ(b->flags & (EFMP_F_SWITCH_ENGINE | EFMP_F_BRG_NOT_FWD), EFMP_F_SWITCH_ENGINE);
    const std::string p = ptr(b);
    const auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines[lines.size() - 2],
              fwd_line(kFwd, "pkt: " + p + " BRG_NOT_FWD be set but ret is EF_Resv_Bcast, set "
                                           "dest_intf L2LOCAL, ENGINE SWITCH and return EF_Normal\n"));
    EXPECT_EQ(lines.back(), fwd_line(kFwd, "pkt: " + p + ", ret: EF_Normal.\n"));
    EXPECT_TRUE(efrt::bcast_requests().empty());
    drop(b);
}

TEST_F(ForwardDecisionTest, NotForwardWithReserveAndAnEmptySlotSaysL2Local)
{
    add_router();
    vsd()->intf_slot_4094 = nullptr;
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->flags |= EFMP_F_BRG_NOT_FWD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    EXPECT_EQ(b->dst_intf, nullptr);
    const auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines[lines.size() - 2],
              fwd_line(kFwd, "pkt: " + ptr(b) + " BRG_NOT_FWD be set but ret is EF_Resv_Bcast, set "
                                                "L2LOCAL, ENGINE SWITCH and return EF_Normal\n"));
    drop(b);
}

TEST_F(ForwardDecisionTest, NotForwardWithAnyOtherResultIsDropped)
{
    efrt::bridge_add_mac(EF_BRIDGE_KEY_VNI | kVni, kHostB, kP2, 10);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->flags |= EFMP_F_BRG_NOT_FWD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    EXPECT_EQ(b->flags & EFMP_F_BRG_NOT_FWD, 0u);
    const auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines[lines.size() - 2],
              fwd_line(kFwd, "pkt: " + ptr(b) + " BRG_NOT_FWD be set, return EF_Drop\n"));
    drop(b);
}

TEST_F(ForwardDecisionTest, NotForwardTowardsTheDeviceStaysNormal)
{
    add_router();
    // Router MAC: the unicast decision points the frame at the L2LOCAL slot.
    efmp_buff_t *b = buff(frame(kRouterMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->flags |= EFMP_F_BRG_NOT_FWD;
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines[lines.size() - 2],
              fwd_line(kFwd, "pkt: " + ptr(b) + " BRG_NOT_FWD be set but assign dest intf L2LOCAL, "
                                                "return EF_Normal\n"));
    drop(b);
    // A router destination left in place by a flood.
    b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    b->dst_intf = intf(kRouter);
    b->flags |= EFMP_F_BRG_NOT_FWD;
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    lines = fwd_lines(take_logs());
    EXPECT_EQ(lines[lines.size() - 2],
              fwd_line(kFwd, "pkt: " + ptr(b) + " BRG_NOT_FWD be set but hit OR, return EF_Normal\n"));
    destinations();
    drop(b);
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, ReserveWithoutNotForwardIsHandedToTheSwitchEngine)
{
    add_router();
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kL2Local));
    EXPECT_EQ(b->flags & EFMP_F_SWITCH_ENGINE, EFMP_F_SWITCH_ENGINE);
    const auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines[lines.size() - 2],
              fwd_line(kFwd, "pkt: " + ptr(b) + " no BRG_NOT_FWD but ret is EF_Reserve, set dest_intf "
                                                "L2LOCAL, ENGINE SWITCH and return EF_Normal\n"));
    EXPECT_EQ(destinations().tunnels.size(), 3u);
    drop(b);
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, KnownUnicastIsBridgedWithItsResultNamed)
{
    efrt::bridge_add_mac(EF_BRIDGE_KEY_VNI | kVni, kHostB, kP2, 20);
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    EXPECT_EQ(b->dst_intf, intf(kP2));
    EXPECT_EQ(vid_of(b), 20u);
    const auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines, (std::vector<std::string>{
                         rcv_line(b, "P1", "0011.2233.4401", "0011.2233.4402", 100),
                         fwd_line(kFwd, "no BRG_NOT_FWD " + ptr(b) + ", ret: EF_Normal.\n"),
                         fwd_line(kFwd, "pkt: " + ptr(b) + ", ret: EF_Normal.\n")}));
    drop(b);
}

TEST_F(ForwardDecisionTest, RemoteArpFromATunnelWithoutRouteLearningIsDroppedWhileLearningIsOff)
{
    // A broadcast ARP request concerning the device: flooded, then kept for
    // the switch engine, unless remote learning refuses it.
    add_router();
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kT1, kVni, EFMP_PKT_ARP);
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    const auto lines = fwd_lines(take_logs());
    EXPECT_EQ(lines.back(), fwd_line(kFwd, "pkt " + ptr(b) +
                                               ": Needn't to handle remote-arp-pkt while "
                                               "remote-arp-learning is disabled. Drop it.\n"));
    drop(b);

    destinations();
    vsd()->remote_arp_learn = 1;
    b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kT1, kVni, EFMP_PKT_ARP);
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    drop(b);

    vsd()->remote_arp_learn = 0;
    deliver_tlvs({tunnel_route_learn(kT1, 1)});
    b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP), kT1, kVni, EFMP_PKT_ARP);
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    drop(b);
    destinations();
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, RemoteNdFromATunnelWithoutRouteLearningIsDroppedWhileLearningIsOff)
{
    add_router();
    efmp_buff_t *b = buff(icmpv6_frame(kBcastMac, EF_ND_NEIGHBOUR_SOLICIT), kT1, kVni, EFMP_PKT_IPV6);
    trace_on();
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    EXPECT_EQ(fwd_lines(take_logs()).back(),
              fwd_line(kFwd, "pkt " + ptr(b) + ": Needn't to handle remote-nd-pkt while "
                                               "remote-arp-learning is disabled. Drop it.\n"));
    drop(b);
    vsd()->remote_nd_learn = 1;
    b = buff(icmpv6_frame(kBcastMac, EF_ND_NEIGHBOUR_SOLICIT), kT1, kVni, EFMP_PKT_IPV6);
    EXPECT_EQ(vxlan_ef_forward(b), EF_Normal);
    drop(b);
    destinations();
    expect_nothing_left();
}

TEST_F(ForwardDecisionTest, NoSourceNoInstanceAndTheVsdBitsOfTheTag)
{
    efmp_buff_t *b = buff(frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), 0);
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    EXPECT_EQ(vxlan_ef_forward(nullptr), EF_Drop);
    b->src_intf = intf(kP1);
    efmp_buff_set_tag_word(b, EFMP_TAG_VSD_MASK | 0xE00A);  // priority 7, VLAN 10, VSD bits
    vxlan_ef_vsd_t *saved = g_vxlan_vsd;
    g_vxlan_vsd = nullptr;
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);
    g_vxlan_vsd = saved;
    EXPECT_EQ(efmp_buff_tag_word(b), 0xE00Au);
    drop(b);
}

}  // namespace
