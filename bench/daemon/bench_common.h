// Small pieces both daemon benchmarks use.
#pragma once

#include <algorithm>
#include <cmath>
#include <ctime>
#include <vector>

namespace bench
{

// Milliseconds on the monotonic clock.
inline double clock_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// Nearest-rank percentile of sorted, non-empty samples.
inline double nearest_rank(const std::vector<double> &sorted, double p)
{
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

} // namespace bench
