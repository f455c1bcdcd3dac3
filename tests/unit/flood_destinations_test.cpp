// Where a broadcast frame of VNI 100 goes, source by source, under each
// flooding rule: split horizon between tunnels, the outside centre on and
// off, the MLAG peer-link, a protected VNI and the bridge's not-forward mark.
// The segment is the one drawn in forward_fixture.h.
#include "ef_wire.h"
#include "forward_fixture.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_tables.h"

namespace {

using vxtest::Destinations;
using vxtest::ForwardTest;
using namespace vxtest;

const std::set<std::string> kAllTunnels{"10.0.0.1", "10.0.0.2", "10.0.0.3"};
const std::set<uint32_t> kAllSubifs{kS1, kS2};

Destinations dests(std::set<std::string> t, std::set<uint32_t> s,
                   std::set<std::pair<uint32_t, uint16_t>> p)
{
    return Destinations{std::move(t), std::move(s), std::move(p)};
}

class FloodDestinationsTest : public ForwardTest {
protected:
    void SetUp() override
    {
        ForwardTest::SetUp();
        start_segment();
    }
};

TEST_F(FloodDestinationsTest, LocalPortReachesEveryTunnelSubifAndVlanPortButItself)
{
    int r = -1;
    EXPECT_EQ(flood_from(kP1, &r),
              dests(kAllTunnels, kAllSubifs, {{kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    EXPECT_EQ(r, EF_Drop);
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, TunnelWithOutsideCentreOffReachesNoTunnelButEveryLocalPort)
{
    g_vxlan_ef_master.outside_center = 0;
    EXPECT_EQ(flood_from(kT1),
              dests({}, kAllSubifs, {{kP1, 10}, {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    EXPECT_EQ(flood_from(kT3),
              dests({}, kAllSubifs, {{kP1, 10}, {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, CentreTunnelWithOutsideCentreOnReachesOnlyOutsideTunnels)
{
    g_vxlan_ef_master.outside_center = 1;
    EXPECT_EQ(flood_from(kT1),
              dests({"10.0.0.3"}, kAllSubifs,
                    {{kP1, 10}, {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, OutsideTunnelWithOutsideCentreOnReachesOnlyCentreTunnels)
{
    g_vxlan_ef_master.outside_center = 1;
    EXPECT_EQ(flood_from(kT3),
              dests({"10.0.0.1", "10.0.0.2"}, kAllSubifs,
                    {{kP1, 10}, {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, PeerLinkReachesNoTunnelWhateverTheOutsideCentre)
{
    for (uint8_t centre : {0, 1}) {
        g_vxlan_ef_master.outside_center = centre;
        EXPECT_EQ(flood_from(kPL), dests({}, kAllSubifs, {{kP1, 10}, {kP2, 10}, {kP2, 20}, {kP3, 20}}))
            << "outside centre " << int(centre);
    }
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, SourcelessFrameIsOfferedToTunnelsOnlyWithOutsideCentreOn)
{
    // Protection does not apply without a source. The per-node callback
    // itself refuses copies without a source, so the engine's node lists
    // show what flooding offered.
    deliver_tlvs({switch_protected(kVni, 1)});
    for (uint8_t centre : {0, 1}) {
        g_vxlan_ef_master.outside_center = centre;
        efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), 0);
        EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
        std::vector<std::pair<uint32_t, size_t>> offered;  // (node kind, nodes)
        for (const auto &r : efrt::bcast_take_requests())
            if (!r.nodes.empty())
                offered.emplace_back(r.nodes[0].kind, r.nodes.size());
        std::vector<std::pair<uint32_t, size_t>> expected{{3, 2}, {2, 2}};
        if (centre)
            expected.insert(expected.begin(), {1, 3});
        EXPECT_EQ(offered, expected) << "outside centre " << int(centre);
        EXPECT_EQ(destinations(), dests({}, {}, {}));
        drop(b);
    }
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, SubInterfaceSourceIsLeftOutOfTheSubInterfaceFlood)
{
    EXPECT_EQ(flood_from(kS1),
              dests(kAllTunnels, {kS2}, {{kP1, 10}, {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, ProtectedVniSendsLocalPortFramesToTunnelsOnly)
{
    deliver_tlvs({switch_protected(kVni, 1)});
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    take_logs();
    trace_on();
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Drop);
    EXPECT_EQ(destinations(), dests(kAllTunnels, {}, {}));
    EXPECT_TRUE(logged(fwd_line("vxlan_ef_vni_bcast", "pkt " + ptr(b) +
                                                          " vni 100 entry set the switch protected "
                                                          "(drop).\n")));
    drop(b);
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, ProtectedVniStillFloodsTunnelFramesEverywhereElse)
{
    deliver_tlvs({switch_protected(kVni, 1)});
    g_vxlan_ef_master.outside_center = 1;
    EXPECT_EQ(flood_from(kT1),
              dests({"10.0.0.3"}, kAllSubifs,
                    {{kP1, 10}, {kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, ProtectedVniFloodsLocalFramesEverywhere)
{
    deliver_tlvs({switch_protected(kVni, 1)});
    EXPECT_EQ(flood_from(kP1, nullptr, EFMP_F_LOCAL),
              dests(kAllTunnels, kAllSubifs, {{kP2, 10}, {kPL, 10}, {kP2, 20}, {kP3, 20}}));
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, BrgNotFwdFloodsNowhereAndDropsTheFrame)
{
    int r = -1;
    EXPECT_EQ(flood_from(kP1, &r, EFMP_F_BRG_NOT_FWD), dests({}, {}, {}));
    EXPECT_EQ(r, EF_Drop);
    EXPECT_TRUE(efrt::bcast_requests().empty());
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, DeviceSourceFloodsVlansWithoutExcludingAnyPort)
{
    // The device itself is not a VLAN port: NOT_EX_SRC keeps every member.
    efrt::bridge_add_vlan(kL2Local, 10);
    EXPECT_EQ(flood_from(kL2Local),
              dests(kAllTunnels, kAllSubifs,
                    {{kP1, 10}, {kP2, 10}, {kPL, 10}, {kL2Local, 10}, {kP2, 20}, {kP3, 20}}));
    expect_nothing_left();
}

TEST_F(FloodDestinationsTest, LinkDownAndUnknownTunnelsAreLeftOutWithTheirMessages)
{
    vxlan_ef_intf_t *t = tunnel(kT2);
    ASSERT_NE(t, nullptr);
    intf(kT2)->link_up = 0;
    efrt::lsm_remove(kT3);
    efmp_buff_t *b = buff(frame(kBcastMac, kHostA, EF_ETHERTYPE_IPV4), kP1);
    trace_on();
    EXPECT_EQ(vxlan_ef_vni_bcast(b, vsd()), EF_Broadcast);
    EXPECT_EQ(destinations().tunnels, std::set<std::string>{"10.0.0.1"});
    const auto lines = lines_of(take_logs(), "vxlan_ef_tunnel_bcast");
    EXPECT_EQ(lines, (std::vector<std::string>{
                         fwd_line("vxlan_ef_tunnel_bcast",
                                  "pkt " + ptr(b) + ": dst_intf T2 link down, so needn't to bcast on "
                                                    "this port\n"),
                         fwd_line("vxlan_ef_tunnel_bcast",
                                  "pkt " + ptr(b) + ": can't find dst_intf by ifx = 103, so needn't "
                                                    "to bcast on this port\n")}));
    drop(b);
    expect_nothing_left();
}

}  // namespace
