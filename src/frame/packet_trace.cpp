// The packet-trace rule: which packets' trace lines are printed.
#include "packet_trace.h"

namespace vxlan_ef {

namespace {

uint32_t gate_flag(TraceGate gate)
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

// Switches the gate off once the budget is spent.
void exhaust(vxlan_ef_vsd_t *vsd, TraceGate gate)
{
    if (gate == TraceGate::Parser) {
        vsd->debug_mask &= static_cast<uint16_t>(~VXLAN_EF_DBG_PARSER);
        vsd->trace_ifx = 0;
    } else {
        vsd->debug_mask &= static_cast<uint16_t>(~(VXLAN_EF_DBG_FORWARD | VXLAN_EF_DBG_ENCAP));
    }
}

}  // namespace

bool trace_admit(efmp_buff_t *buff, TraceGate gate)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr || buff == nullptr)
        return false;
    if (buff->flags & EFMP_F_TRACE)
        return true;
    if ((vsd->debug_mask & gate_flag(gate)) == 0)
        return false;
    if (gate == TraceGate::Parser && buff->src_ifx != vsd->trace_ifx)
        return false;
    if (vsd->trace_budget == 0) {
        exhaust(vsd, gate);
        return false;
    }
    vsd->trace_budget--;
    buff->flags |= EFMP_F_TRACE;
    return true;
}

}  // namespace vxlan_ef
