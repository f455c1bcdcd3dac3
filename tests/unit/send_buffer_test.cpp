// The two send buffers: real-time and batch appends, flushing, invalid
// modes, the channel envelope, retries on a busy channel and failures.
#include <array>

#include "module_fixture.h"

namespace {

class SendBufferTest : public vxtest::ModuleTest {
protected:
    // Starts the module and notes its live blocks, so leaks show.
    void begin()
    {
        start();
        live_ = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    }
    static uint16_t buf_len(const vxlan_ef_send_buf_t &buf)
    {
        uint16_t len;
        std::memcpy(&len, buf.data + 1, 2);
        return len;
    }
    static void expect_empty(const vxlan_ef_send_buf_t &buf)
    {
        EXPECT_EQ(buf.data[0], 1);
        EXPECT_EQ(buf_len(buf), 4);
        EXPECT_EQ(buf.data[3], 0);
    }
    vxlan_ef_send_buf_t &batch() { return g_vxlan_vsd->batch_buf; }
    vxlan_ef_send_buf_t &rtime() { return g_vxlan_vsd->rtime_buf; }

    long live_ = 0;
};

using Lines = std::vector<std::string>;
using vxtest::bytes;

TEST_F(SendBufferTest, RealTimeType0Length0ProducesOneEightByteMessage)
{
    begin();
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 0, 0, nullptr, 0), 0);
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].module_id, 31u);
    EXPECT_EQ(sent[0].len, 8u);
    EXPECT_EQ(sent[0].payload, bytes({1, 8, 0, 1, 0, 0, 0, 0}));
    expect_empty(rtime());
}

TEST_F(SendBufferTest, RealTimeTlvCarriesItsValue)
{
    begin();
    const uint8_t value[3] = {0xA1, 0xB2, 0xC3};
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 0x1234, 3, value, 0), 0);
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, bytes({1, 11, 0, 1, 0x34, 0x12, 3, 0, 0xA1, 0xB2, 0xC3}));
}

TEST_F(SendBufferTest, EnvelopeCarriesModule31AndLengthAtBytes20And24)
{
    begin();
    static std::vector<uint8_t> raw;
    raw.clear();
    efrt::msg_set_sink(
        [](const ef_msg_t *msg, void *) {
            const auto *p = reinterpret_cast<const uint8_t *>(msg);
            raw.assign(p, p + EF_MSG_HDR_LEN + msg->len);
            return 0;
        },
        nullptr);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 68, 0, nullptr, 0), 0);
    ASSERT_EQ(raw.size(), 36u);
    EXPECT_EQ(std::vector<uint8_t>(raw.begin() + 20, raw.end()),
              bytes({31, 0, 0, 0, 8, 0, 0, 0, 1, 8, 0, 1, 68, 0, 0, 0}));
}

TEST_F(SendBufferTest, RealTimeTlvThatDoesNotFitLeavesHeaderOnlyMessage)
{
    begin();
    const std::vector<uint8_t> value(8189, 1);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 8, 8189, value.data(), 0), 0);
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].len, 4u);
    EXPECT_EQ(sent[0].payload, bytes({1, 4, 0, 0}));
}

TEST_F(SendBufferTest, The256thBatchTlvFlushesTheFirst255AndStartsANewMessage)
{
    begin();
    for (int i = 0; i < 255; ++i) {
        const uint8_t value = static_cast<uint8_t>(i);
        ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 28, 1, &value, 1), 0);
    }
    EXPECT_TRUE(efrt::msg_sent().empty());
    EXPECT_EQ(buf_len(batch()), 4 + 255 * 5);
    const uint8_t last = 0xEE;
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 29, 1, &last, 1), 0);

    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].len, 1279u);
    EXPECT_EQ(sent[0].payload[0], 1);
    EXPECT_EQ(vxtest::msg_len(sent[0].payload), 1279);
    EXPECT_EQ(sent[0].payload[3], 255);
    for (int i = 0; i < 255; ++i) {
        const size_t at = 4 + static_cast<size_t>(i) * 5;
        ASSERT_EQ(std::vector<uint8_t>(sent[0].payload.begin() + static_cast<long>(at),
                                       sent[0].payload.begin() + static_cast<long>(at) + 5),
                  bytes({28, 0, 1, 0, i}))
            << "TLV " << i;
    }
    EXPECT_EQ(std::vector<uint8_t>(batch().data, batch().data + 9), bytes({1, 9, 0, 1, 29, 0, 1, 0, 0xEE}));
}

TEST_F(SendBufferTest, BatchTlvOf8188BytesFitsEmptyBufferExactly)
{
    begin();
    const std::vector<uint8_t> value(8188, 0x77);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 8, 8188, value.data(), 1), 0);
    EXPECT_TRUE(efrt::msg_sent().empty());
    EXPECT_EQ(buf_len(batch()), 8196);
    EXPECT_EQ(batch().data[3], 1);
    EXPECT_EQ(batch().data[8], 0x77);
    EXPECT_EQ(batch().data[8195], 0x77);
    // Not even an empty TLV fits behind it.
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 9, 0, nullptr, 1), 0);
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].len, 8196u);
    EXPECT_EQ(std::vector<uint8_t>(batch().data, batch().data + 8), bytes({1, 8, 0, 1, 9, 0, 0, 0}));
}

TEST_F(SendBufferTest, BatchTlvOf8189BytesNeverFitsAndIsSkipped)
{
    begin();
    const std::vector<uint8_t> value(8189, 0x77);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 8, 8189, value.data(), 1), 0);
    // The (empty) batch buffer was written in the attempt to make room.
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, bytes({1, 4, 0, 0}));
    expect_empty(batch());
}

TEST_F(SendBufferTest, Mode2WithOverlongTlvWritesPendingBatchThenHeaderOnlyMessage)
{
    begin();
    const uint8_t one = 1;
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 28, 1, &one, 1), 0);
    const std::vector<uint8_t> value(9000, 0x77);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 8, 9000, value.data(), 2), 0);
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].payload, bytes({1, 9, 0, 1, 28, 0, 1, 0, 1}));
    EXPECT_EQ(sent[1].payload, bytes({1, 4, 0, 0}));
    expect_empty(batch());
}

TEST_F(SendBufferTest, Mode2AppendsAndFlushesAtOnce)
{
    begin();
    const uint8_t one = 1;
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 28, 1, &one, 1), 0);
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 29, 1, &one, 2), 0);
    const auto sent = efrt::msg_take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, bytes({1, 14, 0, 2, 28, 0, 1, 0, 1, 29, 0, 1, 0, 1}));
    expect_empty(batch());
}

TEST_F(SendBufferTest, Modes3AndMinus1ReturnMinus22AndTouchNoBuffer)
{
    begin();
    const uint8_t one = 1;
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 28, 1, &one, 1), 0);
    std::array<uint8_t, 16> batch_before;
    std::memcpy(batch_before.data(), batch().data, 16);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 29, 1, &one, 3), -22);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 29, 1, &one, -1), -22);
    EXPECT_EQ(std::memcmp(batch_before.data(), batch().data, 16), 0);
    expect_empty(rtime());
    EXPECT_TRUE(efrt::msg_sent().empty());
    EXPECT_EQ(efrt::msg_send_attempts(), 0u);
}

TEST_F(SendBufferTest, BufferIsEmptyAfterWriteWhetherSendFailedOrNot)
{
    begin();
    set_mask(VXLAN_EF_DBG_EVENT);
    const uint8_t one = 1;
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 28, 1, &one, 1), 0);
    efrt::msg_fail_send(1, -5);
    take_logs();
    EXPECT_EQ(vxlan_ef_msg_write(g_vxlan_vsd, batch().data, buf_len(batch())), 0);
    expect_empty(batch());
    EXPECT_TRUE(efrt::msg_sent().empty());
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user, pid: 0\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user failed.\n",
                      }));

    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 28, 1, &one, 1), 0);
    EXPECT_EQ(vxlan_ef_msg_write(g_vxlan_vsd, batch().data, buf_len(batch())), 0);
    expect_empty(batch());
    EXPECT_EQ(efrt::msg_take_sent().size(), 1u);
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live_);
}

TEST_F(SendBufferTest, BusyChannelIsRetriedWithARetryLineBeforeEachRetry)
{
    begin();
    set_mask(VXLAN_EF_DBG_EVENT);
    g_vxlan_vsd->user_pid = 4321;
    efrt::msg_fail_send(3);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 0, 0, nullptr, 0), 0);
    EXPECT_EQ(efrt::msg_send_attempts(), 4u);
    EXPECT_EQ(efrt::msg_take_sent().size(), 1u);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_send] send tlv to vxlan_ef, t: SYNC_DATA_REQ, l: 0, ctrl: 0\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user, pid: 4321\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] vxlan send message 1 times.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] vxlan send message 2 times.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] vxlan send message 3 times.\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user ok, pid: 4321, ver: 1, len: 8, tlv_num: 1\n",
                      }));
}

TEST_F(SendBufferTest, BusyChannelIsTriedAtMost32Times)
{
    begin();
    set_mask(VXLAN_EF_DBG_EVENT);
    efrt::msg_fail_send(40);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 68, 0, nullptr, 0), 0);
    EXPECT_EQ(efrt::msg_send_attempts(), 32u);
    EXPECT_TRUE(efrt::msg_sent().empty());
    Lines expected{
        "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_send] send tlv to vxlan_ef, t: EF_DATA_READY, l: 0, ctrl: 0\n",
        "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user, pid: 0\n",
    };
    for (int i = 1; i <= 31; ++i)
        expected.push_back("VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] vxlan send message " +
                           std::to_string(i) + " times.\n");
    expected.push_back("VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_write] send msg to user failed.\n");
    EXPECT_EQ(logs(), expected);
    expect_empty(rtime());
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live_);
}

TEST_F(SendBufferTest, BusyChannelFreeOnThe32ndAttemptSucceeds)
{
    begin();
    efrt::msg_fail_send(31);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 68, 0, nullptr, 0), 0);
    EXPECT_EQ(efrt::msg_send_attempts(), 32u);
    EXPECT_EQ(efrt::msg_take_sent().size(), 1u);
}

TEST_F(SendBufferTest, OtherSendErrorIsNotRetried)
{
    begin();
    efrt::msg_fail_send(5, -1);
    EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 68, 0, nullptr, 0), 0);
    EXPECT_EQ(efrt::msg_send_attempts(), 1u);
}

TEST_F(SendBufferTest, SendMessageAllocationFailureLogsAndEmptiesBuffer)
{
    begin();
    set_mask(VXLAN_EF_DBG_ERR);
    // The answer to SYNC_DATA_REQ is the first allocation after delivery.
    ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, vxtest::make_msg({{0, {}}})), 0);
    efrt::mem_fail_nth(1);
    efrt::clock_advance(100);
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_write] send msg malloc failed.\n"});
    EXPECT_EQ(efrt::msg_send_attempts(), 0u);
    expect_empty(rtime());
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live_);
}

TEST_F(SendBufferTest, SendLineNamesUnknownTypesAndShowsMode)
{
    begin();
    set_mask(VXLAN_EF_DBG_EVENT);
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 96, 0, nullptr, 1), 0);
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 90, 0, nullptr, 1), 0);
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 18, 0, nullptr, 7), -22);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_send] send tlv to vxlan_ef, t: unknown, l: 0, ctrl: 1\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_send] send tlv to vxlan_ef, t: unknown, l: 0, ctrl: 1\n",
                          "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_send] send tlv to vxlan_ef, t: SET_ANYCAST_MAC, l: 0, ctrl: 7\n",
                      }));
}

TEST_F(SendBufferTest, SendAfterExitReturnsMinusOneAndSendsNothing)
{
    begin();
    set_mask(0xFFFF);
    vxlan_ef_vsd_t *gone = g_vxlan_vsd;
    vxlan_ef_exit();
    take_logs();
    const uint64_t attempts = efrt::msg_send_attempts();
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    const uint8_t value[2] = {1, 2};
    for (int mode : {0, 1, 2, 7}) {
        EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 0, 0, nullptr, mode), -1) << mode;
        EXPECT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 68, 2, value, mode), -1) << mode;
        // A caller that kept the record's address does not reach it either.
        EXPECT_EQ(vxlan_ef_msg_send(gone, 0, 0, nullptr, mode), -1) << mode;
    }
    EXPECT_EQ(efrt::msg_send_attempts(), attempts);
    EXPECT_TRUE(efrt::msg_take_sent().empty());
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live);
    EXPECT_EQ(logs(), Lines{});
}

TEST_F(SendBufferTest, WriteAfterExitReturnsZeroAndSendsNothing)
{
    begin();
    set_mask(0xFFFF);
    vxlan_ef_vsd_t *gone = g_vxlan_vsd;
    uint8_t *gone_buf = g_vxlan_vsd->rtime_buf.data;
    vxlan_ef_exit();
    take_logs();
    const uint64_t attempts = efrt::msg_send_attempts();
    const long live = efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE);
    // A well-formed one-TLV message of the caller's own.
    uint8_t own[8] = {1, 8, 0, 1, 0, 0, 0, 0};
    EXPECT_EQ(vxlan_ef_msg_write(g_vxlan_vsd, own, sizeof own), 0);
    EXPECT_EQ(vxlan_ef_msg_write(gone, own, sizeof own), 0);
    EXPECT_EQ(vxlan_ef_msg_write(gone, gone_buf, 4), 0);
    EXPECT_EQ(efrt::msg_send_attempts(), attempts);
    EXPECT_TRUE(efrt::msg_take_sent().empty());
    EXPECT_EQ(efrt::mem_live_blocks(VXLAN_EF_EF_MEM_TYPE), live);
    EXPECT_EQ(logs(), Lines{});
    // The caller's own buffer is left as it was.
    EXPECT_EQ(std::vector<uint8_t>(own, own + sizeof own), bytes({1, 8, 0, 1, 0, 0, 0, 0}));
}

}  // namespace
