// The EVPN follower's views: the module configuration that the kernel's
// EVPN state calls for, the TLVs of each incremental change in the order the
// module accepts them, tunnel indexes that stay stable, and VLANs read from
// device aliases.
#include <gtest/gtest.h>

#include "fabric_view.h"

namespace {

using namespace evpn;
using vxlanctl::Tlv;
using vxlanctl::TlvWriter;

KernelVni vni_on(const std::string &local, std::optional<uint16_t> vlan, std::set<std::string> flood)
{
    KernelVni k;
    k.device = "vxlan";
    k.local = local;
    k.vlan = vlan;
    k.flood = std::move(flood);
    return k;
}

std::vector<uint16_t> types(const std::vector<Tlv> &tlvs)
{
    std::vector<uint16_t> out;
    for (const Tlv &t : tlvs)
        out.push_back(t.type);
    return out;
}

Tlv asso(uint32_t vni, uint32_t ifx, int oper)
{
    return TlvWriter(vxlanctl::kAssoVtep).number("vni", vni).number("ifx", ifx).number("oper", oper).tlv();
}

TEST(EvpnFabricView, OneTunnelPerRemoteVtepCarriesEveryVniThatFloodsToIt)
{
    KernelState kernel{{100, vni_on("10.0.0.1", 10, {"10.0.0.2", "10.0.0.3"})},
                       {200, vni_on("10.0.0.1", 20, {"10.0.0.3"})}};
    const ModuleView view = module_view(kernel);
    EXPECT_EQ(view.vnis, (std::map<uint32_t, std::optional<uint16_t>>{{100, 10}, {200, 20}}));
    const std::map<TunnelKey, std::set<uint32_t>> tunnels{{{"10.0.0.1", "10.0.0.2"}, {100}},
                                                         {{"10.0.0.1", "10.0.0.3"}, {100, 200}}};
    EXPECT_EQ(view.tunnels, tunnels);
}

TEST(EvpnFabricView, VniWithoutLocalAddressOrFloodingToItselfMakesNoTunnel)
{
    KernelState kernel{{100, vni_on("", std::nullopt, {"10.0.0.2"})}, {200, vni_on("10.0.0.1", 20, {"10.0.0.1"})}};
    const ModuleView view = module_view(kernel);
    EXPECT_EQ(view.vnis.size(), 2u);
    EXPECT_TRUE(view.tunnels.empty());
}

TEST(EvpnFabricView, VlanIsReadFromTheDeviceAlias)
{
    EXPECT_EQ(vlan_from_alias("vlan=10"), 10);
    EXPECT_EQ(vlan_from_alias("tenant a vlan=4094"), 4094);
    EXPECT_EQ(vlan_from_alias("vlan=0"), std::nullopt);
    EXPECT_EQ(vlan_from_alias("vlan=4095"), std::nullopt);
    EXPECT_EQ(vlan_from_alias("vlan=1x"), std::nullopt);
    EXPECT_EQ(vlan_from_alias("novlan=10"), std::nullopt);
    EXPECT_EQ(vlan_from_alias(""), std::nullopt);
}

TEST(EvpnFabricView, NewTunnelIsCreatedBeforeItsAssociationsAndLearnsRemoteMacs)
{
    TunnelIndexes indexes(1000);
    ModuleView from;
    from.vnis = {{100, 10}};
    ModuleView to = from;
    to.tunnels = {{{"10.0.0.1", "10.0.0.2"}, {100}}};
    const Change c = change(from, to, indexes);
    ASSERT_EQ(c.create_interfaces.size(), 1u);
    EXPECT_EQ(c.create_interfaces[0], std::make_pair(1000u, std::string("evpn-10.0.0.2")));
    EXPECT_EQ(types(c.tlvs), (std::vector<uint16_t>{vxlanctl::kSetVtep, vxlanctl::kSetTunnelMacLearn,
                                                    vxlanctl::kAssoVtep}));
    EXPECT_EQ(c.tlvs[2], asso(100, 1000, 1));
    EXPECT_TRUE(c.remove_interfaces.empty());
    EXPECT_EQ(c.log, (std::vector<std::string>{"tunnel 1000 (10.0.0.1 -> 10.0.0.2) created",
                                               "VNI 100 associated with tunnel 1000 (10.0.0.1 -> 10.0.0.2)"}));
}

TEST(EvpnFabricView, WithdrawnVtepLosesItsTunnelAndInterfaceAfterTheModuleHeardOfIt)
{
    TunnelIndexes indexes(1000);
    ModuleView from;
    from.vnis = {{100, 10}, {200, 20}};
    from.tunnels = {{{"10.0.0.1", "10.0.0.2"}, {100, 200}}, {{"10.0.0.1", "10.0.0.3"}, {100, 200}}};
    change(ModuleView{}, from, indexes);
    ModuleView to = from;
    to.tunnels.erase({"10.0.0.1", "10.0.0.2"});
    to.tunnels[{"10.0.0.1", "10.0.0.3"}] = {100};
    const Change c = change(from, to, indexes);
    const Tlv vtep_del = TlvWriter(vxlanctl::kSetVtep)
                             .number("ifx", 1000)
                             .ip("sip", *vxlanctl::parse_ip("10.0.0.1"))
                             .ip("dip", *vxlanctl::parse_ip("10.0.0.2"))
                             .number("oper", 0)
                             .tlv();
    EXPECT_EQ(c.tlvs, (std::vector<Tlv>{asso(200, 1001, 0), vtep_del}));
    EXPECT_EQ(c.remove_interfaces, (std::vector<uint32_t>{1000}));
    EXPECT_TRUE(c.create_interfaces.empty());
    EXPECT_EQ(indexes.keep_only(to), (std::vector<uint32_t>{1000}));
}

TEST(EvpnFabricView, NewVniComesWithItsVlanAndGoneVniIsDeletedLast)
{
    TunnelIndexes indexes(1000);
    ModuleView from;
    from.vnis = {{100, 10}};
    ModuleView to;
    to.vnis = {{300, 30}};
    const Change c = change(from, to, indexes);
    const Tlv vlan30 = TlvWriter(vxlanctl::kSetVlan).number("vni", 300).number("oper", 1).vlan("vlans", 30).tlv();
    EXPECT_EQ(c.tlvs, (std::vector<Tlv>{TlvWriter(vxlanctl::kSetEntry).number("vni", 300).number("oper", 1).tlv(),
                                        vlan30,
                                        TlvWriter(vxlanctl::kSetEntry).number("vni", 100).number("oper", 0).tlv()}));
    EXPECT_EQ(c.log, (std::vector<std::string>{"VNI 300 created with VLAN 30", "VNI 100 removed"}));
}

TEST(EvpnFabricView, SameViewChangesNothing)
{
    TunnelIndexes indexes(1000);
    ModuleView v;
    v.vnis = {{100, 10}};
    v.tunnels = {{{"10.0.0.1", "10.0.0.2"}, {100}}};
    change(ModuleView{}, v, indexes);
    EXPECT_TRUE(change(v, v, indexes).empty());
}

TEST(EvpnFabricView, TunnelIndexesAreStableReusedWhenFreedAndAdoptedByName)
{
    TunnelIndexes indexes(1000);
    EXPECT_EQ(indexes.index({"a", "b"}), 1000u);
    EXPECT_EQ(indexes.index({"a", "c"}), 1001u);
    EXPECT_EQ(indexes.index({"a", "b"}), 1000u);
    ModuleView keep;
    keep.tunnels = {{{"a", "c"}, {1}}};
    EXPECT_EQ(indexes.keep_only(keep), (std::vector<uint32_t>{1000}));
    EXPECT_EQ(indexes.index({"a", "d"}), 1000u);

    TunnelIndexes restarted(1000);
    restarted.adopt(1007, "evpn-10.0.0.9");
    restarted.adopt(1003, "evpn-10.0.0.8");
    EXPECT_EQ(restarted.index({"10.0.0.1", "10.0.0.9"}), 1007u);
    EXPECT_EQ(restarted.index({"10.0.0.1", "10.0.0.5"}), 1000u);
    ModuleView only9;
    only9.tunnels = {{{"10.0.0.1", "10.0.0.9"}, {1}}};
    EXPECT_EQ(restarted.keep_only(only9), (std::vector<uint32_t>{1000, 1003}));
}

TEST(EvpnFabricView, FullResynchronisationListsEveryVniAndTunnelWithMacLearning)
{
    TunnelIndexes indexes(1000);
    ModuleView v;
    v.vnis = {{100, 10}, {200, std::nullopt}};
    v.tunnels = {{{"10.0.0.1", "10.0.0.2"}, {100, 200}}};
    const vxlanctl::ApplyConfig config = apply_config(v, indexes);
    ASSERT_EQ(config.vnis.size(), 2u);
    EXPECT_EQ(config.vnis[0].vlans, (std::vector<uint16_t>{10}));
    EXPECT_TRUE(config.vnis[1].vlans.empty());
    ASSERT_EQ(config.tunnels.size(), 1u);
    EXPECT_EQ(config.tunnels[0].interface, 1000u);
    EXPECT_EQ(config.tunnels[0].vnis, (std::vector<uint32_t>{100, 200}));
    EXPECT_EQ(config.tunnels[0].mac_learn, true);
    const auto tlvs = vxlanctl::apply_tlvs(config);
    EXPECT_EQ(tlvs.front().type, vxlanctl::kSyncDataBegin);
    EXPECT_EQ(tlvs.back().type, vxlanctl::kSyncDataOver);
}

TEST(EvpnFabricView, KernelChangesAreLoggedPerVni)
{
    KernelState before{{100, vni_on("10.0.0.1", 10, {"10.0.0.2"})}, {200, vni_on("10.0.0.1", 20, {})}};
    KernelState after{{100, vni_on("10.0.0.1", 10, {"10.0.0.2"})}, {300, vni_on("10.0.0.1", std::nullopt, {})}};
    EXPECT_EQ(describe_change(before, after),
              (std::vector<std::string>{
                  "kernel: VNI 300 on vxlan, local 10.0.0.1, no VLAN, flood to nobody, 0 remote MACs, 0 remote IPs",
                  "kernel: VNI 200 gone (vxlan)"}));
}

}  // namespace
