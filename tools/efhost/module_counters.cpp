// The snapshot of module_counters.h.
#include "module_counters.h"

#include <cstring>
#include <memory>

#include "lsm.h"
#include "rcu.h"

namespace efhost {

namespace {

std::vector<FlowFigure> flows(const vxlan_ef_flow_counts_t *rows, uint32_t n, bool named)
{
    std::vector<FlowFigure> out;
    out.reserve(n);
    for (uint32_t i = 0; i < n; i++) {
        std::string name;
        if (named) {
            const lsm_intfcb_t *intf = lsm_get_intfcb(rows[i].key);
            if (intf != nullptr)
                name = intf->name;
        }
        out.push_back(FlowFigure{rows[i].key, std::move(name), rows[i]});
    }
    return out;
}

}  // namespace

ModuleFigures module_figures(const ModuleLoader *module)
{
    ModuleFigures f;
    if (module == nullptr)
        return f;
    // Large (one row per counted VNI and tunnel): kept off the stack.
    auto c = std::make_unique<vxlan_ef_counters_t>();
    if (!module->read_counters(*c))
        return f;
    f.present = true;
    uint64_t counts[VXLAN_EF_DROP_REASONS];
    std::memcpy(counts, &c->drops, sizeof counts);
    for (size_t i = 0; i < VXLAN_EF_DROP_REASONS; i++)
        f.drops.push_back(DropFigure{vxlan_ef_drop_reasons[i].name, vxlan_ef_drop_reasons[i].text, counts[i]});
    f.untracked = c->untracked;
    efrt::rcu::ReadSection reading;  // the tunnels' interface blocks
    f.vnis = flows(c->vnis, c->vni_count, false);
    f.tunnels = flows(c->tunnels, c->tunnel_count, true);
    return f;
}

}  // namespace efhost
