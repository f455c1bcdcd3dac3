// Memory service: each block carries a small header with its type and size so
// that live blocks and bytes are accounted per type; the nth allocation can
// be made to fail.
#include <cstdlib>
#include <map>
#include <mutex>

#include "ef_mem.h"
#include "efrt.h"

namespace {

struct alignas(16) BlockHeader {
    uint32_t mem_type;
    uint32_t magic;
    size_t size;
};

constexpr uint32_t kMagic = 0xEFA110C8;

struct Accounts {
    std::mutex lock;
    std::map<uint32_t, std::pair<long, long>> live;  // type -> blocks, bytes
    unsigned fail_countdown = 0;
    uint64_t attempts = 0;
};

Accounts &accounts()
{
    static Accounts a;
    return a;
}

}  // namespace

extern "C" void *ef_malloc(uint32_t mem_type, size_t size, uint32_t)
{
    Accounts &a = accounts();
    {
        std::lock_guard<std::mutex> g(a.lock);
        a.attempts++;
        if (a.fail_countdown != 0 && --a.fail_countdown == 0)
            return nullptr;
    }
    auto *h = static_cast<BlockHeader *>(std::malloc(sizeof(BlockHeader) + size));
    if (h == nullptr)
        return nullptr;
    h->mem_type = mem_type;
    h->magic = kMagic;
    h->size = size;
    std::lock_guard<std::mutex> g(a.lock);
    auto &acc = a.live[mem_type];
    acc.first++;
    acc.second += static_cast<long>(size);
    return h + 1;
}

extern "C" void ef_free(uint32_t mem_type, void *ptr)
{
    if (ptr == nullptr)
        return;
    auto *h = static_cast<BlockHeader *>(ptr) - 1;
    if (h->magic != kMagic || h->mem_type != mem_type)
        std::abort();  // freeing under the wrong type is a bug worth stopping at
    h->magic = 0;
    Accounts &a = accounts();
    {
        std::lock_guard<std::mutex> g(a.lock);
        auto &acc = a.live[mem_type];
        acc.first--;
        acc.second -= static_cast<long>(h->size);
    }
    std::free(h);
}

namespace efrt {

long mem_live_blocks(uint32_t mem_type)
{
    std::lock_guard<std::mutex> g(accounts().lock);
    return accounts().live[mem_type].first;
}

long mem_live_bytes(uint32_t mem_type)
{
    std::lock_guard<std::mutex> g(accounts().lock);
    return accounts().live[mem_type].second;
}

long mem_live_blocks_total()
{
    std::lock_guard<std::mutex> g(accounts().lock);
    long total = 0;
    for (const auto &[type, acc] : accounts().live)
        total += acc.first;
    return total;
}

void mem_fail_nth(unsigned n)
{
    std::lock_guard<std::mutex> g(accounts().lock);
    accounts().fail_countdown = n;
}

uint64_t mem_alloc_attempts()
{
    std::lock_guard<std::mutex> g(accounts().lock);
    return accounts().attempts;
}

void mem_reset_injection()
{
    std::lock_guard<std::mutex> g(accounts().lock);
    accounts().fail_countdown = 0;
}

}  // namespace efrt
