// The VXLAN entry table: creation and deletion by VNI, VLAN extension and
// its first-owner rule, router binding, L2 VNI mapping, per-VNI switches, the
// UDP port, and what a deleted entry leaves behind.
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using Lines = std::vector<std::string>;
using namespace vxtest;

// Links suber into super's list as a Suber entry (no message does this).
void make_suber(vxlan_ef_entry_t *super, vxlan_ef_entry_t *suber)
{
    super->type = VXLAN_EF_ENTRY_SUPER;
    suber->type = VXLAN_EF_ENTRY_SUBER;
    suber->super_entry = super;
    list_add_tail(&suber->suber_list, &super->suber_list);
}

class EntryTableTest : public TableTest {};

bool self_linked(const list_head *node) { return node->next == node && node->prev == node; }

TEST_F(EntryTableTest, EntryAddRefusesVniZeroAndAboveTwentyFourBitsAndAcceptsTheLargest)
{
    start_tables();
    EXPECT_EQ(run_table({set_entry(0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_entry_deal] try to set entry, vni: 0, oper: 1\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_entry_alloc] ERROR VNI: 0\n"}));
    EXPECT_EQ(run_table({set_entry(16777216)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_entry_deal] try to set entry, vni: 16777216, oper: 1\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_entry_alloc] ERROR VNI: 16777216\n"}));
    EXPECT_EQ(vsd()->entry_count, 0u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], 0u);

    EXPECT_EQ(run_table({set_entry(16777215)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_entry_deal] try to set entry, vni: 16777215, oper: 1\n"}));
    vxlan_ef_entry_t *e = entry(16777215);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(vsd()->entry_count, 1u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], 1u);
    EXPECT_EQ(e->type, VXLAN_EF_ENTRY_NORMAL);
    EXPECT_EQ(e->vrf_id, 0xFFFFFFFFu);
    EXPECT_EQ(e->dirty, 0u);
    EXPECT_EQ(e->router_ifx, 0u);
    EXPECT_EQ(vsd()->entry_hash[16777215 & 0x1FF].next, &e->hash_node);
    EXPECT_EQ(vsd()->entry_list.next, &e->list_node);
}

TEST_F(EntryTableTest, EntryReAddOnlyClearsItsOwnMarkSoItSurvivesTheSweep)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_vlan(10, {5}), switch_protected(10, 1), sync_begin()});
    vxlan_ef_entry_t *e = entry(10);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->dirty, 0x1A3u);

    EXPECT_EQ(run_table({set_entry(10)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_entry_deal] try to set entry, vni: 10, oper: 1\n"}));
    EXPECT_EQ(entry(10), e);
    EXPECT_EQ(e->dirty, 0x1A2u);
    EXPECT_EQ(e->switch_proteched, 1);
    EXPECT_EQ(vids(e), (std::vector<uint16_t>{5}));
    EXPECT_EQ(vsd()->entry_count, 1u);

    deliver_tlvs({sync_over()});
    EXPECT_EQ(entry(10), e);
    EXPECT_EQ(vsd()->entry_count, 1u);
    EXPECT_EQ(e->dirty, 0u);
}

TEST_F(EntryTableTest, VlanExtendedIntoAnotherVniStaysWithItAndAnyVniDeletesIt)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(20), set_vlan(10, {100})});
    vxlan_ef_vid_t *owned = static_cast<vxlan_ef_vid_t *>(vsd()->vid_node[99]);
    ASSERT_NE(owned, nullptr);

    EXPECT_EQ(run_table({set_vlan(20, {100, 101})}), Lines{});
    EXPECT_EQ(vsd()->vid_vni[99], 10u);
    EXPECT_EQ(vsd()->vid_node[99], owned);
    EXPECT_EQ(vids(entry(10)), (std::vector<uint16_t>{100}));
    EXPECT_EQ(vids(entry(20)), (std::vector<uint16_t>{101}));
    EXPECT_EQ(vsd()->vid_vni[100], 20u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VID], 2u);

    EXPECT_EQ(run_table({set_vlan(20, {100}, 0)}), Lines{});
    EXPECT_EQ(vsd()->vid_vni[99], 0u);
    EXPECT_EQ(vsd()->vid_node[99], nullptr);
    EXPECT_TRUE(vids(entry(10)).empty());
    EXPECT_EQ(vids(entry(20)), (std::vector<uint16_t>{101}));
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VID], 1u);
}

TEST_F(EntryTableTest, VlansOfAnEntryAreKeptInDescendingOrderAndEdgeIdsAreIgnored)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_vlan(10, {0, 7, 4094, 1, 4095, 300})});
    EXPECT_EQ(vids(entry(10)), (std::vector<uint16_t>{4094, 300, 7, 1}));
    deliver_tlvs({set_vlan(10, {2, 299, 4000})});
    EXPECT_EQ(vids(entry(10)), (std::vector<uint16_t>{4094, 4000, 300, 299, 7, 2, 1}));
    EXPECT_EQ(vsd()->vid_vni[4093], 10u);
    EXPECT_EQ(vsd()->vid_vni[0], 10u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VID], 7u);
}

TEST_F(EntryTableTest, VlanMessageForUnknownVniIsRefused)
{
    start_tables();
    EXPECT_EQ(run_table({set_vlan(77, {5})}),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_vlan_deal] entry is not exist, vni: 77\n"}));
    EXPECT_EQ(vsd()->vid_vni[4], 0u);
}

TEST_F(EntryTableTest, VniMapShowsTheMappedVniOnEachSide)
{
    start_tables();
    deliver_tlvs({set_entry(100), set_entry(200)});
    EXPECT_EQ(run_table({vni_map(100, 200)}), Lines{});
    const Lines a = show_text(1, 100);
    const Lines b = show_text(1, 200);
    ASSERT_EQ(a.size(), 13u);
    ASSERT_EQ(b.size(), 13u);
    EXPECT_EQ(a[7], "  L2MAPPING VNI_A        : 0\n");
    EXPECT_EQ(a[8], "  L2MAPPING VNI_B        : 200\n");
    EXPECT_EQ(b[7], "  L2MAPPING VNI_A        : 100\n");
    EXPECT_EQ(b[8], "  L2MAPPING VNI_B        : 0\n");

    deliver_tlvs({vni_map(100, 200, 0)});
    EXPECT_EQ(entry(100)->map_vni_b, 0u);
    EXPECT_EQ(entry(200)->map_vni_a, 0u);
}

TEST_F(EntryTableTest, VniMapWipesTheOtherDirectionOfBothSidesAndNeedsBothEntries)
{
    start_tables();
    deliver_tlvs({set_entry(100), set_entry(200), set_entry(300), vni_map(300, 100)});
    EXPECT_EQ(entry(100)->map_vni_a, 300u);
    deliver_tlvs({vni_map(100, 200)});
    EXPECT_EQ(entry(100)->map_vni_a, 0u);
    EXPECT_EQ(entry(100)->map_vni_b, 200u);
    EXPECT_EQ(entry(300)->map_vni_b, 100u);  // the peer keeps the number
    EXPECT_EQ(run_table({vni_map(400, 100)}),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_vni_map_deal] entry is not exist, vni: 400\n"}));
    EXPECT_EQ(run_table({vni_map(100, 400)}),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_vni_map_deal] map entry is not exist, map vni: 400\n"}));
    EXPECT_EQ(entry(100)->map_vni_b, 200u);
}

TEST_F(EntryTableTest, SweepWithoutUdpPortMessagePutsThePortBackTo4789)
{
    start_tables();
    EXPECT_EQ(run_table({set_udp_port(8472)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_udp_port_deal] try to set udp port: 8472\n"}));
    EXPECT_EQ(vsd()->udp_port, 8472);
    deliver_tlvs({sync_begin(), set_udp_port(0), sync_over()});
    EXPECT_EQ(vsd()->udp_port, 0);  // re-sent, even as 0, it stays
    deliver_tlvs({sync_begin()});
    EXPECT_EQ(vsd()->udp_port_dirty, 1);
    deliver_tlvs({sync_over()});
    EXPECT_EQ(vsd()->udp_port, 4789);
    EXPECT_EQ(vsd()->udp_port_dirty, 0);
}

TEST_F(EntryTableTest, SweepFreesUnconfirmedVlansAndAdjacenciesOfAConfirmedEntry)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")),
                  set_vtep(101, ip4("1.1.1.1"), ip4("3.3.3.3")), asso_vtep(10, 100), asso_vtep(10, 101),
                  set_vlan(10, {5, 6})});
    ASSERT_EQ(vsd()->adj_count, 2u);
    const Lines lines = run_table({sync_begin(), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")),
                                   set_vtep(101, ip4("1.1.1.1"), ip4("3.3.3.3")), set_entry(10),
                                   asso_vtep(10, 100), set_vlan(10, {6}), sync_over()});
    ASSERT_GE(lines.size(), 7u);
    const Lines sweep(lines.end() - 7, lines.end());
    EXPECT_EQ(sweep,
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_sync_end] sync end, try to clear dirty data in tunnel table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] sync end, try to clear dirty data in entry table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] (1)free ef-adj(vni 10, ifx 101).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] (1)free ef-vid(vni 10, vid 5).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_asso_vni] try to set OverlayRouter, ifx: 0, vni: 10, oper: 0\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_vrf_sync_end] sync end, try to clear dirty data in vrf table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_end] sync end, try to clear dirty node in subif table\n"}));
    ASSERT_NE(entry(10), nullptr);
    EXPECT_EQ(adj_ifxs(entry(10)), (std::vector<uint32_t>{100}));
    EXPECT_EQ(vids(entry(10)), (std::vector<uint16_t>{6}));
    EXPECT_EQ(vsd()->adj_count, 1u);
    EXPECT_EQ(entry(10)->adj_count, 1u);
    EXPECT_EQ(vsd()->vid_node[4], nullptr);
    EXPECT_EQ(vsd()->vid_vni[4], 0u);
    EXPECT_EQ(tunnel(101)->adj_list.next, &tunnel(101)->adj_list);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ADJ], 1u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VID], 1u);
}

TEST_F(EntryTableTest, RouterUnbindNamesTheMessagesRouterInterfaceNotTheStoredOne)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_router(10, 500, 7, 1, 1)});
    ASSERT_NE(router(500), nullptr);
    EXPECT_EQ(entry(10)->router_ifx, 500u);
    EXPECT_EQ(entry(10)->vrf_id, 7u);
    EXPECT_EQ(router(500)->vni, 10u);
    EXPECT_EQ(router(500)->vrf_id, 7u);

    EXPECT_EQ(run_table({set_router(10, 600, 7, 0, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_router_deal] try to set router, vni: 10 rifx: 600, oper: 0\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_asso_vni] try to set OverlayRouter, ifx: 600, vni: 10, oper: 0\n"}));
    EXPECT_NE(router(500), nullptr);
    EXPECT_EQ(vsd()->router_count, 1u);
    EXPECT_EQ(entry(10)->router_ifx, 0u);
    EXPECT_EQ(entry(10)->vrf_id, 0xFFFFFFFFu);
    EXPECT_EQ(entry(10)->anycast, 0);
}

TEST_F(EntryTableTest, RouterMessageForUnknownVniIsRefused)
{
    start_tables();
    EXPECT_EQ(run_table({set_router(10, 500, 7, 1, 1)}),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_router_deal] entry is not exist, vni: 10\n"}));
    EXPECT_EQ(vsd()->router_count, 0u);
}

TEST_F(EntryTableTest, PerVniSwitchesStoreTheirBytesAndLogTheirWords)
{
    start_tables();
    deliver_tlvs({set_entry(10)});
    EXPECT_EQ(run_table({switch_protected(10, 1), vni_arp_suppress(10, 1), vni_nd_suppress(10, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_switch_proteched_deal] try to set vxlan switch proteched, vni: 10, oper: 1\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_vni_arp_suppress_deal] try to set arp suppress by vni, vni: 10, oper: enable\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_vni_nd_suppress_deal] try to set nd suppress by vni, vni: 10, oper: disable\n"}));
    EXPECT_EQ(entry(10)->switch_proteched, 1);
    EXPECT_EQ(entry(10)->arp_suppress, 1);
    EXPECT_EQ(entry(10)->nd_suppress, 0);
    EXPECT_EQ(run_table({switch_protected(11, 1), vni_arp_suppress(11, 1)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_switch_proteched_deal] try to set vxlan switch proteched, vni: 11, oper: 1\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_switch_proteched_deal] entry is not exist, vni: 11\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_vni_arp_suppress_deal] entry is not exist, vni: 11\n"}));
}

TEST_F(EntryTableTest, NullValuesAreLoggedWithEachHandlersOwnWording)
{
    start_tables();
    vxlan_ef_set_entry_deal(3, nullptr);
    vxlan_ef_set_vlan_deal(3, nullptr);
    vxlan_ef_vni_arp_suppress_deal(3, nullptr);
    vxlan_ef_set_switch_proteched_deal(3, nullptr);
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_entry_deal] args == NULL.\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_vlan_deal] args == NULL\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_vni_arp_suppress_deal] the args pointer is NULL.\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_switch_proteched_deal] args == NULL.\n"}));
}

TEST_F(EntryTableTest, EntryDeleteFreesAdjacenciesVlansAndRouterWithItsLines)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), asso_vtep(10, 100),
                  set_vlan(10, {8, 9}), set_router(10, 500, 3, 0, 1)});
    EXPECT_EQ(run_table({set_entry(10, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_entry_deal] try to set entry, vni: 10, oper: 0\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_delete] free ef-adj(vni 10, ifx 100).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_delete] free ef-vid(vni 10, vid 9).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_delete] free ef-vid(vni 10, vid 8).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_asso_vni] try to set OverlayRouter, ifx: 500, vni: 10, oper: 0\n"}));
    EXPECT_EQ(entry(10), nullptr);
    EXPECT_EQ(router(500), nullptr);
    EXPECT_EQ(vsd()->entry_count, 0u);
    EXPECT_EQ(vsd()->adj_count, 0u);
    EXPECT_EQ(vsd()->vid_vni[7], 0u);
    EXPECT_EQ(vsd()->vid_node[8], nullptr);
    EXPECT_TRUE(list_empty(&tunnel(100)->adj_list));
    for (uint32_t c : {VXLAN_EF_MEM_ENTRY, VXLAN_EF_MEM_ADJ, VXLAN_EF_MEM_VID})
        EXPECT_EQ(g_vxlan_ef_kmem_count[c], 0u) << c;
    EXPECT_EQ(run_table({set_entry(10, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_entry_deal] try to set entry, vni: 10, oper: 0\n"}));
}

TEST_F(EntryTableTest, DeletingAnEntryDetachesItsSubInterfacesAndSuberEntries)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(11), set_entry(12), subif(1, 50, 10, 100, 0),
                  subif(2, 50, 10, 101, 0)});
    make_suber(entry(10), entry(11));
    make_suber(entry(10), entry(12));
    vxlan_ef_subif_t *s1 = vxlan_ef_subif_lookup_by_subifx(vsd(), 1);
    vxlan_ef_subif_t *s2 = vxlan_ef_subif_lookup_by_subifx(vsd(), 2);
    ASSERT_EQ(subif_ifxs(entry(10)), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(vxlan_ef_manage_vni_get(nullptr, 11), 10u);

    deliver_tlvs({set_entry(10, 0)});
    ASSERT_EQ(entry(10), nullptr);
    EXPECT_TRUE(self_linked(&s1->vni_node));
    EXPECT_TRUE(self_linked(&s2->vni_node));
    EXPECT_TRUE(self_linked(&entry(11)->suber_list));
    EXPECT_TRUE(self_linked(&entry(12)->suber_list));
    EXPECT_EQ(entry(11)->super_entry, nullptr);
    EXPECT_EQ(entry(12)->super_entry, nullptr);

    // Everything that used to reach the freed record still works.
    take_logs();
    EXPECT_EQ(vxlan_ef_manage_vni_get(nullptr, 11), 0u);
    EXPECT_EQ(take_logs(), (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_manage_vni_get] manage vxlan entry is not exist, vni: 11\n"}));
    EXPECT_EQ(show_text(1, 11)[10], "  Supervxlan             : 0\n");
    deliver_tlvs({subif(1, 50, 12, 100, 0), subif(2, 0, 0, 0, 0, 0), set_entry(11, 0), sync_begin(),
                  sync_over()});
    EXPECT_EQ(entry(12), nullptr);
    EXPECT_EQ(vsd()->subif_by_ifx.count, 0u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], 0u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_SUBIF], 0u);
}

TEST_F(EntryTableTest, DeletingASuberUnlinksItFromItsSuper)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(11), set_entry(12)});
    make_suber(entry(10), entry(11));
    make_suber(entry(10), entry(12));
    EXPECT_EQ(vxlan_ef_manage_vxlan_get(vsd(), 12), entry(10));
    deliver_tlvs({set_entry(11, 0)});
    EXPECT_EQ(list_size(&entry(10)->suber_list), 1u);
    EXPECT_EQ(entry(10)->suber_list.next, &entry(12)->suber_list);
    EXPECT_EQ(show_text(1, 10)[10], "  Suber VNI              : 12\n");
}

}  // namespace
