// The follower's log: one time-stamped line per change, on standard error,
// whole lines even when its two threads log at once. Under systemd each line
// carries its priority for the journal (what failed, what it works around,
// what it did).
#pragma once

#include <string>

#include "service_manager.h"

namespace evpn {

void follower_log(const std::string &line, tools::Priority priority = tools::Priority::Info);

}  // namespace evpn
