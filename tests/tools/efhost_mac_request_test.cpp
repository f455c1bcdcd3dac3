// efhost's MAC table requests: the listing an operator reads, the remote
// entries a control process installs from MAC routes, and the locally
// learned MACs it advertises, asked for only when they changed.
#include <gtest/gtest.h>

#include <cstring>

#include "ef_bridge.h"
#include "efrt.h"
#include "efrt_services.h"
#include "lsm.h"
#include "mac_request.h"

namespace {

using efhost::mac_request;

constexpr uint32_t kAccess = 3;
constexpr uint32_t kTunnel = 1001;
constexpr uint8_t kHost[6] = {0x02, 0x00, 0x00, 0x00, 0x01, 0x0a};
constexpr uint8_t kRemote[6] = {0x02, 0x00, 0x00, 0x00, 0x03, 0x0b};

class MacRequest : public ::testing::Test {
protected:
    void SetUp() override
    {
        efrt::reset();
        efrt::lsm_create(efrt::make_intf(kAccess, 2, LSM_IF_STACK_BRIDGE, "h1a"));
        efrt::lsm_create(efrt::make_intf(kTunnel, 45, LSM_IF_STACK_BRIDGE, "evpn-10.99.0.3"));
    }
    void TearDown() override { efrt::reset(); }

    // What the module's learning asks of the bridge for a frame from port.
    static void learn(const uint8_t *mac, uint32_t vni, uint32_t port, uint16_t vid)
    {
        auto add = reinterpret_cast<ef_bridge_add_mac_fn>(efmp_get_service(EFMP_MODULE_BRIDGE, EF_BRIDGE_SERV_ADD_MAC));
        ef_bridge_mac_req_t req{};
        std::memcpy(req.mac, mac, 6);
        req.key = EF_BRIDGE_KEY_VNI | vni;
        req.ifindex = port;
        req.vid = vid;
        ASSERT_EQ(add(&req), 0);
    }
};

TEST_F(MacRequest, ListShowsEveryEntryWithItsVniVlanInterfaceKindAndAge)
{
    learn(kHost, 100, kAccess, 10);
    efrt::clock_advance(7000);
    ASSERT_TRUE(mac_request("remote add 100 02:00:00:00:03:0b 1001").ok);
    const auto reply = mac_request("list");
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.text, "ok 2 MAC entries");
    ASSERT_EQ(reply.lines.size(), 3u);
    EXPECT_EQ(reply.lines[0], "MAC               VNI      VLAN INTERFACE                KIND       AGE");
    EXPECT_EQ(reply.lines[1], "02:00:00:00:01:0a 100      10   3 h1a                    learned    7s");
    EXPECT_EQ(reply.lines[2], "02:00:00:00:03:0b 100      -    1001 evpn-10.99.0.3      remote     -");
}

TEST_F(MacRequest, ListFiltersByVniAndByMac)
{
    learn(kHost, 100, kAccess, 10);
    learn(kRemote, 200, kAccess, 20);
    EXPECT_EQ(mac_request("list vni 200").lines.size(), 2u);
    EXPECT_EQ(mac_request("list vni 200").text, "ok 1 MAC entries");
    EXPECT_EQ(mac_request("list mac 02:00:00:00:01:0A").text, "ok 1 MAC entries");
    EXPECT_EQ(mac_request("list mac 02:00:00:00:01:0a vni 200").text, "ok 0 MAC entries");
}

TEST_F(MacRequest, RemoteEntriesNeedATunnelAndAreRemovedOnlyTowardIt)
{
    EXPECT_EQ(mac_request("remote add 100 02:00:00:00:03:0b 3").text, "interface 3 is not a tunnel interface");
    EXPECT_EQ(mac_request("remote add 100 02:00:00:00:03:0b 77").text, "interface 77 is not a tunnel interface");
    EXPECT_EQ(efrt::bridge_mac_count(), 0u);
    EXPECT_EQ(mac_request("remote add 100 02:00:00:00:03:0b 1001").text,
              "ok remote MAC 02:00:00:00:03:0b of VNI 100 toward interface 1001");
    EXPECT_EQ(mac_request("remote remove 100 02:00:00:00:03:0b 1002").text,
              "ok no remote MAC 02:00:00:00:03:0b of VNI 100 toward interface 1002");
    EXPECT_EQ(efrt::bridge_mac_count(), 1u);
    EXPECT_EQ(mac_request("remote remove 100 02:00:00:00:03:0b 1001").text,
              "ok removed remote MAC 02:00:00:00:03:0b of VNI 100 toward interface 1001");
    EXPECT_EQ(efrt::bridge_mac_count(), 0u);
}

TEST_F(MacRequest, LocalListsMacsLearnedOnOwnPortsOnlyAndNothingWhileUnchanged)
{
    learn(kHost, 100, kAccess, 10);
    learn(kRemote, 100, kTunnel, 0);  // learned from the wire, not ours to advertise
    const auto first = mac_request("local");
    ASSERT_TRUE(first.ok);
    ASSERT_EQ(first.lines, std::vector<std::string>{"100 02:00:00:00:01:0a 3"});
    const std::string generation = std::to_string(efrt::bridge_mac_generation());
    EXPECT_EQ(first.text, "ok generation " + generation + " 1 local MACs");
    const auto again = mac_request("local since " + generation);
    EXPECT_EQ(again.text, "ok unchanged generation " + generation);
    EXPECT_TRUE(again.lines.empty());
    learn(kHost, 100, kAccess, 10);  // seen again: nothing new
    EXPECT_EQ(mac_request("local since " + generation).text, "ok unchanged generation " + generation);
    learn(kHost, 100, kTunnel, 0);  // moved behind a remote VTEP
    const auto moved = mac_request("local since " + generation);
    EXPECT_TRUE(moved.lines.empty());
    EXPECT_NE(moved.text, "ok unchanged generation " + generation);
}

TEST_F(MacRequest, MalformedRequestsAreRefusedSayingWhatIsWrong)
{
    const std::pair<const char *, const char *> cases[] = {
        {"", "unknown request ''; known: list [vni V] [mac M], remote add VNI MAC IFX, remote remove VNI MAC IFX, "
             "local [since G]"},
        {"list vni 0", "'0' is not a VNI 1..16777215"},
        {"list vni", "list takes vni V and mac M, got 'vni'"},
        {"list mac 02:00:00:00:01", "'02:00:00:00:01' is not a MAC address aa:bb:cc:dd:ee:ff"},
        {"list port 3", "list takes vni V and mac M, got 'port'"},
        {"remote add 100 02:00:00:00:03:0b", "remote takes add|remove VNI MAC IFX"},
        {"remote move 100 02:00:00:00:03:0b 1001", "remote takes add|remove VNI MAC IFX"},
        {"remote add 16777216 02:00:00:00:03:0b 1001", "'16777216' is not a VNI 1..16777215"},
        {"remote add 100 02-00-00-00-03-0b 1001", "'02-00-00-00-03-0b' is not a MAC address aa:bb:cc:dd:ee:ff"},
        {"remote add 100 02:00:00:00:03:0b 0", "'0' is not an interface index 1..4294967295"},
        {"local since x", "'x' is not a generation number"},
        {"local 5", "local takes since G or nothing"},
    };
    for (const auto &[request, why] : cases) {
        const auto reply = mac_request(request);
        EXPECT_FALSE(reply.ok) << request;
        EXPECT_EQ(reply.text, why) << request;
    }
    EXPECT_EQ(efrt::bridge_mac_count(), 0u);
}

}  // namespace
