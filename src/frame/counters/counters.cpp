// The drop and flow counters of drop_count.h and flow_count.h, and
// vxlan_ef_counters_read, which hands them to the process that loaded the
// module.
#include <atomic>
#include <cstddef>
#include <cstring>
#include <map>

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

// One row per (VNI, tunnel) pair a frame was counted for: a frame costs one
// lookup and two atomic adds, and the reader sums the rows per VNI and per
// tunnel.
struct alignas(64) FlowRow {
    std::atomic<uint64_t> key{0};  // VNI << 32 | tunnel ifindex; 0: free
    std::atomic<uint64_t> rx_frames{0};
    std::atomic<uint64_t> rx_bytes{0};
    std::atomic<uint64_t> tx_frames{0};  // unicast only; flood copies are below
    std::atomic<uint64_t> tx_bytes{0};
    std::atomic<uint64_t> flood_frames{0};
    std::atomic<uint64_t> flood_bytes{0};
};

constexpr uint32_t kPairs = VXLAN_EF_COUNTED_VNIS * 2;
// Twice as many slots as rows keeps probes short when the table is full.
constexpr uint32_t kSlots = kPairs * 2;
static_assert((kSlots & (kSlots - 1)) == 0, "slots must be a power of two");

FlowRow g_rows[kSlots];
std::atomic<uint32_t> g_used{0};
std::atomic<uint64_t> g_untracked{0};

uint32_t slot_of(uint64_t key) { return static_cast<uint32_t>((key * 0x9E3779B97F4A7C15ull) >> 40) & (kSlots - 1); }

// The row of key, claimed when new; nullptr when the table has no room.
__attribute__((noinline)) FlowRow *claim(uint64_t key)
{
    uint32_t at = slot_of(key);
    for (uint32_t probes = 0; probes < kSlots; probes++, at = (at + 1) & (kSlots - 1)) {
        FlowRow &r = g_rows[at];
        uint64_t k = r.key.load(std::memory_order_relaxed);
        if (k == key)
            return &r;
        if (k != 0)
            continue;
        if (g_used.fetch_add(1, std::memory_order_relaxed) >= kPairs) {
            g_used.fetch_sub(1, std::memory_order_relaxed);
            return nullptr;
        }
        if (r.key.compare_exchange_strong(k, key, std::memory_order_relaxed))
            return &r;
        g_used.fetch_sub(1, std::memory_order_relaxed);
        if (k == key)  // another thread claimed it for the same key
            return &r;
    }
    return nullptr;
}

// One probe for a key found where it hashes, which is what a flow's frames
// meet once their row exists.
FlowRow *find(uint64_t key)
{
    FlowRow &first = g_rows[slot_of(key)];
    if (first.key.load(std::memory_order_relaxed) == key)
        return &first;
    return claim(key);
}

// A flood copy is counted only as such: the reader adds the copies to the
// encapsulated figures.
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

void accumulate(vxlan_ef_flow_counts_t &sum, const FlowRow &r)
{
    constexpr auto relaxed = std::memory_order_relaxed;
    const uint64_t flood_frames = r.flood_frames.load(relaxed);
    const uint64_t flood_bytes = r.flood_bytes.load(relaxed);
    sum.rx_frames += r.rx_frames.load(relaxed);
    sum.rx_bytes += r.rx_bytes.load(relaxed);
    sum.tx_frames += r.tx_frames.load(relaxed) + flood_frames;
    sum.tx_bytes += r.tx_bytes.load(relaxed) + flood_bytes;
    sum.flood_frames += flood_frames;
    sum.flood_bytes += flood_bytes;
}

// Rows of sums by key, in key order, at most room of them; returns the count.
uint32_t copy_out(const std::map<uint32_t, vxlan_ef_flow_counts_t> &sums, vxlan_ef_flow_counts_t *out,
                  uint32_t room)
{
    uint32_t n = 0;
    for (const auto &[key, sum] : sums) {
        if (n == room)
            break;
        out[n] = sum;
        out[n].key = key;
        n++;
    }
    return n;
}

}  // namespace

void count_flow(FlowDir dir, uint32_t vni, uint32_t tunnel_ifx, uint32_t bytes)
{
    const uint64_t key = (static_cast<uint64_t>(vni) << 32) | tunnel_ifx;
    if (key == 0)
        return;
    FlowRow *r = find(key);
    if (r == nullptr) {
        g_untracked.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    add(*r, dir, bytes);
}

void read_flow_counts(vxlan_ef_counters_t *out)
{
    std::map<uint32_t, vxlan_ef_flow_counts_t> vnis;
    std::map<uint32_t, vxlan_ef_flow_counts_t> tunnels;
    for (const FlowRow &r : g_rows) {
        const uint64_t key = r.key.load(std::memory_order_relaxed);
        if (key == 0)
            continue;
        const uint32_t vni = static_cast<uint32_t>(key >> 32);
        const uint32_t ifx = static_cast<uint32_t>(key);
        if (vni != 0)
            accumulate(vnis[vni], r);
        if (ifx != 0)
            accumulate(tunnels[ifx], r);
    }
    out->vni_count = copy_out(vnis, out->vnis, VXLAN_EF_COUNTED_VNIS);
    out->tunnel_count = copy_out(tunnels, out->tunnels, VXLAN_EF_COUNTED_TUNNELS);
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
