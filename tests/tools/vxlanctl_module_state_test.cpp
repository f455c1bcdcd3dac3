// What apply reads back before it changes anything: the VLAN owners from the
// module's entry show, the VLANs it must move, and the tunnel interfaces
// efhost lacks.
#include <gtest/gtest.h>

#include "apply_verb.h"
#include "module_state.h"
#include "send_verb.h"

namespace {

using namespace vxlanctl;

const char *kShow =
    "VXLAN-EF-SHOW: [vsd 0] Total VXLAN Count: 2, Total VTEP Count: 0\n"
    "VXLAN-EF-SHOW: [vsd 0] VXLAN 1000(Normal)\n"
    "VXLAN-EF-SHOW: [vsd 0]   Anycast Flags          : FALSE\n"
    "VXLAN-EF-SHOW: [vsd 0]   Extend Vlan            : 10,20-22\n"
    "VXLAN-EF-SHOW: [vsd 0]   Extend Vlan            : 4094\n"
    "VXLAN-EF-SHOW: [vsd 0]   Router Intf            : NA\n"
    "VXLAN-EF-SHOW: [vsd 0] VXLAN 2000(Normal)\n"
    "VXLAN-EF-SHOW: [vsd 0]   Extend Vlan            : NA\n";

TEST(VxlanctlModuleStateTest, VlanOwnersAreReadFromEveryRangeLineOfEachEntry)
{
    const VlanOwners owners = vlan_owners_from_show(kShow);
    EXPECT_EQ(owners, (VlanOwners{{10, 1000}, {20, 1000}, {21, 1000}, {22, 1000}, {4094, 1000}}));
}

TEST(VxlanctlModuleStateTest, ShowLinesWithoutEfhostsPrefixReadTheSame)
{
    EXPECT_EQ(vlan_owners_from_show("VXLAN 7(Normal)\n  Extend Vlan            : 5-6\n"),
              (VlanOwners{{5, 7}, {6, 7}}));
}

Tlv set_vlan(uint32_t vni, uint8_t oper, std::initializer_list<uint16_t> vlans)
{
    TlvWriter w(kSetVlan);
    w.number("vni", vni).number("oper", oper);
    for (uint16_t vid : vlans)
        w.vlan("vlans", vid);
    return w.tlv();
}

std::vector<Tlv> of_type(const std::vector<Tlv> &tlvs, uint16_t type)
{
    std::vector<Tlv> out;
    for (const Tlv &t : tlvs)
        if (t.type == type)
            out.push_back(t);
    return out;
}

TEST(VxlanctlModuleStateTest, AVlanHeldByAnotherVniIsDeletedRightBeforeItIsAdded)
{
    std::string error;
    const auto config =
        read_apply_text("vnis:\n  - vni: 2000\n    vlans: [10, 11, 12]\n", "moved.yaml", error);
    ASSERT_TRUE(config.has_value()) << error;
    const auto tlvs = apply_tlvs(*config, VlanOwners{{10, 1000}, {11, 2000}, {12, 1000}});
    ASSERT_EQ(tlvs.size(), 5u);
    EXPECT_EQ(tlvs[1].type, kSetEntry);
    EXPECT_EQ(tlvs[2].value, set_vlan(2000, 0, {10, 12}).value);
    EXPECT_EQ(tlvs[3].value, set_vlan(2000, 1, {10, 11, 12}).value);
    EXPECT_EQ(tlvs[4].type, kSyncDataOver);
}

TEST(VxlanctlModuleStateTest, VlansThatStayWithTheirVniAreNotDeleted)
{
    std::string error;
    const auto config = read_apply_text("vnis:\n  - vni: 1000\n    vlans: [10]\n", "same.yaml", error);
    ASSERT_TRUE(config.has_value()) << error;
    const auto sets = of_type(apply_tlvs(*config, VlanOwners{{10, 1000}, {30, 3000}}), kSetVlan);
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_EQ(sets[0].value, set_vlan(1000, 1, {10}).value);
}

TEST(VxlanctlModuleStateTest, SwappedVlansAreBothMoved)
{
    std::string error;
    const auto config = read_apply_text(
        "vnis:\n  - vni: 1000\n    vlans: [20]\n  - vni: 2000\n    vlans: [10]\n", "swap.yaml", error);
    ASSERT_TRUE(config.has_value()) << error;
    const auto sets = of_type(apply_tlvs(*config, VlanOwners{{10, 1000}, {20, 2000}}), kSetVlan);
    ASSERT_EQ(sets.size(), 4u);
    EXPECT_EQ(sets[0].value, set_vlan(1000, 0, {20}).value);
    EXPECT_EQ(sets[1].value, set_vlan(1000, 1, {20}).value);
    EXPECT_EQ(sets[2].value, set_vlan(2000, 0, {10}).value);
    EXPECT_EQ(sets[3].value, set_vlan(2000, 1, {10}).value);
}

TEST(VxlanctlModuleStateTest, ATunnelOnAnInterfaceEfhostLacksIsNamedWithItsLine)
{
    std::string error;
    const auto config = read_apply_text("vnis:\n  - vni: 1000\ntunnels:\n"
                                        "  - {interface: 3, source: 10.0.0.1, destination: 10.0.0.2}\n"
                                        "  - interface: 100\n    source: 10.0.0.1\n    destination: 10.0.0.3\n",
                                        "t.yaml", error);
    ASSERT_TRUE(config.has_value()) << error;
    EXPECT_EQ(missing_tunnel_interface(*config, {{3, "tun3"}, {1000, "evpn-x"}}, "t.yaml"),
              "t.yaml:5: field 'tunnels[1].interface': efhost has no tunnel interface 100 (its tunnel "
              "interfaces: 3, 1000; type 45 in its configuration, or made by 'vxlanctl tunnel-intf create')");
    EXPECT_EQ(missing_tunnel_interface(*config, {}, "t.yaml").substr(0, 45),
              "t.yaml:4: field 'tunnels[0].interface': efhos");
    EXPECT_EQ(missing_tunnel_interface(*config, {{3, "a"}, {100, "b"}}, "t.yaml"), "");
}

TEST(VxlanctlModuleStateTest, ASentVlanThatStayedWithAnotherVniIsNamed)
{
    const VlanOwners owners{{10, 1000}, {11, 2000}, {30, 3000}};
    EXPECT_EQ(vlans_left_elsewhere(set_vlan(2000, 1, {10, 11}), owners),
              (std::vector<std::string>{"vxlanctl: send: VLAN 10 stays with VNI 1000, which holds it (the module "
                                        "moves no VLAN: delete it there first)"}));
    EXPECT_TRUE(vlans_left_elsewhere(set_vlan(2000, 1, {11}), owners).empty());
    EXPECT_TRUE(vlans_left_elsewhere(set_vlan(2000, 0, {10}), owners).empty());
    EXPECT_TRUE(vlans_left_elsewhere(TlvWriter(kSetEntry).number("vni", 2000).tlv(), owners).empty());
}

TEST(VxlanctlModuleStateTest, AnApplyOverTheFollowersTunnelsIsWarnedAbout)
{
    EXPECT_EQ(follower_warning({{3, "tun3"}, {1000, "evpn-10.0.0.2"}}),
              "vxlanctl: warning: efhost has the EVPN follower's tunnel interfaces (evpn-10.0.0.2); this apply "
              "replaces the follower's configuration until the follower's next change");
    EXPECT_EQ(follower_warning({{3, "tun3"}}), "");
    EXPECT_EQ(follower_warning({}), "");
}

}  // namespace
