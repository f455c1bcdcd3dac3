// vxlan_ef_packet_driver PATH N: starts the benchmark segment and runs one
// workload N times, for instruction counting under callgrind (the start-up
// cost cancels out between two values of N).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_setup.h"
#include "efrt_services.h"
#include "rcu.h"
#include "workloads.h"

namespace {

void usage()
{
    std::fprintf(stderr, "usage: vxlan_ef_packet_driver PATH N\nPATH is one of:\n");
    for (const std::string &name : vxbench::workload_names())
        std::fprintf(stderr, "  %s\n", name.c_str());
}

bool parse_count(const char *text, unsigned long *out)
{
    char *end = nullptr;
    errno = 0;
    *out = std::strtoul(text, &end, 10);
    return errno == 0 && end != text && *end == '\0';
}

}  // namespace

int main(int argc, char **argv)
{
    unsigned long n = 0;
    if (argc != 3 || !parse_count(argv[2], &n)) {
        if (argc == 3)
            std::fprintf(stderr, "N must be a whole number of runs, got '%s'\n", argv[2]);
        usage();
        return 2;
    }
    const std::string error = vxbench::start_segment();
    if (!error.empty()) {
        std::fprintf(stderr, "setting up the segment failed: %s\n", error.c_str());
        return 1;
    }
    auto w = vxbench::make_workload(argv[1]);
    if (!w) {
        std::fprintf(stderr, "unknown PATH '%s'\n", argv[1]);
        usage();
        vxbench::stop_segment();
        return 2;
    }
    // What start-up retired is freed before the runs and what stopping
    // retired before the end, so that the reclaimer thread works at the same
    // points whatever N is and the difference of two counts is the runs'.
    efrt::rcu::barrier();
    unsigned long failed = 0;
    {
        // As efhost's packet threads: reading for their whole life, holding
        // nothing between two batches of frames.
        efrt::rcu::ReadSection worker;
        for (unsigned long i = 0; i < n; ++i) {
            failed += w->run() ? 0 : 1;
            if ((i + 1) % vxbench::kRunsPerBatch == 0)
                efrt::rcu::quiescent();
        }
    }
    vxbench::stop_segment();
    efrt::rcu::barrier();
    const long live = efrt::buff_live_total();
    std::printf("%s: %lu runs, %lu off the expected path, %ld packet buffers left\n", argv[1], n,
                failed, live);
    return failed == 0 && live == 0 ? 0 : 1;
}
