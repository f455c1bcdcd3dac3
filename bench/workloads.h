// The measured workloads: one packet (or one control exchange) through one
// path of the module, repeatable any number of times with nothing left
// behind. The benchmark executable and the packet driver share them.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vxbench {

struct Workload {
    std::string name;
    // What one run handles, for the rates reported.
    const char *unit;        // "packet", "message"
    size_t items_per_run;    // packets or messages of one run
    size_t bytes_per_run;    // frame bytes entering the path in one run
    size_t vnis_per_run;     // VNIs configured by one run (control path), else 0
    // One run; false when the path did not go the way it is meant to (a
    // drop, nothing queued, a refused message).
    std::function<bool()> run;
};

// Every workload name, in report order.
std::vector<std::string> workload_names();

// Builds the named workload for the segment that is running now; nothing for
// an unknown name.
std::optional<Workload> make_workload(const std::string &name);

}  // namespace vxbench
