// Contexts are independent: many used at once from several threads give
// exactly what one thread gives. Built under ThreadSanitizer by the test script.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <thread>
#include <vector>

#include <rsmpl/rsmpl.h>
#include "support.hpp"

namespace {

// One channel's work: a fresh context (first init races with the others),
// then up, down and sinc streams, each after a reset.
std::vector<int16_t> channel_work(uint32_t seed) {
    std::vector<uint8_t> bytes(RSMPL_GetContextSize());
    auto *ctx = reinterpret_cast<RSMPL_Ctx *>(bytes.data());
    RSMPL_InitContext(ctx);
    const std::vector<int16_t> in = rsmpl_test::random_samples(4800, seed);
    std::vector<int16_t> result, buf(1440), out(4 * 1440);
    for (uint32_t index = 0; index <= 4; ++index) {
        RSMPL_Reset(ctx);
        for (size_t pos = 0; pos + 240 <= in.size(); pos += 240) {
            std::copy(in.begin() + pos, in.begin() + pos + 240, buf.begin());
            RSMPL_Up(ctx, buf.data(), buf.data(), 240, index);
            result.insert(result.end(), buf.begin(), buf.begin() + 240);
        }
        RSMPL_Reset(ctx);
        for (size_t pos = 0; pos + 1440 <= in.size(); pos += 1440) {
            std::copy(in.begin() + pos, in.begin() + pos + 1440, buf.begin());
            RSMPL_Down(ctx, buf.data(), buf.data(), 1440, index);
            result.insert(result.end(), buf.begin(), buf.begin() + 240);
        }
    }
    RSMPL_Reset(ctx);
    RSMPL_SetResampleRatio(ctx, nullptr, nullptr, nullptr, 0.75f + 0.125f * static_cast<float>(seed % 8));
    for (size_t pos = 0; pos + 480 <= in.size(); pos += 480) {
        uint32_t count = 0;
        RSMPL_Resample(ctx, in.data() + pos, out.data(), 480, &count);
        result.insert(result.end(), out.begin(), out.begin() + count);
    }
    return result;
}

TEST(RsmplThreads, ManyContextsAtOnceMatchOneThread) {
    constexpr uint32_t kChannels = 8;
    std::vector<std::vector<int16_t>> serial(kChannels), parallel(kChannels);
    std::vector<std::thread> threads;
    for (uint32_t c = 0; c < kChannels; ++c) threads.emplace_back([&parallel, c] { parallel[c] = channel_work(c); });
    for (auto &t : threads) t.join();
    for (uint32_t c = 0; c < kChannels; ++c) serial[c] = channel_work(c);
    for (uint32_t c = 0; c < kChannels; ++c) {
        EXPECT_FALSE(serial[c].empty());
        EXPECT_EQ(parallel[c], serial[c]) << "channel " << c;
    }
}

// Many contexts per thread, one after another, with random admissible blocks: the
// fixed-ratio stages and the sinc interpolator with ratio changes and a
// fractional delay, each context's stream independent of its neighbours.
std::vector<int16_t> context_stream(uint32_t seed) {
    std::vector<uint8_t> bytes(RSMPL_GetContextSize());
    auto *ctx = reinterpret_cast<RSMPL_Ctx *>(bytes.data());
    RSMPL_InitContext(ctx);
    const std::vector<int16_t> in = rsmpl_test::hostile_samples(12000, seed);
    std::vector<int16_t> result, out(1440 * 8 + 2);
    const uint32_t kind = seed % 3;
    if (kind == 2) {
        uint32_t lo = 0, hi = 0;
        RSMPL_SetFracDelay(ctx, &lo, &hi, 0.25f * static_cast<float>(seed % 4));
    }
    std::mt19937 rng(seed);
    const uint32_t index = seed % 5;
    for (size_t pos = 0; pos < in.size();) {
        int32_t n = 0;
        uint32_t count = 0;
        if (kind == 0) {  // up, any admissible length
            n = 6 + static_cast<int32_t>(rng() % 235);
            if (pos + n > in.size()) break;
            RSMPL_Up(ctx, in.data() + pos, out.data(), n, index);
            count = static_cast<uint32_t>(index == 0 ? 3 * (n / 2) : n * std::array{0, 2, 3, 4, 6}[index]);
        } else if (kind == 1) {  // down, multiples of 12
            n = 36 + 12 * static_cast<int32_t>(rng() % 100);
            if (pos + n > in.size()) break;
            RSMPL_Down(ctx, in.data() + pos, out.data(), n, index);
            count = static_cast<uint32_t>(index == 0 ? 2 * n / 3 : n / std::array{0, 2, 3, 4, 6}[index]);
        } else {  // sinc, with a new ratio now and then
            if (rng() % 4 == 0) {
                uint32_t lo = 1;
                RSMPL_SetResampleRatio(ctx, &lo, nullptr, nullptr, 0.125f + static_cast<float>(rng() % 64) / 8.0f);
                n = static_cast<int32_t>(lo);
            }
            n = std::max<int32_t>(n, 1 + static_cast<int32_t>(rng() % 1440));
            if (pos + n > in.size()) break;
            RSMPL_Resample(ctx, in.data() + pos, out.data(), n, &count);
        }
        result.insert(result.end(), out.begin(), out.begin() + count);
        pos += static_cast<size_t>(n);
    }
    return result;
}

TEST(RsmplThreads, ManyContextsPerThreadMatchOneThread) {
    constexpr uint32_t kThreads = 8, kPerThread = 6;
    std::vector<std::vector<int16_t>> serial(kThreads * kPerThread), parallel(kThreads * kPerThread);
    for (uint32_t c = 0; c < serial.size(); ++c) serial[c] = context_stream(c);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&parallel, t] {
            for (uint32_t k = 0; k < kPerThread; ++k) parallel[t + k * kThreads] = context_stream(t + k * kThreads);
        });
    for (auto &t : threads) t.join();
    for (uint32_t c = 0; c < serial.size(); ++c) {
        EXPECT_FALSE(serial[c].empty());
        EXPECT_EQ(parallel[c], serial[c]) << "context " << c;
    }
}

}  // namespace
