#include "spread.h"

#include <algorithm>
#include <cmath>
#include <numeric>

static double at_rank(const std::vector<double> &sorted, double share)
{
    auto rank = static_cast<size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[std::max<size_t>(rank, 1) - 1];
}

Spread spread_of(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    double sum = std::accumulate(values.begin(), values.end(), 0.0);
    return {at_rank(values, 0.5), at_rank(values, 0.99), at_rank(values, 0.999),
            sum / static_cast<double>(values.size())};
}
