// The per-CPU hand-off queue between the packet paths and the L3 engine.
// Producers append whole chains under the slot's spin lock; the L3 worker
// (or a test) takes them off.
#include <array>
#include <atomic>
#include <mutex>

#include "efrt.h"
#include "efrt_l3.h"

namespace {

constexpr uint32_t kCpus = 8;
constexpr uint32_t kDefaultCapacity = 4096;

std::array<efmp_skip_slot_t, kCpus> g_slots = [] {
    std::array<efmp_skip_slot_t, kCpus> slots{};
    for (auto &slot : slots)
        pthread_spin_init(&slot.lock, PTHREAD_PROCESS_PRIVATE);
    return slots;
}();

std::array<std::atomic<uint64_t>, kCpus> g_wakes{};
std::mutex g_wake_lock;
efrt::L3WakeFn g_wake_fn = nullptr;
void *g_wake_ctx = nullptr;

efmp_skip_slot_t &slot_of(uint32_t cpu) { return g_slots[cpu % kCpus]; }

}  // namespace

efmp_skip_queue_t efmp_skip_top{g_slots.data(), kDefaultCapacity, kCpus, nullptr};
__thread uint32_t g_efmp_cpu_num;

extern "C" void efmp_vth_active_async(void *, uint32_t cpu)
{
    g_wakes[cpu % kCpus]++;
    efrt::L3WakeFn fn;
    void *ctx;
    {
        std::lock_guard<std::mutex> g(g_wake_lock);
        fn = g_wake_fn;
        ctx = g_wake_ctx;
    }
    if (fn != nullptr)
        fn(cpu, ctx);
}

namespace efrt {

std::vector<efmp_buff_t *> l3_take(uint32_t cpu)
{
    efmp_skip_slot_t &slot = slot_of(cpu);
    pthread_spin_lock(&slot.lock);
    efmp_buff_t *head = slot.head;
    slot.head = nullptr;
    slot.tail = nullptr;
    __atomic_store_n(&slot.count, 0u, __ATOMIC_RELAXED);
    pthread_spin_unlock(&slot.lock);
    std::vector<efmp_buff_t *> out;
    while (head != nullptr) {
        efmp_buff_t *next = head->next;
        head->next = nullptr;
        out.push_back(head);
        head = next;
    }
    return out;
}

uint32_t l3_queued(uint32_t cpu)
{
    efmp_skip_slot_t &slot = slot_of(cpu);
    pthread_spin_lock(&slot.lock);
    uint32_t count = slot.count;
    pthread_spin_unlock(&slot.lock);
    return count;
}

void l3_set_capacity(uint32_t capacity) { efmp_skip_top.capacity = capacity; }

uint64_t l3_wakes(uint32_t cpu) { return g_wakes[cpu % kCpus].load(); }

void l3_set_wake(L3WakeFn fn, void *ctx)
{
    std::lock_guard<std::mutex> g(g_wake_lock);
    g_wake_fn = fn;
    g_wake_ctx = ctx;
}

void l3_reset()
{
    for (uint32_t cpu = 0; cpu < kCpus; ++cpu) {
        for (efmp_buff_t *b : l3_take(cpu))
            efmp_buff_free_sw_user(0, b);
        g_wakes[cpu] = 0;
    }
    efmp_skip_top.capacity = kDefaultCapacity;
    l3_set_wake(nullptr, nullptr);
}

}  // namespace efrt
