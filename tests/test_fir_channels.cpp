// All channels of a period through one FIR stage in one call equal the
// per-channel RSMPL_Up / RSMPL_Down calls: the interleaved outputs and every
// byte of every context, call after call, for 1 to 6 channels and lengths
// from the shortest accepted to several internal pieces.
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "rsmpl/fir/fir_channels.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include "support.hpp"

namespace {

using rsmpl::fir::Direction;

struct Contexts {
    std::vector<std::vector<unsigned char>> raw;
    std::vector<RSMPL_Ctx *> ctx;
    explicit Contexts(uint32_t channels) : raw(channels, std::vector<unsigned char>(RSMPL_GetContextSize())) {
        for (auto &r : raw) {
            ctx.push_back(reinterpret_cast<RSMPL_Ctx *>(r.data()));
            EXPECT_EQ(RSMPL_InitContext(ctx.back()), RSMPL_OK);
        }
    }
};

uint32_t reference(Direction d, RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n, uint32_t index) {
    return d == Direction::up ? RSMPL_Up(ctx, in, out, n, index) : RSMPL_Down(ctx, in, out, n, index);
}

TEST(StageChannels, EqualsOneCallPerChannelOutputsAndContexts) {
    std::mt19937 rng(7);
    for (Direction d : {Direction::up, Direction::down})
        for (uint32_t index = 0; index < 5; ++index)
            for (uint32_t C = 1; C <= 6; ++C) {
                const std::string what = std::string(d == Direction::up ? "up " : "down ") + std::to_string(index) +
                                         ", " + std::to_string(C) + " channels";
                Contexts fused(C), separate(C);
                for (int call = 0; call < 12; ++call) {
                    // A length the per-channel call accepts: the shortest, odd ones, and past one piece.
                    int32_t n = 0;
                    std::vector<int16_t> probe_out(12000);
                    Contexts probe(1);
                    for (int tries = 0; tries < 1000; ++tries) {
                        const int32_t cand = call == 0 ? 1 + tries : 1 + static_cast<int32_t>(rng() % 1700);
                        const std::vector<int16_t> zeros(static_cast<size_t>(cand));
                        if (reference(d, probe.ctx[0], zeros.data(), probe_out.data(), cand, index) == RSMPL_OK) {
                            n = cand;
                            break;
                        }
                    }
                    ASSERT_GT(n, 0) << what;
                    const std::vector<int16_t> in = call % 3 == 2 ? rsmpl_test::hostile_samples(size_t{C} * n, rng())
                                                                  : rsmpl_test::random_samples(size_t{C} * n, rng());

                    std::vector<int16_t> want(size_t{C} * 6 * static_cast<size_t>(n)), got(want.size() + 1, 0x5555);
                    int32_t frames_out = -1;
                    for (uint32_t c = 0; c < C; ++c) {
                        std::vector<int16_t> x(static_cast<size_t>(n)), y(6 * static_cast<size_t>(n));
                        for (int32_t i = 0; i < n; ++i) x[static_cast<size_t>(i)] = in[size_t{C} * i + c];
                        ASSERT_EQ(reference(d, separate.ctx[c], x.data(), y.data(), n, index), RSMPL_OK);
                        // Outputs per channel: as many as the stage yields for n.
                        const int32_t outs = d == Direction::up ? (index == 0 ? n / 2 * 3 : n * std::array{0, 2, 3, 4, 6}[index])
                                                                : (index == 0 ? n / 3 * 2 : n / std::array{0, 2, 3, 4, 6}[index]);
                        frames_out = outs;
                        for (int32_t i = 0; i < outs; ++i) want[size_t{C} * i + c] = y[static_cast<size_t>(i)];
                    }
                    const int32_t written =
                        rsmpl::fir::stage_channels(d, index, fused.ctx.data(), C, in.data(), got.data(), n);
                    ASSERT_EQ(written, frames_out) << what << ", n " << n;
                    const size_t samples = size_t{C} * static_cast<size_t>(written);
                    ASSERT_EQ(std::memcmp(got.data(), want.data(), samples * sizeof(int16_t)), 0) << what << ", n " << n;
                    EXPECT_EQ(got[samples], 0x5555) << what << ": written past the outputs";
                    for (uint32_t c = 0; c < C; ++c)
                        ASSERT_EQ(fused.raw[c], separate.raw[c]) << what << ", n " << n << ", context " << c;
                }
            }
}

}  // namespace
