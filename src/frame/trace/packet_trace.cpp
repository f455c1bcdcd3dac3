// The packet-trace rule: which packets' trace lines are printed.
#include "frame/trace/packet_trace.h"

namespace vxlan_ef {

namespace {

void clear_mask_bits(vxlan_ef_vsd_t *vsd, uint32_t bits)
{
    store_relaxed(vsd->debug_mask, static_cast<uint16_t>(load_relaxed(vsd->debug_mask) & ~bits));
}

// Switches the gate off once the budget is spent.
void exhaust(vxlan_ef_vsd_t *vsd, TraceGate gate)
{
    if (gate == TraceGate::Parser) {
        clear_mask_bits(vsd, VXLAN_EF_DBG_PARSER);
        store_relaxed(vsd->trace_ifx, 0);
    } else {
        clear_mask_bits(vsd, VXLAN_EF_DBG_FORWARD | VXLAN_EF_DBG_ENCAP);
    }
}

}  // namespace

bool trace_admit_flagged(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, TraceGate gate)
{
    if (gate == TraceGate::Parser && buff->src_ifx != load_relaxed(vsd->trace_ifx))
        return false;
    // Packet threads spend the budget without a lock: a decrement lost to
    // another thread's only lets one more packet be traced, so a plain load
    // and store (not an atomic decrement) is enough.
    const uint32_t budget = load_relaxed(vsd->trace_budget);
    if (budget == 0) {
        exhaust(vsd, gate);
        return false;
    }
    store_relaxed(vsd->trace_budget, budget - 1);
    buff->flags |= EFMP_F_TRACE;
    return true;
}

}  // namespace vxlan_ef
