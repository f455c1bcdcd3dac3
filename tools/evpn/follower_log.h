// The follower's log: one time-stamped line per change, on standard output,
// whole lines even when its two threads log at once.
#pragma once

#include <string>

namespace evpn {

void follower_log(const std::string &line);

}  // namespace evpn
