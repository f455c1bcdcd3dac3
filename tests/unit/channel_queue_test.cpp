// The channel side of the module: registration, the connection callback, the
// receive callback with its allocation failures, and the inbound queue,
// including one thread filling it while another drains it.
#include <atomic>
#include <thread>

#include "module_fixture.h"

namespace {

class ChannelQueueTest : public vxtest::ModuleTest {};

using Lines = std::vector<std::string>;
using vxtest::bytes;

vxlan_ef_msg_node_t *poison_next() { return reinterpret_cast<vxlan_ef_msg_node_t *>(0x100100); }
vxlan_ef_msg_node_t *poison_prev() { return reinterpret_cast<vxlan_ef_msg_node_t *>(0x200200); }

TEST_F(ChannelQueueTest, ComInitRegistersModule31WithReceiveNullAndConnectCallbacks)
{
    start();
    ASSERT_TRUE(efrt::msg_registered(31));
    const ef_msg_callbacks_t cbs = efrt::msg_callbacks(31);
    EXPECT_EQ(cbs.recv, &vxlan_ef_msg_read);
    EXPECT_EQ(cbs.reserved, nullptr);
    EXPECT_EQ(cbs.connect, &vxlan_ef_com_connect);
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(g_vxlan_ef_msg_queue.head.next, &g_vxlan_ef_msg_queue.head);
    EXPECT_EQ(g_vxlan_ef_msg_queue.head.prev, &g_vxlan_ef_msg_queue.head);
}

TEST_F(ChannelQueueTest, MessageReceivedWithoutInstanceIsNeitherQueuedNorLogged)
{
    ASSERT_EQ(vxlan_ef_com_init(), 0);
    const uint64_t attempts = efrt::mem_alloc_attempts();
    EXPECT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{28, {1}}})), 0);
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(g_vxlan_ef_msg_queue.head.next, &g_vxlan_ef_msg_queue.head);
    EXPECT_EQ(g_vxlan_ef_eve, 0u);
    EXPECT_EQ(efrt::mem_alloc_attempts(), attempts);
    EXPECT_EQ(logs(), Lines{});
    vxlan_ef_com_exit();
}

TEST_F(ChannelQueueTest, NullEnvelopeIsDroppedSilently)
{
    start();
    set_mask(0xFFFF);
    EXPECT_EQ(efrt::msg_deliver_envelope(EF_MSG_MODULE_VXLAN, nullptr), 0);
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(g_vxlan_ef_eve, 0u);
    EXPECT_EQ(logs(), Lines{});
}

TEST_F(ChannelQueueTest, ReceivedMessageIsCopiedIntoQueuedNodeAndRaisesEventBit)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    const std::vector<uint8_t> msg = vxtest::make_msg({{28, {2}}});
    EXPECT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, msg), 0);
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_read] Recv data module_id 31, len 9.\n"});
    EXPECT_EQ(g_vxlan_ef_eve & 1u, 1u);
    ASSERT_EQ(g_vxlan_ef_msg_queue.count, 1u);
    vxlan_ef_msg_node_t *node = g_vxlan_ef_msg_queue.head.next;
    EXPECT_EQ(node->next, &g_vxlan_ef_msg_queue.head);
    EXPECT_EQ(node->prev, &g_vxlan_ef_msg_queue.head);
    EXPECT_EQ(node->vsd_id, 3u);
    EXPECT_EQ(node->length, 9u);
    EXPECT_EQ(std::vector<uint8_t>(node->data, node->data + node->length), msg);
    // The node and the copy are two blocks of class 5 beside the record.
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live + 2);
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_MSG], 2u);
}

TEST_F(ChannelQueueTest, ModuleIdIsLoggedNotChecked)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    auto *env = static_cast<ef_msg_t *>(std::calloc(1, EF_MSG_HDR_LEN + 9));
    env->module_id = 7;
    env->len = 9;
    const std::vector<uint8_t> msg = vxtest::make_msg({{28, {1}}});
    std::memcpy(env->data, msg.data(), msg.size());
    EXPECT_EQ(efrt::msg_deliver_envelope(EF_MSG_MODULE_VXLAN, env), 0);
    std::free(env);
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_read] Recv data module_id 7, len 9.\n"});
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 1u);
}

TEST_F(ChannelQueueTest, NodeAllocationFailureLogsTwoErrorLinesAndDropsMessage)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    efrt::mem_fail_nth(1);
    EXPECT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{28, {1}}})), 0);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_node_alloc] failed to alloc memory for msg node\n",
                          "VXLAN-EF-ERR: [vsd 0 vxlan_ef_msg_read] Alloc client msg node failed\n",
                      }));
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(g_vxlan_ef_eve, 0u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live);
}

TEST_F(ChannelQueueTest, PayloadCopyFailureLogsSkbKmallocErrorAndFreesNode)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    efrt::mem_fail_nth(2);
    EXPECT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{28, {1}}})), 0);
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-ERR: [vsd 0 vxlan_ef_msg_read] skb kmalloc error\n"});
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(g_vxlan_ef_eve, 0u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live);
}

TEST_F(ChannelQueueTest, AllocationFailuresAreSilentWithErrorBitClear)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    efrt::mem_fail_nth(1);
    EXPECT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{28, {1}}})), 0);
    efrt::mem_fail_nth(2);
    EXPECT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{28, {1}}})), 0);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_read] Recv data module_id 31, len 9.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_read] Recv data module_id 31, len 9.\n",
                      }));
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
}

TEST_F(ChannelQueueTest, DequeueOfEmptyQueueReturnsNull)
{
    vxlan_ef_msg_queue_t queue;
    vxlan_ef_msg_queue_init(&queue);
    EXPECT_EQ(queue.head.next, &queue.head);
    EXPECT_EQ(queue.head.prev, &queue.head);
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(vxlan_ef_msg_dequeue(&queue), nullptr);
    EXPECT_EQ(queue.count, 0u);
}

TEST_F(ChannelQueueTest, ThreeAppendsDequeueInArrivalOrderAndLeaveCountZero)
{
    vxlan_ef_msg_queue_t queue;
    vxlan_ef_msg_queue_init(&queue);
    vxlan_ef_msg_node_t nodes[3] = {};
    for (vxlan_ef_msg_node_t &n : nodes)
        vxlan_ef_msg_inqueue(&queue, &n);
    EXPECT_EQ(queue.count, 3u);
    EXPECT_EQ(queue.head.next, &nodes[0]);
    EXPECT_EQ(queue.head.prev, &nodes[2]);
    EXPECT_EQ(vxlan_ef_msg_dequeue(&queue), &nodes[0]);
    EXPECT_EQ(vxlan_ef_msg_dequeue(&queue), &nodes[1]);
    EXPECT_EQ(vxlan_ef_msg_dequeue(&queue), &nodes[2]);
    EXPECT_EQ(queue.count, 0u);
    EXPECT_EQ(vxlan_ef_msg_dequeue(&queue), nullptr);
    EXPECT_EQ(queue.head.next, &queue.head);
    EXPECT_EQ(queue.head.prev, &queue.head);
}

TEST_F(ChannelQueueTest, DequeuedNodeLinksHoldPoisonValues)
{
    vxlan_ef_msg_queue_t queue;
    vxlan_ef_msg_queue_init(&queue);
    vxlan_ef_msg_node_t a = {};
    vxlan_ef_msg_node_t b = {};
    vxlan_ef_msg_inqueue(&queue, &a);
    vxlan_ef_msg_inqueue(&queue, &b);
    ASSERT_EQ(vxlan_ef_msg_dequeue(&queue), &a);
    EXPECT_EQ(a.next, poison_next());
    EXPECT_EQ(a.prev, poison_prev());
    // The remaining node is relinked to the head both ways.
    EXPECT_EQ(queue.head.next, &b);
    EXPECT_EQ(b.prev, &queue.head);
    EXPECT_EQ(b.next, &queue.head);
}

TEST_F(ChannelQueueTest, ExitWithQueuedMessagesFreesEveryNodeAndItsData)
{
    start();
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{28, {1}}})), 0);
    ASSERT_EQ(g_vxlan_ef_msg_queue.count, 3u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live + 6);
    vxlan_ef_exit();
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), 0);
    EXPECT_EQ(efrt::mem_live_bytes(VXLAN_EF_EF_MEM_TYPE), 0);
    // Channel messages are freed past the accounting: class 5 only grows.
    EXPECT_EQ(g_vxlan_ef_kmem_count[VXLAN_EF_MEM_MSG], 6u);
}

TEST_F(ChannelQueueTest, ConnectSetsConnectedBitAndDisconnectClearsIt)
{
    start();
    set_mask(VXLAN_EF_DBG_EVENT);
    EXPECT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, true), 0);
    EXPECT_EQ(g_vxlan_vsd->flags & VXLAN_EF_F_NL_CONN, VXLAN_EF_F_NL_CONN);
    g_vxlan_vsd->flags |= VXLAN_EF_F_SYNC_END;
    EXPECT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, false), 0);
    EXPECT_EQ(g_vxlan_vsd->flags, VXLAN_EF_F_SYNC_END);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_com_connect] Connect to VXLAN EF success.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_com_connect] Connect to VXLAN EF failed.\n",
                      }));
}

TEST_F(ChannelQueueTest, ConnectWithNegativeByteCountsAsConnected)
{
    start();
    EXPECT_EQ(vxlan_ef_com_connect(nullptr, -1), 0);
    EXPECT_EQ(g_vxlan_vsd->flags, VXLAN_EF_F_NL_CONN);
}

TEST_F(ChannelQueueTest, ConnectWithoutInstanceReturnsMinusOne)
{
    EXPECT_EQ(vxlan_ef_com_connect(nullptr, 1), -1);
    EXPECT_EQ(vxlan_ef_com_connect(nullptr, 0), -1);
}

// The channel thread receives while the module's dispatcher drains the queue
// on another thread: every message must be dispatched once, in order.
TEST_F(ChannelQueueTest, ConcurrentReceiveAndDispatchLoseNoMessageAndKeepOrder)
{
    constexpr int kMessages = 2000;
    constexpr int kFirstType = 1000;
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);

    std::atomic<bool> filled{false};
    std::atomic<int> failures{0};
    std::thread channel([&] {
        for (int i = 0; i < kMessages; ++i) {
            const auto msg = vxtest::make_msg({{static_cast<uint16_t>(kFirstType + i), {}}});
            if (efrt::msg_deliver(EF_MSG_MODULE_VXLAN, msg) != 0)
                failures++;
        }
        filled = true;
    });
    while (!filled.load()) {
        vxlan_ef_msg_task();
        std::this_thread::yield();
    }
    channel.join();
    vxlan_ef_msg_task();

    EXPECT_EQ(failures.load(), 0);
    Lines expected;
    for (int i = 0; i < kMessages; ++i)
        expected.push_back("VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: " +
                           std::to_string(kFirstType + i) + ", l: 0\n");
    EXPECT_EQ(logs(), expected);
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(g_vxlan_ef_msg_queue.head.next, &g_vxlan_ef_msg_queue.head);
    EXPECT_EQ(g_vxlan_ef_msg_queue.head.prev, &g_vxlan_ef_msg_queue.head);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live);
}

}  // namespace
