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

constexpr uint16_t gate_flag(TraceGate gate)
{
    switch (gate) {
    case TraceGate::Parser:
        return VXLAN_EF_DBG_PARSER;
    case TraceGate::Forward:
        return VXLAN_EF_DBG_FORWARD;
    case TraceGate::Encap:
        return VXLAN_EF_DBG_ENCAP;
    }
    return 0;
}

// The gate for a packet not yet traced whose gate flag is on: may mark buff
// as traced and spend one unit of budget.
bool trace_admit_flagged(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, TraceGate gate);

// True when a trace line may be printed for buff. While the module is silent
// it costs the mask test, and the packet's trace mark, inline: nothing is
// called and nothing formatted.
inline bool trace_admit(efmp_buff_t *buff, TraceGate gate)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr || buff == nullptr)
        return false;
    if ((load_relaxed(vsd->debug_mask) & gate_flag(gate)) == 0)
        return (buff->flags & EFMP_F_TRACE) != 0;
    if (buff->flags & EFMP_F_TRACE)
        return true;
    return trace_admit_flagged(buff, vsd, gate);
}

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
