// Batched transmission: frames wait in the thread's queue until the thread
// sends them between frames or at the end of its unit of work, never from
// inside the call that queues them.
#include <gtest/gtest.h>

#include "tx_batch.h"

namespace {

using efhost::TxBatch;

class RecordingSink : public efhost::BatchSink {
public:
    size_t send_batch(const std::vector<uint8_t> *frames, size_t count) override
    {
        batches.emplace_back(frames, frames + count);
        return count;
    }
    std::vector<std::vector<std::vector<uint8_t>>> batches;
};

bool queue_byte(RecordingSink &sink, uint8_t b) { return efhost::tx_batch_queue(&sink, &b, 1); }

TEST(TxBatchTest, WithoutAnOpenBatchNothingIsQueued)
{
    RecordingSink sink;
    EXPECT_FALSE(queue_byte(sink, 1));
    EXPECT_TRUE(sink.batches.empty());
}

TEST(TxBatchTest, TheEndOfTheBatchSendsWhatWaitsInOneCallPerPort)
{
    RecordingSink a, b;
    {
        TxBatch batch;
        EXPECT_TRUE(queue_byte(a, 1));
        EXPECT_TRUE(queue_byte(b, 2));
        EXPECT_TRUE(queue_byte(a, 3));
        EXPECT_TRUE(a.batches.empty());
    }
    ASSERT_EQ(a.batches.size(), 1u);
    EXPECT_EQ(a.batches[0], (std::vector<std::vector<uint8_t>>{{1}, {3}}));
    ASSERT_EQ(b.batches.size(), 1u);
    EXPECT_EQ(b.batches[0], (std::vector<std::vector<uint8_t>>{{2}}));
}

// The module may hold its lock while it floods, and a send may wait for a
// full device queue: queueing never sends, however many frames wait.
TEST(TxBatchTest, QueueingPastTheBatchSizeSendsNothingUntilTheThreadFlushes)
{
    RecordingSink sink;
    {
        TxBatch batch;
        for (size_t i = 0; i < efhost::kTxBatchMax + 10; ++i)
            ASSERT_TRUE(queue_byte(sink, static_cast<uint8_t>(i)));
        EXPECT_TRUE(sink.batches.empty());
        TxBatch::flush_full();
        ASSERT_EQ(sink.batches.size(), 1u);
        EXPECT_EQ(sink.batches[0].size(), efhost::kTxBatchMax + 10);
        EXPECT_EQ(sink.batches[0].back(), std::vector<uint8_t>{static_cast<uint8_t>(efhost::kTxBatchMax + 9)});
        queue_byte(sink, 7);
        TxBatch::flush_full();  // one frame waits: not full, stays
        EXPECT_EQ(sink.batches.size(), 1u);
    }
    ASSERT_EQ(sink.batches.size(), 2u);
    EXPECT_EQ(sink.batches[1], (std::vector<std::vector<uint8_t>>{{7}}));
}

}  // namespace
