// Task service on the platform clock. In deterministic mode the clock moves
// only when the host advances it and due tasks run on the host's thread; the
// timer thread does the same in real time.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "ef_task.h"
#include "efrt.h"
#include "rcu.h"

namespace {

struct Task {
    ef_task_fn fn;
    void *arg;
    std::string name;
    bool armed = false;
    int mode = 0;
    uint64_t due = 0;
    bool running = false;
    bool deleted = false;
};

struct Scheduler {
    std::recursive_mutex lock;
    std::list<std::unique_ptr<Task>> tasks;
    std::atomic<uint64_t> now{0};  // written under lock, read by packet threads without
    unsigned fail_create = 0;
    std::thread timer;
    std::atomic<bool> timer_run{false};
    std::condition_variable_any runs_done;
    uint64_t completed_runs = 0;
};

Scheduler &sched()
{
    static Scheduler s;
    return s;
}

// The armed task falling due first at or before limit, or nullptr.
Task *next_due(Scheduler &s, uint64_t limit)
{
    Task *best = nullptr;
    for (auto &t : s.tasks) {
        if (t->armed && !t->deleted && t->due <= limit && (best == nullptr || t->due < best->due))
            best = t.get();
    }
    return best;
}

void erase(Scheduler &s, Task *task)
{
    s.tasks.remove_if([task](const std::unique_ptr<Task> &t) { return t.get() == task; });
}

void run_until(uint64_t limit)
{
    Scheduler &s = sched();
    for (;;) {
        Task *task;
        {
            std::lock_guard<std::recursive_mutex> g(s.lock);
            task = next_due(s, limit);
            if (task == nullptr) {
                s.now.store(std::max(s.now.load(), limit));
                return;
            }
            s.now.store(std::max(s.now.load(), task->due));
            task->armed = false;  // every timeout fires once
            task->running = true;
        }
        {
            // A task (the module's configuration) reads interface blocks
            // and service tables like a packet thread.
            efrt::rcu::ReadSection reading;
            task->fn(task->arg);
        }
        std::lock_guard<std::recursive_mutex> g(s.lock);
        task->running = false;
        if (task->deleted)
            erase(s, task);
        s.completed_runs++;
        s.runs_done.notify_all();
    }
}

}  // namespace

extern "C" void *ef_task_create(ef_task_fn fn, void *arg, const char *name)
{
    Scheduler &s = sched();
    std::lock_guard<std::recursive_mutex> g(s.lock);
    if (fn == nullptr)
        return nullptr;
    if (s.fail_create != 0) {
        s.fail_create--;
        return nullptr;
    }
    auto task = std::make_unique<Task>();
    task->fn = fn;
    task->arg = arg;
    task->name = name != nullptr ? name : "";
    void *handle = task.get();
    s.tasks.push_back(std::move(task));
    return handle;
}

extern "C" int ef_task_delete(void *handle)
{
    Scheduler &s = sched();
    std::lock_guard<std::recursive_mutex> g(s.lock);
    for (auto &t : s.tasks) {
        if (t.get() != handle || t->deleted)
            continue;
        t->deleted = true;
        t->armed = false;
        if (!t->running)
            erase(s, static_cast<Task *>(handle));
        return 0;
    }
    return -1;
}

extern "C" int ef_task_active_timeout(void *handle, int mode, uint32_t timeout)
{
    Scheduler &s = sched();
    std::lock_guard<std::recursive_mutex> g(s.lock);
    for (auto &t : s.tasks) {
        if (t.get() != handle || t->deleted)
            continue;
        t->armed = true;
        t->mode = mode;
        t->due = s.now.load() + timeout;
        return 0;
    }
    return -1;
}

namespace efrt {

uint64_t clock_now_ms() { return sched().now.load(std::memory_order_relaxed); }

void clock_advance(uint64_t ms) { run_until(clock_now_ms() + ms); }

void tasks_run_due() { run_until(clock_now_ms()); }

std::vector<TaskInfo> tasks()
{
    Scheduler &s = sched();
    std::lock_guard<std::recursive_mutex> g(s.lock);
    std::vector<TaskInfo> out;
    for (auto &t : s.tasks) {
        if (!t->deleted)
            out.push_back(TaskInfo{t.get(), t->name, t->armed, t->mode, t->due});
    }
    return out;
}

void task_fail_create(unsigned n)
{
    std::lock_guard<std::recursive_mutex> g(sched().lock);
    sched().fail_create = n;
}

void tasks_reset()
{
    Scheduler &s = sched();
    std::lock_guard<std::recursive_mutex> g(s.lock);
    s.tasks.remove_if([](const std::unique_ptr<Task> &t) { return !t->running; });
    s.fail_create = 0;
}

void tasks_start_timer_thread()
{
    Scheduler &s = sched();
    if (s.timer_run.exchange(true))
        return;
    s.timer = std::thread([&s] {
        auto last = std::chrono::steady_clock::now();
        while (s.timer_run.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            auto now = std::chrono::steady_clock::now();
            auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - last).count();
            if (ms > 0) {
                last += std::chrono::milliseconds(ms);
                clock_advance(static_cast<uint64_t>(ms));
            }
        }
    });
}

void tasks_stop_timer_thread()
{
    Scheduler &s = sched();
    if (!s.timer_run.exchange(false))
        return;
    s.timer.join();
}

uint64_t tasks_completed_runs()
{
    std::lock_guard<std::recursive_mutex> g(sched().lock);
    return sched().completed_runs;
}

uint64_t tasks_next_full_run()
{
    Scheduler &s = sched();
    std::lock_guard<std::recursive_mutex> g(s.lock);
    const bool under_way = std::any_of(s.tasks.begin(), s.tasks.end(),
                                       [](const std::unique_ptr<Task> &t) { return t->running; });
    return s.completed_runs + (under_way ? 2 : 1);
}

bool tasks_wait_runs(uint64_t target, int timeout_ms)
{
    Scheduler &s = sched();
    std::unique_lock<std::recursive_mutex> g(s.lock);
    return s.runs_done.wait_for(g, std::chrono::milliseconds(timeout_ms),
                                [&s, target] { return s.completed_runs >= target; });
}

}  // namespace efrt
