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

#include <atomic>
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

namespace detail {
thread_local bool t_online __attribute__((tls_model("initial-exec"))) = false;
}  // namespace detail

namespace {

using detail::t_online;

#ifdef EFRT_TSAN_BUILD
char g_grace_sync;  // what the sanitizer's happens-before edges hang on
void tsan_happens_before() { __tsan_release(&g_grace_sync); }
void tsan_happens_after() { __tsan_acquire(&g_grace_sync); }
#else
void tsan_happens_before() {}
void tsan_happens_after() {}
#endif

// Threads inside a section now. A retired block was unpublished before it
// was retired, so only threads online at that moment can hold it: when there
// are none it is freed at once, and when the retiring thread is the only one
// it is freed at that thread's next quiescent state, without the reclaimer.
// A host that reads on one thread only (tests, benchmarks, fuzz targets) so
// frees at the same points every run. The count and the published pointers
// (published.h) are sequentially consistent, so that a thread coming online
// and a writer retiring cannot miss each other: either the writer counts the
// thread, or the thread reads the tables only after the writer's unpublish.
// (Fences would say the same more cheaply, but ThreadSanitizer models none.)
std::atomic<long> g_online{0};

struct Retired {
    void *block;
    void (*free_fn)(void *);
};

void free_all(std::vector<Retired> &blocks)
{
    for (const Retired &r : blocks)
        r.free_fn(r.block);
    blocks.clear();
}

// The calling thread's standing with the library. Registered threads are
// offline unless inside a section, so that a thread that stops reading never
// holds a grace period up.
struct ThreadState {
    bool registered = false;
    std::vector<Retired> own;  // retired while no other thread was online

    void go_online()
    {
        t_online = true;
        g_online.fetch_add(1, std::memory_order_seq_cst);
        if (!registered) {
            urcu_qsbr_register_thread();  // registers online
            registered = true;
        } else {
            urcu_qsbr_thread_online();
        }
    }

    void go_offline()
    {
        tsan_happens_before();
        urcu_qsbr_thread_offline();
        t_online = false;
        g_online.fetch_sub(1, std::memory_order_release);
        free_all(own);
    }

    ~ThreadState()
    {
        if (!registered)
            return;
        if (t_online)
            go_offline();
        urcu_qsbr_unregister_thread();
    }
};

thread_local ThreadState t_state;

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

void detail::come_online() { t_state.go_online(); }

void detail::go_offline() { t_state.go_offline(); }

Offline::Offline() : was_online_(t_online)
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
    if (!t_online)
        return;
    ThreadState &t = t_state;
    tsan_happens_before();
    urcu_qsbr_quiescent_state();
    free_all(t.own);
}

bool reading() { return t_online; }

void retire(void *block, void (*free_fn)(void *))
{
    if (block == nullptr)
        return;
    const long online = g_online.load(std::memory_order_seq_cst);
    if (online == 0) {
        free_fn(block);
        return;
    }
    if (online == 1 && t_online) {
        t_state.own.push_back(Retired{block, free_fn});
        return;
    }
    tsan_happens_before();  // the writer's own last reads and writes of the block
    g_reclaimer.retire(block, free_fn);
}

void barrier()
{
    if (t_online) {
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
