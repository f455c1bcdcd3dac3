// Interface manager: a table of interface control blocks by index. Modules
// keep pointers to blocks and packet threads look blocks up in a published
// index without a lock, so a block is never written once published: adding
// an interface again publishes a new block, and a replaced or removed block
// is retired and freed after a grace period (rcu.h).
#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <vector>

#include "efrt.h"
#include "flat_map.h"
#include "lsm.h"
#include "published.h"
#include "rcu.h"

namespace efrt {
// The per-interface hooks (efmp_hooks.cpp) of a replaced block stay with the
// interface: they are published for the new block before it replaces the old
// one, and the old block's are unpublished after, so that no packet finds
// either block without its hooks.
void hooks_move_intf(lsm_intfcb_t *from, lsm_intfcb_t *to);
void hooks_forget_intf(const lsm_intfcb_t *intf);
}  // namespace efrt

namespace {

// Interface indexes of ports and tunnels are small numbers: those below
// kDense are one array load away, the others in a flat hash map whose shards
// are published on their own, since run-time tunnels come and go there.
constexpr uint32_t kDense = 1024;
using Dense = std::array<lsm_intfcb_t *, kDense>;
using Sparse = efrt::FlatMap<uint64_t, lsm_intfcb_t *>;

struct Index {
    efrt::Published<Dense> dense;
    efrt::PublishedShards<Sparse> sparse;

    lsm_intfcb_t *find(uint32_t ifindex) const
    {
        if (ifindex < kDense)
            return dense.read()[ifindex];
        lsm_intfcb_t *const *block = sparse.read(efrt::MixHash{}(ifindex)).find(ifindex);
        return block == nullptr ? nullptr : *block;
    }

    void set(uint32_t ifindex, lsm_intfcb_t *block)
    {
        if (ifindex < kDense) {
            dense.update([&](Dense &d) { return d[ifindex] = block; });
            return;
        }
        sparse.update(efrt::MixHash{}(ifindex), [&](Sparse &map) {
            if (block != nullptr)
                map.find_or_insert(ifindex) = block;
            else
                map.erase(ifindex);
            return true;
        });
    }

    void clear()
    {
        dense.clear();
        sparse.clear();
    }
};

struct Interfaces {
    std::mutex lock;                           // writers
    std::map<uint32_t, lsm_intfcb_t *> table;  // the current block of each index, owned
    Index index;

    ~Interfaces();
};

Interfaces g_intfs;
std::atomic<long> g_blocks_live{0};

lsm_intfcb_t *new_block(const lsm_intfcb_t &intf)
{
    g_blocks_live.fetch_add(1, std::memory_order_relaxed);
    return new lsm_intfcb_t(intf);
}

void free_block(void *block)
{
    delete static_cast<lsm_intfcb_t *>(block);
    g_blocks_live.fetch_sub(1, std::memory_order_relaxed);
}

Interfaces &intfs() { return g_intfs; }

Interfaces::~Interfaces()
{
    for (const auto &entry : table)
        free_block(entry.second);
}

int copy_name(uint32_t ifindex, char *buf, int len, bool short_name)
{
    if (buf == nullptr || len <= 0)
        return -1;
    efrt::rcu::ReadSection reading;
    lsm_intfcb_t *intf = lsm_get_intfcb(ifindex);
    const char *name = intf == nullptr ? "" : short_name ? intf->sname : intf->name;
    std::snprintf(buf, static_cast<size_t>(len), "%s", name);
    return intf == nullptr ? -1 : 0;
}

}  // namespace

extern "C" lsm_intfcb_t *lsm_get_intfcb(uint32_t ifindex)
{
    return intfs().index.find(ifindex);
}

extern "C" int lsm_if_get_name(uint32_t ifindex, char *buf, int len)
{
    return copy_name(ifindex, buf, len, false);
}

extern "C" int lsm_if_get_sname(uint32_t ifindex, char *buf, int len)
{
    return copy_name(ifindex, buf, len, true);
}

namespace efrt {

// Publishes block as the interface's block and retires the one it replaces;
// the caller holds the lock.
void publish(Interfaces &i, uint32_t ifindex, lsm_intfcb_t *block)
{
    lsm_intfcb_t *old = nullptr;
    auto it = i.table.find(ifindex);
    if (it != i.table.end())
        old = it->second;
    if (block != nullptr)
        i.table[ifindex] = block;
    else if (it != i.table.end())
        i.table.erase(it);
    const bool replaced = old != nullptr && block != nullptr;
    if (replaced)
        hooks_move_intf(old, block);
    i.index.set(ifindex, block);
    if (replaced)
        hooks_forget_intf(old);
    if (old != nullptr)
        rcu::retire(old, free_block);
}

void lsm_add(const lsm_intfcb_t &intf)
{
    Interfaces &i = intfs();
    std::lock_guard<std::mutex> g(i.lock);
    publish(i, intf.ifindex, new_block(intf));
}

void lsm_remove(uint32_t ifindex)
{
    Interfaces &i = intfs();
    std::lock_guard<std::mutex> g(i.lock);
    publish(i, ifindex, nullptr);
}

std::vector<uint32_t> lsm_indexes()
{
    std::lock_guard<std::mutex> g(intfs().lock);
    std::vector<uint32_t> out;
    for (const auto &entry : intfs().table)
        out.push_back(entry.first);
    return out;
}

void lsm_clear()
{
    Interfaces &i = intfs();
    std::lock_guard<std::mutex> g(i.lock);
    i.index.clear();
    for (const auto &entry : i.table)
        rcu::retire(entry.second, free_block);
    i.table.clear();
}

long lsm_blocks_live() { return g_blocks_live.load(std::memory_order_relaxed); }

}  // namespace efrt
