// A read-mostly value that packet threads read without a lock: writers copy
// the current version, change the copy under a mutex and publish it with one
// pointer store. Readers see either the old or the new version, never a torn
// one. A replaced version is retired (rcu.h) and freed once no reader can
// still be looking at it, so that a table changed at every fabric event
// keeps one version in memory, not all of them.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>

#include "rcu.h"

namespace efrt {

template <class T>
class Published {
public:
    Published() : current_(new T()) { view_.store(current_, std::memory_order_seq_cst); }
    ~Published() { delete current_; }
    Published(const Published &) = delete;
    Published &operator=(const Published &) = delete;

    // The current version; valid until the calling thread's next quiescent
    // state (rcu.h). Sequentially consistent, as rcu.cpp's count of reading
    // threads is: on x86-64 and 64-bit Arm such a load costs what an
    // acquiring one does.
    const T &read() const { return *view_.load(std::memory_order_seq_cst); }

    // Applies change to a copy of the current version and publishes the copy.
    // Returns what change returned.
    template <class F>
    auto update(F &&change)
    {
        std::lock_guard<std::mutex> g(lock_);
        T *next = new T(*current_);
        auto result = change(*next);
        replace(next);
        return result;
    }

    // Back to an empty value.
    void clear()
    {
        std::lock_guard<std::mutex> g(lock_);
        replace(new T());
    }

private:
    void replace(T *next)
    {
        T *old = current_;
        current_ = next;
        view_.store(next, std::memory_order_seq_cst);
        rcu::retire(old);
    }

    std::mutex lock_;
    T *current_;  // owned; what view_ shows
    std::atomic<const T *> view_{nullptr};
};

// A published map split into shards by the key's hash, each published on
// its own: a change copies one shard, not the whole map, so that a large
// table changed at a fabric's pace costs little to copy and little memory
// while the old shard waits out its grace period. hash is the key's 64-bit
// hash; its top bits choose the shard (FlatMap uses lower ones).
template <class Map, size_t kShards = 64>
class PublishedShards {
    static_assert(kShards > 1 && std::has_single_bit(kShards), "a power of two");

public:
    const Map &read(uint64_t hash) const { return shards_[shard_of(hash)].read(); }

    template <class F>
    auto update(uint64_t hash, F &&change)
    {
        return shards_[shard_of(hash)].update(std::forward<F>(change));
    }

    void clear()
    {
        for (Published<Map> &shard : shards_)
            shard.clear();
    }

private:
    static size_t shard_of(uint64_t hash) { return static_cast<size_t>(hash >> (64 - std::countr_zero(kShards))); }

    std::array<Published<Map>, kShards> shards_;
};

}  // namespace efrt
