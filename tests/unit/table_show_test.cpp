// The table shows requested by EF_SHOW: entries (one or all), interfaces,
// VRFs and sub-interfaces, every line, column and rule as printed.
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using Lines = std::vector<std::string>;
using namespace vxtest;

std::string pad(const std::string &s, size_t width)
{
    return s.size() < width ? s + std::string(width - s.size(), ' ') : s;
}

const std::string kAdjHeader =
    "  Interface            Index Source IP                                      Destination IP                                \n";
const std::string kAdjRule =
    "  -------------------- ----- ---------------------------------------------- ----------------------------------------------\n";
const std::string kEntryRule = "  ----------------------------------------------------------------\n";

std::string adj_row(const std::string &name, uint32_t ifx, const std::string &sip, const std::string &dip)
{
    return "  " + pad(name, 20) + " " + pad(std::to_string(ifx), 5) + " " + pad(sip, 46) + " " + pad(dip, 46) + "\n";
}

class TableShowTest : public TableTest {};

TEST_F(TableShowTest, EntryShowPrintsEveryFieldTheVlanRangesTheRouterAndTheAdjacencies)
{
    start_tables();
    add_intf(100, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel100");
    add_intf(200, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel200");
    add_intf(500, LSM_IF_TYPE_OVERLAY_ROUTER, "Vbdif500");
    deliver_tlvs({set_entry(10), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")),
                  set_vtep(200, ip6("2001:db8::1"), ip6("2001:db8::2")), asso_vtep(10, 200), asso_vtep(10, 100),
                  set_vlan(10, {9, 1, 2, 3, 5, 7, 8}), set_router(10, 500, 4, 1, 1), switch_protected(10, 1),
                  vni_nd_suppress(10, 1)});
    EXPECT_EQ(show_text(1, 10),
              (Lines{"VXLAN 10(Normal)\n",
                     "  Anycast Flags          : TRUE\n",
                     "  Dirty Flags            : 0x00000000\n",
                     "  Switch Protected       : TRUE\n",
                     "  Unallowed bcast        : FALSE\n",
                     "  ARP Suppress           : FALSE\n",
                     "  ND Suppress            : TRUE\n",
                     "  L2MAPPING VNI_A        : 0\n",
                     "  L2MAPPING VNI_B        : 0\n",
                     "  Extend Vlan            : 1-3,5,7-9\n",
                     "  Router Intf            : Vbdif500 ifx: 500\n",
                     "  VTEP Adjacency Count   : 2\n",
                     "  VTEP Adjacency List    : \n",
                     kAdjHeader,
                     kAdjRule,
                     adj_row("Tunnel200", 200, "2001:db8::1", "2001:db8::2"),
                     adj_row("Tunnel100", 100, "1.1.1.1", "2.2.2.2"),
                     kEntryRule}));
}

TEST_F(TableShowTest, EntryShowOfAnEmptyEntrySaysNaAndShowsItsMarks)
{
    start_tables();
    deliver_tlvs({set_entry(7), sync_begin()});
    EXPECT_EQ(show_text(1, 7),
              (Lines{"VXLAN 7(Normal)\n",
                     "  Anycast Flags          : FALSE\n",
                     "  Dirty Flags            : 0x000001A3\n",
                     "  Switch Protected       : FALSE\n",
                     "  Unallowed bcast        : FALSE\n",
                     "  ARP Suppress           : FALSE\n",
                     "  ND Suppress            : FALSE\n",
                     "  L2MAPPING VNI_A        : 0\n",
                     "  L2MAPPING VNI_B        : 0\n",
                     "  Extend Vlan            : NA\n",
                     "  Router Intf            : NA\n",
                     "  VTEP Adjacency Count   : 0\n",
                     kEntryRule}));
}

TEST_F(TableShowTest, SuperAndSuberEntriesShowTheirLinks)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(13), set_entry(11), set_entry(12), set_entry(20)});
    for (uint32_t vni : {13u, 11u, 12u}) {
        entry(vni)->type = VXLAN_EF_ENTRY_SUBER;
        entry(vni)->super_entry = entry(10);
        list_add_tail(&entry(vni)->suber_list, &entry(10)->suber_list);
    }
    entry(10)->type = VXLAN_EF_ENTRY_SUPER;
    entry(20)->type = VXLAN_EF_ENTRY_SUPER;
    const Lines super = show_text(1, 10);
    ASSERT_EQ(super.size(), 14u);
    EXPECT_EQ(super[0], "VXLAN 10(Super)\n");
    EXPECT_EQ(super[10], "  Suber VNI              : 11-13\n");
    const Lines suber = show_text(1, 12);
    EXPECT_EQ(suber[0], "VXLAN 12(Suber)\n");
    EXPECT_EQ(suber[10], "  Supervxlan             : 10\n");
    EXPECT_EQ(show_text(1, 20)[10], "  Suber VNI              : NA\n");
    // Unlinked again before the entries go, as nothing else would do it.
    for (uint32_t vni : {13u, 11u, 12u})
        list_del_init(&entry(vni)->suber_list);
}

TEST_F(TableShowTest, LongVlanListsBreakBeforeALineWouldReach256Characters)
{
    start_tables();
    std::vector<uint16_t> even;
    for (uint16_t v = 2; v <= 4094; v += 2)
        even.push_back(v);
    deliver_tlvs({set_entry(10), set_vlan(10, even)});
    const std::string label = "  Extend Vlan            : ";
    std::vector<std::string> items;
    size_t lines = 0;
    for (const std::string &l : show_text(1, 10)) {
        if (l.compare(0, label.size(), label) != 0)
            continue;
        lines++;
        ASSERT_EQ(l.back(), '\n');
        const std::string body = l.substr(label.size(), l.size() - label.size() - 1);
        EXPECT_LT(label.size() + body.size(), 256u);
        size_t start = 0;
        for (size_t comma; (comma = body.find(',', start)) != std::string::npos; start = comma + 1)
            items.push_back(body.substr(start, comma - start));
        items.push_back(body.substr(start));
        // The next line's first item would not have fitted on this one.
        if (items.size() < even.size()) {
            const std::string next = std::to_string(even[items.size()]);
            EXPECT_GE(label.size() + body.size() + 1 + next.size(), 256u);
        }
    }
    EXPECT_GT(lines, 20u);
    ASSERT_EQ(items.size(), even.size());
    for (size_t i = 0; i < even.size(); ++i)
        ASSERT_EQ(items[i], std::to_string(even[i]));
}

TEST_F(TableShowTest, EntryShowOfVniZeroPrintsTotalsThenEveryEntryInCreationOrder)
{
    start_tables();
    deliver_tlvs({set_entry(30), set_entry(10), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")),
                  asso_vtep(10, 100)});
    const Lines lines = run({show(1, 0)});
    ASSERT_GE(lines.size(), 8u);
    const auto first = std::find(lines.begin(), lines.end(),
                                 "VXLAN-EF-SHOW: [vsd 3] Total VXLAN Count: 2, Total VTEP Count: 1\n");
    ASSERT_NE(first, lines.end());
    EXPECT_EQ(*(first + 1), "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_show] Total VTEP Count: 1\n");
    EXPECT_EQ(*(first + 2), "VXLAN-EF-SHOW: [vsd 3] VXLAN 30(Normal)\n");
    const Lines all = show_text(1, 0);
    EXPECT_EQ(all.size(), 1u + 13u + 17u);
    EXPECT_EQ(all[14], "VXLAN 10(Normal)\n");
    EXPECT_EQ(all[29], adj_row("", 100, "1.1.1.1", "2.2.2.2"));  // no control block: empty name
}

TEST_F(TableShowTest, EntryShowOfAnUnknownVniLogsThatItCannotFindIt)
{
    start_tables();
    EXPECT_EQ(table_lines(run({show(1, 99)})),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_entry_show] can't find vxlan ef entry by vni 99\n"}));
}

TEST_F(TableShowTest, InterfaceShowListsRoutersThenTunnelsLeavingOutUnknownInterfaces)
{
    start_tables();
    add_intf(500, LSM_IF_TYPE_OVERLAY_ROUTER, "Vbdif500", "", true);
    add_intf(100, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel100", "", false);
    add_intf(101, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel101", "", true);
    deliver_tlvs({set_entry(10), set_entry(20), set_router(10, 500, 1, 0, 1), set_router(20, 501, 1, 0, 1),
                  set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), set_vtep(101, ip6("2001:db8::1"), ip6("2001:db8::2")),
                  set_vtep(102, ip4("1.1.1.1"), ip4("4.4.4.4")), outside_center(100, 3), tunnel_route_learn(101, 1),
                  tunnel_mac_learn(100, 1)});
    EXPECT_EQ(show_text(4),
              (Lines{"Total Router Interface Count: 2\n",
                     "Name               Index VNI      Sate\n",
                     "------------------ ----- -------- ----\n",
                     pad("Vbdif500", 18) + " " + pad("500", 5) + " " + pad("10", 8) + " " + pad("up", 4) + "\n",
                     "---------------------------------------\n",
                     "Total Tunnel Interface Count: 3\n",
                     "Name               Index Source IP                                      Destination IP                                 Outside Sate Rmt_route Rmt_mac\n",
                     "------------------ ----- ---------------------------------------------- ---------------------------------------------- ------- ---- --------- -------\n",
                     pad("Tunnel100", 18) + " " + pad("100", 5) + " " + pad("1.1.1.1", 46) + " " + pad("2.2.2.2", 46) +
                         " " + pad("3", 7) + " " + pad("down", 4) + " " + pad("false", 9) + " " + pad("true", 7) + "\n",
                     pad("Tunnel101", 18) + " " + pad("101", 5) + " " + pad("2001:db8::1", 46) + " " +
                         pad("2001:db8::2", 46) + " " + pad("0", 7) + " " + pad("up", 4) + " " + pad("true", 9) + " " +
                         pad("false", 7) + "\n",
                     "-------------------------------------------------------------------------------\n"}));
}

TEST_F(TableShowTest, SubInterfaceShowListsShortNamesInAscendingIndexOrder)
{
    start_tables();
    EXPECT_EQ(show_text(6), (Lines{"Total subif Count: 0\n", "SUBINTF        MAININTF       VLAN  CVLAN VXLAN    \n",
                                   "-------------- -------------- ----- ----- ---------\n"}));
    add_intf(50, 1, "Ethernet1/0/1", "Eth1/0/1");
    add_intf(51, 1, "Ethernet1/0/2", "Eth1/0/2");
    add_intf(1001, 1, "Ethernet1/0/1.100", "Eth1/0/1.100");
    add_intf(1002, 1, "Ethernet1/0/2.7", "Eth1/0/2.7");
    deliver_tlvs({subif(1002, 51, 20, 7, 0), subif(1001, 50, 10, 100, 3), subif(1003, 50, 16777215, 4094, 4094)});
    EXPECT_EQ(show_text(6),
              (Lines{"Total subif Count: 3\n", "SUBINTF        MAININTF       VLAN  CVLAN VXLAN    \n",
                     "-------------- -------------- ----- ----- ---------\n",
                     pad("Eth1/0/1.100", 15) + pad("Eth1/0/1", 15) + pad("100", 6) + pad("3", 6) + pad("10", 9) + "\n",
                     pad("Eth1/0/2.7", 15) + pad("Eth1/0/2", 15) + pad("7", 6) + pad("0", 6) + pad("20", 9) + "\n",
                     pad("", 15) + pad("Eth1/0/1", 15) + pad("4094", 6) + pad("4094", 6) + "16777215 \n"}));
}

TEST_F(TableShowTest, VrfShowListsVrfsInCreationOrderWithTheirInterfaceNames)
{
    start_tables();
    add_intf(40, 32, "Vlanif40");
    add_intf(41, 32, "Vlanif41");
    deliver_tlvs({set_vrf(9, 9000, 41), set_vrf(2, 2000, 40), set_vrf(3, 3000, 77)});
    EXPECT_EQ(show_text(5), (Lines{"Total VRF Count: 3\n", "VRF ID   L3VNI    L3IFX               \n",
                                   "-------- -------- --------------------\n", "9        9000     Vlanif41\n",
                                   "2        2000     Vlanif40\n", "3        3000     \n"}));
}

}  // namespace
