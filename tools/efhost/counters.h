// efhost's counters as text: the pipeline's outcomes, every port's frames
// in, out and lost, the L3 engine's, the bridge MAC table, neighbour
// suppression and the packet buffers in use. The same lines answer the
// control socket's counters request and make efhost's report at exit.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "l3_engine.h"
#include "pipeline.h"
#include "port.h"

namespace efhost {

struct CounterSources {
    const Config *cfg = nullptr;
    const Pipeline *pipeline = nullptr;
    const std::map<uint32_t, std::unique_ptr<Port>> *ports = nullptr;
    const L3Engine *l3 = nullptr;
};

// One line per group; a source that is null leaves its lines out.
std::vector<std::string> counter_lines(const CounterSources &from);

}  // namespace efhost
