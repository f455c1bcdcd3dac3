// efhost's run-time tunnel interfaces: created and removed by request text,
// listed, idempotent for a repeated creation, and never touching the
// interfaces of the configuration file.
#include <gtest/gtest.h>

#include "efrt.h"
#include "efrt_services.h"
#include "lsm.h"
#include "runtime_interfaces.h"

namespace {

using efhost::runtime_interface_request;

class RuntimeInterfaces : public ::testing::Test {
protected:
    void SetUp() override
    {
        efrt::reset();
        efhost::runtime_interfaces_reset();
    }
    void TearDown() override
    {
        efhost::runtime_interfaces_reset();
        efrt::reset();
    }
};

TEST_F(RuntimeInterfaces, CreateMakesAnOverlayTunnelInterfaceOfTheBridgeStack)
{
    const auto reply = runtime_interface_request("create 1000 evpn-10.0.0.2");
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.text, "ok created tunnel interface 1000 evpn-10.0.0.2");
    const lsm_intfcb_t *intf = lsm_get_intfcb(1000);
    ASSERT_NE(intf, nullptr);
    EXPECT_EQ(intf->type, 45u);
    EXPECT_EQ(intf->stack, LSM_IF_STACK_BRIDGE);
    EXPECT_STREQ(intf->name, "evpn-10.0.0.2");
}

TEST_F(RuntimeInterfaces, RepeatedCreateIsAcceptedOtherNameIsRefused)
{
    runtime_interface_request("create 1000 a");
    const auto again = runtime_interface_request("create 1000 a");
    EXPECT_TRUE(again.ok);
    EXPECT_EQ(again.text, "ok tunnel interface 1000 a exists");
    const auto other = runtime_interface_request("create 1000 b");
    EXPECT_FALSE(other.ok);
    EXPECT_EQ(other.text, "interface 1000 exists as a");
}

TEST_F(RuntimeInterfaces, InterfacesOfTheConfigurationFileAreNeitherReplacedNorRemoved)
{
    efrt::lsm_create(efrt::make_intf(7, 2, LSM_IF_STACK_BRIDGE, "acc"));
    EXPECT_EQ(runtime_interface_request("create 7 x").text, "interface 7 belongs to the configuration file");
    EXPECT_EQ(runtime_interface_request("remove 7").text, "interface 7 belongs to the configuration file");
    EXPECT_NE(lsm_get_intfcb(7), nullptr);
}

TEST_F(RuntimeInterfaces, RemoveDestroysAndListShowsWhatRemains)
{
    runtime_interface_request("create 1001 b");
    runtime_interface_request("create 1000 a");
    const auto listed = runtime_interface_request("list");
    EXPECT_EQ(listed.text, "ok 2 run-time tunnel interfaces");
    EXPECT_EQ(listed.lines, (std::vector<std::string>{"1000 a", "1001 b"}));
    EXPECT_EQ(runtime_interface_request("remove 1000").text, "ok removed tunnel interface 1000");
    EXPECT_EQ(lsm_get_intfcb(1000), nullptr);
    EXPECT_EQ(runtime_interface_request("remove 1000").text, "ok no interface 1000");
    EXPECT_EQ(runtime_interface_request("list").lines, (std::vector<std::string>{"1001 b"}));
}

TEST_F(RuntimeInterfaces, TunnelsListsEveryTunnelInterfaceOfTheFileAndOfRunTime)
{
    efrt::lsm_create(efrt::make_intf(3, 45, LSM_IF_STACK_BRIDGE, "tun3"));
    efrt::lsm_create(efrt::make_intf(7, 2, LSM_IF_STACK_BRIDGE, "acc"));
    runtime_interface_request("create 1000 evpn-a");
    const auto listed = runtime_interface_request("tunnels");
    EXPECT_TRUE(listed.ok);
    EXPECT_EQ(listed.text, "ok 2 tunnel interfaces");
    EXPECT_EQ(listed.lines, (std::vector<std::string>{"3 tun3", "1000 evpn-a"}));
}

TEST_F(RuntimeInterfaces, BadRequestsAreRefusedWithTheReason)
{
    EXPECT_EQ(runtime_interface_request("create 0 a").text, "'0' is not an interface index 1..4294967295");
    EXPECT_EQ(runtime_interface_request("create x a").text, "'x' is not an interface index 1..4294967295");
    EXPECT_EQ(runtime_interface_request("create 5").text, "interface name must have 1..63 characters");
    EXPECT_EQ(runtime_interface_request("create 5 " + std::string(64, 'n')).text,
              "interface name must have 1..63 characters");
    EXPECT_EQ(runtime_interface_request("create 5 a b").text, "too many words in 'create 5 a b'");
    EXPECT_EQ(runtime_interface_request("rename 5 a").text,
              "unknown request 'rename 5 a'; known: create IFX NAME, remove IFX, list, tunnels");
    EXPECT_FALSE(runtime_interface_request("").ok);
}

}  // namespace
