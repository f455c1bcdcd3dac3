// efhost's counters as one JSON document: the figures of counter_lines
// (counters.h) by name, for `vxlanctl counters --json` and its rates.
#pragma once

#include <nlohmann/json.hpp>

#include "counters.h"

namespace efhost {

// {"pipeline": {...}, "ports": [...], "l3": {...}, "neighbours": {...},
//  "mac_table": {...}, "suppression": {...}, "buffers_in_use": N,
//  "module": {"drops": {reason: N, ...}, "untracked": N,
//             "vnis": [...], "tunnels": [...]}}
// A source that is null leaves its member out, as in the text.
nlohmann::ordered_json counters_json(const CounterSources &from);

}  // namespace efhost
