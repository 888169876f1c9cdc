// Key store operations on stores of 10, 1,000 and 100,000 records in each file, side by side with
// what their libxml2 work costs by itself.
//
// Times are processor times, system calls included. Operation and floor take turns, and the columns
// `median` (the operation), `floor` and `times_floor` are medians of the turns, in seconds: what
// else the machine does slows down both. `per_record` is the median for each record of a file.

#include "measured_stores.h"
#include "processor_time.h"

#include <benchmark/benchmark.h>

static void run_in_turns(benchmark::State& state, const MeasuredOperation& operation, int size,
                         const std::filesystem::path& stores)
{
    const std::string last_name = "key" + std::to_string(size);
    enter_store(stores / std::to_string(size), size);
    std::vector<double> times;
    std::vector<double> floors;
    std::vector<double> ratios;
    for (auto _ : state) {
        floors.push_back(processor_time_of([&] { return operation.floor(last_name.c_str()); }));
        times.push_back(processor_time_of([&] { return operation.run(last_name.c_str()); }));
        if (floors.back() < 0 || times.back() < 0) {
            state.SkipWithError("the operation failed");
            return;
        }
        ratios.push_back(times.back() / floors.back());
        state.SetIterationTime(times.back());
    }
    state.counters["median"] = median_of(times);
    state.counters["floor"] = median_of(floors);
    state.counters["times_floor"] = median_of(ratios);
    state.counters["per_record"] = median_of(times) / size;
}

int main(int argc, char** argv)
{
    const std::filesystem::path stores = make_store_directory();
    for (const MeasuredOperation& operation : MEASURED_OPERATIONS) {
        for (const int size : {10, 1000, 100000}) {
            const std::string name = std::string(operation.name) + "/" + std::to_string(size);
            benchmark::RegisterBenchmark(name.c_str(), run_in_turns, operation, size, stores)
                ->Unit(benchmark::kMicrosecond)
                ->MinTime(size < 100000 ? 0.5 : 3)
                ->UseManualTime();
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::current_path("/");
    std::filesystem::remove_all(stores);
    return 0;
}
