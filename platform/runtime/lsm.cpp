// Interface manager: a table of interface control blocks by index. The blocks
// stay at a fixed address while they exist, since modules keep pointers.
// Packet threads look blocks up in a published index without a lock.
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "efrt.h"
#include "lsm.h"
#include "published.h"

namespace {

// Interface indexes of ports and tunnels are small numbers: those below
// kDense are one array load away, the others in a hash map.
struct Index {
    static constexpr uint32_t kDense = 1024;
    std::vector<lsm_intfcb_t *> dense = std::vector<lsm_intfcb_t *>(kDense, nullptr);
    std::unordered_map<uint32_t, lsm_intfcb_t *> sparse;

    lsm_intfcb_t *find(uint32_t ifindex) const
    {
        if (ifindex < kDense)
            return dense[ifindex];
        auto it = sparse.find(ifindex);
        return it == sparse.end() ? nullptr : it->second;
    }

    bool set(uint32_t ifindex, lsm_intfcb_t *block)
    {
        if (ifindex < kDense)
            dense[ifindex] = block;
        else if (block != nullptr)
            sparse[ifindex] = block;
        else
            sparse.erase(ifindex);
        return true;
    }
};

struct Interfaces {
    std::recursive_mutex lock;
    std::map<uint32_t, std::unique_ptr<lsm_intfcb_t>> table;
    efrt::Published<Index> index;
};

Interfaces g_intfs;

Interfaces &intfs() { return g_intfs; }

int copy_name(uint32_t ifindex, char *buf, int len, bool short_name)
{
    if (buf == nullptr || len <= 0)
        return -1;
    lsm_intfcb_t *intf = lsm_get_intfcb(ifindex);
    const char *name = intf == nullptr ? "" : short_name ? intf->sname : intf->name;
    std::snprintf(buf, static_cast<size_t>(len), "%s", name);
    return intf == nullptr ? -1 : 0;
}

}  // namespace

extern "C" lsm_intfcb_t *lsm_get_intfcb(uint32_t ifindex)
{
    return intfs().index.read().find(ifindex);
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

void lsm_add(const lsm_intfcb_t &intf)
{
    Interfaces &i = intfs();
    std::lock_guard<std::recursive_mutex> g(i.lock);
    auto &slot = i.table[intf.ifindex];
    if (slot == nullptr) {
        slot = std::make_unique<lsm_intfcb_t>();
        lsm_intfcb_t *block = slot.get();
        i.index.update([&](Index &idx) { return idx.set(intf.ifindex, block); });
    }
    *slot = intf;
}

void lsm_remove(uint32_t ifindex)
{
    std::lock_guard<std::recursive_mutex> g(intfs().lock);
    intfs().index.update([&](Index &idx) { return idx.set(ifindex, nullptr); });
    intfs().table.erase(ifindex);
}

std::vector<uint32_t> lsm_indexes()
{
    std::lock_guard<std::recursive_mutex> g(intfs().lock);
    std::vector<uint32_t> out;
    for (const auto &entry : intfs().table)
        out.push_back(entry.first);
    return out;
}

void lsm_clear()
{
    std::lock_guard<std::recursive_mutex> g(intfs().lock);
    intfs().index.clear();
    intfs().table.clear();
}

}  // namespace efrt
