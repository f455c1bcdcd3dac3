// The EVPN follower's view of efhost's own tables: remote MACs toward the
// tunnel of their VTEP, remote IP bindings and suppression switches from the
// kernel's state, the requests that change efhost's tables in a safe order,
// efhost's listings read back, and the module's suppression switches.
#include <gtest/gtest.h>

#include "fabric_view.h"
#include "host_tables.h"

namespace {

using namespace evpn;

KernelVni vni_with(const std::string &remote, std::map<std::string, std::string> macs,
                   std::map<std::string, std::string> ips, bool suppress)
{
    KernelVni k;
    k.device = "vxlan100";
    k.local = "10.0.0.1";
    k.flood = {remote};
    k.remote_macs = std::move(macs);
    k.remote_ips = std::move(ips);
    k.suppress = suppress;
    return k;
}

TEST(EvpnHostTables, RemoteMacsPointAtTheTunnelOfTheirVtepAndWaitForIt)
{
    TunnelIndexes indexes(1000);
    const KernelState kernel{{100, vni_with("10.0.0.3", {{"02:00:00:00:03:0a", "10.0.0.3"},
                                                         {"02:00:00:00:04:0a", "10.0.0.4"}},
                                            {{"192.168.50.3", "02:00:00:00:03:0a"}}, true)}};
    indexes.index({"10.0.0.1", "10.0.0.3"});
    const HostTables t = host_tables(kernel, indexes);
    EXPECT_EQ(t.remote_macs, (std::map<VniKey, uint32_t>{{{100, "02:00:00:00:03:0a"}, 1000}}));
    EXPECT_EQ(t.remote_ips, (std::map<VniKey, std::string>{{{100, "192.168.50.3"}, "02:00:00:00:03:0a"}}));
    EXPECT_EQ(t.suppressed, std::set<uint32_t>{100});
}

TEST(EvpnHostTables, MovedMacIsAddedTowardItsNewTunnelBeforeTheOldOneIsRemoved)
{
    HostTables from, to;
    from.remote_macs = {{{100, "02:00:00:00:03:0a"}, 1000}, {{100, "02:00:00:00:03:0b"}, 1000}};
    to.remote_macs = {{{100, "02:00:00:00:03:0a"}, 1001}};
    const HostChange c = host_change(from, to);
    EXPECT_EQ(c.mac, (std::vector<std::string>{"remote add 100 02:00:00:00:03:0a 1001",
                                               "remote remove 100 02:00:00:00:03:0a 1000",
                                               "remote remove 100 02:00:00:00:03:0b 1000"}));
    EXPECT_EQ(c.log, (std::vector<std::string>{"remote MAC 02:00:00:00:03:0a of VNI 100 installed toward tunnel 1001",
                                               "remote MAC 02:00:00:00:03:0b of VNI 100 withdrawn"}));
    EXPECT_TRUE(c.neighbour.empty());
}

TEST(EvpnHostTables, SwitchesComeBeforeBindingsAndBothProtocolsFollowTheDeviceFlag)
{
    HostTables from, to;
    to.suppressed = {100};
    to.remote_ips = {{{100, "192.168.50.3"}, "02:00:00:00:03:0a"}};
    from.remote_ips = {{{100, "fd00::3"}, "02:00:00:00:03:0a"}};
    from.suppressed = {200};
    const HostChange c = host_change(from, to);
    EXPECT_EQ(c.neighbour, (std::vector<std::string>{"switch 100 arp on", "switch 100 nd on", "switch 200 arp off",
                                                     "switch 200 nd off",
                                                     "remote add 100 192.168.50.3 02:00:00:00:03:0a",
                                                     "remote remove 100 fd00::3"}));
    EXPECT_TRUE(host_change(to, to).empty());
}

TEST(EvpnHostTables, EfhostListingsAreReadBackAsRemoteStateOnly)
{
    const HostTables t = host_tables_from_listing(
        {"MAC               VNI      VLAN INTERFACE                KIND       AGE",
         "02:00:00:00:01:0a 100      10   3 h1a                    learned    7s",
         "02:00:00:00:03:0a 100      -    1000 evpn-10.0.0.3       remote     -"},
        {"100 192.168.50.1 02:00:00:00:01:0a local 3", "100 192.168.50.3 02:00:00:00:03:0a remote -"},
        {"100 arp on nd on", "200 arp on nd off"});
    EXPECT_EQ(t.remote_macs, (std::map<VniKey, uint32_t>{{{100, "02:00:00:00:03:0a"}, 1000}}));
    EXPECT_EQ(t.remote_ips, (std::map<VniKey, std::string>{{{100, "192.168.50.3"}, "02:00:00:00:03:0a"}}));
    EXPECT_EQ(t.suppressed, std::set<uint32_t>{100});
}

TEST(EvpnHostTables, ModuleSuppressionFollowsTheDeviceFlagInResyncAndChange)
{
    KernelState kernel{{100, vni_with("10.0.0.3", {}, {}, true)}};
    TunnelIndexes indexes(1000);
    const ModuleView on = module_view(kernel);
    EXPECT_EQ(on.suppressed, std::set<uint32_t>{100});
    const vxlanctl::ApplyConfig config = apply_config(on, indexes);
    ASSERT_EQ(config.vnis.size(), 1u);
    EXPECT_EQ(config.vnis[0].arp_suppress, true);
    EXPECT_EQ(config.vnis[0].nd_suppress, true);

    kernel[100].suppress = false;
    const ModuleView off = module_view(kernel);
    const Change c = change(on, off, indexes);
    ASSERT_EQ(c.tlvs.size(), 2u);
    EXPECT_EQ(c.tlvs[0].type, vxlanctl::kSetVniArpSuppress);
    EXPECT_EQ(c.tlvs[1].type, vxlanctl::kSetVniNdSuppress);
    EXPECT_EQ(c.tlvs[0].value, (std::vector<uint8_t>{100, 0, 0, 0, 0}));  // VNI as the channel carries it, disabled
    EXPECT_EQ(c.log, std::vector<std::string>{"VNI 100 ARP and ND suppression off"});
}

TEST(EvpnHostTables, TheFollowersOwnEntriesAreNotLoggedAsKernelChanges)
{
    KernelState before{{100, vni_with("10.0.0.3", {}, {}, false)}};
    KernelState after = before;
    after[100].own_macs.insert("02:00:00:00:01:0a");
    after[100].own_ips["192.168.50.1"] = "02:00:00:00:01:0a";
    EXPECT_TRUE(describe_change(before, after).empty());
}

}  // namespace
