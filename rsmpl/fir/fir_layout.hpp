// How the x86 FIR kernels see the stages: the rows of the stage list
// (fir_stages.hpp) in tap pairs for pmaddwd, derived at compile time and read
// by those kernels and by the lane-bound tests alike. (The scalar and AArch64
// kernels read the rows themselves.)
//
// A kernel's outputs come in groups t = 0, 1, ...; group t yields P outputs,
// out[P*t + p], each the dot product of a padded row c[p] with the samples
// from x[b0 + 2*R*t] on:
//
//   out[P*t + p] = R_s( sum_{i < 2*Mp} c[p][i] * x[b0 + 2*R*t + i] )
//
// R_s(S) = sat16((S + 2^(s-1)) >> s), S exact. Taps go in pairs (2m, 2m+1),
// one 32-bit lane of a 16x16 multiply-add (pmaddwd). Successive groups
// advance by 2R samples, R sample pairs, so a vector lane per group reads
// every R-th pair. From the rows (D samples a row group, P rows):
//
//   up L:1   D = 1: two row groups a group, 2L rows; the odd sample's rows
//            are the table rows one tap later
//   up 3:2   D = 2: one row group; the first column is unused, so b0 = 1
//   down 1:M D = M even: one output a group, R = M/2
//   down 1:3 D = 3: two outputs a group, the second row three taps later
//   down 2:3 D = 3: two row groups, 4 rows at taps 0, 1, 3 and 4
//
// Rows are padded with zero pairs to a multiple of R pairs, so that a
// de-interleaving load of R pairs never reaches past a group's samples.
//
// Accumulator bins: pair m of row p goes into 32-bit partial sum bin[p][m].
// A partial sum over taps whose absolute values add up to less than 65536
// stays within 32 bits (|sample| <= 32768: 65535 * 32768 < 2^31), so every
// bin is kept below that; the partials are then combined exactly.
#pragma once

#include <cstdint>

#include <utility>

#include "rsmpl/fir/fir_stages.hpp"

namespace rsmpl::fir {

// A 32-bit partial sum over 16-bit samples is exact while the absolute
// coefficients it covers add up to less than this.
inline constexpr int32_t kLaneBound = 65536;
// Partial sums per output, at most: each costs registers.
inline constexpr int kMaxLaneBins = 8;

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
    StageId id = kStageCount;       // which stage, for the cost marks
    int bins = 1;                   // 32-bit partial sums per output, at most
    int16_t c[P][2 * Mp] = {};
    uint8_t bin[P][Mp] = {};
    uint8_t row_bins[P] = {};       // partial sums of row p

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

    // Row p in n bins, each below the bound. The rotation first, pair m into
    // bin (m + m / k + off) mod n, so that successive pairs feed different
    // partial sums; failing that, the heaviest pair still unplaced into the
    // lightest bin, which balances them about as well as any split can.
    constexpr bool split(int p, int n) {
        for (int k = Mp; k >= 1; --k)
            for (int off = 0; off < n; ++off) {
                int32_t load[kMaxLaneBins] = {};
                bool fits = true;
                for (int m = 0; m < Mp && fits; ++m) {
                    const int b = (m + m / k + off) % n;
                    load[b] += weight(p, m);
                    fits = load[b] < kLaneBound;
                }
                if (!fits) continue;
                for (int m = 0; m < Mp; ++m) bin[p][m] = static_cast<uint8_t>((m + m / k + off) % n);
                return true;
            }
        int32_t load[kMaxLaneBins] = {};
        bool placed[Mp] = {};
        for (int i = 0; i < Mp; ++i) {
            int m = -1, b = 0;
            for (int j = 0; j < Mp; ++j)
                if (!placed[j] && (m < 0 || weight(p, j) > weight(p, m))) m = j;
            for (int a = 1; a < n; ++a)
                if (load[a] < load[b]) b = a;
            placed[m] = true;
            load[b] += weight(p, m);
            bin[p][m] = static_cast<uint8_t>(b);
            if (load[b] >= kLaneBound) return false;
        }
        return true;
    }
    // The fewest bins per row; one bin needs room for the rounding half too,
    // so only with shift 15 or less.
    constexpr void fill_bins() {
        bins = 1;
        for (int p = 0; p < P; ++p) {
            for (int n = shift > 15 ? 2 : 1; n <= kMaxLaneBins && row_bins[p] == 0; ++n)
                if (split(p, n)) row_bins[p] = static_cast<uint8_t>(n);
            bins = row_bins[p] > bins ? row_bins[p] : bins;
        }
    }
};

// Stage I's rows in pairs. A group is one row group when D is even and two
// when it is odd, so that it always advances by whole pairs (R of them);
// group u's rows are the stage's rows moved u*D taps later, and the columns
// before the first one any row uses (b0) are left out.
template <int I>
constexpr auto make_pairs() {
    constexpr auto &r = kRows<I>;
    constexpr int U = r.D % 2 == 0 ? 1 : 2;
    constexpr int b0 = [] {
        int e = 0;
        while (!kRows<I>.used(e)) ++e;
        return e;
    }();
    constexpr int R = U * r.D / 2;
    constexpr int taps = (U - 1) * r.D + r.E - b0;
    constexpr int Mp = ((taps + 1) / 2 + R - 1) / R * R;
    PairLayout<U * r.P, Mp> l;
    l.id = static_cast<StageId>(I);
    l.R = R;
    l.b0 = b0;
    l.shift = r.shift;
    l.unit_in = r.D;
    l.unit_out = r.P;
    l.units_per_group = U;
    l.history = r.history;
    for (int u = 0; u < U; ++u)
        for (int p = 0; p < r.P; ++p)
            for (int e = b0; e < r.E; ++e) l.c[u * r.P + p][u * r.D + e - b0] = r.w[p][e];
    l.fill_bins();
    return l;
}

template <int I>
inline constexpr auto kPairs = make_pairs<I>();

template <class Layout>
constexpr bool well_formed(const Layout &l) {
    bool ok = l.heaviest_bin() < kLaneBound && 2 * l.R == l.unit_in * l.units_per_group && Layout::Mp % l.R == 0 &&
              Layout::P == l.unit_out * l.units_per_group && l.bins >= 1 && l.bins <= kMaxLaneBins;
    for (int p = 0; p < Layout::P; ++p) {
        // One bin: S + 2^(s-1) must stay below 2^31.
        ok = ok && l.row_bins[p] >= 1 && (l.row_bins[p] > 1 || l.shift <= 15);
        // Every bin of a row gets a pair, so every partial sum is started.
        for (int b = 0; b < l.row_bins[p]; ++b) {
            bool started = false;
            for (int m = 0; m < Layout::Mp; ++m) started = started || (!l.zero_pair(p, m) && l.bin[p][m] == b);
            ok = ok && started;
        }
    }
    return ok;
}
static_assert([]<int... I>(std::integer_sequence<int, I...>) {
    return (well_formed(kPairs<I>) && ...);
}(std::make_integer_sequence<int, kStageCount>{}));

}  // namespace rsmpl::fir
