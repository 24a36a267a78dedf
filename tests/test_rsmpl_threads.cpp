// Contexts are independent: many used at once from several threads give
// exactly what one thread gives. Built under ThreadSanitizer by the test script.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "rsmpl/rsmpl.h"
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

}  // namespace
