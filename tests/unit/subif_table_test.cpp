// The sub-interface table: the two red-black trees and their leftmost
// caches, the conflict rule, moves between VNIs, the flooding list of a VNI's
// entry, and the two checks used by the packet plane.
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using Lines = std::vector<std::string>;
using namespace vxtest;

class SubifTableTest : public TableTest {
protected:
    static vxlan_ef_subif_t *by_ifx(uint32_t ifx) { return vxlan_ef_subif_lookup_by_subifx(vsd(), ifx); }

    // The tree shape of both trees: every node's three words.
    static std::vector<uintptr_t> shape(const vxlan_ef_subif_tree_t &tree)
    {
        std::vector<uintptr_t> out{reinterpret_cast<uintptr_t>(tree.root.rb_node),
                                   reinterpret_cast<uintptr_t>(tree.leftmost), tree.count};
        for (rb_node *n = rb_first(&tree.root); n != nullptr; n = rb_next(n)) {
            out.push_back(n->rb_parent_color);
            out.push_back(reinterpret_cast<uintptr_t>(n->rb_left));
            out.push_back(reinterpret_cast<uintptr_t>(n->rb_right));
        }
        return out;
    }

    static std::vector<uint32_t> ifx_order()
    {
        std::vector<uint32_t> out;
        for (rb_node *n = vsd()->subif_by_ifx.leftmost; n != nullptr; n = rb_next(n))
            out.push_back(ef_container_of(n, vxlan_ef_subif_t, ifx_node)->ifx);
        return out;
    }
};

TEST_F(SubifTableTest, SecondSubInterfaceWithTheSameMainKeyRemovesTheFirst)
{
    start_tables();
    deliver_tlvs({set_entry(10), subif(1, 50, 10, 100, 200)});
    EXPECT_EQ(run_table({subif(2, 50, 10, 100, 200)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_deal] try to add sub-intf: (ifx 2, vni 10, main-ifx 50, svid 100, cvid 200)\n"}));
    EXPECT_EQ(by_ifx(1), nullptr);
    ASSERT_NE(by_ifx(2), nullptr);
    EXPECT_EQ(vxlan_ef_subif_lookup_by_mainifx(vsd(), 50, 100, 200), by_ifx(2));
    EXPECT_EQ(vsd()->subif_by_ifx.count, 1u);
    EXPECT_EQ(vsd()->subif_by_mifx.count, 1u);
    EXPECT_EQ(subif_ifxs(entry(10)), (std::vector<uint32_t>{2}));
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_SUBIF], 1u);
}

TEST_F(SubifTableTest, KeyChangeOntoAnotherRecordsKeyRemovesThatRecord)
{
    start_tables();
    deliver_tlvs({set_entry(10), subif(1, 50, 10, 100, 0), subif(2, 50, 10, 101, 0)});
    deliver_tlvs({subif(2, 50, 10, 100, 0)});
    EXPECT_EQ(by_ifx(1), nullptr);
    EXPECT_EQ(vxlan_ef_subif_lookup_by_mainifx(vsd(), 50, 100, 0), by_ifx(2));
    EXPECT_EQ(vxlan_ef_subif_lookup_by_mainifx(vsd(), 50, 101, 0), nullptr);
    EXPECT_EQ(vsd()->subif_by_mifx.count, 1u);
    EXPECT_EQ(subif_ifxs(entry(10)), (std::vector<uint32_t>{2}));
}

TEST_F(SubifTableTest, NewVniAloneMovesTheRecordBetweenEntryListsWithoutTouchingTheTrees)
{
    start_tables();
    deliver_tlvs({set_entry(10), set_entry(20), subif(1, 50, 10, 100, 0), subif(2, 50, 10, 101, 0),
                  subif(3, 51, 20, 100, 0)});
    vxlan_ef_subif_t *s = by_ifx(1);
    const auto ifx_shape = shape(vsd()->subif_by_ifx);
    const auto mifx_shape = shape(vsd()->subif_by_mifx);
    s->dirty = 1;
    deliver_tlvs({subif(1, 50, 20, 100, 0)});
    EXPECT_EQ(by_ifx(1), s);
    EXPECT_EQ(s->vni, 20u);
    EXPECT_EQ(s->dirty, 0);
    EXPECT_EQ(shape(vsd()->subif_by_ifx), ifx_shape);
    EXPECT_EQ(shape(vsd()->subif_by_mifx), mifx_shape);
    EXPECT_EQ(subif_ifxs(entry(10)), (std::vector<uint32_t>{2}));
    EXPECT_EQ(subif_ifxs(entry(20)), (std::vector<uint32_t>{3, 1}));
}

TEST_F(SubifTableTest, SubInterfaceAddedBeforeItsEntryStaysOutOfTheFloodingList)
{
    start_tables();
    deliver_tlvs({subif(1, 50, 30, 100, 0), set_entry(30), subif(1, 50, 30, 100, 0)});
    ASSERT_NE(by_ifx(1), nullptr);
    EXPECT_EQ(by_ifx(1)->vni, 30u);
    EXPECT_TRUE(subif_ifxs(entry(30)).empty());
    EXPECT_EQ(by_ifx(1)->vni_node.next, &by_ifx(1)->vni_node);
    // A key change with the same VNI leaves it out too; a VNI change links it.
    deliver_tlvs({subif(1, 50, 30, 200, 0)});
    EXPECT_TRUE(subif_ifxs(entry(30)).empty());
    deliver_tlvs({set_entry(31), subif(1, 50, 31, 200, 0), subif(1, 50, 30, 200, 0)});
    EXPECT_EQ(subif_ifxs(entry(30)), (std::vector<uint32_t>{1}));
}

TEST_F(SubifTableTest, WalkIsInAscendingSubInterfaceOrderWithLeftmostKept)
{
    start_tables();
    deliver_tlvs({subif(5, 50, 10, 5, 0), subif(2, 50, 10, 2, 0), subif(9, 50, 10, 9, 0), subif(1, 50, 10, 1, 0)});
    EXPECT_EQ(ifx_order(), (std::vector<uint32_t>{1, 2, 5, 9}));
    EXPECT_EQ(vsd()->subif_by_ifx.leftmost, rb_first(&vsd()->subif_by_ifx.root));
    EXPECT_EQ(vsd()->subif_by_mifx.leftmost, &by_ifx(1)->mifx_node);
    deliver_tlvs({subif(1, 0, 0, 0, 0, 0)});
    EXPECT_EQ(ifx_order(), (std::vector<uint32_t>{2, 5, 9}));
    EXPECT_EQ(vsd()->subif_by_ifx.leftmost, &by_ifx(2)->ifx_node);
    EXPECT_EQ(vsd()->subif_by_mifx.leftmost, &by_ifx(2)->mifx_node);
    // A key change to the lowest main key makes it the leftmost of the second tree.
    deliver_tlvs({subif(9, 49, 10, 9, 0)});
    EXPECT_EQ(vsd()->subif_by_mifx.leftmost, &by_ifx(9)->mifx_node);
}

TEST_F(SubifTableTest, KeysMoreThanHalfTheRangeApartOrderTheOtherWayAbout)
{
    start_tables();
    deliver_tlvs({subif(1, 50, 10, 1, 0), subif(0x90000000u, 50, 10, 2, 0)});
    EXPECT_EQ(ifx_order(), (std::vector<uint32_t>{0x90000000u, 1}));
    vxlan_ef_subif_t a{};
    vxlan_ef_subif_t b{};
    a.ifx = 1;
    b.ifx = 0x90000000u;
    EXPECT_EQ(vxlan_ef_subif_compare(&a, &b, VXLAN_EF_SUBIF_BY_IFX), 1);
    EXPECT_EQ(vxlan_ef_subif_compare(&b, &a, VXLAN_EF_SUBIF_BY_IFX), -1);
    b.ifx = 1;
    EXPECT_EQ(vxlan_ef_subif_compare(&a, &b, VXLAN_EF_SUBIF_BY_IFX), 0);
    a.main_ifx = 7;
    b.main_ifx = 7;
    a.svid = 3;
    b.svid = 3;
    a.cvid = 1;
    b.cvid = 2;
    EXPECT_EQ(vxlan_ef_subif_compare(&a, &b, VXLAN_EF_SUBIF_BY_MIFX), -1);
    a.svid = 4;
    EXPECT_EQ(vxlan_ef_subif_compare(&a, &b, VXLAN_EF_SUBIF_BY_MIFX), 1);
    a.main_ifx = 0x80000008u;
    EXPECT_EQ(vxlan_ef_subif_compare(&a, &b, VXLAN_EF_SUBIF_BY_MIFX), -1);
    EXPECT_EQ(vsd()->subif_by_ifx.cmp, vxlan_ef_subif_compare);
    EXPECT_EQ(vsd()->subif_by_mifx.cmp, vxlan_ef_subif_compare);
}

TEST_F(SubifTableTest, ChecksFindByEitherKeyAndLogTheirResult)
{
    start_tables();
    deliver_tlvs({subif(7, 50, 10, 100, 200)});
    take_logs();
    uint32_t main_ifx = 0, vni = 0, ifx = 0;
    uint16_t svid = 0, cvid = 0;
    EXPECT_EQ(vxlan_ef_subif_check(7, &main_ifx, &svid, &cvid, &vni), 1);
    EXPECT_EQ(main_ifx, 50u);
    EXPECT_EQ(svid, 100);
    EXPECT_EQ(cvid, 200);
    EXPECT_EQ(vni, 10u);
    EXPECT_EQ(vxlan_ef_subif_check(8, &main_ifx, &svid, &cvid, &vni), 0);
    EXPECT_EQ(vxlan_ef_subif_check_by_mifx_vid(50, 100, 200, &ifx, &vni), 1);
    EXPECT_EQ(ifx, 7u);
    EXPECT_EQ(vxlan_ef_subif_check_by_mifx_vid(50, 100, 201, &ifx, &vni), 0);
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_check] Success to find subif(7): mifx 50, svid 100, cvid 200, vni: 10.\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_check] Fail to find subif(8).\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_check_by_mifx_vid] Success to find subif(7): mifx 50, svid 100, cvid 200, vni: 10.\n",
                     "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_check_by_mifx_vid] Fail to find subif(mifx 50, svid 100, cvid 201).\n"}));
}

TEST_F(SubifTableTest, DeleteRemovesFromBothTreesAndUnknownDeleteDoesNothing)
{
    start_tables();
    deliver_tlvs({set_entry(10), subif(7, 50, 10, 100, 200), subif(8, 50, 10, 100, 201)});
    EXPECT_EQ(run_table({subif(9, 1, 2, 3, 4, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_deal] try to delete sub-intf: (ifx 9, vni 2, main-ifx 1, svid 3, cvid 4)\n"}));
    EXPECT_EQ(vsd()->subif_by_ifx.count, 2u);
    deliver_tlvs({subif(7, 0, 0, 0, 0, 0)});
    EXPECT_EQ(by_ifx(7), nullptr);
    EXPECT_EQ(vxlan_ef_subif_lookup_by_mainifx(vsd(), 50, 100, 200), nullptr);
    EXPECT_EQ(vsd()->subif_by_ifx.count, 1u);
    EXPECT_EQ(vsd()->subif_by_mifx.count, 1u);
    EXPECT_EQ(subif_ifxs(entry(10)), (std::vector<uint32_t>{8}));
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_SUBIF], 1u);
    take_logs();
    vxlan_ef_subif_deal(3, nullptr);
    EXPECT_EQ(take_logs(), (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_subif_deal] args == NULL.\n"}));
}

TEST_F(SubifTableTest, FailedAllocationIsLoggedAndLeavesTheTableAsItWas)
{
    start_tables();
    const Tlv msg = subif(7, 50, 10, 100, 200);
    efrt::mem_fail_nth(1);
    vxlan_ef_subif_deal(3, msg.value.data());
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_deal] try to add sub-intf: (ifx 7, vni 10, main-ifx 50, svid 100, cvid 200)\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_subif_alloc] kmalloc sub-intf memory failed, sub_ifx: 7\n"}));
    EXPECT_EQ(vsd()->subif_by_ifx.count, 0u);
    EXPECT_EQ(vsd()->subif_by_ifx.root.rb_node, nullptr);
}

}  // namespace
