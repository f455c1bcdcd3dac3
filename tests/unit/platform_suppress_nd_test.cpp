// Neighbour discovery through the platform's pipeline with suppression:
// solicitations for bound addresses answered with advertisements whose every
// byte and checksum is checked, solicitors and unsolicited advertisements
// snooped, duplicate address detection and every other ND message marked
// local for the module to flood, decapsulated ND delivered to the local
// hosts, malformed ND never answered, and other IPv6 left alone.
#include "ef_wire.h"
#include "suppress_fixture.h"
#include "vxlan_ef_encap.h"

namespace vxtest {
namespace {

const Ip6 kIpA = v6("2001:db8:1::1");
const Ip6 kIpB = v6("2001:db8:1::2");

class SuppressNdTest : public SuppressTest {
protected:
    void SetUp() override
    {
        SuppressTest::SetUp();
        start_suppression();
        efrt::suppress_set_switch(kVni, efrt::SuppressProto::Nd, true);
        efrt::suppress_add_remote(kVni, nip(kIpB), mac_of(kHostB));
    }

    // Host A's multicast solicitation for target.
    static Bytes solicitation(const Ip6 &target, const Ip6 &src = kIpA, const uint8_t *source_mac = kHostA)
    {
        const std::array<uint8_t, 6> group = solicited_node_mac(target);
        return ipv6_icmp_frame(group.data(), kHostA, src, solicited_node(target), ns_message(target, source_mac));
    }

    // The advertisement host B's binding gives host A, built field by field.
    static Bytes advert_b_to_a()
    {
        Bytes msg = na_message(0x60, kIpB, kHostB);  // solicited, override
        const uint16_t sum = icmpv6_sum(kIpB, kIpA, msg);
        msg[2] = static_cast<uint8_t>(sum >> 8);
        msg[3] = static_cast<uint8_t>(sum);
        Bytes f = eth_header(kHostA, kHostB, EF_ETHERTYPE_IPV6);
        f.insert(f.end(), {0x60, 0, 0, 0, 0, 32, 58, 255});
        append(f, kIpB);
        append(f, kIpA);
        f.insert(f.end(), msg.begin(), msg.end());
        return f;
    }

    static void expect_nd_untouched_counters()
    {
        const efrt::SuppressCounters n = efrt::suppress_counters();
        EXPECT_EQ(n.nd_answered + n.nd_handed_on + n.local_learned, 0u);
    }
};

TEST_F(SuppressNdTest, SolicitationForABoundAddressIsAnsweredWithAnAdvertisement)
{
    EXPECT_EQ(receive(kP1, solicitation(kIpB)), efrt::PipeOutcome::Answered);
    const std::vector<efrt::PortSend> sent = efrt::port_take_sends();
    ASSERT_EQ(sent.size(), 1u) << "the answer only";
    EXPECT_EQ(sent[0].ifindex, kP1);
    EXPECT_EQ(sent[0].vid, 10);
    EXPECT_EQ(sent[0].frame, advert_b_to_a());
    const Bytes icmp(sent[0].frame.begin() + 14 + 40, sent[0].frame.end());
    EXPECT_EQ(icmpv6_sum(kIpB, kIpA, icmp), 0) << "the checksum adds up";
    EXPECT_EQ(tunnel_copies(), 0u);
    EXPECT_EQ(efrt::suppress_counters().nd_answered, 1u);
    EXPECT_EQ(efrt::suppress_lookup(kVni, nip(kIpA)), mac_of(kHostA)) << "the solicitor is snooped";
    expect_nothing_left();
}

TEST_F(SuppressNdTest, UnicastSolicitationWithoutSourceOptionIsAnsweredToTheEthernetSource)
{
    // Reachability confirmation: sent to the target's own MAC, no option.
    const Bytes ns = ipv6_icmp_frame(kHostB, kHostA, kIpA, kIpB, nd_message(135, 0, kIpB));
    EXPECT_EQ(receive(kP1, ns), efrt::PipeOutcome::Answered);
    const std::vector<efrt::PortSend> sent = answers();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].frame, advert_b_to_a());
    EXPECT_FALSE(efrt::suppress_lookup(kVni, nip(kIpA))) << "learnt only from the option";
    expect_nothing_left();
}

TEST_F(SuppressNdTest, SolicitationForAnUnknownAddressIsMarkedLocalAndFlooded)
{
    EXPECT_EQ(receive(kP1, solicitation(v6("2001:db8:1::77"))), efrt::PipeOutcome::ForwardDrop);
    EXPECT_EQ(tunnel_copies(), 3u) << "flooded although the module's own suppression is on";
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(efrt::suppress_counters().nd_handed_on, 1u);
    expect_nothing_left();
}

TEST_F(SuppressNdTest, DuplicateAddressDetectionIsHandedOnForTheOwnerToDefend)
{
    const std::array<uint8_t, 6> group = solicited_node_mac(kIpB);
    const Bytes dad = ipv6_icmp_frame(group.data(), kHostA, v6("::"), solicited_node(kIpB), nd_message(135, 0, kIpB));
    EXPECT_EQ(receive(kP1, dad), efrt::PipeOutcome::ForwardDrop);
    EXPECT_TRUE(answers().empty()) << "there is no address to answer to";
    EXPECT_EQ(tunnel_copies(), 3u);
    EXPECT_EQ(efrt::suppress_bindings().size(), 1u);
    expect_nothing_left();
}

TEST_F(SuppressNdTest, UnsolicitedAdvertisementMovesTheBindingOfItsTarget)
{
    const uint64_t generation = efrt::suppress_generation();
    static const uint8_t kAllNodes[6] = {0x33, 0x33, 0, 0, 0, 1};
    const Bytes na = ipv6_icmp_frame(kAllNodes, kHostC, kIpB, v6("ff02::1"), na_message(0x20, kIpB, kHostC));
    EXPECT_EQ(receive(kP1, na), efrt::PipeOutcome::ForwardDrop);
    EXPECT_EQ(tunnel_copies(), 3u) << "marked local: the others hear of the move";
    EXPECT_EQ(efrt::suppress_lookup(kVni, nip(kIpB)), mac_of(kHostC));
    const std::vector<efrt::SuppressBinding> all = efrt::suppress_bindings();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].kind, efrt::BindingKind::Local) << "the host moved here";
    EXPECT_NE(efrt::suppress_generation(), generation);
    expect_nothing_left();
}

TEST_F(SuppressNdTest, SolicitedAdvertisementIsHandedOnWithoutLearning)
{
    const Bytes na = ipv6_icmp_frame(kHostB, kHostC, v6("2001:db8:1::3"), kIpB,
                                  na_message(0x60, v6("2001:db8:1::3"), kHostC));
    receive(kP1, na);
    EXPECT_TRUE(answers().empty());
    EXPECT_FALSE(efrt::suppress_lookup(kVni, nip(v6("2001:db8:1::3"))));
    expect_nd_untouched_counters();
    efrt::port_take_sends();
    tunnel_copies();
    expect_nothing_left();
}

TEST_F(SuppressNdTest, RouterSolicitationIsMarkedLocalAndFlooded)
{
    static const uint8_t kAllRouters[6] = {0x33, 0x33, 0, 0, 0, 2};
    const Bytes rs = ipv6_icmp_frame(kAllRouters, kHostA, kIpA, v6("ff02::2"), Bytes{133, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(receive(kP1, rs), efrt::PipeOutcome::ForwardDrop);
    EXPECT_EQ(tunnel_copies(), 3u);
    expect_nd_untouched_counters();
    expect_nothing_left();
}

TEST_F(SuppressNdTest, MalformedSolicitationsAreHandedOnNeverAnsweredNorLearnt)
{
    Bytes bad_sum = solicitation(kIpB);
    bad_sum[14 + 40 + 3] ^= 0x01;
    const std::array<uint8_t, 6> group = solicited_node_mac(kIpB);
    const Bytes low_hop = ipv6_icmp_frame(group.data(), kHostA, kIpA, solicited_node(kIpB), ns_message(kIpB, kHostA), 64);
    Bytes truncated = solicitation(kIpB);
    truncated.resize(truncated.size() - 4);  // the payload length says 4 bytes more
    Bytes zero_option = solicitation(kIpB);
    zero_option[14 + 40 + 24 + 1] = 0;  // an option of no length
    Bytes bare = solicitation(kIpB);
    bare.resize(14 + 40 + 1);  // the type byte only
    for (const Bytes &f : {bad_sum, low_hop, truncated, zero_option, bare}) {
        SCOPED_TRACE(f.size());
        EXPECT_EQ(receive(kP1, f), efrt::PipeOutcome::ForwardDrop);
        EXPECT_TRUE(answers().empty());
        EXPECT_EQ(tunnel_copies(), 3u) << "still ND to the module, so marked local";
    }
    EXPECT_EQ(efrt::suppress_bindings().size(), 1u);
    expect_nd_untouched_counters();
    expect_nothing_left();
}

TEST_F(SuppressNdTest, Ipv6ThatIsNotNeighbourDiscoveryIsLeftAlone)
{
    // An echo request to host B: neither answered nor marked, so forwarded
    // towards T1 as before.
    efrt::bridge_add_mac(EF_BRIDGE_KEY_VNI | kVni, kHostB, kT1, 0);
    ASSERT_EQ(vxlan_ef_reg_intf_encap(intf(kT1)), 0);
    const Bytes echo = ipv6_icmp_frame(kHostB, kHostA, kIpA, kIpB, Bytes{128, 0, 0, 0, 0, 1, 0, 1});
    EXPECT_EQ(receive(kP1, echo), efrt::PipeOutcome::Consumed);
    EXPECT_EQ(tunnel_copies(), 1u);
    EXPECT_FALSE(efrt::suppress_lookup(kVni, nip(kIpA)));
    expect_nd_untouched_counters();
    expect_nothing_left();
}

TEST_F(SuppressNdTest, DecapsulatedSolicitationIsMarkedLocalAndDeliveredToLocalPorts)
{
    const std::array<uint8_t, 6> group = solicited_node_mac(kIpA);
    const Bytes inner =
        ipv6_icmp_frame(group.data(), kHostB, kIpB, solicited_node(kIpA), ns_message(kIpA, kHostB));
    efrt::suppress_add_remote(kVni, nip(kIpA), mac_of(kHostA));
    EXPECT_EQ(receive(kUplink, vxlan_frame(inner)), efrt::PipeOutcome::ForwardDrop);
    Destinations expected;
    expected.subifs = {kS1, kS2};
    expected.ports = {{kP1, 10}, {kP2, 10}, {kP2, 20}, {kP3, 20}, {kPL, 10}};
    EXPECT_EQ(destinations(), expected) << "not answered here: the sending VTEP chose to flood it";
    expect_nd_untouched_counters();
    expect_nothing_left();
}

TEST_F(SuppressNdTest, SwitchOffLeavesNeighbourDiscoveryToTheModuleAndStillLearnsTheSolicitor)
{
    efrt::suppress_set_switch(kVni, efrt::SuppressProto::Nd, false);
    efrt::suppress_set_switch(kVni, efrt::SuppressProto::Arp, true);  // the other protocol's switch
    EXPECT_EQ(receive(kP1, solicitation(kIpB)), efrt::PipeOutcome::ForwardDrop);
    EXPECT_TRUE(efrt::port_take_sends().empty());
    EXPECT_EQ(tunnel_copies(), 0u) << "the module drops ND that is not marked local";
    EXPECT_EQ(efrt::suppress_bindings().size(), 2u) << "the bound target and the snooped solicitor";
    const efrt::SuppressCounters n = efrt::suppress_counters();
    EXPECT_EQ(n.nd_answered + n.nd_handed_on, 0u);
    EXPECT_EQ(n.local_learned, 1u);
    expect_nothing_left();
}

}  // namespace
}  // namespace vxtest
