// What many measured times say.
#pragma once

#include <chrono>
#include <vector>

struct Spread {
    double median;
    double p99;
    double p999;
    double mean;
};

// Nearest-rank percentiles. `values` is not empty.
Spread spread_of(std::vector<double> values);

using Clock = std::chrono::steady_clock;

inline double ms_between(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

inline double ms_since(Clock::time_point from)
{
    return ms_between(from, Clock::now());
}
