// The platform's packet pipeline: how the Ethernet layer hands a frame on
// (classification, the tunnel MTU for its inner family) and where a frame's
// way through the module's hooks ends, on the forwarding tests' segment.
#include "ef_wire.h"
#include "efrt_pipeline.h"
#include "forward_fixture.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_parser.h"

namespace vxtest {
namespace {

constexpr uint32_t kUnderlayMtu = 1500;

class PipelineTest : public ForwardTest {
protected:
    void TearDown() override
    {
        efrt::pipeline_set_underlay_mtu(0);
        ForwardTest::TearDown();
    }

    // The segment, with P1's receive parser and T1's encapsulation hook
    // attached as interface events would attach them, host B behind T1 and
    // P1 in VLAN 10 untagged.
    void start_pipeline()
    {
        start_segment();
        ASSERT_EQ(ef_eth_reg_parser(kP1, reinterpret_cast<void *>(&vxlan_ef_parser_service), 0, 5),
                  0);
        ASSERT_EQ(vxlan_ef_reg_intf_encap(intf(kT1)), 0);
        efrt::bridge_set_pvid(kP1, 10);
        efrt::bridge_add_mac(EF_BRIDGE_KEY_VNI | kVni, kHostB, kT1, 0);
    }

    static efmp_buff_t *hand_on(uint32_t ifx, const std::vector<uint8_t> &f)
    {
        return efrt::pipeline_frame(ifx, f.data(), f.size());
    }
};

TEST_F(PipelineTest, FramesAreClassifiedThroughUpToTwoTags)
{
    add_intf(kP1, kPortType, "P1");
    std::vector<uint8_t> tagged = frame(kHostB, kHostA, EF_ETHERTYPE_VLAN, 64);
    tagged[16] = 0x81;
    tagged[17] = 0x00;
    tagged[20] = 0x08;
    tagged[21] = 0x00;
    for (auto [f, type] : {std::pair{frame(kHostB, kHostA, EF_ETHERTYPE_IPV4), EFMP_PKT_IPV4},
                           {frame(kHostB, kHostA, EF_ETHERTYPE_ARP), EFMP_PKT_ARP},
                           {frame(kHostB, kHostA, EF_ETHERTYPE_IPV6), EFMP_PKT_IPV6},
                           {tagged, EFMP_PKT_IPV4},
                           {frame(kHostB, kHostA, 0x88CC), uint8_t{0}}}) {
        efmp_buff_t *b = hand_on(kP1, f);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->pkt_type, type);
        EXPECT_EQ(b->l2_len, 14);
        EXPECT_EQ(b->l3_off, b->data_off + 14);
        EXPECT_EQ(b->src_intf, intf(kP1));
        EXPECT_EQ(b->src_ifx, kP1);
        EXPECT_EQ(std::vector<uint8_t>(b->head + b->data_off, b->head + b->data_off + b->len), f);
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
    }
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

TEST_F(PipelineTest, FramesTooShortOrFromUnknownInterfacesAreNotHandedOn)
{
    add_intf(kP1, kPortType, "P1");
    const std::vector<uint8_t> f = frame(kHostB, kHostA, EF_ETHERTYPE_IPV4);
    EXPECT_EQ(efrt::pipeline_frame(kP1, f.data(), 13), nullptr);
    EXPECT_EQ(efrt::pipeline_frame(kP2, f.data(), f.size()), nullptr);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

TEST_F(PipelineTest, TunnelMtuLetsEveryInnerPacketThatFitsTheUnderlayLeaveWhole)
{
    add_intf(kP1, kPortType, "P1");
    struct Case {
        uint16_t type;
        size_t len;
        uint16_t mtu;
    };
    efrt::pipeline_set_underlay_mtu(kUnderlayMtu);
    for (const Case &c : {Case{EF_ETHERTYPE_IPV4, 1514, 1480}, Case{EF_ETHERTYPE_IPV4, 64, 1480},
                          Case{EF_ETHERTYPE_IPV6, 1444, 1480}, Case{EF_ETHERTYPE_IPV6, 1445, 1460},
                          Case{EF_ETHERTYPE_ARP, 60, 1480}}) {
        SCOPED_TRACE(c.len);
        efmp_buff_t *b = hand_on(kP1, frame(kHostB, kHostA, c.type, c.len));
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->vxlan_mtu, c.mtu);
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
    }
    efrt::pipeline_set_underlay_mtu(0);
    efmp_buff_t *b = hand_on(kP1, frame(kHostB, kHostA, EF_ETHERTYPE_IPV4));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->vxlan_mtu, 0) << "the module's own default limit applies";
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
}

TEST_F(PipelineTest, AccessFrameToAMacBehindATunnelIsEncapsulatedTowardsItsVtep)
{
    start_pipeline();
    const std::vector<uint8_t> f = frame(kHostB, kHostA, EF_ETHERTYPE_IPV4, 100);
    EXPECT_EQ(efrt::pipeline_run(hand_on(kP1, f)), efrt::PipeOutcome::Consumed);
    std::vector<efmp_buff_t *> out = efrt::l3_take();
    ASSERT_EQ(out.size(), 1u);
    const uint8_t *ip = out[0]->head + out[0]->data_off;
    EXPECT_EQ(out[0]->len, 20u + 8 + 8 + f.size());
    EXPECT_EQ(std::vector<uint8_t>(ip + 16, ip + 20), (std::vector<uint8_t>{10, 0, 0, 1}));
    EXPECT_EQ(std::vector<uint8_t>(ip + 36, ip + 36 + f.size()), f);
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, out[0]);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

// Frames of one flow reuse what the previous one found only while the
// tables stay as they were.
TEST_F(PipelineTest, EncapsulationFollowsATunnelChangedBetweenTwoFramesOfOneFlow)
{
    start_pipeline();
    const std::vector<uint8_t> f = frame(kHostB, kHostA, EF_ETHERTYPE_IPV4, 100);
    auto outer_destination = [&]() {
        EXPECT_EQ(efrt::pipeline_run(hand_on(kP1, f)), efrt::PipeOutcome::Consumed);
        std::vector<efmp_buff_t *> out = efrt::l3_take();
        std::vector<uint8_t> dst;
        if (out.size() == 1)
            dst.assign(out[0]->head + out[0]->data_off + 16, out[0]->head + out[0]->data_off + 20);
        for (efmp_buff_t *b : out)
            efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        return dst;
    };
    EXPECT_EQ(outer_destination(), (std::vector<uint8_t>{10, 0, 0, 1}));
    EXPECT_EQ(outer_destination(), (std::vector<uint8_t>{10, 0, 0, 1}));
    deliver_tlvs({set_vtep(kT1, ip4("192.0.2.1"), ip4("10.0.0.9"))});
    EXPECT_EQ(outer_destination(), (std::vector<uint8_t>{10, 0, 0, 9}));
    deliver_tlvs({asso_vtep(kVni, kT1, 0)});
    EXPECT_EQ(efrt::pipeline_run(hand_on(kP1, f)), efrt::PipeOutcome::Dropped)
        << "no adjacency on the tunnel any more";
    EXPECT_EQ(efrt::l3_take().size(), 0u);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

TEST_F(PipelineTest, BroadcastFromAnAccessPortIsFloodedAndTheOriginalDropped)
{
    start_pipeline();
    EXPECT_EQ(efrt::pipeline_run(hand_on(kP1, frame(kBcastMac, kHostA, EF_ETHERTYPE_ARP))),
              efrt::PipeOutcome::ForwardDrop);
    std::vector<efmp_buff_t *> tunnels = efrt::l3_take();
    EXPECT_EQ(tunnels.size(), 3u) << "one copy for each tunnel of the VNI";
    for (efmp_buff_t *b : tunnels)
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
    std::set<uint32_t> ports;
    for (const efrt::PortSend &s : efrt::port_take_sends())
        ports.insert(s.ifindex);
    EXPECT_EQ(ports.count(kP2), 1u) << "another port of VLAN 10";
    EXPECT_EQ(ports.count(kP1), 0u) << "the source port is left out";
}

TEST_F(PipelineTest, FrameInNoSegmentIsNotForwarded)
{
    start_pipeline();
    efrt::bridge_set_pvid(kP1, 0);
    EXPECT_EQ(efrt::pipeline_run(hand_on(kP1, frame(kHostB, kHostA, EF_ETHERTYPE_IPV4))),
              efrt::PipeOutcome::NoVni);
    EXPECT_EQ(efrt::l3_take().size(), 0u);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

}  // namespace
}  // namespace vxtest
