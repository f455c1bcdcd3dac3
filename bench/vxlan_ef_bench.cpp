// Google Benchmark executable: ns per packet (or message) of each workload,
// with packets (or messages) and bytes per second. Each benchmark starts its
// own segment and checks, once before timing, that its path goes the way it
// should; at the end, what the platform still holds is printed.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "bench_setup.h"
#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_services.h"
#include "workloads.h"

namespace {

using vxbench::Workload;

// Buffers and broadcast nodes still live; both must be 0 between runs.
long leftovers() { return efrt::buff_live_total() + efrt::mcast_nodes_live(); }

void run_workload(benchmark::State &state, const std::string &name)
{
    const long before = leftovers();
    const std::string error = vxbench::start_segment();
    if (!error.empty()) {
        vxbench::stop_segment();
        state.SkipWithError(error.c_str());
        return;
    }
    std::optional<Workload> w = vxbench::make_workload(name);
    if (!w || !w->run()) {
        vxbench::stop_segment();
        state.SkipWithError("the path did not go the expected way");
        return;
    }
    bool ok = true;
    for (auto _ : state)
        ok = w->run() && ok;
    vxbench::stop_segment();
    if (!ok)
        state.SkipWithError("a run did not go the expected way");
    const auto runs = static_cast<int64_t>(state.iterations());
    state.SetItemsProcessed(runs * static_cast<int64_t>(w->items_per_run));
    if (w->bytes_per_run != 0)
        state.SetBytesProcessed(runs * static_cast<int64_t>(w->bytes_per_run));
    if (w->vnis_per_run != 0)
        state.counters["vnis_per_second"] = benchmark::Counter(
            static_cast<double>(runs * static_cast<int64_t>(w->vnis_per_run)),
            benchmark::Counter::kIsRate);
    state.counters["left_behind"] = static_cast<double>(leftovers() - before);
}

}  // namespace

int main(int argc, char **argv)
{
    for (const std::string &name : vxbench::workload_names())
        benchmark::RegisterBenchmark(name.c_str(), run_workload, name);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    const long buffers = efrt::buff_live_total();
    const long nodes = efrt::mcast_nodes_live();
    std::printf("live packet buffers at exit: %ld, live broadcast nodes at exit: %ld\n", buffers,
                nodes);
    return buffers == 0 && nodes == 0 ? 0 : 1;
}
