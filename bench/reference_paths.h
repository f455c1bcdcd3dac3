// Minimal references of the packet paths: the least work each path needs,
// written plainly beside the module, with the same harness around it, so
// that a module figure reads as a multiple of that least work.
//
// They use the segment's frames and addresses but none of the module's
// code: their own small tables, prebuilt header templates and checksums,
// and the platform's buffers and L3 hand-off queue, as the module does.
#pragma once

#include <optional>
#include <string>

#include "workloads.h"

namespace vxbench {

// Whether the module workload of that name has a reference.
bool has_reference(const std::string &module_workload);

// The reference of a module workload, under the given name, for the segment
// that is running now. Building it runs the path once and checks every byte
// it produced; when they are wrong, every run of it fails.
std::optional<Workload> make_reference(const std::string &module_workload,
                                       const std::string &name);

}  // namespace vxbench
