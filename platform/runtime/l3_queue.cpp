// The per-CPU hand-off queue between the packet paths and the L3 engine.
// Producers append whole chains under the slot's spin lock; the L3 worker
// (or a test) takes them off. Waking the worker reads the registered wake
// function without a lock: a packet thread calls it for every chain.
#include <array>
#include <atomic>

#include "efrt.h"
#include "efrt_l3.h"
#include "published.h"

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

// The function and its context are published together, as one record.
struct Wake {
    efrt::L3WakeFn fn = nullptr;
    void *ctx = nullptr;
};
efrt::Published<Wake> g_wake;

efmp_skip_slot_t &slot_of(uint32_t cpu) { return g_slots[cpu % kCpus]; }

}  // namespace

efmp_skip_queue_t efmp_skip_top{g_slots.data(), kDefaultCapacity, kCpus, nullptr};
__thread uint32_t g_efmp_cpu_num;

extern "C" void efmp_vth_active_async(void *, uint32_t cpu)
{
    g_wakes[cpu % kCpus].fetch_add(1, std::memory_order_relaxed);
    const Wake &w = g_wake.read();
    if (w.fn != nullptr)
        w.fn(cpu, w.ctx);
}

namespace efrt {

efmp_buff_t *l3_take_chain(uint32_t cpu)
{
    efmp_skip_slot_t &slot = slot_of(cpu);
    if (__atomic_load_n(&slot.count, __ATOMIC_RELAXED) == 0)
        return nullptr;
    pthread_spin_lock(&slot.lock);
    efmp_buff_t *head = slot.head;
    slot.head = nullptr;
    slot.tail = nullptr;
    __atomic_store_n(&slot.count, 0u, __ATOMIC_RELAXED);
    pthread_spin_unlock(&slot.lock);
    return head;
}

std::vector<efmp_buff_t *> l3_take(uint32_t cpu)
{
    efmp_buff_t *head = l3_take_chain(cpu);
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
    g_wake.update([fn, ctx](Wake &w) {
        w = Wake{fn, ctx};
        return true;
    });
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
