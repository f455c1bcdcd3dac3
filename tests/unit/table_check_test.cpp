// The table consistency check: silent on tables that every kind of message
// and a resynchronisation built, and naming each kind of damage done to them
// by hand (each test puts back what it broke before the instance stops).
#include <algorithm>

#include "table_check.h"
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using namespace vxtest;

class TableCheckTest : public TableTest {
protected:
    void SetUp() override
    {
        TableTest::SetUp();
        start_tables(0);
        deliver_tlvs({set_entry(100), set_entry(200), set_vlan(100, {10, 11, 4094}), set_vlan(200, {20}),
                      set_vtep(101, ip4("192.0.2.1"), ip4("10.0.0.1")),
                      set_vtep(106, ip6("2001:db8::1"), ip6("2001:db8::2")), asso_vtep(100, 101),
                      asso_vtep(100, 106), asso_vtep(200, 101), set_router(100, 300, 5, 1, 1),
                      set_vrf(5, 9000, 300), subif(201, 11, 100, 40, 0), subif(202, 12, 200, 50, 60),
                      subif(203, 12, 999, 51, 0)});
        ASSERT_EQ(vsd()->adj_count, 3u);
        ASSERT_EQ(vsd()->subif_by_ifx.count, 3u);
    }

    static bool reports(const std::string &part)
    {
        const std::vector<std::string> problems = table_problems(g_vxlan_vsd);
        return std::any_of(problems.begin(), problems.end(),
                           [&](const std::string &p) { return p.find(part) != std::string::npos; });
    }
};

TEST_F(TableCheckTest, TablesBuiltByEveryKindOfMessageAreConsistent)
{
    EXPECT_EQ(table_problems_text(vsd()), "");
    deliver_tlvs({sync_begin(), set_entry(100), set_vtep(101, ip4("192.0.2.1"), ip4("10.0.0.9")),
                  asso_vtep(100, 101), subif(202, 12, 100, 50, 60), sync_over()});
    EXPECT_EQ(table_problems_text(vsd()), "");
    EXPECT_EQ(vsd()->entry_count, 1u);
}

TEST_F(TableCheckTest, ReportsACountThatDisagreesWithItsList)
{
    vsd()->entry_count++;
    EXPECT_TRUE(reports("entry count 3, entry list holds 2"));
    vsd()->entry_count--;
    entry(100)->adj_count++;
    EXPECT_TRUE(reports("VNI 100 counts 3 adjacencies, its list holds 2"));
    entry(100)->adj_count--;
    EXPECT_EQ(table_problems_text(vsd()), "");
}

TEST_F(TableCheckTest, ReportsAnAdjacencyMissingFromItsDestinationHash)
{
    vxlan_ef_adj_t *a = adj(100, 106);
    ASSERT_NE(a, nullptr);
    list_head *prev = a->dip_node.prev;
    list_del(&a->dip_node);
    EXPECT_TRUE(reports("VNI 100: 2 adjacencies listed, 2 in the ifx hash, 1 in the dip hash"));
    list_add(&a->dip_node, prev);
    EXPECT_EQ(table_problems_text(vsd()), "");
}

TEST_F(TableCheckTest, ReportsAnAdjacencyThatDisagreesWithItsTunnel)
{
    vxlan_ef_adj_t *a = adj(200, 101);
    ASSERT_NE(a, nullptr);
    a->sip.addr[3] ^= 1;
    EXPECT_TRUE(reports("adjacency (VNI 200, ifx 101) disagrees with its tunnel's addresses"));
    a->sip.addr[3] ^= 1;
}

// The module compares an IPv4 address by its first 4 bytes and copies a
// tunnel's destination into an adjacency only when that comparison differs.
TEST_F(TableCheckTest, AnIpv4DestinationDifferingOnlyBeyondItsFirstFourBytesIsConsistent)
{
    vxlan_ef_adj_t *a = adj(200, 101);
    ASSERT_NE(a, nullptr);
    const vxlan_ef_ip_addr_t kept = a->dip;
    for (size_t i = 4; i < sizeof a->dip.addr; ++i)
        a->dip.addr[i] = static_cast<uint8_t>(0xA0 + i);
    EXPECT_EQ(table_problems_text(vsd()), "");
    a->dip.addr[3] ^= 1;
    EXPECT_EQ(table_problems(vsd()),
              std::vector<std::string>{"adjacency (VNI 200, ifx 101) disagrees with its tunnel's addresses"});
    a->dip = kept;
    EXPECT_EQ(table_problems_text(vsd()), "");
}

TEST_F(TableCheckTest, ReportsAnyDifferingByteOfAnIpv6DestinationOrOneOfAnotherFamily)
{
    vxlan_ef_adj_t *v6 = adj(100, 106);
    ASSERT_NE(v6, nullptr);
    v6->dip.addr[15] ^= 1;
    EXPECT_EQ(table_problems(vsd()),
              std::vector<std::string>{"adjacency (VNI 100, ifx 106) disagrees with its tunnel's addresses"});
    v6->dip.addr[15] ^= 1;

    // The module copies a destination of another family whole, so the check
    // holds every one of its bytes to the tunnel's.
    vxlan_ef_ip_addr_t other = ip4("10.0.0.1");
    other.family = 7;
    other.addr[12] = 0x5A;
    deliver_tlvs({set_vtep(101, ip4("192.0.2.1"), other)});
    vxlan_ef_adj_t *a = adj(200, 101);
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(a->dip.family, 7u);
    EXPECT_EQ(table_problems_text(vsd()), "");
    a->dip.addr[12] ^= 1;
    EXPECT_EQ(table_problems(vsd()),
              std::vector<std::string>{"adjacency (VNI 200, ifx 101) disagrees with its tunnel's addresses"});
    a->dip.addr[12] ^= 1;
}

TEST_F(TableCheckTest, ReportsAVlanSlotWithoutItsNode)
{
    vsd()->vid_vni[29] = 100;
    EXPECT_TRUE(reports("VLAN 30: node unset but VNI 100"));
    vsd()->vid_vni[29] = 0;
    vsd()->vid_vni[9] = 200;
    EXPECT_TRUE(reports("VLAN 10 is listed under VNI 100 but mapped to VNI 200"));
    vsd()->vid_vni[9] = 100;
    EXPECT_EQ(table_problems_text(vsd()), "");
}

TEST_F(TableCheckTest, ReportsSubInterfaceTreesOfDifferentSizes)
{
    vsd()->subif_by_mifx.count++;
    EXPECT_TRUE(reports("subif trees differ in size: 3 by ifx, 4 by main ifx"));
    EXPECT_TRUE(reports("subif main-ifx tree: count 4, 3 nodes"));
    vsd()->subif_by_mifx.count--;
}

TEST_F(TableCheckTest, ReportsASubInterfaceListedUnderAnotherVni)
{
    vxlan_ef_subif_t *s = vxlan_ef_subif_lookup_by_subifx(vsd(), 201);
    ASSERT_NE(s, nullptr);
    s->vni = 200;
    EXPECT_TRUE(reports("subif 201 of VNI 200 is listed under VNI 100"));
    s->vni = 100;
}

TEST_F(TableCheckTest, ReportsARedNodeWithARedChildAndAStaleLeftmostCache)
{
    rb_node *root = vsd()->subif_by_ifx.root.rb_node;
    ASSERT_NE(root, nullptr);
    ASSERT_NE(root->rb_left, nullptr);
    const uintptr_t root_word = root->rb_parent_color;
    const uintptr_t left_word = root->rb_left->rb_parent_color;
    root->rb_parent_color &= ~uintptr_t{1};
    root->rb_left->rb_parent_color &= ~uintptr_t{1};
    EXPECT_TRUE(reports("subif ifx tree: the root is red"));
    EXPECT_TRUE(reports("subif ifx tree: a red node has a red child"));
    root->rb_parent_color = root_word;
    root->rb_left->rb_parent_color = left_word;
    rb_node *leftmost = vsd()->subif_by_ifx.leftmost;
    vsd()->subif_by_ifx.leftmost = root;
    EXPECT_TRUE(reports("subif ifx tree: the leftmost cache is not the first node"));
    vsd()->subif_by_ifx.leftmost = leftmost;
}

TEST_F(TableCheckTest, ReportsAListThatDoesNotCloseInsteadOfFollowingIt)
{
    vxlan_ef_entry_t *e = entry(200);
    list_head *first = e->vid_list.next;
    ASSERT_NE(first, &e->vid_list);
    list_head *next = first->next;
    first->next = first;
    EXPECT_TRUE(reports("VLAN list of VNI 200: node 1's back link does not point at its predecessor"));
    first->next = next;
}

}  // namespace
