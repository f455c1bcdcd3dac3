// Grace periods for the platform's published tables, over liburcu's QSBR
// flavour; see rcu.h.
//
// Retired blocks are freed by a reclaimer thread of ours that waits for a
// grace period (synchronize_rcu) as soon as something is retired, rather
// than by liburcu's call_rcu helper, which sleeps 10 ms between batches: a
// fabric's churn replaces table versions thousands of times a second, and
// every version waiting out those 10 ms would be memory efhost holds. Here a
// batch waits only for the readers' next quiescent states.
//
// ThreadSanitizer does not see liburcu's own synchronisation (the library is
// not instrumented and its grace periods are built from fences), so in that
// build every quiescent state releases one sync object and every free first
// acquires it: the reads a thread made before its quiescent state then
// happen before the free, as the grace period guarantees.
#include "rcu.h"

#include <urcu/urcu-qsbr.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define EFRT_TSAN_BUILD 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define EFRT_TSAN_BUILD 1
#endif
#endif

#ifdef EFRT_TSAN_BUILD
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#endif

namespace efrt::rcu {

namespace {

#ifdef EFRT_TSAN_BUILD
char g_grace_sync;  // what the sanitizer's happens-before edges hang on
void tsan_happens_before() { __tsan_release(&g_grace_sync); }
void tsan_happens_after() { __tsan_acquire(&g_grace_sync); }
#else
void tsan_happens_before() {}
void tsan_happens_after() {}
#endif

// The calling thread's standing with the library. Registered threads are
// offline unless inside a section, so that a thread that stops reading never
// holds a grace period up.
struct ThreadState {
    bool registered = false;
    bool online = false;

    void go_online()
    {
        if (!registered) {
            urcu_qsbr_register_thread();  // registers online
            registered = true;
        } else {
            urcu_qsbr_thread_online();
        }
        online = true;
    }

    void go_offline()
    {
        tsan_happens_before();
        urcu_qsbr_thread_offline();
        online = false;
    }

    ~ThreadState()
    {
        if (!registered)
            return;
        if (online)
            go_offline();
        urcu_qsbr_unregister_thread();
    }
};

thread_local ThreadState t_state;

struct Retired {
    void *block;
    void (*free_fn)(void *);
};

// Frees what was retired, one batch per grace period. Started with the
// first retirement; stopped (after freeing the rest) when the process ends.
class Reclaimer {
public:
    ~Reclaimer()
    {
        {
            std::lock_guard<std::mutex> g(lock_);
            stop_ = true;
        }
        work_.notify_one();
        if (thread_.joinable())
            thread_.join();
    }

    void retire(void *block, void (*free_fn)(void *))
    {
        {
            std::lock_guard<std::mutex> g(lock_);
            if (!thread_.joinable())
                thread_ = std::thread([this] { run(); });
            queue_.push_back(Retired{block, free_fn});
            retired_++;
        }
        work_.notify_one();
    }

    void barrier()
    {
        std::unique_lock<std::mutex> g(lock_);
        const uint64_t target = retired_;
        freed_cv_.wait(g, [&] { return freed_ >= target; });
    }

    long pending()
    {
        std::lock_guard<std::mutex> g(lock_);
        return static_cast<long>(retired_ - freed_);
    }

private:
    void run()
    {
        std::vector<Retired> batch;
        for (;;) {
            uint64_t upto;
            {
                std::unique_lock<std::mutex> g(lock_);
                work_.wait(g, [&] { return stop_ || !queue_.empty(); });
                if (queue_.empty())
                    return;
                batch.swap(queue_);
                upto = retired_;
            }
            urcu_qsbr_synchronize_rcu();
            tsan_happens_after();
            for (const Retired &r : batch)
                r.free_fn(r.block);
            batch.clear();
            {
                std::lock_guard<std::mutex> g(lock_);
                freed_ = upto;
            }
            freed_cv_.notify_all();
        }
    }

    std::mutex lock_;
    std::condition_variable work_;
    std::condition_variable freed_cv_;
    std::vector<Retired> queue_;
    uint64_t retired_ = 0;  // blocks retired so far
    uint64_t freed_ = 0;    // of those, the ones freed
    bool stop_ = false;
    std::thread thread_;
};

Reclaimer g_reclaimer;

}  // namespace

ReadSection::ReadSection() : brought_online_(!t_state.online)
{
    if (brought_online_)
        t_state.go_online();
}

ReadSection::~ReadSection()
{
    if (brought_online_)
        t_state.go_offline();
}

Offline::Offline() : was_online_(t_state.online)
{
    if (was_online_)
        t_state.go_offline();
}

Offline::~Offline()
{
    if (was_online_)
        t_state.go_online();
}

void quiescent()
{
    if (!t_state.online)
        return;
    tsan_happens_before();
    urcu_qsbr_quiescent_state();
}

bool reading() { return t_state.online; }

void retire(void *block, void (*free_fn)(void *))
{
    if (block == nullptr)
        return;
    tsan_happens_before();  // the writer's own last reads and writes of the block
    g_reclaimer.retire(block, free_fn);
}

void barrier()
{
    if (t_state.online) {
        std::fprintf(stderr, "efrt: waiting for freed blocks from inside a read section would wait for itself\n");
        std::abort();
    }
    g_reclaimer.barrier();
}

long pending() { return g_reclaimer.pending(); }

void catch_up(long max_pending)
{
    if (pending() > max_pending)
        barrier();
}

}  // namespace efrt::rcu
