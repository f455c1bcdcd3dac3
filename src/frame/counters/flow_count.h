// Frames and bytes per VNI and per tunnel interface, counted on the packet
// paths without a lock. Rows live in fixed open-addressing tables that are
// never freed: a packet thread claims a row for a new key with one
// compare-and-swap, and a row outlives its VNI or tunnel, so no reader or
// counter can ever touch freed memory whatever the control thread removes.
#pragma once

#include <cstdint>

#include "vxlan_ef_counters.h"

namespace vxlan_ef {

enum class FlowDir { Rx, Tx, FloodTx };

// Counts one frame of bytes inner bytes for vni and for the tunnel ifindex
// (a zero key is not counted in its table; a key the table has no room
// for is counted as untracked). Tx and FloodTx both count as
// encapsulated; FloodTx also as a flood copy.
void count_flow(FlowDir dir, uint32_t vni, uint32_t tunnel_ifx, uint32_t bytes);

// Copies the rows in use into out (vnis, tunnels, their counts, untracked).
void read_flow_counts(vxlan_ef_counters_t *out);

}  // namespace vxlan_ef
