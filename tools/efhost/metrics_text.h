// efhost's counters in the Prometheus text exposition format (version
// 0.0.4): the figures of counters_json.h under Prometheus names, every
// family with its # HELP and # TYPE lines, counters ending in _total.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace efhost {

// The exposition of a counters_json document.
std::string metrics_text(const nlohmann::ordered_json &counters);

}  // namespace efhost
