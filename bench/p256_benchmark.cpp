// Wall time of the four operations on P-256, this library's engine beside its peers, in one process
// and interleaved; ends with the ratios of the medians to the engine's own.

#include "p256_peers.h"

#include <benchmark/benchmark.h>

#include <stdio.h>

#include <map>
#include <string>

static std::vector<P256Peer> peers;

static void run_operation(benchmark::State& state, bool (*run)(size_t))
{
    size_t input = 0;
    for (auto _ : state) {
        if (!run(input)) {
            state.SkipWithError("the operation failed");
            break;
        }
        input = (input + 1) % INPUT_COUNT;
    }
}

// Keeps the medians while the usual table is printed.
class MedianReporter : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, double> medians;

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.aggregate_name == "median") {
                medians[run.run_name.function_name] = run.GetAdjustedRealTime();
            }
        }
    }
};

static std::string benchmark_name(const P256Operation& operation, const P256Peer& peer)
{
    return std::string(operation.name) + "/" + peer.name;
}

static void print_ratios(const std::map<std::string, double>& medians)
{
    printf("\ntime of the engine as a ratio to its peers' (below 1: the engine is faster)\n%-10s",
           "");
    for (size_t i = 1; i < peers.size(); ++i) {
        printf("%10s", peers[i].name);
    }
    for (const P256Operation& operation : P256_OPERATIONS) {
        printf("\n%-10s", operation.name);
        const double own = medians.at(benchmark_name(operation, peers[0]));
        for (size_t i = 1; i < peers.size(); ++i) {
            printf("%10.2f", own / medians.at(benchmark_name(operation, peers[i])));
        }
    }
    printf("\n");
}

int main(int argc, char** argv)
{
    if (!set_up_p256_peers(&peers)) {
        fputs("the peers disagree\n", stderr);
        return 1;
    }
    for (const P256Operation& operation : P256_OPERATIONS) {
        for (const P256Peer& peer : peers) {
            benchmark::RegisterBenchmark(benchmark_name(operation, peer).c_str(), run_operation,
                                         peer.*operation.run)
                ->Unit(benchmark::kMicrosecond)
                ->MinTime(0.1)
                ->Repetitions(9)
                ->ReportAggregatesOnly();
        }
    }
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments(argv, argv + argc);
    arguments.push_back(interleave);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    print_ratios(reporter.medians);
    return 0;
}
