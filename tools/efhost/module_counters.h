// The module's packet counters as efhost reports them: each drop reason of
// the module's catalogue with its count, and the frames and bytes of each
// VNI and tunnel interface, the tunnel named as the platform knows it. Read
// through the module's vxlan_ef_counters_read; the text lines, the JSON
// answer and the metrics endpoint all start from this one snapshot.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "module_loader.h"
#include "vxlan_ef_counters.h"

namespace efhost {

struct DropFigure {
    const char *name;  // the catalogue's name, e.g. "unknown_vni"
    const char *text;  // what causes it
    uint64_t count;
};

struct FlowFigure {
    uint32_t key;      // VNI or ifindex
    std::string name;  // the tunnel's interface name; empty for a VNI or a gone tunnel
    vxlan_ef_flow_counts_t counts;
};

struct ModuleFigures {
    bool present = false;  // false: no module, or one without the counters function
    std::vector<DropFigure> drops;  // every reason, in catalogue order
    uint64_t untracked = 0;
    std::vector<FlowFigure> vnis;
    std::vector<FlowFigure> tunnels;
};

// A snapshot of the module's counters; empty (present false) without one.
// Reads interface blocks: may be called from any thread.
ModuleFigures module_figures(const ModuleLoader *module);

}  // namespace efhost
