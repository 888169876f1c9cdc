// Key store operations on stores of 10, 1,000 and 100,000 records in each file, side by side with
// what reading and freeing the same files costs by itself. The record that is looked for is the
// last one, so that the search passes all others. The store lies in memory: what the disk takes is
// not the library's doing.
//
// Times are processor times, system calls included. Operation and floor take turns, and the columns
// `median` (the operation), `floor` (reading and freeing one file, or both for an operation that
// reads both) and `times_floor` are medians of the turns, in seconds: what else the machine does
// slows down both. `per_record` is the median for each record of a file.

#include "key_driver/zentrava_key_management_utils.h"

#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <stdint.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

// The adders' pauses are no work.
extern "C" unsigned int sleep(unsigned int)
{
    return 0;
}

static const char* const PRIVATE_FILE = "key_contents_prv.xml";
static const char* const PUBLIC_FILE = "key_contents_pub.xml";
static const char* const DEVICE_UID = "0123456789abcdef0123456789abcdef";
static const std::string KEY(64, 'a');

static std::filesystem::path stores; // one directory for each size

// ---------------------------------------------------------------------------------------------
// The stores
// ---------------------------------------------------------------------------------------------

static void write_store_file(const std::filesystem::path& path, int records, int first_handle)
{
    std::ofstream file(path);
    file << "<?xml version=\"1.0\"?>\n<keys>\n";
    for (int i = 1; i <= records; ++i) {
        file << "<key_content><uid>" << DEVICE_UID << "</uid><key_name>key" << i
             << "</key_name><handle>" << first_handle + i << "</handle><key>" << KEY
             << "</key><metadata>made for measuring</metadata></key_content>\n";
    }
    file << "</keys>\n";
}

static std::filesystem::path make_directory()
{
    const bool in_memory = access("/dev/shm", W_OK) == 0;
    std::string pattern =
        in_memory ? "/dev/shm/zentrava_bench_XXXXXX" : "/tmp/zentrava_bench_XXXXXX";
    return mkdtemp(pattern.data()) != nullptr ? pattern : "";
}

static void make_store(int size)
{
    const std::filesystem::path directory = stores / std::to_string(size);
    std::filesystem::create_directory(directory);
    write_store_file(directory / PRIVATE_FILE, size, 0);
    write_store_file(directory / PUBLIC_FILE, size, size);
}

// ---------------------------------------------------------------------------------------------
// What is measured: each succeeds, or the measurement is void
// ---------------------------------------------------------------------------------------------

static bool read_and_free(const char* file_name)
{
    xmlDocPtr document = xmlReadFile(file_name, nullptr, 0);
    xmlFreeDoc(document);
    return document != nullptr;
}

static bool read_one_file()
{
    return read_and_free(PRIVATE_FILE);
}

static bool read_both_files()
{
    return read_and_free(PRIVATE_FILE) && read_and_free(PUBLIC_FILE);
}

static bool look_key_up(const char* last_name)
{
    uint8_t key[32];
    uint32_t size = sizeof key;
    return get_key(reinterpret_cast<const unsigned char*>(DEVICE_UID), last_name, key, &size) == 0;
}

static bool look_handle_up(const char* last_name)
{
    char handle[16];
    char metadata[32];
    return get_key_handle(DEVICE_UID, last_name, metadata, sizeof metadata, handle,
                          sizeof handle) == 0;
}

static bool replace_key(const char* last_name)
{
    // A replacement reports a failure when it succeeds.
    return add_nonvolatile_based_key(DEVICE_UID, last_name, KEY.c_str(), nullptr, true, true) == 1;
}

// Two operations, so that the store stays as it is.
static bool add_and_delete_key(const char*)
{
    return add_nonvolatile_based_key(DEVICE_UID, "new", KEY.c_str(), nullptr, true, false) == 0 &&
           delete_key_by_key_type(DEVICE_UID, "new") == 0;
}

struct Operation {
    const char* name;
    bool (*run)(const char* last_name);
    bool (*floor)();
};

static const Operation OPERATIONS[] = {
    {"get_key", look_key_up, read_one_file},
    {"get_key_handle", look_handle_up, read_both_files},
    {"replace_key", replace_key, read_one_file},
    {"add_and_delete_key", add_and_delete_key, read_both_files},
};

// ---------------------------------------------------------------------------------------------
// Measuring
// ---------------------------------------------------------------------------------------------

// In seconds; negative when the work failed.
template <typename Work> static double time_of(Work work)
{
    timespec begin = {};
    timespec end = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &begin);
    const bool succeeded = work();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
    const double seconds = static_cast<double>(end.tv_sec - begin.tv_sec) +
                           static_cast<double>(end.tv_nsec - begin.tv_nsec) * 1e-9;
    return succeeded ? seconds : -1;
}

static double median_of(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

static void run_in_turns(benchmark::State& state, const Operation& operation, int size)
{
    const std::string last_name = "key" + std::to_string(size);
    std::filesystem::current_path(stores / std::to_string(size));
    std::vector<double> times;
    std::vector<double> floors;
    std::vector<double> ratios;
    for (auto _ : state) {
        floors.push_back(time_of(operation.floor));
        times.push_back(time_of([&] { return operation.run(last_name.c_str()); }));
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
    stores = make_directory();
    for (const Operation& operation : OPERATIONS) {
        for (const int size : {10, 1000, 100000}) {
            make_store(size);
            const std::string name = std::string(operation.name) + "/" + std::to_string(size);
            benchmark::RegisterBenchmark(name.c_str(), run_in_turns, operation, size)
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
