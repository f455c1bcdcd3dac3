// The hand-off of an encapsulated chain to the L3 engine through this CPU's
// slot of the platform's queue.
#pragma once

#include <cstdint>

#include "efmp.h"
#include "frame/trace/packet_trace.h"

// Queues the chain first..last of count buffers on the current CPU's slot and
// wakes its worker; when the slot has no room the worker is still woken and
// the chain is freed. Either way the chain is consumed: returns EF_Lost.
// func names the caller in the two trace lines, which follow the encap trace
// rule on the chain's first buffer.
VXLAN_EF_API int vxlan_ef_skip_fw(efmp_buff_t *first, efmp_buff_t *last, uint32_t count,
                                  const char *func);

namespace vxlan_ef {

inline int l3_handoff(efmp_buff_t *first, efmp_buff_t *last, uint32_t count, const char *func)
{
    return vxlan_ef_skip_fw(first, last, count, func);
}

}  // namespace vxlan_ef
