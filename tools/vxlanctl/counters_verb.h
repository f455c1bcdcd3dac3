// The counters verb: efhost's counters as text (counter lines), as one JSON
// document (--json), or as rates per second every N seconds (--interval),
// like `ip -s -s link` run in a loop; and --json for the other verbs that
// read, whose listed lines become a JSON document.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vxlanctl {

struct CountersOptions {
    bool json = false;
    double interval = 0;  // seconds; 0: once
    unsigned count = 0;   // with interval: samples of rates to print; 0: until interrupted
};

// Runs the counters verb; the exit code of request.h.
int run_counters(const std::string &socket_path, double timeout_s, const CountersOptions &options,
                 std::ostream &out, std::ostream &err);

// The rates between two counters documents taken seconds apart: one line per
// group ("pipeline", "port 1 eth0", "vni 1000", "tunnel 45001 tunnel1",
// "module drops" ...) with each counter per second; gauges (entries in a
// table, buffers in use, packets waiting) are left out, and the drops line
// names only the reasons that dropped something after its total.
std::vector<std::string> rate_lines(const nlohmann::ordered_json &before, const nlohmann::ordered_json &after,
                                    double seconds);

// The JSON document of a read verb's listed lines: {"command": ..., "lines": [...]}.
std::string lines_document(const std::string &command, const std::vector<std::string> &lines);

}  // namespace vxlanctl
