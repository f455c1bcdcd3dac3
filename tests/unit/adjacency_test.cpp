// VTEP adjacencies: association with and without an entry or a tunnel, the
// two per-entry hashes and their lookups, tunnel address changes and tunnel
// removal, and finding a received packet's tunnel by its address pair.
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using Lines = std::vector<std::string>;
using namespace vxtest;

class AdjacencyTest : public TableTest {
protected:
    // Entry 10 with tunnels 100 (1.1.1.1 -> 9.9.9.9) and 101 (1.1.1.2 -> 9.9.9.9).
    void two_tunnels_to_one_vtep()
    {
        add_intf(100, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel100");
        add_intf(101, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel101");
        deliver_tlvs({set_entry(10), set_vtep(100, ip4("1.1.1.1"), ip4("9.9.9.9")),
                      set_vtep(101, ip4("1.1.1.2"), ip4("9.9.9.9")), asso_vtep(10, 100),
                      asso_vtep(10, 101)});
    }
};

TEST_F(AdjacencyTest, AssociationForVniWithoutEntryLogsAndCreatesNothing)
{
    start_tables();
    deliver_tlvs({set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2"))});
    EXPECT_EQ(run_table({asso_vtep(10, 100)}),
              (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_asso_vtep_deal] entry is not exist, vni: 10\n"}));
    EXPECT_EQ(vsd()->adj_count, 0u);
    EXPECT_TRUE(list_empty(&tunnel(100)->adj_list));
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ADJ], 0u);
}

TEST_F(AdjacencyTest, AssociationWithoutTunnelIsCreatedThenFreedAndTheCountReturns)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_vtep(100, ip4("1.1.1.1"), ip4("2.2.2.2")), asso_vtep(10, 100)});
    ASSERT_EQ(vsd()->adj_count, 1u);
    EXPECT_EQ(run_table({asso_vtep(10, 200)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_asso_vtep_deal] try to asso vtep, vni: 10, ifx: 200, oper: 1\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_alloc] create new ef-adj node, total adj-count is 2.\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_asso_vtep_deal] can't find tunnel so free ef-adj(vni 10, ifx 200).\n"}));
    EXPECT_EQ(vsd()->adj_count, 1u);
    EXPECT_EQ(entry(10)->adj_count, 1u);
    EXPECT_EQ(adj(10, 200), nullptr);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ADJ], 1u);
}

TEST_F(AdjacencyTest, AssociationCopiesTunnelAddressesAndLinksAllFourLists)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_vtep(300, ip4("1.1.1.1"), ip4("10.1.2.3"))});
    EXPECT_EQ(run_table({asso_vtep(10, 300)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_asso_vtep_deal] try to asso vtep, vni: 10, ifx: 300, oper: 1\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_alloc] create new ef-adj node, total adj-count is 1.\n"}));
    vxlan_ef_adj_t *a = adj(10, 300);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->entry, entry(10));
    EXPECT_TRUE(same_ip(a->sip, ip4("1.1.1.1")));
    EXPECT_TRUE(same_ip(a->dip, ip4("10.1.2.3")));
    EXPECT_EQ(entry(10)->adj_by_ifx[300 & 0xFF].next, &a->ifx_node);
    EXPECT_EQ(entry(10)->adj_by_dip[10].next, &a->dip_node);  // first octet
    EXPECT_EQ(entry(10)->adj_list.next, &a->entry_node);
    EXPECT_EQ(tunnel(300)->adj_list.next, &a->tunnel_node);

    a->dirty = 1;
    EXPECT_EQ(run_table({asso_vtep(10, 300)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_asso_vtep_deal] try to asso vtep, vni: 10, ifx: 300, oper: 1\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_asso_vtep_deal] adj(ifx 300, vni 10) is exist.\n"}));
    EXPECT_EQ(a->dirty, 0);
    EXPECT_EQ(vsd()->adj_count, 1u);

    EXPECT_EQ(run_table({asso_vtep(10, 300, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_asso_vtep_deal] try to asso vtep, vni: 10, ifx: 300, oper: 0\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_asso_vtep_deal] free ef-adj(vni 10, ifx 300).\n"}));
    EXPECT_EQ(vsd()->adj_count, 0u);
    EXPECT_EQ(entry(10)->adj_count, 0u);
    EXPECT_TRUE(list_empty(&tunnel(300)->adj_list));
    EXPECT_TRUE(list_empty(&entry(10)->adj_by_dip[10]));
}

TEST_F(AdjacencyTest, TunnelGetTellsApartTwoTunnelsToOneVtepBySourceAddress)
{
    start_tables();
    two_tunnels_to_one_vtep();
    const vxlan_ef_ip_addr_t dip = ip4("9.9.9.9");
    const vxlan_ef_ip_addr_t sip1 = ip4("1.1.1.1");
    const vxlan_ef_ip_addr_t sip2 = ip4("1.1.1.2");
    const vxlan_ef_ip_addr_t sip3 = ip4("1.1.1.3");
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, entry(10), &sip1, &dip), lsm_get_intfcb(100));
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, entry(10), &sip2, &dip), lsm_get_intfcb(101));
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, entry(10), &sip3, &dip), nullptr);
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, entry(10), &dip, &sip1), nullptr);
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, entry(10), nullptr, &dip), nullptr);
    take_logs();
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, nullptr, &sip1, &dip), nullptr);
    EXPECT_EQ(take_logs(), (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_tunnel_get] vxlan is not exist\n"}));
}

TEST_F(AdjacencyTest, LookupWithIfxAndNonZeroDipIsAKeyErrorAndWithZeroDipFindsByIfx)
{
    start_tables();
    two_tunnels_to_one_vtep();
    const vxlan_ef_ip_addr_t dip = ip4("9.9.9.9");
    const vxlan_ef_ip_addr_t zero = ip4("0.0.0.0");
    vxlan_ef_ip_addr_t other = ip4("9.9.9.9");
    other.family = 7;
    take_logs();
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &dip, 101, entry(10)), nullptr);
    EXPECT_EQ(take_logs(), (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_adj_get] key error, dip: 9.9.9.9, ifx: 101\n"}));
    const vxlan_ef_ip_addr_t dip6 = ip6("2001:db8::5");
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &dip6, 101, entry(10)), nullptr);
    EXPECT_EQ(take_logs(), (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_adj_get] key error, dip: 2001:db8::5, ifx: 101\n"}));

    vxlan_ef_adj_t *a101 = adj(10, 101);
    ASSERT_NE(a101, nullptr);
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &zero, 101, entry(10)), a101);
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &other, 101, entry(10)), a101);
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &dip, 0, entry(10)), adj(10, 100));  // first of the bucket
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &other, 0, entry(10)), nullptr);
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), nullptr, 0, entry(10)), nullptr);
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), nullptr, 101, nullptr), nullptr);
    EXPECT_TRUE(take_logs().empty());
}

TEST_F(AdjacencyTest, NewTunnelDestinationMovesAdjacenciesAndTunnelDeleteFreesThem)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(20), set_vtep(100, ip4("1.1.1.1"), ip4("10.0.0.1")),
                  asso_vtep(10, 100), asso_vtep(20, 100)});
    EXPECT_EQ(run_table({set_vtep(100, ip4("1.1.1.9"), ip4("20.0.0.1"))}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_vtep_deal] try to set OverlayTunnel, ifx: 100, oper: 1\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_update] update ef-adj(vni 10, ifx 100).\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_update] update ef-adj(vni 20, ifx 100).\n"}));
    for (uint32_t vni : {10u, 20u}) {
        vxlan_ef_adj_t *a = adj(vni, 100);
        ASSERT_NE(a, nullptr);
        EXPECT_TRUE(list_empty(&entry(vni)->adj_by_dip[10]));
        EXPECT_EQ(entry(vni)->adj_by_dip[20].next, &a->dip_node);
        EXPECT_TRUE(same_ip(a->dip, ip4("20.0.0.1")));
        EXPECT_TRUE(same_ip(a->sip, ip4("1.1.1.9")));
        const vxlan_ef_ip_addr_t dip = ip4("20.0.0.1");
        EXPECT_EQ(vxlan_ef_adj_get(vsd(), &dip, 0, entry(vni)), a);
    }

    EXPECT_EQ(run_table({set_vtep(100, ip4("1.1.1.9"), ip4("20.0.0.1"), 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_vtep_deal] try to set OverlayTunnel, ifx: 100, oper: 0\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_update] free ef-adj(vni 10, ifx 100).\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_adj_update] free ef-adj(vni 20, ifx 100).\n"}));
    EXPECT_EQ(tunnel(100), nullptr);
    EXPECT_EQ(vsd()->adj_count, 0u);
    EXPECT_EQ(entry(10)->adj_count, 0u);
    EXPECT_TRUE(list_empty(&entry(20)->adj_list));
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ADJ], 0u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_INTF], 0u);
}

TEST_F(AdjacencyTest, Ipv6DestinationsSharingABucketAreStillFoundSeparately)
{
    start_tables();
    add_intf(100, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel100");
    add_intf(101, LSM_IF_TYPE_OVERLAY_TUNNEL, "Tunnel101");
    const vxlan_ef_ip_addr_t sip = ip6("2001:db8::ff");
    const vxlan_ef_ip_addr_t d1 = ip6("2001:db8::1");
    const vxlan_ef_ip_addr_t d2 = ip6("2001:db8::100");
    deliver_tlvs({set_entry(10), set_vtep(100, sip, d1), set_vtep(101, sip, d2), asso_vtep(10, 100),
                  asso_vtep(10, 101)});
    // 0x20 + 0x00 + 0x00 + 0x00: the first bytes of the four words.
    EXPECT_EQ(list_size(&entry(10)->adj_by_dip[0x20]), 2u);
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &d1, 0, entry(10)), adj(10, 100));
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &d2, 0, entry(10)), adj(10, 101));
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, entry(10), &sip, &d1), lsm_get_intfcb(100));
    EXPECT_EQ(vxlan_ef_tunnel_get(nullptr, entry(10), &sip, &d2), lsm_get_intfcb(101));
    const vxlan_ef_ip_addr_t d3 = ip6("2001:db8::2");
    EXPECT_EQ(vxlan_ef_adj_get(vsd(), &d3, 0, entry(10)), nullptr);
}

TEST_F(AdjacencyTest, Ipv6BucketAddsTheFirstByteOfEachWordModulo256)
{
    start_tables();
    const vxlan_ef_ip_addr_t dip = ip6("f000:0:f100::ff00:0");  // 0xF0 + 0xF1 + 0x00 + 0xFF
    deliver_tlvs({set_entry(10), set_vtep(100, ip6("::1"), dip), asso_vtep(10, 100)});
    EXPECT_EQ(entry(10)->adj_by_dip[(0xF0 + 0xF1 + 0xFF) & 0xFF].next, &adj(10, 100)->dip_node);
}

}  // namespace
