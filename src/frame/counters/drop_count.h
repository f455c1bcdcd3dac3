// Counting the module's drops by reason (the catalogue vxlan_ef_drop.def):
// one call at each drop site counts the reason and prints the site's trace
// line exactly as before. A count is a relaxed atomic add on a counter of its
// own cache line: drops are rare next to forwarded frames, no lock is taken,
// and a reader sees each count whole.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "frame/trace/packet_trace.h"
#include "vxlan_ef_counters.h"

namespace vxlan_ef {

enum class Drop : uint32_t {
#define VXLAN_EF_DROP(ident, name, text) ident,
#include "vxlan_ef_drop.def"
    Count
};

struct alignas(64) DropCounter {
    std::atomic<uint64_t> n{0};
};

extern DropCounter g_drop_counts[static_cast<std::size_t>(Drop::Count)];

inline void count_drop(Drop reason)
{
    g_drop_counts[static_cast<std::size_t>(reason)].n.fetch_add(1, std::memory_order_relaxed);
}

// Copies every count into the record's fields, in catalogue order.
void read_drop_counts(vxlan_ef_drop_counts_t *out);

}  // namespace vxlan_ef

// A drop counted and traced: the line is the site's own, printed under the
// same gate as before.
#define VXLAN_EF_DROP_TRACE(reason, buff, gate, fmt, ...)          \
    do {                                                          \
        vxlan_ef::count_drop(vxlan_ef::Drop::reason);             \
        VXLAN_EF_TRACE(buff, gate, fmt, ##__VA_ARGS__);           \
    } while (0)

#define VXLAN_EF_DROP_TRACE_AS(reason, buff, gate, func, fmt, ...) \
    do {                                                          \
        vxlan_ef::count_drop(vxlan_ef::Drop::reason);             \
        VXLAN_EF_TRACE_AS(buff, gate, func, fmt, ##__VA_ARGS__);  \
    } while (0)
