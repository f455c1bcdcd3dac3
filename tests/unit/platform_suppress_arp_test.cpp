// ARP through the platform's pipeline with suppression: requests for bound
// addresses answered on the receiving interface in its VLAN, everything else
// marked local so that the module (whose own suppression is on) floods it,
// senders snooped, decapsulated ARP delivered to the local hosts, malformed
// ARP never answered, and nothing changed while the VNI's switch is off.
#include "ef_wire.h"
#include "suppress_fixture.h"
#include "vxlan_ef_encap.h"

namespace vxtest {
namespace {

const Ip4 kIpA = v4("10.1.1.1");
const Ip4 kIpB = v4("10.1.1.2");

class SuppressArpTest : public SuppressTest {
protected:
    void SetUp() override
    {
        SuppressTest::SetUp();
        start_suppression();
        efrt::suppress_set_switch(kVni, efrt::SuppressProto::Arp, true);
        efrt::suppress_add_remote(kVni, nip(kIpB), mac_of(kHostB));
    }

    // The reply host B's binding gives host A.
    static Bytes reply_b_to_a()
    {
        Bytes f = eth_header(kHostA, kHostB, EF_ETHERTYPE_ARP);
        f.insert(f.end(), {0x00, 0x01, 0x08, 0x00, 6, 4, 0x00, 0x02});
        append(f, kHostB, 6);
        f.insert(f.end(), {10, 1, 1, 2});
        append(f, kHostA, 6);
        f.insert(f.end(), {10, 1, 1, 1});
        return f;
    }
};

TEST_F(SuppressArpTest, RequestForABoundAddressIsAnsweredOnTheAccessPortAndGoesNoFurther)
{
    EXPECT_EQ(receive(kP1, arp_request(kHostA, kIpA, kIpB)), efrt::PipeOutcome::Answered);
    const std::vector<efrt::PortSend> sent = efrt::port_take_sends();
    ASSERT_EQ(sent.size(), 1u) << "the answer only: the request is neither flooded nor forwarded";
    EXPECT_EQ(sent[0].ifindex, kP1);
    EXPECT_EQ(sent[0].vid, 10) << "the request's VLAN, which P1's port sends untagged";
    EXPECT_FALSE(sent[0].vlan_flood);
    EXPECT_EQ(sent[0].frame, reply_b_to_a());
    EXPECT_EQ(tunnel_copies(), 0u);
    const efrt::SuppressCounters n = efrt::suppress_counters();
    EXPECT_EQ(n.arp_answered, 1u);
    EXPECT_EQ(n.arp_handed_on, 0u);
    expect_nothing_left();
}

TEST_F(SuppressArpTest, RequestInATaggedVlanIsAnsweredInThatVlan)
{
    EXPECT_EQ(receive(kP2, with_tag(arp_request(kHostA, kIpA, kIpB), 0xA014)), efrt::PipeOutcome::Answered);
    const std::vector<efrt::PortSend> sent = efrt::port_take_sends();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].ifindex, kP2);
    EXPECT_EQ(sent[0].vid, 20);
    EXPECT_EQ(sent[0].frame, reply_b_to_a()) << "untagged in the buffer: the port adds its tag";
    expect_nothing_left();
}

TEST_F(SuppressArpTest, RequestOnASubInterfaceIsAnsweredThroughItsMainPortWithItsTag)
{
    lsm_intfcb_t s1 = efrt::make_intf(kS1, kPortType, LSM_IF_STACK_BRIDGE, "S1");
    s1.subif_mode = 5;  // layer-2 sub-interface
    s1.parent_ifx = kP1;
    efrt::lsm_add(s1);
    ASSERT_EQ(vxlan_ef_reg_intf_encap(intf(kS1)), 0);
    EXPECT_EQ(receive(kP1, with_tag(arp_request(kHostA, kIpA, kIpB), 30)), efrt::PipeOutcome::Answered);
    const std::vector<efrt::PortSend> sent = answers();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].ifindex, kP1);
    EXPECT_EQ(sent[0].vid, 30);
    EXPECT_NE(sent[0].flags & EFMP_F_SUBIF_TAGGED, 0u);
    EXPECT_EQ(sent[0].frame, with_tag(reply_b_to_a(), 30));
    expect_nothing_left();
}

TEST_F(SuppressArpTest, RequestForAnUnknownAddressIsMarkedLocalAndFloodedToTheTunnels)
{
    EXPECT_EQ(receive(kP1, arp_request(kHostA, kIpA, v4("10.1.1.77"))), efrt::PipeOutcome::ForwardDrop)
        << "the original stays behind once its copies are made";
    EXPECT_EQ(tunnel_copies(), 3u) << "flooded although the module's own suppression is on";
    EXPECT_TRUE(answers().empty());
    const efrt::SuppressCounters n = efrt::suppress_counters();
    EXPECT_EQ(n.arp_answered, 0u);
    EXPECT_EQ(n.arp_handed_on, 1u);
    expect_nothing_left();
}

TEST_F(SuppressArpTest, SwitchOffLeavesArpToTheModulesOwnSuppressionAndStillLearnsTheSender)
{
    efrt::suppress_set_switch(kVni, efrt::SuppressProto::Arp, false);
    const uint64_t generation = efrt::suppress_generation();
    EXPECT_EQ(receive(kP1, arp_request(kHostA, kIpA, kIpB)), efrt::PipeOutcome::ForwardDrop);
    EXPECT_EQ(tunnel_copies(), 0u) << "the module drops ARP that is not marked local";
    EXPECT_TRUE(efrt::port_take_sends().empty()) << "not answered although the target is bound";
    EXPECT_EQ(efrt::suppress_lookup(kVni, nip(kIpA)), mac_of(kHostA)) << "the sender is advertised all the same";
    EXPECT_NE(efrt::suppress_generation(), generation);
    const efrt::SuppressCounters n = efrt::suppress_counters();
    EXPECT_EQ(n.arp_answered + n.arp_handed_on, 0u);
    EXPECT_EQ(n.local_learned, 1u);
    expect_nothing_left();
}

TEST_F(SuppressArpTest, SwitchOffFloodsArpUnchangedWhileTheModuleDoesNotSuppress)
{
    efrt::suppress_set_switch(kVni, efrt::SuppressProto::Arp, false);
    deliver_tlvs({vni_arp_suppress(kVni, 0)});
    const Bytes request = arp_request(kHostA, kIpA, kIpB);
    EXPECT_EQ(receive(kP1, request), efrt::PipeOutcome::ForwardDrop);
    std::vector<efmp_buff_t *> copies = efrt::l3_take();
    EXPECT_EQ(copies.size(), 3u);
    for (efmp_buff_t *b : copies) {
        const uint8_t *inner = b->head + b->data_off + 20 + 8 + 8;
        EXPECT_EQ(Bytes(inner, inner + request.size()), request);
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
    }
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(efrt::suppress_bindings().size(), 2u) << "the bound target and the snooped sender";
    expect_nothing_left();
}

TEST_F(SuppressArpTest, GratuitousArpIsLearnedAndHandedOn)
{
    const Ip4 announced = v4("10.1.1.9");
    const uint64_t generation = efrt::suppress_generation();
    EXPECT_EQ(receive(kP1, arp_request(kHostA, announced, announced)), efrt::PipeOutcome::ForwardDrop);
    EXPECT_EQ(tunnel_copies(), 3u) << "the other hosts hear of it";
    EXPECT_TRUE(answers().empty()) << "a host asking for its own address is not answered";
    EXPECT_EQ(efrt::suppress_lookup(kVni, nip(announced)), mac_of(kHostA));
    EXPECT_NE(efrt::suppress_generation(), generation);
    EXPECT_EQ(efrt::suppress_counters().local_learned, 1u);
    expect_nothing_left();
}

TEST_F(SuppressArpTest, SnoopedSenderIsAnsweredForAfterwards)
{
    // Host C on P2 answers host A: its reply teaches the table, and A's next
    // request for C is answered here.
    const Bytes reply = arp_frame(2, kHostC, v4("10.1.1.3"), kHostA, kIpA, kHostA);
    receive(kP2, with_tag(reply, 10));
    efrt::port_take_sends();
    tunnel_copies();
    EXPECT_EQ(efrt::suppress_lookup(kVni, nip(v4("10.1.1.3"))), mac_of(kHostC));
    EXPECT_EQ(receive(kP1, arp_request(kHostA, kIpA, v4("10.1.1.3"))), efrt::PipeOutcome::Answered);
    const std::vector<efrt::PortSend> sent = answers();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(Bytes(sent[0].frame.begin() + 6, sent[0].frame.begin() + 12), Bytes(kHostC, kHostC + 6));
    expect_nothing_left();
}

TEST_F(SuppressArpTest, RequestFromTheBoundMacItselfIsHandedOn)
{
    efrt::suppress_add_remote(kVni, nip(kIpB), mac_of(kHostA));
    EXPECT_NE(receive(kP1, arp_request(kHostA, kIpA, kIpB)), efrt::PipeOutcome::Answered);
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(tunnel_copies(), 3u);
    EXPECT_EQ(efrt::suppress_counters().arp_handed_on, 1u);
    expect_nothing_left();
}

TEST_F(SuppressArpTest, TruncatedOrForeignArpIsHandedOnNeverAnsweredNorLearnt)
{
    Bytes truncated = arp_request(kHostA, kIpA, kIpB);
    truncated.resize(14 + 27);
    Bytes not_ethernet = arp_request(kHostA, kIpA, kIpB);
    not_ethernet[15] = 6;  // hardware type IEEE 802
    Bytes long_addresses = arp_request(kHostA, kIpA, kIpB);
    long_addresses[18] = 8;  // hardware address length
    for (const Bytes &f : {truncated, not_ethernet, long_addresses, Bytes(truncated.begin(), truncated.begin() + 14)}) {
        SCOPED_TRACE(f.size());
        EXPECT_EQ(receive(kP1, f), efrt::PipeOutcome::ForwardDrop);
        EXPECT_TRUE(answers().empty());
        EXPECT_EQ(tunnel_copies(), 3u) << "marked local like any ARP not answered";
    }
    EXPECT_EQ(efrt::suppress_bindings().size(), 1u);
    const efrt::SuppressCounters n = efrt::suppress_counters();
    EXPECT_EQ(n.arp_answered + n.arp_handed_on + n.local_learned, 0u);
    expect_nothing_left();
}

TEST_F(SuppressArpTest, DecapsulatedArpIsMarkedLocalAndDeliveredToLocalPorts)
{
    // From a host behind T1, for host B's address: the sending VTEP already
    // chose not to answer, so it goes to the local hosts as it is.
    const Bytes inner = arp_request(kHostB, v4("10.1.1.5"), kIpB);
    EXPECT_EQ(receive(kUplink, vxlan_frame(inner)), efrt::PipeOutcome::ForwardDrop);
    for (const efrt::PortSend &s : efrt::port_sends())
        EXPECT_EQ(s.frame, inner);
    Destinations expected;
    expected.subifs = {kS1, kS2};
    expected.ports = {{kP1, 10}, {kP2, 10}, {kP2, 20}, {kP3, 20}, {kPL, 10}};
    EXPECT_EQ(destinations(), expected) << "every local member of the VNI, no tunnel";
    EXPECT_EQ(efrt::suppress_bindings().size(), 1u) << "hosts behind tunnels are not snooped";
    const efrt::SuppressCounters n = efrt::suppress_counters();
    EXPECT_EQ(n.arp_answered + n.arp_handed_on + n.local_learned, 0u);
    expect_nothing_left();
}

TEST_F(SuppressArpTest, DecapsulatedArpIsDroppedByTheModuleWhileTheSwitchIsOff)
{
    efrt::suppress_set_switch(kVni, efrt::SuppressProto::Arp, false);
    EXPECT_EQ(receive(kUplink, vxlan_frame(arp_request(kHostB, v4("10.1.1.5"), kIpB))),
              efrt::PipeOutcome::ForwardDrop);
    EXPECT_TRUE(efrt::port_take_sends().empty());
    expect_nothing_left();
}

TEST_F(SuppressArpTest, AnswerThatCannotBeBuiltLeavesTheRequestToTheFlood)
{
    const Bytes request = arp_request(kHostA, kIpA, kIpB);
    efmp_buff_t *b = efrt::pipeline_frame(kP1, request.data(), request.size());
    ASSERT_NE(b, nullptr);
    efrt::buff_fail_alloc(1);  // the answer's buffer, the first one the run asks for
    EXPECT_EQ(efrt::pipeline_run(b), efrt::PipeOutcome::ForwardDrop);
    efrt::buff_fail_alloc(0);
    EXPECT_TRUE(answers().empty());
    EXPECT_EQ(tunnel_copies(), 3u);
    EXPECT_EQ(efrt::suppress_counters().arp_answered, 0u);
    EXPECT_EQ(efrt::suppress_counters().arp_handed_on, 1u);
    expect_nothing_left();
}

}  // namespace
}  // namespace vxtest
