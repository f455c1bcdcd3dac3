// Transmission in batches: while a TxBatch lives on a thread, the frames
// that thread sends on a port that batches wait in the thread's own queue
// and leave together (one sendmmsg per port) when the batch ends, or when
// the thread calls flush_full between frames and kTxBatchMax wait for one
// port. A thread sends a batch at the end of each unit of its work (a burst
// of received frames, a drain of the L3 queue), so no frame waits for frames
// that are not already there. Queueing itself never sends: frames are queued
// from inside the module, which may hold its instance lock while it floods,
// and a send can wait for a full device queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace efhost {

constexpr size_t kTxBatchMax = 64;

// Implemented by ports that can send several frames in one call.
class BatchSink {
public:
    virtual ~BatchSink() = default;
    // Sends frames[0..count); returns how many left.
    virtual size_t send_batch(const std::vector<uint8_t> *frames, size_t count) = 0;
};

class TxBatch {
public:
    TxBatch();
    ~TxBatch();
    TxBatch(const TxBatch &) = delete;
    TxBatch &operator=(const TxBatch &) = delete;

    // Sends what waits on this thread now.
    static void flush();
    // Sends the queues of this thread that hold kTxBatchMax frames or more.
    static void flush_full();
};

// Queues a copy of the frame for sink when a batch is open on this thread;
// false (nothing queued) when none is.
bool tx_batch_queue(BatchSink *sink, const uint8_t *frame, size_t len);

}  // namespace efhost
