// The drop and flow counters of drop_count.h and flow_count.h, and
// vxlan_ef_counters_read, which hands them to the process that loaded the
// module.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>

#include "frame/counters/drop_count.h"
#include "frame/counters/flow_count.h"
#include "vxlan_ef_counters.h"

namespace vxlan_ef {

DropCounter g_drop_counts[static_cast<std::size_t>(Drop::Count)];

void read_drop_counts(vxlan_ef_drop_counts_t *out)
{
    static_assert(sizeof(vxlan_ef_drop_counts_t) ==
                  static_cast<std::size_t>(Drop::Count) * sizeof(uint64_t));
    uint64_t counts[static_cast<std::size_t>(Drop::Count)];
    for (std::size_t i = 0; i < static_cast<std::size_t>(Drop::Count); i++)
        counts[i] = g_drop_counts[i].n.load(std::memory_order_relaxed);
    std::memcpy(out, counts, sizeof counts);
}

namespace {

struct alignas(64) FlowRow {
    std::atomic<uint32_t> key{0};
    std::atomic<uint64_t> rx_frames{0};
    std::atomic<uint64_t> rx_bytes{0};
    std::atomic<uint64_t> tx_frames{0};  // unicast only; flood copies are below
    std::atomic<uint64_t> tx_bytes{0};
    std::atomic<uint64_t> flood_frames{0};
    std::atomic<uint64_t> flood_bytes{0};
};

// Twice as many slots as rows keeps probes short when the table is full.
template <uint32_t Rows>
struct FlowTable {
    static constexpr uint32_t kSlots = Rows * 2;
    static_assert((kSlots & (kSlots - 1)) == 0, "slots must be a power of two");
    FlowRow slots[kSlots];
    std::atomic<uint32_t> used{0};

    // The row of key: one probe for a key found where it hashes, which is
    // what a flow's frames meet once their row exists.
    FlowRow *find(uint32_t key)
    {
        FlowRow &first = slots[(key * 0x9E3779B1u) & (kSlots - 1)];
        if (first.key.load(std::memory_order_relaxed) == key)
            return &first;
        return row(key);
    }

    // The row of key, claimed when new; nullptr when the table has no room.
    __attribute__((noinline)) FlowRow *row(uint32_t key)
    {
        uint32_t at = (key * 0x9E3779B1u) & (kSlots - 1);
        for (uint32_t probes = 0; probes < kSlots; probes++, at = (at + 1) & (kSlots - 1)) {
            FlowRow &r = slots[at];
            uint32_t k = r.key.load(std::memory_order_relaxed);
            if (k == key)
                return &r;
            if (k != 0)
                continue;
            if (used.fetch_add(1, std::memory_order_relaxed) >= Rows) {
                used.fetch_sub(1, std::memory_order_relaxed);
                return nullptr;
            }
            if (r.key.compare_exchange_strong(k, key, std::memory_order_relaxed))
                return &r;
            used.fetch_sub(1, std::memory_order_relaxed);
            if (k == key)  // another thread claimed it for the same key
                return &r;
        }
        return nullptr;
    }

    // Rows in use, in slot order; returns how many were written.
    uint32_t read(vxlan_ef_flow_counts_t *out) const
    {
        uint32_t n = 0;
        for (const FlowRow &r : slots) {
            const uint32_t key = r.key.load(std::memory_order_relaxed);
            if (key == 0 || n == Rows)
                continue;
            constexpr auto relaxed = std::memory_order_relaxed;
            const uint64_t flood_frames = r.flood_frames.load(relaxed);
            const uint64_t flood_bytes = r.flood_bytes.load(relaxed);
            out[n++] = vxlan_ef_flow_counts_t{key,
                                              0,
                                              r.rx_frames.load(relaxed),
                                              r.rx_bytes.load(relaxed),
                                              r.tx_frames.load(relaxed) + flood_frames,
                                              r.tx_bytes.load(relaxed) + flood_bytes,
                                              flood_frames,
                                              flood_bytes};
        }
        return n;
    }
};

FlowTable<VXLAN_EF_COUNTED_VNIS> g_vni_flows;
FlowTable<VXLAN_EF_COUNTED_TUNNELS> g_tunnel_flows;
std::atomic<uint64_t> g_untracked{0};

// A flood copy is counted only as such: the reader adds the copies to the
// encapsulated figures, which saves two atomic adds per copy and table.
void add(FlowRow &r, FlowDir dir, uint32_t bytes)
{
    constexpr auto relaxed = std::memory_order_relaxed;
    switch (dir) {
    case FlowDir::Rx:
        r.rx_frames.fetch_add(1, relaxed);
        r.rx_bytes.fetch_add(bytes, relaxed);
        return;
    case FlowDir::Tx:
        r.tx_frames.fetch_add(1, relaxed);
        r.tx_bytes.fetch_add(bytes, relaxed);
        return;
    case FlowDir::FloodTx:
        r.flood_frames.fetch_add(1, relaxed);
        r.flood_bytes.fetch_add(bytes, relaxed);
        return;
    }
}

template <typename Table>
void count_in(Table &table, uint32_t key, FlowDir dir, uint32_t bytes)
{
    if (key == 0)
        return;
    FlowRow *r = table.find(key);
    if (r == nullptr) {
        g_untracked.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    add(*r, dir, bytes);
}

}  // namespace

void count_flow(FlowDir dir, uint32_t vni, uint32_t tunnel_ifx, uint32_t bytes)
{
    count_in(g_vni_flows, vni, dir, bytes);
    count_in(g_tunnel_flows, tunnel_ifx, dir, bytes);
}

void read_flow_counts(vxlan_ef_counters_t *out)
{
    auto by_key = [](const vxlan_ef_flow_counts_t &a, const vxlan_ef_flow_counts_t &b) {
        return a.key < b.key;
    };
    out->vni_count = g_vni_flows.read(out->vnis);
    std::sort(out->vnis, out->vnis + out->vni_count, by_key);
    out->tunnel_count = g_tunnel_flows.read(out->tunnels);
    std::sort(out->tunnels, out->tunnels + out->tunnel_count, by_key);
    out->untracked = g_untracked.load(std::memory_order_relaxed);
}

}  // namespace vxlan_ef

int vxlan_ef_counters_read(vxlan_ef_counters_t *out)
{
    if (out == nullptr)
        return -1;
    vxlan_ef::read_drop_counts(&out->drops);
    vxlan_ef::read_flow_counts(out);
    return 0;
}
