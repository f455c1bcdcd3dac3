// The VRF table: set, repeated set, unset, signed ids and their buckets, and
// a failed allocation.
#include "table_fixture.h"
#include "vxlan_ef_tables.h"

namespace {

using Lines = std::vector<std::string>;
using namespace vxtest;

class VrfTableTest : public TableTest {};

TEST_F(VrfTableTest, SettingTwiceKeepsOneRecordWithTheSecondValues)
{
    start_tables();
    EXPECT_EQ(run_table({set_vrf(5, 1000, 40)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_vrf_deal] try to set vrf, vrf id: 5, oper: set\n"}));
    vxlan_ef_vrf_t *v = vxlan_ef_vrf_get(vsd(), 5);
    ASSERT_NE(v, nullptr);
    v->dirty = 1;
    deliver_tlvs({set_vrf(5, 2000, 41)});
    EXPECT_EQ(vxlan_ef_vrf_get(vsd(), 5), v);
    EXPECT_EQ(v->l3vni, 2000u);
    EXPECT_EQ(v->l3ifx, 41u);
    EXPECT_EQ(v->dirty, 0);
    EXPECT_EQ(vsd()->vrf_count, 1u);
    EXPECT_EQ(list_size(&vsd()->vrf_list), 1u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VRF], 1u);
}

TEST_F(VrfTableTest, UnsettingAnUnknownVrfLogsAndChangesNothing)
{
    start_tables();
    deliver_tlvs({set_vrf(5, 1000, 40)});
    EXPECT_EQ(run_table({set_vrf(6, 0, 0, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_vrf_deal] try to set vrf, vrf id: 6, oper: unset\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_vrf_deal] vrf is not exist.\n"}));
    EXPECT_EQ(vsd()->vrf_count, 1u);
    ASSERT_NE(vxlan_ef_vrf_get(vsd(), 5), nullptr);
    EXPECT_EQ(vxlan_ef_vrf_get(vsd(), 5)->l3vni, 1000u);

    EXPECT_EQ(run_table({set_vrf(5, 0, 0, 0)}),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_vrf_deal] try to set vrf, vrf id: 5, oper: unset\n"}));
    EXPECT_EQ(vxlan_ef_vrf_get(vsd(), 5), nullptr);
    EXPECT_EQ(vsd()->vrf_count, 0u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VRF], 0u);
}

TEST_F(VrfTableTest, NegativeIdsAreStoredAndShownSignedInTheBucketOfTheirLowNineBits)
{
    start_tables();
    add_intf(40, 32, "Vlanif40");
    deliver_tlvs({set_vrf(-1, 1000, 40), set_vrf(511, 2000, 0), set_vrf(-513, 3000, 0)});
    vxlan_ef_vrf_t *minus_one = vxlan_ef_vrf_get(vsd(), -1);
    ASSERT_NE(minus_one, nullptr);
    EXPECT_EQ(minus_one->vrf_id, -1);
    // -1, 511 and -513 share bucket 0x1FF, in creation order.
    const list_head *bucket = &vsd()->vrf_hash[0x1FF];
    EXPECT_EQ(list_size(bucket), 3u);
    EXPECT_EQ(bucket->next, &minus_one->hash_node);
    EXPECT_EQ(vxlan_ef_vrf_get(vsd(), -513)->l3vni, 3000u);
    EXPECT_EQ(vxlan_ef_vrf_get(vsd(), 511)->l3vni, 2000u);
    EXPECT_EQ(show_text(5), (Lines{"Total VRF Count: 3\n", "VRF ID   L3VNI    L3IFX               \n",
                                   "-------- -------- --------------------\n", "-1       1000     Vlanif40\n",
                                   "511      2000     \n", "-513     3000     \n"}));
}

TEST_F(VrfTableTest, FailedAllocationLogsBothLinesAndAddsNothing)
{
    start_tables();
    const Tlv msg = set_vrf(-7, 1, 2);
    efrt::mem_fail_nth(1);
    vxlan_ef_set_vrf_deal(3, msg.value.data());
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_set_vrf_deal] try to set vrf, vrf id: -7, oper: set\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_vrf_alloc] kmalloc vrf memory failed, vrf id: -7\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_vrf_deal] Fail to alloc vrf memory.\n"}));
    EXPECT_EQ(vsd()->vrf_count, 0u);
    vxlan_ef_set_vrf_deal(3, nullptr);
    EXPECT_EQ(take_logs(), (Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_set_vrf_deal] args == NULL.\n"}));
}

}  // namespace
