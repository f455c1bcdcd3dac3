// Test and host controls of the per-CPU hand-off queue to the L3 engine.
#pragma once

#include <cstdint>
#include <vector>

#include "efmp.h"

namespace efrt {

// Every buffer queued on a CPU's slot so far, in queue order, taken off the
// queue; the caller owns them (free with efmp_buff_free_sw_user).
std::vector<efmp_buff_t *> l3_take(uint32_t cpu = 0);
// The same without building a vector: the head of the queued chain (linked
// through next, the last one's next null), or nullptr when none waits.
efmp_buff_t *l3_take_chain(uint32_t cpu = 0);
// Number of buffers waiting on a CPU's slot.
uint32_t l3_queued(uint32_t cpu = 0);
// Per-slot capacity (default 4096).
void l3_set_capacity(uint32_t capacity);
// How often efmp_vth_active_async woke each CPU's worker.
uint64_t l3_wakes(uint32_t cpu = 0);
// Called on every wake-up (the threaded host's L3 worker); nullptr for none.
using L3WakeFn = void (*)(uint32_t cpu, void *ctx);
void l3_set_wake(L3WakeFn fn, void *ctx);
// Empties every slot (freeing what waits) and restores the defaults.
void l3_reset();

}  // namespace efrt
