// Neighbour suppression as efhost runs it: an ARP request answered from the
// table leaves through efhost's own port, tagged as that port tags the
// request's VLAN, the pipeline counts it as answered, and efhost's counters
// report it on the pipeline line and the suppression line.
//
//   host A 10.1.1.1 -- P1 (ifx 11, VLAN 10 untagged)  [efhost pipeline + module]
//   host A 10.1.1.1 -- P2 (ifx 12, VLAN 20 tagged)     host B 10.1.1.2: a remote binding
#include <gtest/gtest.h>


#include "config.h"
#include "counters.h"
#include "pipeline.h"
#include "recording_port.h"
#include "suppress_fixture.h"

namespace vxtest {
namespace {

efhost::InterfaceConfig access_port(uint32_t index, const char *name, uint16_t pvid)
{
    efhost::InterfaceConfig ic;
    ic.index = index;
    ic.name = name;
    ic.pvid = pvid;
    return ic;
}

class EfhostSuppressionTest : public SuppressTest {
protected:
    void SetUp() override
    {
        SuppressTest::SetUp();
        start_suppression();
        cfg_.interfaces = {access_port(kP1, "P1", 10), access_port(kP2, "P2", 0)};
        pipeline_ = std::make_unique<efhost::Pipeline>(
            cfg_, std::map<uint32_t, efhost::Port *>{{kP1, &p1_}, {kP2, &p2_}}, nullptr);
        pipeline_->attach_to_platform();
        efrt::suppress_set_switch(kVni, efrt::SuppressProto::Arp, true);
        efrt::suppress_add_remote(kVni, nip(v4("10.1.1.2")), mac_of(kHostB));
    }

    void TearDown() override
    {
        pipeline_->detach_from_platform();
        pipeline_.reset();
        SuppressTest::TearDown();
    }

    void receive_on(uint32_t ifx, const Bytes &f) { pipeline_->receive(ifx, f.data(), f.size()); }

    static Bytes reply_b_to_a() { return arp_frame(2, kHostB, v4("10.1.1.2"), kHostA, v4("10.1.1.1"), kHostA); }

    efhost::Config cfg_;
    RecordingPort p1_, p2_;
    std::unique_ptr<efhost::Pipeline> pipeline_;
};

TEST_F(EfhostSuppressionTest, AnswerLeavesUntaggedInThePortsOwnVlanAndTaggedInAnother)
{
    receive_on(kP1, arp_request(kHostA, v4("10.1.1.1"), v4("10.1.1.2")));
    EXPECT_EQ(p1_.take(), std::vector<Bytes>{reply_b_to_a()});
    receive_on(kP2, with_tag(arp_request(kHostA, v4("10.1.1.1"), v4("10.1.1.2")), 0xA014));
    EXPECT_EQ(p2_.take(), std::vector<Bytes>{with_tag(reply_b_to_a(), 0xA014)})
        << "VLAN 20 with the request's priority";
    EXPECT_TRUE(p1_.take().empty());
    EXPECT_EQ(tunnel_copies(), 0u);
    const efhost::PipelineStats s = pipeline_->stats();
    EXPECT_EQ(s.received, 2u);
    EXPECT_EQ(s.answered, 2u);
    EXPECT_EQ(s.forwarded + s.consumed + s.dropped, 0u);
}

TEST_F(EfhostSuppressionTest, CountersReportAnsweredRequestsAndLearning)
{
    receive_on(kP1, arp_request(kHostA, v4("10.1.1.1"), v4("10.1.1.2")));
    receive_on(kP1, arp_request(kHostA, v4("10.1.1.1"), v4("10.1.1.99")));
    tunnel_copies();
    const std::vector<std::string> lines =
        efhost::counter_lines(efhost::CounterSources{&cfg_, pipeline_.get(), nullptr, nullptr});
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "pipeline: received 2, sent on ports 0, taken by the module 1, parser drops 0, "
                        "without VNI 0, dropped 0, routed 0, underlay 0, answered 1");
    EXPECT_EQ(lines[2], "suppression: arp answered 1, arp handed on 1, nd answered 0, nd handed on 0, "
                        "local bindings learned 1, refused 0");
}

}  // namespace
}  // namespace vxtest
