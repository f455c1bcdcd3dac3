// Frames and bytes per VNI and per tunnel interface, counted on the packet
// paths without a lock. Rows, one per (VNI, tunnel) pair, live in a fixed
// open-addressing table that is never freed: a packet thread claims a row for
// a new pair with one compare-and-swap, and a row outlives its VNI or tunnel,
// so no reader or counter can ever touch freed memory whatever the control
// thread removes. The reader sums the rows per VNI and per tunnel.
#pragma once

#include <cstdint>

#include "vxlan_ef_counters.h"

namespace vxlan_ef {

enum class FlowDir { Rx, Tx, FloodTx };

// Counts one frame of bytes inner bytes for vni and the tunnel ifindex (a
// zero VNI or ifindex has no row of its own when read; a pair beyond the
// 8192 the table holds is counted as untracked). Tx and FloodTx both read
// as encapsulated; FloodTx also as a flood copy.
void count_flow(FlowDir dir, uint32_t vni, uint32_t tunnel_ifx, uint32_t bytes);

// Copies the rows in use into out (vnis, tunnels, their counts, untracked).
void read_flow_counts(vxlan_ef_counters_t *out);

}  // namespace vxlan_ef
