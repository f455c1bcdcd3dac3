// Google Benchmark executable: ns per packet (or message) of each workload,
// with packets (or messages) and bytes per second. Each benchmark starts its
// own segment and checks, once before timing, that its path goes the way it
// should; at the end come the module's times as multiples of the minimal
// references measured in the same run, and what the platform still holds.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "bench_setup.h"
#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_services.h"
#include "rcu.h"
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
    {
        // As efhost's packet threads: reading for their whole life, holding
        // nothing between two batches of frames.
        efrt::rcu::ReadSection worker;
        uint64_t runs = 0;
        for (auto _ : state) {
            ok = w->run() && ok;
            if (++runs % vxbench::kRunsPerBatch == 0)
                efrt::rcu::quiescent();
        }
    }
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

// Hands every result on to the reporter the flags chose, keeping each
// benchmark's CPU time per run for the ratios.
class RecordingReporter : public benchmark::BenchmarkReporter {
public:
    RecordingReporter() : shown_(benchmark::CreateDefaultDisplayReporter()) {}

    bool ReportContext(const Context &context) override { return shown_->ReportContext(context); }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs)
            if (r.run_type == Run::RT_Iteration && !r.error_occurred)
                seconds_[r.run_name.function_name].push_back(
                    r.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(r.time_unit));
        shown_->ReportRuns(runs);
    }

    void Finalize() override { shown_->Finalize(); }

    // Median CPU seconds per run over the repetitions; 0 when it did not run.
    double cpu_seconds(const std::string &name) const
    {
        auto it = seconds_.find(name);
        if (it == seconds_.end())
            return 0;
        std::vector<double> s = it->second;
        std::sort(s.begin(), s.end());
        return s.size() % 2 != 0 ? s[s.size() / 2] : (s[s.size() / 2 - 1] + s[s.size() / 2]) / 2;
    }

private:
    std::unique_ptr<benchmark::BenchmarkReporter> shown_;
    std::map<std::string, std::vector<double>> seconds_;
};

// Each module path that ran with its reference: both times and their ratio.
void print_ratios(const RecordingReporter &rec, FILE *out)
{
    bool header = false;
    for (const std::string &name : vxbench::workload_names()) {
        const double module = rec.cpu_seconds(name);
        const double ref = rec.cpu_seconds(vxbench::kReferencePrefix + name);
        if (module == 0 || ref == 0)
            continue;
        if (!header)
            std::fprintf(out, "\n%-24s %14s %14s %8s\n", "module / reference", "module CPU ns",
                         "ref CPU ns", "ratio");
        header = true;
        std::fprintf(out, "%-24s %14.1f %14.1f %8.2f\n", name.c_str(), module * 1e9, ref * 1e9,
                     module / ref);
    }
}

// Lines of text in JSON or CSV output would spoil it: then they go to stderr.
bool console_format(int argc, char **argv)
{
    constexpr const char *kFlag = "--benchmark_format=";
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], kFlag, std::strlen(kFlag)) == 0)
            return std::strcmp(argv[i] + std::strlen(kFlag), "console") == 0;
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    for (const std::string &name : vxbench::workload_names())
        benchmark::RegisterBenchmark(name.c_str(), run_workload, name);
    const bool console = console_format(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    FILE *out = console ? stdout : stderr;
    print_ratios(reporter, out);
    const long buffers = efrt::buff_live_total();
    const long nodes = efrt::mcast_nodes_live();
    std::fprintf(out, "live packet buffers at exit: %ld, live broadcast nodes at exit: %ld\n",
                 buffers, nodes);
    return buffers == 0 && nodes == 0 ? 0 : 1;
}
