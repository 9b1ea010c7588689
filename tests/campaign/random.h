// One seeded source of chance per thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}

    // Both ends included.
    int64_t between(int64_t low, int64_t high)
    {
        return low + static_cast<int64_t>(engine_() % static_cast<uint64_t>(high - low + 1));
    }
    // True in so many of a thousand cases.
    bool chance(int per_mille)
    {
        return between(0, 999) < per_mille;
    }
    template<typename T> T pick(std::initializer_list<T> values)
    {
        return *(values.begin() + between(0, static_cast<int64_t>(values.size()) - 1));
    }
    std::string word(std::initializer_list<const char *> values)
    {
        return pick(values);
    }
    template<typename T> const T &pick(const std::vector<T> &values)
    {
        return values[static_cast<size_t>(between(0, static_cast<int64_t>(values.size()) - 1))];
    }

private:
    std::mt19937_64 engine_;
};
