// An efhost port for tests: it receives nothing and keeps every frame sent
// on it, for the test to take and check byte for byte.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "port.h"

namespace vxtest {

class RecordingPort : public efhost::Port {
public:
    using Frame = std::vector<uint8_t>;

    bool open(std::string &) override { return true; }
    void start(efhost::RxHandler) override {}
    bool send(const uint8_t *frame, size_t len) override
    {
        std::lock_guard<std::mutex> g(lock_);
        frames_.emplace_back(frame, frame + len);
        return true;
    }
    void stop() override {}
    bool input_done() const override { return true; }
    uint64_t rx_frames() const override { return 0; }
    uint64_t tx_frames() const override
    {
        std::lock_guard<std::mutex> g(lock_);
        return frames_.size();
    }
    efhost::PortCounters counters() const override { return {0, tx_frames(), 0, 0}; }
    // The frames sent since the last take, oldest first.
    std::vector<Frame> take()
    {
        std::lock_guard<std::mutex> g(lock_);
        return std::exchange(frames_, {});
    }

private:
    mutable std::mutex lock_;
    std::vector<Frame> frames_;
};

}  // namespace vxtest
