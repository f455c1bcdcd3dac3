// A test-and-test-and-set lock for critical sections of a few dozen
// instructions on packet threads (a bridge shard's hash-table step): taking
// it uncontended is one atomic exchange, against the tens of instructions of
// a mutex. A waiter yields after a short spin so that a preempted holder can
// run.
#pragma once

#include <atomic>
#include <thread>

namespace efrt {

class SpinLock {
public:
    void lock()
    {
        for (;;) {
            if (!held_.exchange(true, std::memory_order_acquire))
                return;
            for (int spins = 0; held_.load(std::memory_order_relaxed); ++spins)
                if (spins >= kSpinsBeforeYield)
                    std::this_thread::yield();
        }
    }

    void unlock() { held_.store(false, std::memory_order_release); }

private:
    static constexpr int kSpinsBeforeYield = 64;
    std::atomic<bool> held_{false};
};

}  // namespace efrt
