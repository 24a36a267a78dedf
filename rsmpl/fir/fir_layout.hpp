// How the x86 FIR kernels see the ten coefficient tables: one shape for all
// of them, in tap pairs for pmaddwd, built at compile time from the stored
// tables, and read by those kernels and by the lane-bound tests alike. (The
// AArch64 kernels multiply single taps and read fir_rows.hpp.)
//
// A kernel's outputs come in groups t = 0, 1, ...; group t yields P outputs,
// out[P*t + p], each the dot product of a padded row c[p] with the samples
// from x[b0 + 2*R*t] on:
//
//   out[P*t + p] = R_s( sum_{i < 2*Mp} c[p][i] * x[b0 + 2*R*t + i] )
//
// R_s(S) = sat16((S + 2^(s-1)) >> s), S exact. Taps go in pairs (2m, 2m+1),
// one 32-bit lane of a 16x16 multiply-add (pmaddwd; on NEON the two taps of a
// pair land in the same lane too). Successive groups advance by 2R samples, R
// sample pairs, so a vector lane per group reads every R-th pair.
//
//   up L:1   group = two input samples j = 2t, 2t+1; P = 2L; the rows of the
//            odd sample are the table rows moved one tap later, so every row
//            has N + 2 taps (a zero at one end)
//   up 3:2   group = one input pair; P = 3; b0 = 1 (the window starts at x[1])
//   down 1:M group = one output (1:2, 1:4, 1:6) or two (1:3, whose second row
//            is the table three taps later)
//   down 2:3 group = two input triples; P = 4; rows at taps 0, 1, 3 and 4
//
// Rows are padded with zero pairs to a multiple of R pairs, so that a
// de-interleaving load of R pairs never reaches past a group's samples.
//
// Accumulator bins: pair m of row p goes into 32-bit partial sum bin[p][m],
// chosen by m modulo a short period. A partial sum over taps whose absolute values add up to less
// than 65536 stays within 32 bits (|sample| <= 32768: 65535 * 32768 < 2^31),
// so every bin is kept below that; the partials are then combined exactly.
#pragma once

#include <cstdint>

#include "rsmpl/fir/downsample_tables.hpp"
#include "rsmpl/fir/upsample_tables.hpp"

namespace rsmpl::fir {

// A 32-bit partial sum over 16-bit samples is exact while the absolute
// coefficients it covers add up to less than this.
inline constexpr int32_t kLaneBound = 65536;

template <int P_, int Mp_>
struct PairLayout {
    static constexpr int P = P_;    // outputs per group
    static constexpr int Mp = Mp_;  // tap pairs per row
    int R = 1;                      // sample pairs advanced per group
    int b0 = 0;                     // first sample of group 0
    int shift = 15;                 // fraction bits of the coefficients
    int unit_in = 1;                // kernel input group: count / unit_in units
    int unit_out = 1;               // outputs per unit
    int units_per_group = 1;
    int history = 0;                // H: the kernel may read x[0 .. unit_in*units + H - 1]
    int id = -1;                    // which stage (kUp2To3 = 0 ... kDown3To2 = 9), for the cost marks
    int bins = 1;                   // 32-bit partial sums per output, at most
    int16_t c[P][2 * Mp] = {};
    uint8_t bin[P][Mp] = {};
    uint8_t row_bins[P] = {};       // partial sums of row p: 1 where the row alone stays below the bound

    // The pair's coefficients as one 32-bit word: tap 2m in the low half (it
    // meets the sample at the lower address).
    constexpr int32_t pair(int p, int m) const {
        return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(c[p][2 * m])) |
                                    (static_cast<uint32_t>(static_cast<uint16_t>(c[p][2 * m + 1])) << 16));
    }
    constexpr bool zero_pair(int p, int m) const { return c[p][2 * m] == 0 && c[p][2 * m + 1] == 0; }
    constexpr int32_t weight(int p, int m) const {
        const int32_t a = c[p][2 * m], b = c[p][2 * m + 1];
        return (a < 0 ? -a : a) + (b < 0 ? -b : b);
    }
    // Sum of |c| over the taps of one bin of one row.
    constexpr int32_t bin_weight(int p, int b) const {
        int32_t s = 0;
        for (int m = 0; m < Mp; ++m)
            if (bin[p][m] == b) s += weight(p, m);
        return s;
    }
    constexpr int32_t heaviest_bin() const {
        int32_t w = 0;
        for (int p = 0; p < P; ++p)
            for (int b = 0; b < bins; ++b)
                if (bin_weight(p, b) > w) w = bin_weight(p, b);
        return w;
    }

    // Pair m into bin map[m mod period]: a loop over the pairs, unrolled
    // `period` times (a multiple of R), keeps each bin in one register.
    int period = 1;
    template <int N>
    constexpr void fill_bins(const int (&map)[N]) {
        period = N;
        bins = 0;
        for (int v : map) bins = v + 1 > bins ? v + 1 : bins;
        for (int p = 0; p < P; ++p) {
            int32_t row = 0;
            for (int m = 0; m < Mp; ++m) row += weight(p, m);
            // One sum needs room for the rounding half too: shift 15 at most.
            const bool one = row < 65536 && shift <= 15;
            row_bins[p] = static_cast<uint8_t>(one ? 1 : bins);
            for (int m = 0; m < Mp; ++m) bin[p][m] = static_cast<uint8_t>(one ? 0 : map[m % N]);
        }
    }
};

namespace detail {

constexpr int kUpBins[] = {0, 1};

template <int L, int N>
constexpr PairLayout<2 * L, N / 2 + 1> up_layout(const int16_t (&t)[L][N]) {
    PairLayout<2 * L, N / 2 + 1> l;
    l.unit_out = L;
    l.units_per_group = 2;
    l.history = N - 1;
    for (int par = 0; par < 2; ++par)
        for (int p = 0; p < L; ++p)
            for (int i = 0; i < N; ++i) l.c[par * L + p][i + par] = t[p][i];
    l.fill_bins(kUpBins);
    return l;
}

constexpr PairLayout<3, 8> up2to3_layout() {
    PairLayout<3, 8> l;
    l.b0 = 1;
    l.unit_in = 2;
    l.unit_out = 3;
    l.history = 15;
    for (int p = 0; p < 3; ++p)
        for (int i = 0; i < 16; ++i) l.c[p][i] = up::kFir2To3[p][i];
    l.fill_bins(kUpBins);
    return l;
}

// 1:M with one output per group (M even).
template <int Mp, std::size_t L, int N>
constexpr PairLayout<1, Mp> down_layout(const std::array<int16_t, L> &t, int M, int shift, const int (&bins)[N]) {
    PairLayout<1, Mp> l;
    l.R = M / 2;
    l.shift = shift;
    l.unit_in = M;
    l.history = static_cast<int>(L) - M;
    for (std::size_t k = 0; k < L; ++k) l.c[0][k] = t[k];
    l.fill_bins(bins);
    return l;
}

template <int N>
constexpr PairLayout<2, 27> down3to1_layout(const int (&bins)[N]) {
    PairLayout<2, 27> l;
    l.R = 3;
    l.shift = 16;
    l.unit_in = 3;
    l.units_per_group = 2;
    l.history = 45;
    for (int k = 0; k < 48; ++k) {
        l.c[0][k] = down::DownsampleCoef3To1[static_cast<std::size_t>(k)];
        l.c[1][k + 3] = down::DownsampleCoef3To1[static_cast<std::size_t>(k)];
    }
    l.fill_bins(bins);
    return l;
}

template <int N>
constexpr PairLayout<4, 12> down3to2_layout(const int (&bins)[N]) {
    PairLayout<4, 12> l;
    l.R = 3;
    l.shift = 15;
    l.unit_in = 3;
    l.unit_out = 2;
    l.units_per_group = 2;
    l.history = 14;
    constexpr int offset[4] = {0, 1, 3, 4};
    for (int p = 0; p < 4; ++p)
        for (int k = 0; k < 16; ++k)
            l.c[p][offset[p] + k] = down::kTable3To2.at(p % 2, k);
    l.fill_bins(bins);
    return l;
}

}  // namespace detail

// Bins per kernel: few (each costs registers), every one below kLaneBound;
// a row whose whole weight stays below it keeps one (1:3, 1:4, 1:6 and 3:2
// up have such rows). Heaviest bins: up 49176, 52914, 48955, 60234, 46448
// (1:2, 1:3, 1:4, 1:6, 3:2); down 55178 (1:2), 62090 (1:3), 60899 (1:4),
// 65349 (1:6), 56048 (2:3).
namespace detail {
template <class Layout>
constexpr Layout with_id(Layout l, int id) {
    l.id = id;
    return l;
}
}  // namespace detail
inline constexpr auto kUp2To3 = detail::with_id(detail::up2to3_layout(), 0);
inline constexpr auto kUp1To2 = detail::with_id(detail::up_layout(up::kFir1To2), 1);
inline constexpr auto kUp1To3 = detail::with_id(detail::up_layout(up::kFir1To3), 2);
inline constexpr auto kUp1To4 = detail::with_id(detail::up_layout(up::kFir1To4), 3);
inline constexpr auto kUp1To6 = detail::with_id(detail::up_layout(up::kFir1To6), 4);
namespace detail {
constexpr int kBins2To1[] = {0, 1, 2};
constexpr int kBins3To1[] = {0, 1, 0, 0, 1, 1};
constexpr int kBins4To1[] = {0, 1, 1, 1, 2, 2, 2, 3};
constexpr int kBins6To1[] = {0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3};
constexpr int kBins3To2[] = {0, 0, 0};
}  // namespace detail
inline constexpr auto kDown2To1 =
    detail::with_id(detail::down_layout<36>(down::DownsampleCoef2To1, 2, 16, detail::kBins2To1), 5);
inline constexpr auto kDown3To1 = detail::with_id(detail::down3to1_layout(detail::kBins3To1), 6);
inline constexpr auto kDown4To1 =
    detail::with_id(detail::down_layout<32>(down::DownsampleCoef4To1, 4, 17, detail::kBins4To1), 7);
inline constexpr auto kDown6To1 =
    detail::with_id(detail::down_layout<48>(down::DownsampleCoef6To1, 6, 17, detail::kBins6To1), 8);
inline constexpr auto kDown3To2 = detail::with_id(detail::down3to2_layout(detail::kBins3To2), 9);

template <class Layout>
constexpr bool well_formed(const Layout &l) {
    return l.heaviest_bin() < kLaneBound && 2 * l.R == l.unit_in * l.units_per_group && l.period % l.R == 0 && Layout::Mp % l.R == 0 &&
           Layout::P == l.unit_out * l.units_per_group && l.bins >= 1 && l.bins <= 8 &&
           (l.bins > 1 || l.shift <= 15);  // one bin: S + 2^(s-1) must stay below 2^31
}
static_assert(well_formed(kUp1To2) && well_formed(kUp1To3) && well_formed(kUp1To4) && well_formed(kUp1To6) &&
              well_formed(kUp2To3));
static_assert(well_formed(kDown2To1) && well_formed(kDown3To1) && well_formed(kDown4To1) &&
              well_formed(kDown6To1) && well_formed(kDown3To2));

}  // namespace rsmpl::fir
