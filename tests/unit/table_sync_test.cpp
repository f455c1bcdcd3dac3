// Resynchronisation of the tables by mark and sweep: what an empty
// resynchronisation leaves, what each confirming message keeps, the order of
// the sweeps, and the sub-interface table's shortcut when it is empty.
#include <cerrno>
#include <thread>

#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using Lines = std::vector<std::string>;
using namespace vxtest;

class TableSyncTest : public TableTest {
protected:
    // Two VNIs with VLANs, tunnels, adjacencies, a router, a mapping, a VRF,
    // sub-interfaces and a UDP port.
    void configure_everything()
    {
        deliver_tlvs({set_entry(10), set_entry(20), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")),
                      set_vtep(101, ip4("1.1.1.1"), ip4("3.3.3.3")), asso_vtep(10, 100), asso_vtep(20, 101),
                      set_vlan(10, {5, 6}), set_vlan(20, {7}), set_router(10, 500, 9, 1, 1),
                      set_vrf(5, 1000, 0), subif(1, 50, 10, 100, 0), subif(2, 50, 20, 101, 0),
                      set_udp_port(8472), vni_map(10, 20), switch_protected(10, 1),
                      vni_arp_suppress(10, 1), vni_nd_suppress(10, 1), tunnel_mac_learn(100, 1)});
    }

    // True when a second thread finds the instance lock held for writing.
    static bool write_lock_still_held()
    {
        int rc = -1;
        std::thread probe([&rc] {
            rc = pthread_rwlock_tryrdlock(&g_vxlan_vsd->rwlock);
            if (rc == 0)
                pthread_rwlock_unlock(&g_vxlan_vsd->rwlock);
        });
        probe.join();
        return rc == EBUSY;
    }
};

TEST_F(TableSyncTest, EmptyResynchronisationRemovesEverythingAndReportsDataReady)
{
    start_tables();
    configure_everything();
    deliver_tlvs({sync_begin()});
    efrt::msg_take_sent();
    EXPECT_EQ(run_table({sync_over()}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_sync_end] sync end, try to clear dirty data in tunnel table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_update] free ef-adj(vni 10, ifx 100).\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_update] free ef-adj(vni 20, ifx 101).\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] sync end, try to clear dirty data in entry table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] (1)free ef-vid(vni 10, vid 6).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] (1)free ef-vid(vni 10, vid 5).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_asso_vni] try to set OverlayRouter, ifx: 500, vni: 10, oper: 0\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] (1)free ef-vid(vni 20, vid 7).",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_vrf_sync_end] sync end, try to clear dirty data in vrf table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_end] sync end, try to clear dirty node in subif table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_end] clear 2 dirty node from subif table\n"}));
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, bytes({1, 8, 0, 1, 68, 0, 0, 0}));
    EXPECT_EQ(vsd()->flags & (VXLAN_EF_F_SYNC_START | VXLAN_EF_F_SYNC_END), VXLAN_EF_F_SYNC_END);

    EXPECT_EQ(vsd()->entry_count, 0u);
    EXPECT_EQ(vsd()->adj_count, 0u);
    EXPECT_EQ(vsd()->tunnel_count, 0u);
    EXPECT_EQ(vsd()->router_count, 0u);
    EXPECT_EQ(vsd()->vrf_count, 0u);
    EXPECT_EQ(vsd()->subif_by_ifx.count, 0u);
    EXPECT_EQ(vsd()->subif_by_mifx.count, 0u);
    EXPECT_EQ(vsd()->subif_by_ifx.root.rb_node, nullptr);
    EXPECT_EQ(vsd()->subif_by_ifx.leftmost, nullptr);
    EXPECT_EQ(vsd()->subif_by_mifx.leftmost, nullptr);
    EXPECT_TRUE(list_empty(&vsd()->entry_list));
    EXPECT_TRUE(list_empty(&vsd()->tunnel_list));
    EXPECT_TRUE(list_empty(&vsd()->router_list));
    EXPECT_TRUE(list_empty(&vsd()->vrf_list));
    EXPECT_EQ(vsd()->udp_port, 4789);
    for (uint32_t v = 0; v < VXLAN_EF_VLAN_COUNT; ++v) {
        ASSERT_EQ(vsd()->vid_vni[v], 0u) << v;
        ASSERT_EQ(vsd()->vid_node[v], nullptr) << v;
    }
    for (uint32_t c : {VXLAN_EF_MEM_ENTRY, VXLAN_EF_MEM_ADJ, VXLAN_EF_MEM_INTF, VXLAN_EF_MEM_VID,
                       VXLAN_EF_MEM_SUBIF, VXLAN_EF_MEM_VRF})
        EXPECT_EQ(g_vxlan_ef_kmem_count[c], 0u) << c;
}

TEST_F(TableSyncTest, EntryResentAloneSurvivesButLosesEverythingExceptItsAnycastFlag)
{
    start_tables();
    configure_everything();
    vxlan_ef_entry_t *e = entry(10);
    deliver_tlvs({sync_begin(), set_entry(10), sync_over()});
    ASSERT_EQ(entry(10), e);
    EXPECT_EQ(vsd()->entry_count, 1u);
    EXPECT_TRUE(vids(e).empty());
    EXPECT_TRUE(adj_ifxs(e).empty());
    EXPECT_EQ(e->adj_count, 0u);
    EXPECT_EQ(e->router_ifx, 0u);
    EXPECT_EQ(e->vrf_id, 9u);  // left as it was
    EXPECT_EQ(e->switch_proteched, 0);
    EXPECT_EQ(e->arp_suppress, 0);
    EXPECT_EQ(e->nd_suppress, 0);
    EXPECT_EQ(e->map_vni_b, 0u);
    EXPECT_EQ(e->anycast, 1);
    EXPECT_EQ(e->dirty, 0u);
    EXPECT_EQ(router(500), nullptr);
    EXPECT_TRUE(subif_ifxs(e).empty());
}

TEST_F(TableSyncTest, ConfirmedSettingsSurviveAndUnconfirmedOnesAreReset)
{
    start_tables();
    configure_everything();
    deliver_tlvs({sync_begin(), set_entry(10), set_entry(20), set_router(10, 500, 9, 1, 1),
                  vni_arp_suppress(10, 1), vni_map(10, 20), set_vrf(5, 1000, 0), subif(2, 50, 20, 101, 0),
                  set_udp_port(8472), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), asso_vtep(10, 100),
                  set_vlan(20, {7}), sync_over()});
    EXPECT_EQ(entry(10)->router_ifx, 500u);
    ASSERT_NE(router(500), nullptr);
    EXPECT_EQ(router(500)->dirty, 0);
    EXPECT_EQ(entry(10)->arp_suppress, 1);
    EXPECT_EQ(entry(10)->nd_suppress, 0);
    EXPECT_EQ(entry(10)->switch_proteched, 0);
    EXPECT_EQ(entry(10)->map_vni_b, 20u);
    EXPECT_EQ(entry(20)->map_vni_a, 10u);
    EXPECT_EQ(vsd()->udp_port, 8472);
    EXPECT_NE(vxlan_ef_vrf_get(vsd(), 5), nullptr);
    EXPECT_EQ(vxlan_ef_subif_lookup_by_subifx(vsd(), 1), nullptr);
    EXPECT_NE(vxlan_ef_subif_lookup_by_subifx(vsd(), 2), nullptr);
    EXPECT_EQ(adj_ifxs(entry(10)), (std::vector<uint32_t>{100}));
    EXPECT_EQ(tunnel(101), nullptr);
    EXPECT_TRUE(adj_ifxs(entry(20)).empty());
    EXPECT_EQ(vids(entry(20)), (std::vector<uint16_t>{7}));
    EXPECT_TRUE(vids(entry(10)).empty());
    EXPECT_EQ(tunnel(100)->rmt_mac_learn, 0);
}

TEST_F(TableSyncTest, TunnelResentWithoutItsMacLearnSwitchEndsWithLearningOff)
{
    start_tables();
    deliver_tlvs({set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), tunnel_mac_learn(100, 1)});
    ASSERT_EQ(vxlan_ef_check_tnl_mac_learn(vsd(), 100), 1);
    deliver_tlvs({sync_begin(), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), sync_over()});
    ASSERT_NE(tunnel(100), nullptr);
    EXPECT_EQ(tunnel(100)->rmt_mac_learn, 0);
    EXPECT_EQ(vxlan_ef_check_tnl_mac_learn(vsd(), 100), 0);
}

TEST_F(TableSyncTest, EmptySubInterfaceTableLogsStartAndEndButTakesNoLockAndNoCount)
{
    start_tables();
    // This thread holds the write lock: glibc refuses the owner a second lock
    // (EDEADLK) instead of blocking, and a guard's unlock would then release
    // ours, which the probe thread would see.
    pthread_rwlock_wrlock(&vsd()->rwlock);
    vxlan_ef_subif_sync_start();
    vxlan_ef_subif_sync_end();
    EXPECT_TRUE(write_lock_still_held());
    pthread_rwlock_unlock(&vsd()->rwlock);
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_start] sync start, try to set dirty flags in subif table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_end] sync end, try to clear dirty node in subif table\n"}));

    // The probe does see the lock taken once the table holds a record.
    deliver_tlvs({subif(1, 50, 10, 100, 0)});
    pthread_rwlock_wrlock(&vsd()->rwlock);
    vxlan_ef_subif_sync_start();
    EXPECT_FALSE(write_lock_still_held());
}

TEST_F(TableSyncTest, SweepRemovesUnconfirmedSubInterfacesInKeyOrderAndCountsThem)
{
    start_tables();
    deliver_tlvs({set_entry(10), subif(4, 50, 10, 4, 0), subif(1, 50, 10, 1, 0), subif(3, 50, 10, 3, 0),
                  subif(2, 50, 10, 2, 0)});
    deliver_tlvs({sync_begin(), subif(3, 50, 10, 3, 0), set_entry(10)});
    EXPECT_EQ(run_table({sync_over()}).back(),
              "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_end] clear 3 dirty node from subif table\n");
    EXPECT_EQ(vsd()->subif_by_ifx.count, 1u);
    EXPECT_EQ(vsd()->subif_by_mifx.count, 1u);
    EXPECT_EQ(subif_ifxs(entry(10)), (std::vector<uint32_t>{3}));
    EXPECT_EQ(vsd()->subif_by_ifx.leftmost, &vxlan_ef_subif_lookup_by_subifx(vsd(), 3)->ifx_node);
    // Nothing left to clear: no count line.
    deliver_tlvs({sync_begin(), subif(3, 50, 10, 3, 0)});
    EXPECT_EQ(run_table({sync_over()}).back(),
              "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_end] sync end, try to clear dirty node in subif table\n");
}

TEST_F(TableSyncTest, BeginMarksEveryTableInItsOrderAndOverWithoutBeginRemovesNothing)
{
    start_tables();
    configure_everything();
    const size_t entries = vsd()->entry_count;
    EXPECT_EQ(run_table({sync_over()}).size(), 4u);  // the four sweep lines, no frees
    EXPECT_EQ(vsd()->entry_count, entries);
    EXPECT_EQ(vsd()->udp_port, 8472);
    EXPECT_EQ(vsd()->subif_by_ifx.count, 2u);
    EXPECT_EQ(run_table({sync_begin()}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_sync_start] sync start, try to set dirty flags in tunnel table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_start] sync start, try to set dirty flags in entry table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_vrf_sync_start] sync start, try to set dirty flags in vrf table\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_start] sync start, try to set dirty flags in subif table\n"}));
    EXPECT_EQ(entry(10)->dirty, 0x1A3u);
    EXPECT_EQ(entry(10)->map_dirty, 1);
    EXPECT_EQ(adj(10, 100)->dirty, 1);
    EXPECT_EQ(static_cast<vxlan_ef_vid_t *>(vsd()->vid_node[4])->dirty, 1);
    EXPECT_EQ(tunnel(100)->rmt_route_learn_dirty, 1);
    EXPECT_EQ(router(500)->dirty, 1);
    EXPECT_EQ(vxlan_ef_vrf_get(vsd(), 5)->dirty, 1);
    EXPECT_EQ(vxlan_ef_subif_lookup_by_subifx(vsd(), 2)->dirty, 1);
    EXPECT_EQ(vsd()->udp_port_dirty, 1);
    EXPECT_EQ(vsd()->flags & VXLAN_EF_F_SYNC_START, VXLAN_EF_F_SYNC_START);
}

}  // namespace
