// Shared helpers for the tests: reproducible signals, block splits and
// buffers with guard bytes that catch writes outside them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "guarded.hpp"

namespace rsmpl_test {

inline std::vector<int16_t> random_samples(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> d(INT16_MIN, INT16_MAX);
    std::vector<int16_t> v(n);
    for (auto &s : v) s = static_cast<int16_t>(d(rng));
    return v;
}

// Random samples mixed with runs of full-scale values, to drive saturation.
inline std::vector<int16_t> hostile_samples(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<int16_t> v = random_samples(n, seed ^ 0x9e3779b9u);
    for (size_t i = 0; i < n;) {
        size_t run = rng() % 200;
        int16_t value = (rng() & 1) ? INT16_MAX : INT16_MIN;
        bool alternate = (rng() % 3) == 0;
        for (size_t k = 0; k < run && i < n; ++k, ++i)
            v[i] = alternate ? static_cast<int16_t>((k & 1) ? INT16_MAX : INT16_MIN) : value;
        i += rng() % 300;
    }
    return v;
}

// Cuts `total` into lengths drawn uniformly from [lo, hi] in steps of `step`;
// the remainder that no admissible length fits is dropped from the end.
inline std::vector<int32_t> random_blocks(int64_t total, int32_t lo, int32_t hi, int32_t step, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<int32_t> blocks;
    const int32_t choices = (hi - lo) / step + 1;
    while (total >= lo) {
        int32_t b = lo + step * static_cast<int32_t>(rng() % static_cast<uint32_t>(choices));
        if (b > total) b = lo + step * static_cast<int32_t>((total - lo) / step);
        blocks.push_back(b);
        total -= b;
    }
    return blocks;
}

}  // namespace rsmpl_test
