// Processor time of a piece of work, system calls included, and medians.
#pragma once

#include <time.h>

#include <algorithm>
#include <vector>

// In seconds; negative when the work failed.
template <typename Work> double processor_time_of(Work work)
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

inline double median_of(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}
