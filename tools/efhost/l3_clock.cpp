// The L3 engine's replaceable millisecond clock.
#include "l3_clock.h"

#include <chrono>
#include <mutex>

namespace efhost::l3 {
namespace {

std::mutex g_clock_lock;
ClockFn g_clock;

uint64_t steady_ms()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

}  // namespace

uint64_t now_ms()
{
    std::lock_guard<std::mutex> g(g_clock_lock);
    return g_clock ? g_clock() : steady_ms();
}

void set_clock(ClockFn clock)
{
    std::lock_guard<std::mutex> g(g_clock_lock);
    g_clock = std::move(clock);
}

}  // namespace efhost::l3
