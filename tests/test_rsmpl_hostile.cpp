// Inputs the fuzzer found to hurt the resampler interface, kept as plain
// tests (the failing fuzz inputs are replayed from fuzz/regressions/).
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include <rsmpl/rsmpl.h>
#include "support.hpp"

namespace {

// Right after a change from ratio 0.15 to 8 the next block still runs at
// 0.15 (6.67 inputs per output), while the output count accepted follows the
// new ratio (up to 11520). Asking for 9979 outputs then needs about 66500
// inputs: more than a block takes, but that is what must be said. The count
// used to wrap in 32-bit positions and came out as 920 (which gives 149).
TEST(RsmplHostile, InputCountAfterARatioChangeDoesNotWrap) {
    std::vector<uint8_t> bytes(RSMPL_GetContextSize());
    auto *ctx = reinterpret_cast<RSMPL_Ctx *>(bytes.data());
    ASSERT_EQ(RSMPL_InitContext(ctx), RSMPL_OK);
    ASSERT_EQ(RSMPL_SetResampleRatio(ctx, nullptr, nullptr, nullptr, 0.15f), RSMPL_OK);
    const std::vector<int16_t> in = rsmpl_test::random_samples(RSMPL_MAX_BLOCK, 7);
    std::vector<int16_t> out(RSMPL_MAX_BLOCK * 8 + 2);
    uint32_t count = 0;
    ASSERT_EQ(RSMPL_Resample(ctx, in.data(), out.data(), 200, &count), RSMPL_OK);  // 0.15 now in use
    ASSERT_EQ(RSMPL_SetResampleRatio(ctx, nullptr, nullptr, nullptr, 8.0f), RSMPL_OK);

    int32_t n_in = 0;
    ASSERT_EQ(RSMPL_GetNumInSamples(ctx, 9979, &n_in), RSMPL_OK);
    const double needed = 9979 / 0.15 - (86 - 13);  // at 0.15, less the shrinking half-length
    EXPECT_NEAR(n_in, needed, 10.0);

    // Where the count is small enough to feed, it is exact as before.
    ASSERT_EQ(RSMPL_GetNumInSamples(ctx, 150, &n_in), RSMPL_OK);
    ASSERT_GE(n_in, 1);
    ASSERT_LE(n_in, static_cast<int32_t>(RSMPL_MAX_BLOCK));
    ASSERT_EQ(RSMPL_Resample(ctx, in.data(), out.data(), n_in, &count), RSMPL_OK);
    EXPECT_EQ(count, 150u);
}

}  // namespace
