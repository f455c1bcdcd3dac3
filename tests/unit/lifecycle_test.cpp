// Start-up, shut-down, the instance id, the task and memory accounting.
#include "module_fixture.h"
#include "vxlan_ef_tables.h"

using vxtest::ModuleTest;

TEST_F(ModuleTest, StartWithoutVsdidUsesIdMinusOneInEveryLogLine)
{
    start(nullptr);
    EXPECT_EQ(g_vxlan_vsd->id, -1);
    set_mask(VXLAN_EF_DBG_EVENT);
    ASSERT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, true), 0);
    EXPECT_EQ(logs(), std::vector<std::string>{
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_com_connect] Connect to VXLAN EF success.\n"});
}

TEST_F(ModuleTest, StartWithVsdidThreeUsesIdThree)
{
    start("3");
    EXPECT_EQ(g_vxlan_vsd->id, 3);
}

TEST_F(ModuleTest, KmallocWithTypeEightReturnsNullWithoutAllocating)
{
    uint64_t before = efrt::mem_alloc_attempts();
    EXPECT_EQ(vxlan_ef_kmalloc(8, 16, 0), nullptr);
    EXPECT_EQ(efrt::mem_alloc_attempts(), before);
}

TEST_F(ModuleTest, WithoutVsdidDispatchAndSendLinesPrintIdMinusOne)
{
    start(nullptr);
    deliver_tlvs({vxtest::ef_dbg(VXLAN_EF_DBG_EVENT)});
    take_logs();
    deliver_tlvs({{0, {}}});
    EXPECT_EQ(logs(), (std::vector<std::string>{
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_msg_read] Recv data module_id 31, len 8.\n",
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_msg_task] Dispatch message, length: 8.\n",
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_msg_deal] Msg info, ver: 01, len: 8, tlv_num: 1\n",
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_tlv_parse] recv tlv, t: SYNC_DATA_REQ, l: 0\n",
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_msg_send] send tlv to vxlan_ef, t: SYNC_DATA_REQ, l: 0, ctrl: 0\n",
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_msg_write] send msg to user, pid: 0\n",
                          "VXLAN-EF-EVENT: [vsd -1 vxlan_ef_msg_write] send msg to user ok, pid: 0, ver: 1, len: 8, tlv_num: 1\n",
                      }));
}

TEST_F(ModuleTest, StartCreatesRecordChannelAndArmedTask)
{
    start("3");
    const vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    EXPECT_EQ(vsd->udp_port, 4789);
    EXPECT_EQ(vsd->debug_mask, 0);
    EXPECT_EQ(vsd->flags, 0u);
    EXPECT_EQ(vsd->rtime_buf.data[0], 1);
    EXPECT_EQ(vxtest::msg_len(std::vector<uint8_t>(vsd->rtime_buf.data, vsd->rtime_buf.data + 4)), 4);
    EXPECT_EQ(vsd->rtime_buf.data[3], 0);
    EXPECT_EQ(vsd->batch_buf.data[0], 1);
    EXPECT_EQ(vxtest::msg_len(std::vector<uint8_t>(vsd->batch_buf.data, vsd->batch_buf.data + 4)), 4);
    EXPECT_EQ(vsd->batch_buf.data[3], 0);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VSD], 1u);
    EXPECT_TRUE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
    const auto tasks = efrt::tasks();
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].handle, vxlan_ef_thread);
    EXPECT_EQ(tasks[0].name, "vxlan_ef_task");
    EXPECT_TRUE(tasks[0].armed);
    EXPECT_EQ(tasks[0].mode, 1);
    EXPECT_EQ(tasks[0].due_ms, efrt::clock_now_ms() + 100);
}

TEST_F(ModuleTest, TaskRunWithEventBitClearDispatchesNothingButReplacesAndRearmsTask)
{
    start();
    void *first = vxlan_ef_thread;
    ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{28, {1}}})), 0);
    g_vxlan_ef_eve = 0;
    efrt::clock_advance(100);

    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 1u);
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 0);
    const auto tasks = efrt::tasks();
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_NE(tasks[0].handle, first);
    EXPECT_EQ(tasks[0].handle, vxlan_ef_thread);
    EXPECT_EQ(tasks[0].name, "vxlan_ef_task");
    EXPECT_TRUE(tasks[0].armed);
    EXPECT_EQ(tasks[0].mode, 1);
    EXPECT_EQ(tasks[0].due_ms, efrt::clock_now_ms() + 100);

    // Once the bit is raised again the next run drains the waiting message.
    g_vxlan_ef_eve |= 1;
    efrt::clock_advance(100);
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 1);
    EXPECT_EQ(g_vxlan_ef_eve & 1u, 0u);
}

TEST_F(ModuleTest, ExitRemovesChannelAndRecordAndLeavesTaskRearmingItself)
{
    start();
    vxlan_ef_exit();
    EXPECT_EQ(g_vxlan_vsd, nullptr);
    EXPECT_FALSE(efrt::msg_registered(EF_MSG_MODULE_VXLAN));
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VSD], 0u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 0);
    ASSERT_EQ(efrt::tasks().size(), 1u);

    g_vxlan_ef_eve |= 1;
    efrt::clock_advance(100);
    const auto tasks = efrt::tasks();
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_TRUE(tasks[0].armed);
    EXPECT_TRUE(logs().empty());
}

TEST_F(ModuleTest, TableLookupsGivenTheInstancePointerAfterExitFindNothing)
{
    start();
    set_mask(0xFFFF);
    vxlan_ef_exit();
    take_logs();
    // Callers pass the instance they hold; after exit that is null.
    vxlan_ef_vsd_t *none = g_vxlan_vsd;
    EXPECT_EQ(vxlan_ef_entry_get(none, 100), nullptr);
    EXPECT_EQ(vxlan_ef_manage_vxlan_get(none, 100), nullptr);
    EXPECT_EQ(vxlan_ef_intf_get(none, 101, LSM_IF_TYPE_OVERLAY_TUNNEL), nullptr);
    EXPECT_EQ(vxlan_ef_intf_get(none, 102, LSM_IF_TYPE_OVERLAY_ROUTER), nullptr);
    EXPECT_EQ(vxlan_ef_intf_is_outside_center(none, 101), 0);
    EXPECT_EQ(vxlan_ef_check_tnl_mac_learn(none, 101), 0);
    EXPECT_EQ(vxlan_ef_check_tnl_route_learn(none, 101), 0);
    EXPECT_EQ(vxlan_ef_vrf_get(none, 1), nullptr);
    EXPECT_EQ(vxlan_ef_subif_lookup_by_subifx(none, 7), nullptr);
    EXPECT_EQ(vxlan_ef_subif_lookup_by_mainifx(none, 11, 10, 0), nullptr);
    const std::vector<uint8_t> subif = vxtest::bytes({7, 0, 0, 0, 11, 0, 0, 0, 100, 0, 0, 0,
                                                      10, 0, 0, 0, 0, 1});
    EXPECT_EQ(vxlan_ef_subif_update(none, subif.data()), -1);
    EXPECT_EQ(vxlan_ef_subif_delete(none, 7), -1);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_SUBIF], 0u);
    EXPECT_TRUE(logs().empty());
}

TEST_F(ModuleTest, KmallocAndKfreeCountLiveBlocksPerCategory)
{
    void *a = vxlan_ef_kmalloc(VXLAN_EF_MEM_ENTRY, 32, 0);
    void *b = vxlan_ef_kmalloc(VXLAN_EF_MEM_ENTRY, 16, 0);
    void *c = vxlan_ef_kmalloc(VXLAN_EF_MEM_VRF, 8, 0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], 2u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VRF], 1u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 3);
    EXPECT_EQ(efrt::mem_live_bytes(VXLAN_EF_EF_MEM_TYPE), 56);

    vxlan_ef_kfree(VXLAN_EF_MEM_ENTRY, a);
    vxlan_ef_kfree(VXLAN_EF_MEM_VRF, c);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], 1u);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_VRF], 0u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 1);

    // A category above 7 frees nothing and counts nothing.
    vxlan_ef_kfree(8, b);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 1);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ENTRY], 1u);
    vxlan_ef_kfree(VXLAN_EF_MEM_ENTRY, b);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 0);
}

TEST_F(ModuleTest, FailedKmallocCountsNothing)
{
    efrt::mem_fail_nth(1);
    EXPECT_EQ(vxlan_ef_kmalloc(VXLAN_EF_MEM_ADJ, 8, 0), nullptr);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_ADJ], 0u);
}
