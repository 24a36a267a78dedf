// Every kernel engine the machine runs against the scalar reference, bit for
// bit: the ten FIR kernels and the sinc interpolator's output runs, on
// random, full-scale and sign-matched data, for counts that end inside the
// vector body, inside the tail, and in both, in place and with separate
// buffers. The lane bounds that make the 32-bit partial sums exact are
// recomputed here from the compiled tables.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/fir_layout.hpp"
#include "rsmpl/linear/linear_kernels.hpp"
#include <rsmpl/rsmpl.h>
#include "rsmpl/sinc/sinc_kernel.hpp"
#include "support.hpp"

namespace {

using rsmpl::KernelSet;
using rsmpl_test::Guarded;
using Kernel = void (*)(const int16_t *, int16_t *, int32_t);
using Samples = std::vector<int16_t>;

// ---- The layouts, type-erased -------------------------------------------------

struct Layout {
    int P, Mp, R, b0, shift, unit_in, unit_out, units_per_group, history, bins;
    std::vector<std::vector<int32_t>> c;    // [p][i]
    std::vector<std::vector<int32_t>> bin;  // [p][m]
    std::vector<int> row_bins;              // [p]
};

template <class L>
Layout view(const L &l) {
    Layout v{L::P, L::Mp, l.R, l.b0, l.shift, l.unit_in, l.unit_out, l.units_per_group, l.history, l.bins, {}, {}, {}};
    for (int p = 0; p < L::P; ++p) {
        v.c.emplace_back(l.c[p], l.c[p] + 2 * L::Mp);
        v.bin.emplace_back(l.bin[p], l.bin[p] + L::Mp);
        v.row_bins.push_back(l.row_bins[p]);
    }
    return v;
}

struct Fir {
    const char *name;
    Layout layout;
    int index;                 // StageId: 0..4 up (3:2, 1:2, 1:3, 1:4, 1:6), 5..9 down (1:2, 1:3, 1:4, 1:6, 2:3)
    bool up;
    int tail;  // up-stage wrapper's tail length T (in-place staging); 0 for down
};

Kernel kernel_of(const KernelSet &k, int index) { return k.fir.stage[index]; }

const std::vector<Fir> &firs() {
    namespace f = rsmpl::fir;
    static const std::vector<Fir> v = {
        {"Up3_2", view(f::kPairs<f::kUp2To3>), f::kUp2To3, true, 12},
        {"Up2_1", view(f::kPairs<f::kUp1To2>), f::kUp1To2, true, 18},
        {"Up3_1", view(f::kPairs<f::kUp1To3>), f::kUp1To3, true, 6},
        {"Up4_1", view(f::kPairs<f::kUp1To4>), f::kUp1To4, true, 4},
        {"Up6_1", view(f::kPairs<f::kUp1To6>), f::kUp1To6, true, 3},
        {"Down1_2", view(f::kPairs<f::kDown2To1>), f::kDown2To1, false, 0},
        {"Down1_3", view(f::kPairs<f::kDown3To1>), f::kDown3To1, false, 0},
        {"Down1_4", view(f::kPairs<f::kDown4To1>), f::kDown4To1, false, 0},
        {"Down1_6", view(f::kPairs<f::kDown6To1>), f::kDown6To1, false, 0},
        {"Down2_3", view(f::kPairs<f::kDown3To2>), f::kDown3To2, false, 0},
    };
    return v;
}

int64_t units_of(const Layout &l, int32_t count) { return count < l.unit_in ? 0 : count / l.unit_in; }
int64_t outputs_of(const Layout &l, int32_t count) { return units_of(l, count) * l.unit_out; }
// Samples the kernel may read: x[0 .. span-1].
int64_t span_of(const Layout &l, int32_t count) { return l.unit_in * units_of(l, count) + l.history; }

// ---- Engines ---------------------------------------------------------------------

std::vector<const KernelSet *> vector_engines() {
    std::vector<const KernelSet *> v;
    for (const KernelSet *k : rsmpl::available_kernels())
        if (k->id != rsmpl::EngineId::scalar) v.push_back(k);
    return v;
}

// Scalar first, names distinct and parsed back; a forced name picks that
// engine where the machine has it and falls back to the best otherwise.
TEST(Engines, NamesAndForcing) {
    const auto all = rsmpl::available_kernels();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front(), &rsmpl::kScalarKernels);
    for (size_t i = 0; i < all.size(); ++i) {
        rsmpl::EngineId id;
        ASSERT_TRUE(rsmpl::parse_engine(all[i]->name, &id)) << all[i]->name;
        EXPECT_EQ(id, all[i]->id);
        EXPECT_EQ(rsmpl::find_kernels(id), all[i]);
        for (size_t j = 0; j < i; ++j) EXPECT_NE(all[i]->id, all[j]->id);
    }
    const KernelSet &best = *all.back();
    for (const char *name : {(const char *)nullptr, "", "fastest", "AVX2"})  // names are exact
        EXPECT_EQ(&rsmpl::choose_kernels(name), &best) << (name ? name : "null");
    for (const char *name : {"scalar", "sse41", "avx2", "avx512", "neon"}) {
        rsmpl::EngineId id;
        ASSERT_TRUE(rsmpl::parse_engine(name, &id));
        const KernelSet *k = rsmpl::find_kernels(id);
        EXPECT_EQ(&rsmpl::choose_kernels(name), k ? k : &best) << name;
    }
#if defined(__x86_64__)
    EXPECT_EQ(rsmpl::find_kernels(rsmpl::EngineId::neon), nullptr);
#elif defined(__aarch64__)
    EXPECT_NE(rsmpl::find_kernels(rsmpl::EngineId::neon), nullptr);
    EXPECT_EQ(rsmpl::find_kernels(rsmpl::EngineId::avx2), nullptr);
    EXPECT_EQ(rsmpl::find_kernels(rsmpl::EngineId::avx512), nullptr);
#endif
}

// The process's own choice follows RSMPL_ENGINE (which scripts/test.sh sets
// for each engine in turn) and the exported kernels use it.
TEST(Engines, TheProcessRunsTheEngineTheEnvironmentAsksFor) {
    const KernelSet &want = rsmpl::choose_kernels(std::getenv("RSMPL_ENGINE"));
    EXPECT_EQ(&rsmpl::kernels(), &want);
    EXPECT_STREQ(rsmpl::engine_name(), want.name);
    std::printf("engine in use: %s\n", rsmpl::engine_name());
}

// ---- Lane bounds, from the compiled tables ------------------------------------

int64_t magnitude(int64_t v) { return v < 0 ? -v : v; }

// The layout is the table: the formula over the padded rows, in 64 bits,
// gives the scalar kernel's outputs.
TEST(LaneBounds, PaddedRowsReproduceTheScalarKernels) {
    for (const Fir &f : firs()) {
        const Layout &l = f.layout;
        const int32_t count = 24 * l.unit_in * l.units_per_group + 1;
        const Samples x = rsmpl_test::hostile_samples(static_cast<size_t>(span_of(l, count)) + 64, 5);
        Samples want(static_cast<size_t>(outputs_of(l, count)));
        kernel_of(rsmpl::kScalarKernels, f.index)(x.data(), want.data(), count);
        for (size_t o = 0; o < want.size(); ++o) {
            const int64_t t = static_cast<int64_t>(o) / l.P, p = static_cast<int64_t>(o) % l.P;
            int64_t s = 0;
            for (int i = 0; i < 2 * l.Mp; ++i) {
                const int64_t at = l.b0 + 2 * l.R * t + i;
                if (l.c[p][i] != 0) {
                    ASSERT_LT(at, span_of(l, count)) << f.name << ": a non-zero tap past the kernel's samples";
                    s += int64_t{l.c[p][i]} * x[static_cast<size_t>(at)];
                }
            }
            const int64_t r = (s + (int64_t{1} << (l.shift - 1))) >> l.shift;
            ASSERT_EQ(want[o], static_cast<int16_t>(std::clamp<int64_t>(r, INT16_MIN, INT16_MAX))) << f.name << ", output " << o;
        }
    }
}

// Each 32-bit partial sum covers the taps of one bin; their absolute values
// must add up to less than 65536, so that 16-bit samples (down to -32768)
// cannot carry it past 2^31 - 1.
TEST(LaneBounds, EveryBinOfEveryRowStaysBelow65536) {
    for (const Fir &f : firs()) {
        const Layout &l = f.layout;
        int64_t heaviest = 0;
        for (int p = 0; p < l.P; ++p) {
            std::vector<int64_t> w(static_cast<size_t>(l.bins), 0);
            for (int m = 0; m < l.Mp; ++m) {
                ASSERT_GE(l.bin[p][m], 0);
                ASSERT_LT(l.bin[p][m], l.row_bins[p]) << f.name << ", row " << p;
                w[static_cast<size_t>(l.bin[p][m])] += magnitude(l.c[p][2 * m]) + magnitude(l.c[p][2 * m + 1]);
            }
            for (int64_t b : w) heaviest = std::max(heaviest, b);
            // Also the rounding half on top of a row's single bin.
            if (l.row_bins[p] == 1) {
                EXPECT_LE(w[0] * 32768 + (int64_t{1} << (l.shift - 1)), int64_t{INT32_MAX}) << f.name << ", row " << p;
            }
        }
        EXPECT_LT(heaviest, rsmpl::fir::kLaneBound) << f.name;
        EXPECT_LE(heaviest * 32768, int64_t{INT32_MAX}) << f.name;
    }
}

// The splits that would not do: a whole row in one 32-bit sum, and for the
// 1:4 table four lanes by tap index modulo 4 (two of them reach 68016).
TEST(LaneBounds, TheNaiveSplitsWouldOverflow) {
    const auto &t = rsmpl::down::DownsampleCoef4To1;
    int64_t lane[4] = {};
    for (size_t k = 0; k < t.size(); ++k) lane[k % 4] += magnitude(t[k]);
    EXPECT_EQ(lane[1], 68016);
    EXPECT_EQ(lane[2], 68016);
    EXPECT_GE(*std::max_element(lane, lane + 4), rsmpl::fir::kLaneBound);
    int overflowing_rows = 0;
    for (const Fir &f : firs())
        for (int p = 0; p < f.layout.P; ++p) {
            int64_t row = 0;
            for (int32_t c : f.layout.c[p]) row += magnitude(c);
            overflowing_rows += row >= rsmpl::fir::kLaneBound;
        }
    EXPECT_GT(overflowing_rows, 0) << "some rows need more than one 32-bit sum";
}

// ---- The same for the row layouts (the AArch64 kernels) -------------------------

struct Rows {
    int D, P, E, shift, history;
    std::vector<std::vector<int32_t>> w, bin;  // [p][e]
    std::vector<int> bins;
};

template <class L>
Rows rows_view(const L &l) {
    Rows v{l.D, L::P, L::E, l.shift, l.history, {}, {}, {}};
    for (int p = 0; p < L::P; ++p) {
        v.w.emplace_back(l.w[p], l.w[p] + L::E);
        v.bin.emplace_back(l.bin[p], l.bin[p] + L::E);
        v.bins.push_back(l.bins[p]);
    }
    return v;
}

// Same order as firs().
const std::vector<Rows> &all_rows() {
    namespace f = rsmpl::fir;
    static const std::vector<Rows> v = {
        rows_view(f::kRows<f::kUp2To3>),   rows_view(f::kRows<f::kUp1To2>),   rows_view(f::kRows<f::kUp1To3>),
        rows_view(f::kRows<f::kUp1To4>),   rows_view(f::kRows<f::kUp1To6>),   rows_view(f::kRows<f::kDown2To1>),
        rows_view(f::kRows<f::kDown3To1>), rows_view(f::kRows<f::kDown4To1>), rows_view(f::kRows<f::kDown6To1>),
        rows_view(f::kRows<f::kDown3To2>),
    };
    return v;
}

// out[P*t + p] = R_s(sum_e w[p][e] * x[D*t + e]) over every sample the
// kernel may read, in 64 bits, is the scalar kernel.
TEST(LaneBounds, StageRowsReproduceTheScalarKernels) {
    for (size_t k = 0; k < firs().size(); ++k) {
        const Fir &f = firs()[k];
        const Rows &r = all_rows()[k];
        ASSERT_EQ(r.D, f.layout.unit_in) << f.name;
        ASSERT_EQ(r.P, f.layout.unit_out) << f.name;
        const int32_t count = 37 * r.D + 1;
        const int64_t span = int64_t{r.D} * (count / r.D) + r.history;
        ASSERT_EQ(span, span_of(f.layout, count)) << f.name;
        const Samples x = rsmpl_test::hostile_samples(static_cast<size_t>(span), 11);
        Samples want(static_cast<size_t>(outputs_of(f.layout, count)));
        kernel_of(rsmpl::kScalarKernels, f.index)(x.data(), want.data(), count);
        for (size_t o = 0; o < want.size(); ++o) {
            const int64_t t = static_cast<int64_t>(o) / r.P, p = static_cast<int64_t>(o) % r.P;
            int64_t s = 0;
            for (int e = 0; e < r.E; ++e) {
                const int64_t at = r.D * t + e;
                if (r.w[p][e] == 0) continue;
                ASSERT_LT(at, span) << f.name << ": a non-zero tap past the kernel's samples";
                s += int64_t{r.w[p][e]} * x[static_cast<size_t>(at)];
            }
            const int64_t v = (s + (int64_t{1} << (r.shift - 1))) >> r.shift;
            ASSERT_EQ(want[o], static_cast<int16_t>(std::clamp<int64_t>(v, INT16_MIN, INT16_MAX))) << f.name << ", output " << o;
        }
    }
}

// The row kernels' 32-bit partial sums: every bin of every row below 65536,
// and one bin alone only where the narrowing shift can take the whole sum.
TEST(LaneBounds, EveryBinOfEveryStageRowStaysBelow65536) {
    for (size_t k = 0; k < firs().size(); ++k) {
        const Rows &r = all_rows()[k];
        for (int p = 0; p < r.P; ++p) {
            std::vector<int64_t> w(static_cast<size_t>(r.bins[p]), 0);
            for (int e = 0; e < r.E; ++e) {
                if (r.w[p][e] == 0) continue;
                ASSERT_LT(r.bin[p][e], r.bins[p]) << firs()[k].name;
                w[static_cast<size_t>(r.bin[p][e])] += magnitude(r.w[p][e]);
            }
            for (int64_t b : w) {
                EXPECT_LT(b, rsmpl::fir::kRowBinBound) << firs()[k].name << ", row " << p;
                EXPECT_LE(b * 32768, int64_t{INT32_MAX}) << firs()[k].name << ", row " << p;
            }
        }
    }
}

// ---- Kernels against the scalar reference -----------------------------------------

::testing::AssertionResult same(const int16_t *got, const int16_t *want, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (got[i] != want[i])
            return ::testing::AssertionFailure() << "first difference at output " << i << ": " << got[i] << ", want "
                                                 << want[i];
    return ::testing::AssertionSuccess();
}

// Runs kernel k over x (exactly the samples it may read, on the heap so that
// ASan sees a read past them) with separate buffers and, for the down-stages,
// in place; compares with the scalar kernel.
void expect_same(const Fir &f, const KernelSet &e, const Samples &x, int32_t count, const std::string &what) {
    const Layout &l = f.layout;
    const size_t span = static_cast<size_t>(span_of(l, count));
    ASSERT_LE(span, x.size());
    const size_t n_out = static_cast<size_t>(outputs_of(l, count));
    auto exact = std::make_unique<int16_t[]>(span);
    std::copy(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(span), exact.get());

    Samples want(n_out);
    kernel_of(rsmpl::kScalarKernels, f.index)(exact.get(), want.data(), count);

    Guarded<int16_t> out(n_out);
    kernel_of(e, f.index)(exact.get(), out.data(), count);
    EXPECT_TRUE(same(out.data(), want.data(), n_out)) << f.name << ", " << e.name << ", count " << count << ", " << what;
    EXPECT_TRUE(out.guards_intact()) << f.name << ", " << e.name << ", count " << count;
    EXPECT_TRUE(std::equal(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(span), exact.get()))
        << "input changed";

    if (!f.up) {
        // Down-stages may write over their own input.
        kernel_of(e, f.index)(exact.get(), exact.get(), count);
        EXPECT_TRUE(same(exact.get(), want.data(), n_out)) << f.name << ", " << e.name << ", in place, count " << count;
    } else {
        // Up-stages run in place from the staging area at the end of the
        // wrapper's output, T inputs before its end (see the stage wrappers).
        const int32_t group = l.unit_in;
        const int32_t n = count + f.tail;
        const int64_t scratch = int64_t{n} / group * l.unit_out + n % group;
        const int64_t staged_at = scratch - count - l.history;
        if (count < group || staged_at < 0) return;  // the wrapper never stages such a count
        Guarded<int16_t> buf(static_cast<size_t>(scratch));
        std::copy(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(span), buf.data() + staged_at);
        kernel_of(e, f.index)(buf.data() + staged_at, buf.data(), count);
        EXPECT_TRUE(same(buf.data(), want.data(), n_out)) << f.name << ", " << e.name << ", in place, count " << count;
        EXPECT_TRUE(buf.guards_intact());
    }
}

class FirEngine : public ::testing::TestWithParam<size_t> {
protected:
    const Fir &f = firs()[GetParam()];
};

// Counts from nothing up past two blocks of the widest vectors (32 groups
// each) and several chunks: some end in the vector body, some are all tail,
// most are both; around 64, 128 and 256 groups (where the x86 stream kernels
// start another copy) and past them.
std::vector<int32_t> counts_for(const Layout &l) {
    std::vector<int32_t> v;
    const int32_t group = l.unit_in * l.units_per_group;
    for (int32_t c = -1; c <= 72 * group; ++c) v.push_back(c);
    for (int32_t c : {127 * group, 128 * group, 128 * group + l.unit_in, 129 * group, 255 * group, 256 * group,
                      256 * group + l.unit_in, 257 * group + l.unit_in, 480, 721, 960, 1440})
        v.push_back(c);
    return v;
}

TEST_P(FirEngine, RandomFullScaleAndConstantInputEveryCount) {
    const Layout &l = f.layout;
    for (const KernelSet *e : vector_engines()) {
        for (int32_t count : counts_for(l)) {
            const size_t span = static_cast<size_t>(span_of(l, std::max(count, 0)));
            const uint32_t seed = static_cast<uint32_t>(count);
            EXPECT_NO_FATAL_FAILURE(expect_same(f, *e, rsmpl_test::random_samples(span, 17 + seed), count, "random"));
            EXPECT_NO_FATAL_FAILURE(expect_same(f, *e, rsmpl_test::hostile_samples(span, 91 + seed), count, "hostile"));
        }
        for (int16_t v : {int16_t{INT16_MIN}, int16_t{INT16_MAX}, int16_t{-1}})
            for (int32_t count : {l.unit_in, 7 * l.unit_in, 333, 1440})
                EXPECT_NO_FATAL_FAILURE(
                    expect_same(f, *e, Samples(static_cast<size_t>(span_of(l, count)), v), count, std::to_string(v)));
    }
}

// Windows whose signs follow a row: every bin of that row reaches its largest
// magnitude at once. Placed on the first group, on groups in the middle and on
// the last one, so they meet the vector body and the tail.
TEST_P(FirEngine, SignMatchedFullScaleWindows) {
    const Layout &l = f.layout;
    for (const KernelSet *e : vector_engines())
        for (int32_t count : {2 * l.unit_in * l.units_per_group, 37 * l.unit_in * l.units_per_group + l.unit_in, 1440}) {
            const int64_t groups = (units_of(l, count) + l.units_per_group - 1) / l.units_per_group;
            for (int p = 0; p < l.P; ++p)
                for (int64_t t : {int64_t{0}, groups / 2, groups - 1})
                    for (int sign : {1, -1}) {
                        const size_t span = static_cast<size_t>(span_of(l, count));
                        Samples x = rsmpl_test::random_samples(span, static_cast<uint32_t>(p * 7 + t));
                        for (int i = 0; i < 2 * l.Mp; ++i) {
                            const int64_t at = l.b0 + 2 * l.R * t + i;
                            if (l.c[p][i] == 0 || at >= static_cast<int64_t>(span)) continue;
                            x[static_cast<size_t>(at)] = (l.c[p][i] > 0) == (sign > 0) ? INT16_MAX : INT16_MIN;
                        }
                        EXPECT_NO_FATAL_FAILURE(expect_same(f, *e, x, count,
                                                            "phase " + std::to_string(p) + ", group " +
                                                                std::to_string(t) + ", sign " + std::to_string(sign)));
                    }
        }
}

INSTANTIATE_TEST_SUITE_P(AllKernels, FirEngine, ::testing::Range<size_t>(0, 10),
                         [](const auto &info) { return std::string(firs()[info.param].name); });

// ---- Sinc interpolator ------------------------------------------------------------

struct SincRatio {
    double ratio;  // output over input rate
    const char *label;
};

// Runs as the interpolator makes them: step, table step and half-length of
// one ratio, a block of `valid` samples, positions from p0 up to a little
// past the block's end (where taps read unreceived samples as zero, and
// beyond where whole outputs are zero). Random, full-scale and alternating
// full-scale samples (where the 32-bit sum wraps, in both forms alike), every
// headroom shift, fractions 0 and 0xFFFF among the random ones.
TEST(SincEngine, EveryRatioAndPositionMatchesTheScalarRun) {
    const SincRatio ratios[] = {{8.0, "8"},          {6.0, "6"},          {3.0, "3"},           {2.0, "2"},
                                {48000.0 / 44100, "48/44.1"}, {1.0, "1"}, {1.00001, "1.00001"}, {0.99995, "0.99995"},
                                {44100.0 / 48000, "44.1/48"}, {0.7, "0.7"}, {0.5, "1/2"},   {1.0 / 3, "1/3"},
                                {0.2, "0.2"},        {0.125, "1/8"}};
    std::mt19937 rng(16);
    for (const KernelSet *e : vector_engines())
        for (const SincRatio &q : ratios)
            for (int shift = 0; shift <= 3; ++shift)
                for (int rep = 0; rep < 5; ++rep) {
                    const double inv = 1.0 / q.ratio;
                    const int32_t h = q.ratio < 1.0 ? static_cast<int32_t>(inv * 13.0) : 13;
                    const auto step = static_cast<uint32_t>(std::lround(inv * 16777216.0));
                    const auto tableStep = static_cast<uint32_t>(std::lround(std::min(q.ratio, 1.0) * 128.0 * 65536.0));
                    const int32_t room = RSMPL_HISTORY_SAMPLES - (2 * h + 1);
                    const int32_t block = rep == 0 ? room : 1 + static_cast<int32_t>(rng() % static_cast<uint32_t>(room));
                    const int32_t valid = 2 * h + 1 + block;
                    // Exactly `valid` samples, so a read past them is caught under ASan.
                    Samples x = rsmpl_test::hostile_samples(static_cast<size_t>(valid), rng());
                    if (rep == 1) std::fill(x.begin(), x.end(), INT16_MIN);
                    if (rep == 2)
                        for (size_t i = 0; i < x.size(); ++i) x[i] = i % 2 ? INT16_MIN : INT16_MAX;
                    uint32_t p0 = rng() % (4u << 16);
                    if (rep == 3) p0 = 0xFFFFu;
                    if (rep == 4) p0 = (static_cast<uint32_t>(block) + rng() % 30u) << 16 | (rng() & 0xFFFFu);
                    uint32_t count = 0;
                    while (count < 12000 && (p0 + rsmpl::sinc_advance(step, count)) >> 16 < static_cast<uint32_t>(block + 2 * h))
                        ++count;
                    if (count == 0) count = 1;
                    const rsmpl::SincRun run{x.data(), valid, h, p0, step, tableStep,
                                             static_cast<uint32_t>(rng() % (1u << 24)) + 1, shift, count};
                    Samples want(count + 8, 0x5A5A), got(count + 8, 0x5A5A);
                    rsmpl::sinc_run_scalar(run, want.data());
                    e->sinc(run, got.data());
                    ASSERT_EQ(got, want) << e->name << ", ratio " << q.label << ", shift " << shift << ", rep " << rep
                                         << ", valid " << valid << ", p0 " << p0 << ", count " << count;
                }
}

// ---- Linear converter ------------------------------------------------------------

namespace linear {

uint32_t shift_for(uint32_t pitch) {
    uint32_t s = 0;
    while ((pitch >> s) >= 65536) ++s;
    return s;
}

// Output over input rate of the pairs the plug-in meets, and odd ones.
const uint32_t kExpandPitches[] = {570532, 0x80001, 0x100000, 0x180000, 0x300000, 0x400000, 0x7FFFFF, 0x93BD7};
const uint32_t kShrinkPitches[] = {0x80000, 0x7FFFF, 87381, 174763, 0x40000, 0x2C1F2, 0x10000, 1};

TEST(LinearEngine, ExpandMatchesScalarForEveryChannelCountAndShortage) {
    for (const KernelSet *e : vector_engines())
        for (uint32_t pitch : kExpandPitches)
            for (uint32_t channels = 0; channels <= 5; ++channels)
                for (uint32_t src_frames : {0u, 1u, 7u, 160u, 441u})
                    for (uint32_t dst_frames : {0u, 1u, 480u, 1024u}) {
                        const Samples src = rsmpl_test::hostile_samples(src_frames * channels + 1, pitch + channels);
                        int16_t last_want[5] = {INT16_MIN, INT16_MAX, -1, 7, 0}, last_got[5];
                        std::copy(last_want, last_want + 5, last_got);
                        Guarded<int16_t> want(dst_frames * channels), got(dst_frames * channels);
                        rsmpl::linear_expand_scalar(src.data(), src_frames, want.data(), dst_frames, channels, pitch,
                                                    shift_for(pitch), last_want);
                        e->linear_expand(src.data(), src_frames, got.data(), dst_frames, channels, pitch,
                                         shift_for(pitch), last_got);
                        ASSERT_TRUE(same(got.data(), want.data(), dst_frames * channels))
                            << e->name << ", pitch " << pitch << ", " << channels << " ch, " << src_frames << " -> "
                            << dst_frames;
                        ASSERT_TRUE(std::equal(last_want, last_want + 5, last_got)) << e->name;
                        ASSERT_TRUE(got.guards_intact());
                    }
}

TEST(LinearEngine, ShrinkMatchesScalarIncludingOverflow) {
    for (const KernelSet *e : vector_engines())
        for (uint32_t pitch : kShrinkPitches)
            for (uint32_t channels = 0; channels <= 5; ++channels)
                for (uint32_t src_frames : {0u, 1u, 5u, 960u, 1441u})
                    for (uint32_t dst_frames : {0u, 1u, 320u, 1441u}) {
                        const Samples src = rsmpl_test::hostile_samples(src_frames * channels + 1, pitch ^ channels);
                        Guarded<int16_t> want(dst_frames * channels), got(dst_frames * channels);
                        std::fill(want.data(), want.data() + want.size(), int16_t{0x5A5A});
                        std::fill(got.data(), got.data() + got.size(), int16_t{0x5A5A});
                        const bool over_want = rsmpl::linear_shrink_scalar(src.data(), src_frames, want.data(),
                                                                           dst_frames, channels, pitch);
                        const bool over_got =
                            e->linear_shrink(src.data(), src_frames, got.data(), dst_frames, channels, pitch);
                        ASSERT_EQ(over_got, over_want) << e->name << ", pitch " << pitch;
                        ASSERT_TRUE(same(got.data(), want.data(), dst_frames * channels))
                            << e->name << ", pitch " << pitch << ", " << channels << " ch, " << src_frames << " -> "
                            << dst_frames;
                        ASSERT_TRUE(got.guards_intact());
                    }
}

}  // namespace linear

}  // namespace

// ---- Channel moves ---------------------------------------------------------------

namespace moves {

// Every engine, the scalar one included, against the index formula itself:
// counts that end inside and after the vector steps, and frames that start
// one sample off the vector alignment.
TEST(ChannelMoves, GatherAndScatterMoveExactlyOneChannelForEveryCount) {
    for (const KernelSet *e : rsmpl::available_kernels())
        for (uint32_t channels = 1; channels <= 8; ++channels)
            for (uint32_t count : {0u, 1u, 7u, 8u, 9u, 15u, 16u, 17u, 31u, 33u, 481u})
                for (uint32_t c = 0; c < channels; ++c) {
                    const size_t n = size_t{count} * channels;
                    const Samples frames = rsmpl_test::hostile_samples(n + 1, count * 8 + channels * 131 + c);
                    const Samples mono_in = rsmpl_test::hostile_samples(count, count + c + 77);

                    Guarded<int16_t> src(n + 1), mono(count);
                    std::copy(frames.begin(), frames.end(), src.data());
                    e->gather_channel(mono.data(), src.data() + 1, count, channels, c);
                    for (uint32_t k = 0; k < count; ++k)
                        ASSERT_EQ(mono[k], frames[1 + size_t{k} * channels + c])
                            << e->name << ": gather " << channels << " ch, channel " << c << ", count " << count
                            << ", frame " << k;
                    ASSERT_TRUE(mono.guards_intact()) << e->name;
                    ASSERT_TRUE(std::equal(frames.begin(), frames.end(), src.data())) << e->name << ": source written";

                    Guarded<int16_t> dst(n + 1), in(count);
                    std::copy(frames.begin(), frames.end(), dst.data());
                    std::copy(mono_in.begin(), mono_in.end(), in.data());
                    e->scatter_channel(dst.data() + 1, in.data(), count, channels, c);
                    Samples want = frames;
                    for (uint32_t k = 0; k < count; ++k) want[1 + size_t{k} * channels + c] = mono_in[k];
                    ASSERT_TRUE(std::equal(want.begin(), want.end(), dst.data()))
                        << e->name << ": scatter " << channels << " ch, channel " << c << ", count " << count;
                    ASSERT_TRUE(dst.guards_intact()) << e->name;
                }
}

}  // namespace moves

namespace moves {

// Splitting and merging every channel at once equals the index formula, for
// the channel counts with vector paths and those without.
TEST(ChannelMoves, SplitAndMergeEveryChannelAtOnce) {
    for (const KernelSet *e : rsmpl::available_kernels())
        for (uint32_t channels = 1; channels <= 8; ++channels)
            for (uint32_t count : {0u, 1u, 7u, 8u, 9u, 16u, 23u, 31u, 32u, 33u, 64u, 481u}) {
                const size_t n = size_t{count} * channels;
                const Samples frames = rsmpl_test::hostile_samples(n + 1, count * 16 + channels);
                Guarded<int16_t> src(n + 1);
                std::copy(frames.begin(), frames.end(), src.data());
                std::vector<std::unique_ptr<Guarded<int16_t>>> mono;
                std::vector<int16_t *> out;
                for (uint32_t c = 0; c < channels; ++c) {
                    mono.push_back(std::make_unique<Guarded<int16_t>>(count));
                    out.push_back(mono.back()->data());
                }
                e->split_channels(out.data(), src.data() + 1, count, channels);
                for (uint32_t c = 0; c < channels; ++c) {
                    for (uint32_t k = 0; k < count; ++k)
                        ASSERT_EQ(out[c][k], frames[1 + size_t{k} * channels + c])
                            << e->name << ": split " << channels << " ch, count " << count << ", channel " << c;
                    ASSERT_TRUE(mono[c]->guards_intact()) << e->name;
                }

                // Merged back into a buffer that held other samples: every one replaced.
                Guarded<int16_t> dst(n + 1);
                std::fill(dst.data(), dst.data() + n + 1, int16_t{0x5A5A});
                std::vector<const int16_t *> in(out.begin(), out.end());
                e->merge_channels(dst.data() + 1, in.data(), count, channels);
                ASSERT_EQ(dst[0], int16_t{0x5A5A}) << e->name;
                ASSERT_TRUE(std::equal(frames.begin() + 1, frames.end(), dst.data() + 1))
                    << e->name << ": merge " << channels << " ch, count " << count;
                ASSERT_TRUE(dst.guards_intact()) << e->name;
            }
}

}  // namespace moves
