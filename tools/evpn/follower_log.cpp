// The follower's log; see follower_log.h.
#include "follower_log.h"

#include <cstdio>
#include <ctime>
#include <mutex>

namespace evpn {

namespace {

std::string now_text()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm t{};
    gmtime_r(&ts.tv_sec, &t);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03ld", t.tm_hour, t.tm_min, t.tm_sec, ts.tv_nsec / 1000000);
    return buf;
}

}  // namespace

void follower_log(const std::string &line, tools::Priority priority)
{
    static std::mutex lock;
    std::lock_guard<std::mutex> g(lock);
    std::fprintf(stderr, "%sevpn-follower %s %s\n", tools::priority_prefix(priority), now_text().c_str(),
                 line.c_str());
    std::fflush(stderr);
}

}  // namespace evpn
