// Interface manager: a table of interface control blocks by index. The blocks
// stay at a fixed address while they exist, since modules keep pointers.
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>

#include "efrt.h"
#include "lsm.h"

namespace {

struct Interfaces {
    std::recursive_mutex lock;
    std::map<uint32_t, std::unique_ptr<lsm_intfcb_t>> table;
};

Interfaces &intfs()
{
    static Interfaces i;
    return i;
}

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
    Interfaces &i = intfs();
    std::lock_guard<std::recursive_mutex> g(i.lock);
    auto it = i.table.find(ifindex);
    return it == i.table.end() ? nullptr : it->second.get();
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
    if (slot == nullptr)
        slot = std::make_unique<lsm_intfcb_t>();
    *slot = intf;
}

void lsm_remove(uint32_t ifindex)
{
    std::lock_guard<std::recursive_mutex> g(intfs().lock);
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
    intfs().table.clear();
}

}  // namespace efrt
