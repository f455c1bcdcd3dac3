// The measured workloads: one packet (or one control exchange) through one
// path of the module, repeatable any number of times with nothing left
// behind. The benchmark executable and the packet driver share them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bench_frames.h"
#include "efmp.h"
#include "vxlan_ef.h"
#include "vxlan_ef_tables.h"

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

// Runs between two quiescent states of the measuring thread, as efhost's
// packet threads pass one after each receive batch of up to 64 frames.
constexpr uint64_t kRunsPerBatch = 64;

// Every workload name, in report order: each path with a minimal reference
// is followed by the reference, named with this prefix.
constexpr const char *kReferencePrefix = "ref_";
std::vector<std::string> workload_names();

// Builds the named workload for the segment that is running now; nothing for
// an unknown name.
std::optional<Workload> make_workload(const std::string &name);

// The harness steps every packet workload shares, module or reference, so
// that both sides of a ratio pay for them alike.
namespace harness {

// A received frame in a fresh buffer, as the platform's Ethernet layer hands
// it to the pipeline.
efmp_buff_t *receive(const Bytes &frame, lsm_intfcb_t *port);

struct Drained {
    size_t count;
    bool first_to_vtep;  // the first packet's outer destination is the VTEP
};

// Takes what reached the L3 hand-off queue off it and frees it; vtep may be
// null when the destination does not matter.
Drained drain_l3(const vxlan_ef_ip_addr_t *vtep = nullptr);

}  // namespace harness

}  // namespace vxbench
