// Inputs that the fuzz targets (fuzz/) found problems with, replayed through
// the same entry points with the bytes the targets delivered, each asserting
// what the module and the platform must do with them.
#include <arpa/inet.h>

#include "efrt_bcast.h"
#include "efrt_l3.h"
#include "forward_fixture.h"
#include "vxlan_ef_forward.h"

namespace {

using namespace vxtest;

class FuzzRegressionForwardTest : public ForwardTest {
protected:
    void SetUp() override
    {
        ForwardTest::SetUp();
        start_segment();
    }
};

// The broadcast engine used to call the module's per-node callback through
// the registry's generic two-word function type, which clang's function
// sanitizer reports on the first flood that reaches a tunnel. This is the
// ARP request of the forward target's seed that showed it.
TEST_F(FuzzRegressionForwardTest, ArpBroadcastFromAnAccessPortIsEncapsulatedByTheNodeCallbackForEveryTunnel)
{
    const std::vector<uint8_t> arp_request = bytes({
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x11, 0x22, 0x33, 0x44, 0x0b, 0x08, 0x06,
        0x00, 0x01, 0x08, 0x00, 0x06, 0x04, 0x00, 0x01, 0x00, 0x11, 0x22, 0x33, 0x44, 0x0b,
        0xc0, 0xa8, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xc0, 0xa8, 0x01, 0x02,
    });
    efmp_buff_t *b = buff(arp_request, kP1, kVni, 2);
    EXPECT_EQ(vxlan_ef_forward(b), EF_Drop);  // the copies carry the flood
    drop(b);

    std::vector<uint32_t> tunnel_answers;
    for (const efrt::BcastNodeResult &r : efrt::bcast_node_results())
        if (r.kind == VXLAN_EF_BCAST_NODE_OT)
            tunnel_answers.push_back(static_cast<uint32_t>(r.result));
    EXPECT_EQ(tunnel_answers, (std::vector<uint32_t>{EF_Lost, EF_Lost, EF_Lost}));
    const Destinations d = destinations();
    EXPECT_EQ(d.tunnels, (std::set<std::string>{"10.0.0.1", "10.0.0.2", "10.0.0.3"}));
    EXPECT_EQ(d.subifs, (std::set<uint32_t>{kS1, kS2}));
    expect_nothing_left();
}

}  // namespace
