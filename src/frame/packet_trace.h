// The packet-trace rule shared by every packet path: a packet already marked
// as traced is printed by every gate; an unmarked one is admitted while the
// gate's debug flag is on and the trace budget lasts. An exhausted budget
// switches the gate's flags off instead of printing.
#pragma once

#include "core/core_private.h"
#include "efmp.h"

namespace vxlan_ef {

enum class TraceGate {
    Parser,   // parser flag, and only packets of the traced interface
    Forward,  // forward flag; an empty budget clears forward and encap
    Encap,    // encap flag; an empty budget clears forward and encap
};

// True when a trace line may be printed for buff. May mark buff as traced and
// spend one unit of budget. The budget is updated without a lock: a lost
// decrement only lets one more packet be traced.
bool trace_admit(efmp_buff_t *buff, TraceGate gate);

}  // namespace vxlan_ef

// A traced packet-path line. fmt carries the whole text, "[vsd %d %s]" included.
#define VXLAN_EF_TRACE(buff, gate, fmt, ...)                                           \
    do {                                                                               \
        if (vxlan_ef::trace_admit((buff), (gate)))                                     \
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, fmt, g_vxlan_vsd->id,     \
                              __func__, ##__VA_ARGS__);                                \
    } while (0)

#define VXLAN_EF_TRACE_AS(buff, gate, func, fmt, ...)                                  \
    do {                                                                               \
        if (vxlan_ef::trace_admit((buff), (gate)))                                     \
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, fmt, g_vxlan_vsd->id,     \
                              func, ##__VA_ARGS__);                                    \
    } while (0)
