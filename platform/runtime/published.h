// A read-mostly value that packet threads read without a lock: writers copy
// the current version, change the copy under a mutex and publish it with one
// pointer store. Readers see either the old or the new version, never a torn
// one. Replaced versions stay allocated until clear(), since a reader may
// still be looking at one; they are few, because writers are configuration
// (hook, service and interface registration), not traffic.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace efrt {

template <class T>
class Published {
public:
    Published() : current_(std::make_unique<T>()) { view_.store(current_.get()); }

    // The current version; valid at least until the next clear().
    const T &read() const { return *view_.load(std::memory_order_acquire); }

    // Applies change to a copy of the current version and publishes the copy.
    // Returns what change returned.
    template <class F>
    auto update(F &&change)
    {
        std::lock_guard<std::mutex> g(lock_);
        auto next = std::make_unique<T>(*current_);
        auto result = change(*next);
        retired_.push_back(std::move(current_));
        current_ = std::move(next);
        view_.store(current_.get(), std::memory_order_release);
        return result;
    }

    // Back to an empty value; frees every replaced version. Only when no
    // reader can be running (between tests, at shutdown).
    void clear()
    {
        std::lock_guard<std::mutex> g(lock_);
        current_ = std::make_unique<T>();
        view_.store(current_.get(), std::memory_order_release);
        retired_.clear();
    }

private:
    std::mutex lock_;
    std::unique_ptr<T> current_;
    std::vector<std::unique_ptr<T>> retired_;
    std::atomic<const T *> view_{nullptr};
};

}  // namespace efrt
