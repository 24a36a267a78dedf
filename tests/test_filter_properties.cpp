// Filter properties held to their published figures, measured from the
// models' coefficients and from the stages themselves through the interface.
// Every figure is a bound a better filter also meets: ripple within, cut-off
// no lower, stopband no higher. Frequencies are fractions of the lower
// Nyquist frequency unless a test says otherwise.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "down_model.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include "tools/quality_analysis.hpp"
#include "up_model.hpp"

namespace {

using Samples = std::vector<int16_t>;
using quality::kPi;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// |sum h[k] e^(-i w k)| / unity in dB, w = pi * f / rate_factor: f is a
// fraction of the lower Nyquist frequency and the filter runs at
// rate_factor times the lower rate.
double gain_db(const std::vector<int64_t> &h, double unity, double rate_factor, double f) {
    const double w = kPi * f / rate_factor;
    double re = 0, im = 0;
    for (size_t k = 0; k < h.size(); ++k) {
        re += double(h[k]) * std::cos(w * double(k));
        im -= double(h[k]) * std::sin(w * double(k));
    }
    return 20 * std::log10(std::max(std::hypot(re, im) / unity, 1e-15));
}

// Figures are looked up by the model stage's name, so neither list's order matters.
template <class Figures>
const Figures &by_name(const std::vector<Figures> &all, const std::string &name) {
    for (const Figures &f : all)
        if (name == f.name) return f;
    ADD_FAILURE() << "no figures for " << name;
    return all.front();
}

struct Stop {
    double from, max_db;  // the response stays at or below max_db from `from` up
};

struct Response {
    std::vector<int64_t> h;
    double unity, rate_factor;
    double db(double f) const { return gain_db(h, unity, rate_factor, f); }
    // Lowest and highest level on [0, edge].
    std::pair<double, double> range(double edge) const {
        double lo = 1e9, hi = -1e9;
        for (int i = 0; i <= 2000; ++i) {
            const double v = db(edge * i / 2000);
            lo = std::min(lo, v);
            hi = std::max(hi, v);
        }
        return {lo, hi};
    }
    // First frequency at which the level falls to `level`, bisected.
    double first_below(double level) const {
        double f = 0;
        while (db(f) > level) f += 0.001;
        double a = f - 0.001, b = f;
        for (int i = 0; i < 40; ++i) (db((a + b) / 2) > level ? a : b) = (a + b) / 2;
        return (a + b) / 2;
    }
    double worst_from(double from) const {
        double m = -1e9;
        for (double f = from; f <= rate_factor; f += 0.0005) m = std::max(m, db(f));
        return m;
    }
};

// A tone at -6 dBFS measured from 16-bit output: its level holds to 0.02 dB
// down to -40 dB; further down the rounding of the samples shows (about
// -120 dB per analysis bin), so 0.2 dB to -65 dB, 0.6 dB to -80 dB, and
// below that only that it stays below -74 dB.
::testing::AssertionResult level_matches(double got, double want) {
    const double tol = want > -40 ? 0.02 : want > -65 ? 0.2 : 0.6;
    const bool ok = want > -80 ? std::fabs(got - want) <= tol : got < -74;
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "measured " << got << " dB, table " << want << " dB";
}
#define expect_level(got, want) EXPECT_TRUE(level_matches(got, want))

// ---- Up-stages ---------------------------------------------------------------

struct UpFigures {
    const char *name;
    uint32_t index;
    double delay_out;            // group delay, output samples
    double pass_lo, pass_hi;     // up to 0.85
    double minus3;               // fraction of the input Nyquist frequency
    double at_nyquist;           // level at 1.0, NaN where none is published
    std::vector<Stop> stop;
};

const std::vector<UpFigures> &up_figures() {
    static const std::vector<UpFigures> f = {
        {"Up3_2", RSMPL_STAGE_3_2, 11, -0.22, 0.26, 0.926, -9.4, {{1.15, -48.4}, {1.2, -52.7}, {1.5, -58.1}}},
        {"Up2_1", RSMPL_STAGE_2, 35.5, -0.255, 0.248, 0.905, kNaN, {{1.0, -59.4}}},
        {"Up3_1", RSMPL_STAGE_3, 23.5, -0.21, 0.24, 0.927, -9.3, {{1.15, -48.7}, {1.2, -52.6}, {1.5, -59.1}}},
        {"Up4_1", RSMPL_STAGE_4, 31.5, -0.22, 0.25, 0.926, -9.4, {{1.15, -48.8}, {1.2, -52.9}, {1.5, -59.3}}},
        // Measured: the lowest passband point is -0.219 dB, just below 0.85
        // (the response holds -0.20 dB up to 0.849), and -9.43 dB at 1.0.
        {"Up6_1", RSMPL_STAGE_6, 47.5, -0.22, 0.25, 0.927, -9.43, {{1.15, -49.0}, {1.2, -53.0}, {1.5, -59.5}}},
    };
    return f;
}

// A fresh context and RSMPL_Up over the whole input in admissible blocks.
Samples run_up(uint32_t index, const Samples &in, int32_t block, int num, int den) {
    std::vector<uint64_t> mem(RSMPL_CONTEXT_SIZE / 8 + 1);
    auto *ctx = reinterpret_cast<RSMPL_Ctx *>(mem.data());
    EXPECT_EQ(RSMPL_InitContext(ctx), RSMPL_OK);
    Samples out, buf(RSMPL_MAX_BLOCK);
    for (size_t pos = 0; pos + block <= in.size(); pos += block) {
        std::copy_n(in.begin() + pos, block, buf.begin());
        EXPECT_EQ(RSMPL_Up(ctx, buf.data(), buf.data(), block, index), RSMPL_OK);
        out.insert(out.end(), buf.begin(), buf.begin() + block / den * num);
    }
    return out;
}

class UpFilter : public ::testing::TestWithParam<size_t> {
protected:
    const rsmpl_test::up_model::Stage &st = rsmpl_test::up_model::stages()[GetParam()];
    const UpFigures &fig = by_name(up_figures(), st.name);
    int num() const { return st.phases; }
    int den() const { return st.group(); }
    // Prototype at L times the input rate (3 for 3:2); unity is a phase sum of 32768.
    Response table_response() const {
        const auto h = st.prototype();
        return {h, 32768.0 * st.phases, double(st.phases)};
    }
    // The response of the stage itself: an impulse of -32768 into a fresh
    // context comes out as the prototype (negated), taps to 16 bits. The 3:2
    // stage keeps every second prototype tap, so a second impulse one input
    // later (three prototype taps on) supplies the others.
    Response stage_response() const {
        const int32_t block = st.max_n;
        std::vector<int64_t> h(st.proto_len() + 8, 0);
        for (int shift = 0; shift < den(); ++shift) {
            Samples in(block, 0);
            in[shift] = -32768;
            const Samples y = run_up(fig.index, in, block, num(), den());
            for (size_t m = 0; m < y.size(); ++m) {
                const int64_t k = int64_t(m) * den() - int64_t(shift) * st.phases;
                if (y[m] != 0) {
                    EXPECT_GE(k, 0);
                    EXPECT_LT(k, int64_t(h.size()));
                    if (k >= 0 && k < int64_t(h.size())) h[k] = -int64_t{y[m]};
                }
            }
        }
        while (!h.empty() && h.back() == 0) h.pop_back();
        return {h, 32768.0 * st.phases, double(st.phases)};
    }
};

TEST_P(UpFilter, TableFigures) {
    const Response r = table_response();
    const auto [lo, hi] = r.range(0.85);
    EXPECT_GE(lo, fig.pass_lo - 0.005);
    EXPECT_LE(hi, fig.pass_hi + 0.005);
    EXPECT_GE(r.first_below(-3), fig.minus3 - 0.0015);
    if (!std::isnan(fig.at_nyquist)) {
        EXPECT_LE(r.db(1.0), fig.at_nyquist + 0.05);
    }
    for (const Stop &s : fig.stop) EXPECT_LE(r.worst_from(s.from), s.max_db + 0.05) << "from " << s.from;
}

// The stage's own impulse response (which settles every tone's level, the
// stage being linear up to rounding) has the table's magnitude response, and
// its first moment is the group delay at DC.
TEST_P(UpFilter, StageImpulseResponse) {
    const Response t = table_response(), s = stage_response();
    for (double f = 0; f <= st.phases; f += 0.01) {
        const double want = t.db(f);
        ASSERT_NEAR(s.db(f), want, want > -80 ? 0.01 : 1.0) << "at " << f;
    }
    double m0 = 0, m1 = 0;
    for (size_t k = 0; k < s.h.size(); ++k) {
        m0 += double(s.h[k]);
        m1 += double(k) * double(s.h[k]);
    }
    // Prototype taps run at L times the input rate, outputs at L / den times it.
    EXPECT_NEAR(m1 / m0 / den(), fig.delay_out, 1e-9);
}

const auto up_stage_name = [](const auto &info) {
    return std::string(rsmpl_test::up_model::stages()[info.param].name);
};
INSTANTIATE_TEST_SUITE_P(AllStages, UpFilter, ::testing::Range<size_t>(0, rsmpl_test::up_model::stages().size()),
                         up_stage_name);

// 3:1, 4:1, 6:1 and 3:2 share one transition, centred on the input Nyquist
// frequency (2:1 has its own, below it).
TEST(UpFilterShape, SharedTransitionOfThe3_4_6And3_2Stages) {
    for (const auto &st : rsmpl_test::up_model::stages()) {
        if (st.phases == 2) continue;
        const Response r{st.prototype(), 32768.0 * st.phases, double(st.phases)};
        EXPECT_GE(r.first_below(-6), 0.967 - 0.002) << st.name;
        EXPECT_LE(r.first_below(-20), 1.066 + 0.002) << st.name;
        EXPECT_LE(r.first_below(-60), 1.143 + 0.002) << st.name;
    }
}

// ---- Down-stages -----------------------------------------------------------------

// Frequencies here are fractions of the input rate fs.
struct DownFigures {
    const char *name;
    uint32_t index;
    double pass_edge_fs;
    double pass_lo, pass_hi;
    double delay_in;      // D: output j of a block is centred on block sample j * step - D
    double minus3_fs, f_check_fs, db_check;
    std::vector<Stop> stop;  // up to the filter's Nyquist frequency
};

const std::vector<DownFigures> &down_figures() {
    static const std::vector<DownFigures> f = {
        {"Down2_3", RSMPL_STAGE_3_2, 0.274, -0.46, 0.78, 6.75, 0.298, 1.0 / 3, -10.6,
         {{0.374, -35}, {0.461, -40}, {0.9, -48}}},
        {"Down1_2", RSMPL_STAGE_2, 0.219, -0.25, 0.25, 34.5, 0.226, 0.25, -60.0, {{0.25, -59.4}}},
        {"Down1_3", RSMPL_STAGE_3, 0.141, -0.15, 0.24, 21.5, 0.1545, 1.0 / 6, -9.3, {{0.1892, -48}, {0.45, -64}}},
        {"Down1_4", RSMPL_STAGE_4, 0.106, -0.16, 0.25, 28.5, 0.1158, 1.0 / 8, -9.4, {{0.142, -48}, {0.45, -68}}},
        {"Down1_6", RSMPL_STAGE_6, 0.071, -0.16, 0.25, 42.5, 0.0771, 1.0 / 12, -9.4, {{0.0946, -48}, {0.45, -71}}},
    };
    return f;
}

Samples run_down(uint32_t index, const Samples &in, int group_in, int group_out) {
    std::vector<uint64_t> mem(RSMPL_CONTEXT_SIZE / 8 + 1);
    auto *ctx = reinterpret_cast<RSMPL_Ctx *>(mem.data());
    EXPECT_EQ(RSMPL_InitContext(ctx), RSMPL_OK);
    const int32_t n = static_cast<int32_t>(in.size() - in.size() % 12);
    Samples out(in.begin(), in.begin() + n);
    EXPECT_EQ(RSMPL_Down(ctx, out.data(), out.data(), n, index), RSMPL_OK);
    out.resize(static_cast<size_t>(n / group_in * group_out));
    return out;
}

class DownFilter : public ::testing::TestWithParam<size_t> {
protected:
    const rsmpl_test::down_model::Stage &st = rsmpl_test::down_model::stages()[GetParam()];
    const DownFigures &fig = by_name(down_figures(), st.name);
    // The filter of a 1:M stage runs at fs, the 2:3 prototype at 2 fs.
    Response table_response() const {
        const double unity = std::ldexp(1.0, st.shift) * (st.zero_stuffed ? 2 : 1);
        return {st.h, unity, st.zero_stuffed ? 2.0 : 1.0};  // f in units of the input Nyquist frequency
    }
    double ratio() const { return double(st.group_out) / st.group_in; }
};

// Response() takes input-Nyquist units: twice fs. The passband edges are
// given to 0.001 fs and the band ends on a falling slope, so its bounds are
// checked up to 0.001 fs before the edge.
TEST_P(DownFilter, TableFigures) {
    const Response r = table_response();
    const auto [lo, hi] = r.range(2 * (fig.pass_edge_fs - 0.001));
    EXPECT_GE(lo, fig.pass_lo - 0.01);
    EXPECT_LE(hi, fig.pass_hi + 0.01);
    EXPECT_GE(r.first_below(-3) / 2, fig.minus3_fs - 0.001);
    EXPECT_LE(r.db(2 * fig.f_check_fs), fig.db_check + 0.1);
    // Stopbands on the grid they were measured on: 4000 steps up to the filter's Nyquist frequency.
    for (const Stop &s : fig.stop) {
        double worst = -1e9;
        for (int i = 0; i <= 4000; ++i)
            if (r.rate_factor * i / 4000 >= 2 * s.from) worst = std::max(worst, r.db(r.rate_factor * i / 4000));
        EXPECT_LE(worst, s.max_db) << "from " << s.from << " fs";
    }
    if (st.zero_stuffed) {  // the 2:3 prototype cancels the image of DC at the input rate exactly
        int64_t alternating = 0;
        for (size_t k = 0; k < r.h.size(); ++k) alternating += (k % 2 ? -1 : 1) * r.h[k];
        EXPECT_EQ(alternating, 0);
    }
}

// Tones through RSMPL_Down: below the output Nyquist frequency the level at
// the tone, above it the level of the alias it folds to, against the table.
TEST_P(DownFilter, StageTonesFollowTheTable) {
    const Response t = table_response();
    const size_t win = 1024, skip = 64;
    const auto w = quality::window(win);
    const double fo = ratio();  // output rate in units of fs
    for (double f = 0.01372; f < 0.5; f += 0.03713) {
        const size_t n_in = static_cast<size_t>((win + skip) / fo) + 24;
        Samples in(n_in);
        for (size_t i = 0; i < n_in; ++i)
            in[i] = static_cast<int16_t>(std::lround(16384 * std::sin(2 * kPi * f * double(i))));
        const Samples y = run_down(fig.index, in, st.group_in, st.group_out);
        ASSERT_GE(y.size(), skip + win);
        double g = std::fmod(f, fo);
        if (g > fo / 2) g = fo - g;
        if (std::min(g, fo / 2 - g) < 6 * fo / win) continue;  // overlaps its own mirror
        const double got = 20 * std::log10(quality::amplitude_at(y, skip, w, g, fo) / 0.5);
        const double want = t.db(2 * f);
        expect_level(got, want) << "tone " << f << " fs, measured at " << g << " fs";
    }
}

// First moment of the stage's response to impulses at every input phase.
// Output j of a block is centred on block sample j * step - D (step = input
// samples per output), so an impulse at p comes out centred where
// j * step - p = D.
TEST_P(DownFilter, StageGroupDelay) {
    const int M = st.group_in;
    const double step = double(st.group_in) / st.group_out;  // input samples per output
    double m0 = 0, m1 = 0;
    const size_t p0 = 240;
    for (int phase = 0; phase < M; ++phase) {
        Samples in(960, 0);
        in[p0 + phase] = 16384;
        const Samples y = run_down(fig.index, in, st.group_in, st.group_out);
        for (size_t j = 0; j < y.size(); ++j) {
            const double t = double(j) * step - double(p0 + phase);
            m0 += y[j];
            m1 += t * y[j];
        }
    }
    EXPECT_NEAR(m1 / m0, fig.delay_in, 0.01);
}

const auto down_stage_name = [](const auto &info) {
    return std::string(rsmpl_test::down_model::stages()[info.param].name);
};
INSTANTIATE_TEST_SUITE_P(AllStages, DownFilter, ::testing::Range<size_t>(0, rsmpl_test::down_model::stages().size()),
                         down_stage_name);

// ---- Sinc interpolator ------------------------------------------------------------

struct SincCase {
    const char *name;
    float ratio;
};

// Tones through RSMPL_Resample, f as a fraction of the lower Nyquist
// frequency: flat to 0.6, -3 dB near 0.84 (0.42 of the lower rate), -6 dB at
// 0.88, and images or aliases from 1.2 on more than 84 dB down. The prototype
// reaches -107 dB there, but the kernel keeps its sum to Q14 by truncation,
// and the spurs of that arithmetic measure -86.7 dB at worst.
class SincFilter : public ::testing::TestWithParam<SincCase> {
protected:
    // Level at the tone (or at its alias or image) for a tone at f.
    double level(double f, bool image) const {
        const double r = GetParam().ratio;
        const double lo = std::min(1.0, double(r));  // lower rate, input rate = 1
        const double tone = f * lo / 2;              // cycles per input sample
        const size_t win = 2048, skip = 128;
        const size_t n_in = static_cast<size_t>((win + skip) / r) + 200;
        Samples in(n_in);
        for (size_t i = 0; i < n_in; ++i)
            in[i] = static_cast<int16_t>(std::lround(16384 * std::sin(2 * kPi * tone * double(i))));
        std::vector<uint64_t> mem(RSMPL_CONTEXT_SIZE / 8 + 1);
        auto *ctx = reinterpret_cast<RSMPL_Ctx *>(mem.data());
        RSMPL_InitContext(ctx);
        uint32_t min_in = 0, count = 0;
        EXPECT_EQ(RSMPL_SetResampleRatio(ctx, &min_in, nullptr, nullptr, r), RSMPL_OK);
        Samples buf(RSMPL_MAX_BLOCK * 8 + 64), y;
        const Samples zeros(min_in, 0);  // the new ratio applies from the next block on
        RSMPL_Resample(ctx, zeros.data(), buf.data(), static_cast<int32_t>(min_in), &count);
        for (size_t pos = 0; pos < n_in; pos += 480) {
            const int32_t n = static_cast<int32_t>(std::min<size_t>(480, n_in - pos));
            EXPECT_EQ(RSMPL_Resample(ctx, in.data() + pos, buf.data(), n, &count), RSMPL_OK);
            y.insert(y.end(), buf.begin(), buf.begin() + count);
        }
        double at = tone;  // cycles per input sample, folded into the output band
        if (image) at = 1 - tone;
        at = std::fmod(at, double(r));
        if (at > r / 2.0) at = r - at;
        return 20 * std::log10(quality::amplitude_at(y, skip, quality::window(win), at, r) / 0.5);
    }
};

TEST_P(SincFilter, FlatPassbandAndTransition) {
    for (double f = 0.05; f <= 0.6; f += 0.0775) EXPECT_NEAR(level(f, false), 0.0, 0.005) << f;
    EXPECT_NEAR(level(0.838, false), -3.0, 0.15);
    EXPECT_NEAR(level(0.88, false), -6.0, 0.15);
}

TEST_P(SincFilter, ImagesAndAliasesFromTwelveTenths) {
    const bool up = GetParam().ratio > 1;
    // Up: the image of tone f lies at 2 - f (input Nyquist units); down: a
    // tone above 1 (output Nyquist units) is its own alias.
    for (double f : {1.2013, 1.3517, 1.5023, 1.7011, 1.9007}) {
        const double db = up ? level(2 - f, true) : level(f, false);
        EXPECT_LT(db, -84.0) << "at " << f;
    }
}

INSTANTIATE_TEST_SUITE_P(Ratios, SincFilter, ::testing::Values(SincCase{"Up2", 2.0f}, SincCase{"Down2", 0.5f}),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
