// The per-thread queues of batched transmission. Frame storage is kept from
// batch to batch, so that a steady stream copies into buffers it already has.
#include "tx_batch.h"

#include <algorithm>

namespace efhost {

namespace {

struct Queue {
    BatchSink *sink = nullptr;
    std::vector<std::vector<uint8_t>> frames;
    size_t used = 0;
};

struct ThreadQueues {
    int open = 0;  // nested batches
    std::vector<Queue> queues;
};

thread_local ThreadQueues t_queues;

void send_queue(Queue &q)
{
    if (q.used != 0)
        q.sink->send_batch(q.frames.data(), q.used);
    q.used = 0;
}

}  // namespace

TxBatch::TxBatch() { t_queues.open++; }

TxBatch::~TxBatch()
{
    if (--t_queues.open == 0)
        flush();
}

void TxBatch::flush()
{
    for (Queue &q : t_queues.queues)
        send_queue(q);
}

void TxBatch::flush_full()
{
    for (Queue &q : t_queues.queues)
        if (q.used >= kTxBatchMax)
            send_queue(q);
}

bool tx_batch_queue(BatchSink *sink, const uint8_t *frame, size_t len)
{
    ThreadQueues &t = t_queues;
    if (t.open == 0)
        return false;
    auto it = std::find_if(t.queues.begin(), t.queues.end(),
                           [sink](const Queue &q) { return q.sink == sink; });
    if (it == t.queues.end()) {
        t.queues.push_back(Queue{sink, {}, 0});
        it = t.queues.end() - 1;
    }
    Queue &q = *it;
    if (q.used == q.frames.size())
        q.frames.emplace_back();
    q.frames[q.used++].assign(frame, frame + len);
    return true;
}

}  // namespace efhost
