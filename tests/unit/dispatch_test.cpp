// Inbound dispatch: draining the queue, the received-length check, the
// synchronisation markers and their replies, show and control requests.
#include "module_fixture.h"

namespace {

class DispatchTest : public vxtest::ModuleTest {
protected:
    void start_logging(uint16_t mask = VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR)
    {
        start();
        deliver_tlvs({vxtest::ef_dbg(mask)});
        take_logs();
        efrt::msg_take_sent();
    }
};

using Lines = std::vector<std::string>;
using vxtest::bytes;

std::vector<uint8_t> show_value(uint16_t id, uint32_t vni = 0)
{
    std::vector<uint8_t> v(8);
    vxtest::put(v, 0, id);
    vxtest::put(v, 4, vni);
    return v;
}

TEST_F(DispatchTest, EmptyQueueReturnsAtOnceWithZero)
{
    start();
    set_mask(0xFFFF);
    EXPECT_EQ(vxlan_ef_msg_task(), 0);
    EXPECT_EQ(logs(), Lines{});
    EXPECT_TRUE(efrt::msg_sent().empty());
}

TEST_F(DispatchTest, NodeOfThreeBytesIsReportedAsLengthErrorAndFreed)
{
    start_logging();
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, bytes({1, 3, 0})), 0);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live + 2);
    efrt::clock_advance(100);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_read] Recv data module_id 31, len 3.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_task] Dispatch message, length: 3.\n",
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_task] Dispatch message length error, len: 3\n",
                      }));
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live);
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
}

TEST_F(DispatchTest, HeaderOf8196WithExactTlvsIsAcceptedWhateverNumberOfBytesReceived)
{
    start_logging(VXLAN_EF_DBG_ERR);
    // One SET_SUPPRESS_ARP whose 8188-byte value fills the message.
    std::vector<uint8_t> full = vxtest::make_msg({{28, std::vector<uint8_t>(8188, 0)}});
    ASSERT_EQ(vxtest::msg_len(full), 8196);
    full[8] = 5;

    // Fewer bytes than the header says.
    deliver(std::vector<uint8_t>(full.begin(), full.begin() + 100));
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 5);

    // More bytes than the header says.
    full[8] = 6;
    std::vector<uint8_t> longer = full;
    longer.resize(full.size() + 50, 0xEE);
    deliver(longer);
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 6);
    EXPECT_EQ(logs(), Lines{});
}

TEST_F(DispatchTest, SyncDataReqIsAnsweredWithOneMessageHoldingOneEmptyTlvOfTypeZero)
{
    start_logging(0);
    deliver_tlvs({{0, {}}});
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].module_id, 31u);
    EXPECT_EQ(sent[0].len, 8u);
    EXPECT_EQ(sent[0].payload, bytes({1, 8, 0, 1, 0, 0, 0, 0}));
}

TEST_F(DispatchTest, SyncDataReqWithAValueIsAnsweredWithoutIt)
{
    start_logging(0);
    deliver_tlvs({{0, {9, 9, 9}}});
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, bytes({1, 8, 0, 1, 0, 0, 0, 0}));
}

TEST_F(DispatchTest, SyncDataBeginSetsSynchronisingFlag)
{
    start_logging(0);
    deliver_tlvs({{1, {}}});
    EXPECT_EQ(g_vxlan_vsd->flags, VXLAN_EF_F_SYNC_START);
    EXPECT_TRUE(efrt::msg_sent().empty());
}

TEST_F(DispatchTest, SyncDataOverClearsSynchronisingSetsDataReadyAndSendsDataReady)
{
    start_logging();
    deliver_tlvs({{1, {}}});
    take_logs();
    deliver_tlvs({{2, {}}});
    EXPECT_EQ(g_vxlan_vsd->flags & (VXLAN_EF_F_SYNC_START | VXLAN_EF_F_SYNC_END), VXLAN_EF_F_SYNC_END);
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].module_id, 31u);
    EXPECT_EQ(sent[0].payload, bytes({1, 8, 0, 1, 68, 0, 0, 0}));
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_read] Recv data module_id 31, len 8.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_task] Dispatch message, length: 8.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_deal] Msg info, ver: 01, len: 8, tlv_num: 1\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tlv_parse] recv tlv, t: SYNC_DATA_OVER, l: 0\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_intf_sync_end] sync end, try to clear dirty data in tunnel table\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_entry_sync_end] sync end, try to clear dirty data in entry table\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_vrf_sync_end] sync end, try to clear dirty data in vrf table\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_subif_sync_end] sync end, try to clear dirty node in subif table\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_send] send tlv to vxlan_ef, t: EF_DATA_READY, l: 0, ctrl: 0\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user, pid: 0\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user ok, pid: 0, ver: 1, len: 8, tlv_num: 1\n",
                      }));
    // The data-ready flag stays through a later resynchronisation.
    deliver_tlvs({{1, {}}});
    EXPECT_EQ(g_vxlan_vsd->flags & (VXLAN_EF_F_SYNC_START | VXLAN_EF_F_SYNC_END),
              VXLAN_EF_F_SYNC_START | VXLAN_EF_F_SYNC_END);
}

TEST_F(DispatchTest, EfShowWithIdTwoLogsUnknownShowId)
{
    start_logging(VXLAN_EF_DBG_ERR);
    deliver_tlvs({{65, show_value(2)}});
    deliver_tlvs({{65, show_value(0)}});
    deliver_tlvs({{65, show_value(0xABCD)}});
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_show_deal] unknown show id: 0x2\n",
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_show_deal] unknown show id: 0x0\n",
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_show_deal] unknown show id: 0xABCD\n",
                      }));
}

TEST_F(DispatchTest, EfShowWithIdThreePrintsStatusBlock)
{
    start_logging(0);
    deliver_tlvs({{65, show_value(3)}});
    const Lines shows = vxtest::lines_starting(logs(), "VXLAN-EF-SHOW: [vsd 3] ");
    ASSERT_GE(shows.size(), 18u);
    EXPECT_EQ(shows[0], "VXLAN-EF-SHOW: [vsd 3] Debug Status         : \n");
    EXPECT_EQ(shows[17], "VXLAN-EF-SHOW: [vsd 3] Peer-link            : ifx 0\n");
    EXPECT_EQ(logs().size(), shows.size());
}

TEST_F(DispatchTest, EfCtrlWithBits0x3OnlyLogs)
{
    start_logging();
    std::vector<uint8_t> value(5);
    vxtest::put<uint32_t>(value, 0, 0x3);
    value[4] = 1;
    const uint32_t flags = g_vxlan_vsd->flags;
    vxtest::ScratchTmpdir tmp;
    deliver_tlvs({{66, value}});
    EXPECT_EQ(vxtest::lines_starting(logs(), "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_ctrl_deal]"),
              Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_ctrl_deal] recv ef ctrl message, ctrl: 0x3, oper: 1\n"});
    EXPECT_TRUE(vxtest::lines_starting(logs(), "VXLAN-EF-SHOW:").empty());
    EXPECT_TRUE(vxtest::lines_starting(logs(), "VXLAN-EF-ERR:").empty());
    EXPECT_EQ(g_vxlan_vsd->flags, flags);
    EXPECT_TRUE(efrt::msg_sent().empty());
    EXPECT_FALSE(vxtest::file_exists(tmp.log_path()));
}

TEST_F(DispatchTest, UnknownTlvIsSkippedAndTheRestOfTheMessageProcessed)
{
    start_logging(VXLAN_EF_DBG_ERR);
    deliver_tlvs({{91, {1, 2, 3}}, {28, {1}}, {200, {}}, {29, {1}}});
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 91, l: 3\n",
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 200, l: 0\n",
                      }));
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 1);
    EXPECT_EQ(g_vxlan_vsd->copy_dscp, 1);
}

TEST_F(DispatchTest, MessagesQueuedBeforeOneTaskRunAreAllDispatchedInOrder)
{
    start_logging(VXLAN_EF_DBG_ERR);
    for (uint16_t type : {300, 301, 302})
        ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{type, {}}})), 0);
    efrt::clock_advance(100);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 300, l: 0\n",
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 301, l: 0\n",
                          "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 302, l: 0\n",
                      }));
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
}

TEST_F(DispatchTest, NodeTakenWithoutInstanceIsFreedUnprocessed)
{
    start();
    set_mask(0xFFFF);
    ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{0, {}}})), 0);
    vxlan_ef_vsd_exit();
    take_logs();
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    EXPECT_EQ(vxlan_ef_msg_task(), 0);
    EXPECT_EQ(g_vxlan_ef_msg_queue.count, 0u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live - 2);
    EXPECT_EQ(logs(), Lines{});
    EXPECT_TRUE(efrt::msg_sent().empty());
    vxlan_ef_exit();
}

TEST_F(DispatchTest, MessageFailingItsCheckIsNotAppliedAtAll)
{
    start_logging(0);
    std::vector<uint8_t> msg = vxtest::make_msg({{28, {1}}, {0, {}}, {29, {1}}});
    msg[3] = 4;
    deliver(msg);
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 0);
    EXPECT_EQ(g_vxlan_vsd->copy_dscp, 0);
    EXPECT_TRUE(efrt::msg_sent().empty());
}

}  // namespace
