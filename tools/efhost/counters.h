// efhost's counters as text: the pipeline's outcomes, every port's frames
// in, out and lost, the L3 engine's, the bridge MAC table, neighbour
// suppression, the packet buffers in use, and the module's drops by reason
// and frames per VNI and tunnel. The same lines answer the control socket's
// counters request and make efhost's report at exit; counters_json.h and
// metrics_text.h give the same figures as JSON and as Prometheus text.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "l3_engine.h"
#include "module_loader.h"
#include "pipeline.h"
#include "port.h"

namespace efhost {

struct CounterSources {
    const Config *cfg = nullptr;
    const Pipeline *pipeline = nullptr;
    const std::map<uint32_t, std::unique_ptr<Port>> *ports = nullptr;
    const L3Engine *l3 = nullptr;
    const ModuleLoader *module = nullptr;
};

// One line per group; a source that is null leaves its lines out.
std::vector<std::string> counter_lines(const CounterSources &from);

// The configured name of a port, "?" for an index the file lacks.
std::string port_name(const Config &cfg, uint32_t ifindex);

// Encapsulated packets the module freed because the L3 hand-off queue had
// no room: every one is freed once, by the L3 engine after taking it or by
// the module.
uint64_t handoff_queue_lost(const L3Stats &s);

}  // namespace efhost
