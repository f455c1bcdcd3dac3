// The tunnel and router interface table: OverlayTunnel records and their
// switches, OverlayRouter records created and removed through router
// bindings, and the lookups the packet plane asks.
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using Lines = std::vector<std::string>;
using namespace vxtest;

class IntfTableTest : public TableTest {};

TEST_F(IntfTableTest, VtepReAddWithNewDestinationMovesEveryAdjacencyOfTheTunnel)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(20), set_entry(30),
                  set_vtep(100, ip4("1.1.1.1"), ip4("10.0.0.1")), set_vtep(101, ip4("1.1.1.1"), ip4("10.0.0.2")),
                  asso_vtep(10, 100), asso_vtep(20, 100), asso_vtep(30, 100), asso_vtep(10, 101)});
    vxlan_ef_intf_t *t = tunnel(100);
    t->dirty = 1;
    const vxlan_ef_ip_addr_t dip = ip6("2001:db8::7");
    deliver_tlvs({set_vtep(100, ip6("2001:db8::1"), dip)});
    EXPECT_EQ(tunnel(100), t);
    EXPECT_EQ(t->dirty, 0);
    EXPECT_TRUE(same_ip(t->dip, dip));
    EXPECT_TRUE(same_ip(t->sip, ip6("2001:db8::1")));
    EXPECT_EQ(vsd()->tunnel_count, 2u);
    for (uint32_t vni : {10u, 20u, 30u}) {
        vxlan_ef_adj_t *a = adj(vni, 100);
        ASSERT_NE(a, nullptr) << vni;
        EXPECT_TRUE(same_ip(a->dip, dip));
        EXPECT_EQ(vxlan_ef_adj_get(vsd(), &dip, 0, entry(vni)), a);
    }
    EXPECT_EQ(list_size(&entry(10)->adj_by_dip[10]), 1u);  // tunnel 101 stayed
    EXPECT_TRUE(same_ip(adj(10, 101)->dip, ip4("10.0.0.2")));
}

TEST_F(IntfTableTest, MacLearnSwitchBeforeTheTunnelExistsIsLost)
{
    start_tables();
    EXPECT_EQ(run_table({tunnel_mac_learn(100, 1)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tnl_mac_learn_deal] try to set OverlayTunnel mac learn, ifx: 100, oper: 1\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tnl_mac_learn_deal] failed to set OverlayTunnel mac learn, can't find intf by ifx(100)\n"}));
    EXPECT_EQ(vsd()->tunnel_count, 0u);
    deliver_tlvs({set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2"))});
    EXPECT_EQ(tunnel(100)->rmt_mac_learn, 0);
    EXPECT_EQ(vxlan_ef_check_tnl_mac_learn(vsd(), 100), 0);
}

TEST_F(IntfTableTest, TunnelSwitchesStoreTheirByteAndAnswerTheQueries)
{
    start_tables();
    deliver_tlvs({set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2"))});
    EXPECT_EQ(run_table({outside_center(100, 2), tunnel_mac_learn(100, 1), tunnel_route_learn(100, 1)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_outside_center_deal] try to set OverlayTunnel outside center, ifx: 100, oper: 2\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tnl_mac_learn_deal] try to set OverlayTunnel mac learn, ifx: 100, oper: 1\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tnl_route_learn_deal] try to set OverlayTunnel route learn, ifx: 100, oper: 1\n"}));
    EXPECT_EQ(vxlan_ef_intf_is_outside_center(vsd(), 100), 2);
    EXPECT_EQ(vxlan_ef_check_tnl_mac_learn(vsd(), 100), 1);
    EXPECT_EQ(vxlan_ef_check_tnl_route_learn(vsd(), 100), 1);
    EXPECT_EQ(vxlan_ef_intf_is_outside_center(vsd(), 101), 0);
    EXPECT_EQ(run_table({outside_center(101, 1), tunnel_route_learn(101, 1)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_outside_center_deal] try to set OverlayTunnel outside center, ifx: 101, oper: 1\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_intf_outside_center_deal] failed to set OverlayTunnel outside center, can't find intf by ifx(101)\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tnl_route_learn_deal] try to set OverlayTunnel route learn, ifx: 101, oper: 1\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tnl_route_learn_deal] failed to set OverlayTunnel route learn, can't find intf by ifx(101)\n"}));
}

TEST_F(IntfTableTest, ConfirmedTunnelWhoseRouteLearnWasNotResentEndsWithItOff)
{
    start_tables();
    deliver_tlvs({set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), tunnel_route_learn(100, 1),
                  tunnel_mac_learn(100, 1), outside_center(100, 1)});
    deliver_tlvs({sync_begin(), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), tunnel_mac_learn(100, 1),
                  sync_over()});
    vxlan_ef_intf_t *t = tunnel(100);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->rmt_route_learn, 0);
    EXPECT_EQ(t->outside_center, 0);
    EXPECT_EQ(t->rmt_mac_learn, 1);
    EXPECT_EQ(t->rmt_route_learn_dirty, 0);
    EXPECT_EQ(t->outside_center_dirty, 0);
    EXPECT_EQ(t->dirty, 0);
}

TEST_F(IntfTableTest, UnbindingARouterFromOneVniRemovesItThoughAnotherVniNamesIt)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(20), set_router(10, 500, 1, 0, 1)});
    EXPECT_EQ(run_table({set_router(20, 500, 2, 0, 1)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_router_deal] try to set router, vni: 20 rifx: 500, oper: 1\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_asso_vni] try to set OverlayRouter, ifx: 500, vni: 20, oper: 1\n"}));
    EXPECT_EQ(vsd()->router_count, 1u);
    EXPECT_EQ(router(500)->vni, 20u);
    EXPECT_EQ(router(500)->vrf_id, 2u);

    deliver_tlvs({set_router(10, 500, 0, 0, 0)});
    EXPECT_EQ(router(500), nullptr);
    EXPECT_EQ(vsd()->router_count, 0u);
    EXPECT_EQ(entry(20)->router_ifx, 500u);  // not told
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_INTF], 0u);
}

TEST_F(IntfTableTest, TunnelsAndRoutersWithTheSameIfxLiveInSeparateHashes)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_vtep(77, ip4("1.1.1.1"), ip4("2.2.2.2")), set_router(10, 77, 5, 1, 1)});
    ASSERT_NE(tunnel(77), nullptr);
    ASSERT_NE(router(77), nullptr);
    EXPECT_NE(tunnel(77), router(77));
    EXPECT_EQ(tunnel(77)->kind, LSM_IF_TYPE_OVERLAY_TUNNEL);
    EXPECT_EQ(router(77)->kind, LSM_IF_TYPE_OVERLAY_ROUTER);
    EXPECT_EQ(vxlan_ef_intf_get(vsd(), 77, 3), tunnel(77));  // any other kind asks the tunnels
    EXPECT_EQ(vsd()->tunnel_hash[77].next, &tunnel(77)->hash_node);
    EXPECT_EQ(vsd()->router_hash[77].next, &router(77)->hash_node);
    deliver_tlvs({set_vtep(77, ip4("1.1.1.1"), ip4("2.2.2.2"), 0)});
    EXPECT_EQ(tunnel(77), nullptr);
    EXPECT_NE(router(77), nullptr);
}

TEST_F(IntfTableTest, FailedRecordAllocationIsLoggedAndGivesUpTheMessage)
{
    start_tables();
    const Tlv msg = set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2"));
    efrt::mem_fail_nth(1);
    vxlan_ef_set_vtep_deal(3, msg.value.data());
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_vtep_deal] try to set OverlayTunnel, ifx: 100, oper: 1\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_intf_alloc] kmalloc vxlan_ef_intf memory failed, ifx: 100\n"}));
    EXPECT_EQ(vsd()->tunnel_count, 0u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_INTF], 0u);
}

}  // namespace
