// The L3 engine's clock: milliseconds from the steady clock, replaceable so
// that tests can move time (neighbour lifetimes, resolution retries) without
// sleeping.
#pragma once

#include <cstdint>
#include <functional>

namespace efhost::l3 {

using ClockFn = std::function<uint64_t()>;

// Milliseconds now, from the installed clock.
uint64_t now_ms();
// Installs a clock for every L3 engine of the process; an empty function
// puts the steady clock back.
void set_clock(ClockFn clock);

}  // namespace efhost::l3
