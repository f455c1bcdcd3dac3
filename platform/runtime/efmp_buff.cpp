// Packet buffers: storage with a fixed headroom in front of the frame,
// counted per allocation reason; pushes never reach below EFMP_HEADROOM.
//
// A buffer's record and its storage are one block. Blocks of the two common
// sizes (a standard frame, a jumbo frame) are recycled through a small cache
// per thread, refilled from and returned to a shared pool in batches, so that
// a packet costs no allocator call and no lock. Larger blocks come from the
// C allocator. Under a sanitizer every block goes back to the allocator, so
// that a use after free is still caught.
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <vector>

#include "efmp.h"
#include "efrt_services.h"
#include "sanitized_build.h"

#define EFRT_BUFF_POOL (!EFRT_SANITIZED_BUILD)

namespace {

constexpr uint32_t kTailroom = 256;
// The record, rounded up to a cache line, lies in front of the storage.
constexpr size_t kRecordRoom = (sizeof(efmp_buff_t) + 63) / 64 * 64;
// Storage capacities of the recycled classes.
constexpr std::array<uint32_t, 2> kClassStorage = {2560, 10240};

// ---- per-reason accounting -----------------------------------------------
// Reasons are small negative or positive numbers; those in the table's range
// are counted with atomics, any other under a lock.
constexpr int kReasonMin = -128;
constexpr int kReasonMax = 127;

struct Accounts {
    std::array<std::atomic<long>, kReasonMax - kReasonMin + 1> live{};
    std::mutex other_lock;
    std::map<int, long> other;
    std::atomic<unsigned> fail_alloc{0};
    // Encapsulated packets freed, wherever: beside what the L3 engine took
    // off its queue, it tells how many were given up before it could.
    alignas(64) std::atomic<uint64_t> encapsulated_freed{0};
};

// Never destroyed: threads that end after the process's static objects
// still free buffers.
Accounts *const g_accounts = new Accounts;

Accounts &accounts() { return *g_accounts; }

inline void count(int reason, long delta)
{
    Accounts &a = accounts();
    if (reason >= kReasonMin && reason <= kReasonMax) {
        a.live[static_cast<size_t>(reason - kReasonMin)].fetch_add(delta, std::memory_order_relaxed);
        return;
    }
    std::lock_guard<std::mutex> g(a.other_lock);
    a.other[reason] += delta;
}

// An armed failure is taken once; while none is armed this is one load.
bool take_failure()
{
    std::atomic<unsigned> &armed = accounts().fail_alloc;
    unsigned n = armed.load(std::memory_order_relaxed);
    while (n != 0)
        if (armed.compare_exchange_weak(n, n - 1, std::memory_order_relaxed))
            return true;
    return false;
}

// ---- blocks ----------------------------------------------------------------
// The class of a storage size, or kClassStorage.size() for an unpooled block.
size_t class_of(uint32_t storage)
{
    size_t c = 0;
    while (c < kClassStorage.size() && storage > kClassStorage[c])
        c++;
    return c;
}

uint32_t capacity_of(size_t cls, uint32_t storage)
{
    return cls < kClassStorage.size() ? kClassStorage[cls] : storage;
}

void *new_block(uint32_t capacity)
{
    return ::operator new(kRecordRoom + capacity, std::align_val_t{64}, std::nothrow);
}

void delete_block(void *block) { ::operator delete(block, std::align_val_t{64}); }

#if EFRT_BUFF_POOL
constexpr size_t kCacheMax = 256;    // blocks one thread keeps per class
constexpr size_t kBatch = 64;        // blocks moved to or from the pool at once

struct SharedPool {
    std::mutex lock;
    std::array<std::vector<void *>, kClassStorage.size()> free;
};

SharedPool &shared_pool()
{
    static SharedPool *p = new SharedPool;  // outlives every thread's cache
    return *p;
}

struct ThreadCache {
    std::array<std::vector<void *>, kClassStorage.size()> free;

    ~ThreadCache()
    {
        SharedPool &p = shared_pool();
        std::lock_guard<std::mutex> g(p.lock);
        for (size_t c = 0; c < free.size(); ++c)
            p.free[c].insert(p.free[c].end(), free[c].begin(), free[c].end());
    }
};

thread_local ThreadCache t_cache;

void *cached_block(size_t cls)
{
    std::vector<void *> &mine = t_cache.free[cls];
    if (mine.empty()) {
        SharedPool &p = shared_pool();
        std::lock_guard<std::mutex> g(p.lock);
        std::vector<void *> &theirs = p.free[cls];
        const size_t n = std::min(kBatch, theirs.size());
        mine.insert(mine.end(), theirs.end() - static_cast<long>(n), theirs.end());
        theirs.resize(theirs.size() - n);
    }
    if (mine.empty())
        return new_block(kClassStorage[cls]);
    void *block = mine.back();
    mine.pop_back();
    return block;
}

void cache_block(size_t cls, void *block)
{
    std::vector<void *> &mine = t_cache.free[cls];
    if (mine.size() >= kCacheMax) {
        SharedPool &p = shared_pool();
        std::lock_guard<std::mutex> g(p.lock);
        p.free[cls].insert(p.free[cls].end(), mine.end() - static_cast<long>(kBatch), mine.end());
        mine.resize(mine.size() - kBatch);
    }
    mine.push_back(block);
}
#endif

void *get_block([[maybe_unused]] size_t cls, uint32_t capacity)
{
#if EFRT_BUFF_POOL
    if (cls < kClassStorage.size())
        return cached_block(cls);
#endif
    return new_block(capacity);
}

void put_block([[maybe_unused]] size_t cls, void *block)
{
#if EFRT_BUFF_POOL
    if (cls < kClassStorage.size())
        return cache_block(cls, block);
#endif
    delete_block(block);
}

efmp_buff_t *record_of(void *block) { return static_cast<efmp_buff_t *>(block); }

}  // namespace

// The storage's size field is what was asked for (headroom, frame, tailroom),
// whatever the block's class holds: readers bound their reads by it. The
// frame and the tailroom are zeroed, the headroom is left as it is (every
// push writes the whole header it makes room for).
extern "C" efmp_buff_t *efmp_buff_alloc_sw_user(int reason, uint32_t length)
{
    if (take_failure())
        return nullptr;
    const uint64_t wanted = uint64_t{EFMP_BUFF_START} + length + kTailroom;
    if (wanted > UINT32_MAX - kRecordRoom)
        return nullptr;
    const auto size = static_cast<uint32_t>(wanted);
    const size_t cls = class_of(size);
    void *block = get_block(cls, capacity_of(cls, size));
    if (block == nullptr)
        return nullptr;
    efmp_buff_t *buff = record_of(block);
    std::memset(buff, 0, sizeof *buff);
    buff->head = static_cast<uint8_t *>(block) + kRecordRoom;
    buff->size = size;
    buff->data_off = static_cast<uint16_t>(EFMP_BUFF_START);
    buff->len = length;
    std::memset(buff->head + EFMP_BUFF_START, 0, size_t{length} + kTailroom);
    count(reason, 1);
    return buff;
}

extern "C" void efmp_buff_free_sw_user(int reason, efmp_buff_t *buff)
{
    if (buff == nullptr)
        return;
    if ((buff->flags & EFMP_F_VXLAN_ENCAP) != 0)
        accounts().encapsulated_freed.fetch_add(1, std::memory_order_relaxed);
    const size_t cls = class_of(buff->size);
    put_block(cls, buff);
    count(reason, -1);
}

// Frees count buffers along the chain from first (all of it when count is 0).
extern "C" void efmp_buff_chain_free_sw_user(int reason, efmp_buff_t *first, uint32_t,
                                             uint32_t count)
{
    uint32_t freed = 0;
    while (first != nullptr && (count == 0 || freed < count)) {
        efmp_buff_t *next = first->next;
        efmp_buff_free_sw_user(reason, first);
        first = next;
        freed++;
    }
}

extern "C" uint8_t *efmp_buff_push(efmp_buff_t *buff, uint32_t n)
{
    if (buff == nullptr || buff->data_off < n || buff->data_off - n < EFMP_HEADROOM)
        return nullptr;
    buff->data_off = static_cast<uint16_t>(buff->data_off - n);
    buff->len += n;
    return buff->head + buff->data_off;
}

extern "C" uint8_t *efmp_buff_pull(efmp_buff_t *buff, uint32_t n)
{
    if (buff == nullptr || buff->len < n)
        return nullptr;
    buff->data_off = static_cast<uint16_t>(buff->data_off + n);
    buff->len -= n;
    return buff->head + buff->data_off;
}

namespace efrt {

long buff_live(int reason)
{
    Accounts &a = accounts();
    if (reason >= kReasonMin && reason <= kReasonMax)
        return a.live[static_cast<size_t>(reason - kReasonMin)].load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> g(a.other_lock);
    auto it = a.other.find(reason);
    return it == a.other.end() ? 0 : it->second;
}

long buff_live_total()
{
    Accounts &a = accounts();
    long total = 0;
    for (const std::atomic<long> &n : a.live)
        total += n.load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> g(a.other_lock);
    for (const auto &[reason, n] : a.other)
        total += n;
    return total;
}

uint64_t buff_encapsulated_freed() { return accounts().encapsulated_freed.load(std::memory_order_relaxed); }

void buff_fail_alloc(unsigned n) { accounts().fail_alloc.store(n, std::memory_order_relaxed); }

// Live counts stay, as memory accounting does: a leak shows across tests;
// the count of encapsulated packets freed is a statistic and starts over.
void buff_reset_injection()
{
    accounts().fail_alloc.store(0, std::memory_order_relaxed);
    accounts().encapsulated_freed.store(0, std::memory_order_relaxed);
}

// Gives the calling thread's cached blocks and the shared pool's back to the
// C allocator.
void buff_pool_trim()
{
#if EFRT_BUFF_POOL
    std::vector<void *> blocks;
    for (std::vector<void *> &mine : t_cache.free) {
        blocks.insert(blocks.end(), mine.begin(), mine.end());
        mine.clear();
    }
    {
        SharedPool &p = shared_pool();
        std::lock_guard<std::mutex> g(p.lock);
        for (std::vector<void *> &theirs : p.free) {
            blocks.insert(blocks.end(), theirs.begin(), theirs.end());
            theirs.clear();
        }
    }
    for (void *block : blocks)
        delete_block(block);
#endif
}

}  // namespace efrt
