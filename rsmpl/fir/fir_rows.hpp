// The canonical form of a FIR stage: rows over a stride. The stage list
// (fir_stages.hpp) describes every stage this way; the scalar reference and
// the AArch64 kernels read the rows as they are, the x86 kernels the tap
// pairs fir_layout.hpp derives from them.
//
// Group t of a stage reads the samples x[D*t + e], e = 0 .. E-1, and yields
// P outputs, one per row:
//
//   out[P*t + p] = R_s( sum_e w[p][e] * x[D*t + e] )
//
//   up L:1   D = 1, P = L, w[p][e] = table row p (window x[t .. t+N-1])
//   up 3:2   D = 2, P = 3, w[p][e] = row p at tap e - 1 (window from x[2t+1])
//   down 1:M D = M, P = 1, the table
//   down 2:3 D = 3, P = 2, phase p at tap e - p
//
// A vector lane is a group; stream r of the input, x[D*t + r], de-interleaved,
// gives a tap's samples of consecutive groups in one load.
//
// Accumulator bins: every non-zero tap of row p adds into one of bins[p]
// 32-bit partial sums, bin[p][e]. A partial sum over taps whose absolute
// values add up to less than 65536 stays within 32 bits (|sample| <= 32768:
// 65535 * 32768 < 2^31); the bins are combined exactly afterwards. Taps go to
// bins in rotation along the row, so that successive multiply-accumulates of
// a row feed different partial sums.
//
// Coefficients: every distinct non-zero value of a stage gets one slot of a
// short array (a mirrored row shares its twin's slots, a symmetric row its own
// halves); slot[p][e] is -1 where the tap is zero, which the kernels skip.
#pragma once

#include <array>
#include <cstdint>

#include "rsmpl/fir/downsample_tables.hpp"
#include "rsmpl/fir/upsample_tables.hpp"

namespace rsmpl::fir {

// A 32-bit partial sum over 16-bit samples is exact while the absolute
// coefficients it covers add up to less than this.
inline constexpr int32_t kRowBinBound = 65536;

template <int P_, int E_>
struct RowLayout {
    static constexpr int P = P_;  // outputs per group
    static constexpr int E = E_;  // samples one group reads
    static constexpr int kMaxSlots = 128;
    int D = 1;        // input samples per group
    int shift = 15;   // fraction bits of the coefficients
    int history = 0;  // H: the kernel may read x[0 .. D*groups + H - 1]
    int16_t w[P][E] = {};
    uint8_t bins[P] = {};
    uint8_t bin[P][E] = {};
    int16_t slot[P][E] = {};
    int slots = 0;  // distinct non-zero values, stored in value[0 .. slots-1]
    int16_t value[kMaxSlots] = {};

    static constexpr int32_t mag(int32_t v) { return v < 0 ? -v : v; }
    constexpr int taps(int p) const {
        int n = 0;
        for (int e = 0; e < E; ++e) n += w[p][e] != 0;
        return n;
    }
    constexpr int32_t bin_weight(int p, int b) const {
        int32_t s = 0;
        for (int e = 0; e < E; ++e)
            if (w[p][e] != 0 && bin[p][e] == b) s += mag(w[p][e]);
        return s;
    }
    constexpr int32_t heaviest_bin() const {
        int32_t h = 0;
        for (int p = 0; p < P; ++p)
            for (int b = 0; b < bins[p]; ++b) h = bin_weight(p, b) > h ? bin_weight(p, b) : h;
        return h;
    }
    constexpr int taps_total() const {
        int n = 0;
        for (int p = 0; p < P; ++p) n += taps(p);
        return n;
    }
    // Is sample e used by any row?
    constexpr bool used(int e) const {
        for (int p = 0; p < P; ++p)
            if (w[p][e] != 0) return true;
        return false;
    }

    // Tap e of row p into bin (e + e / m + off) mod n: successive taps rotate
    // through the bins. m = E (plain e mod n) first, then shorter periods.
    constexpr bool split(int p, int n) {
        for (int m = E; m >= 1; --m)
            for (int off = 0; off < n; ++off) {
                int32_t load[8] = {};
                bool fits = true;
                for (int e = 0; e < E && fits; ++e) {
                    const int b = (e + e / m + off) % n;
                    load[b] += mag(w[p][e]);
                    fits = load[b] < kRowBinBound;
                }
                if (!fits) continue;
                for (int e = 0; e < E; ++e) bin[p][e] = static_cast<uint8_t>((e + e / m + off) % n);
                bins[p] = static_cast<uint8_t>(n);
                return true;
            }
        return false;
    }
    constexpr void finish() {
        for (int p = 0; p < P; ++p)
            for (int n = 1; n <= 8; ++n)
                if (split(p, n)) break;
        slots = 0;
        for (int p = 0; p < P; ++p)
            for (int e = 0; e < E; ++e) {
                slot[p][e] = -1;
                if (w[p][e] == 0) continue;
                for (int s = 0; s < slots; ++s)
                    if (value[s] == w[p][e]) slot[p][e] = static_cast<int16_t>(s);
                if (slot[p][e] < 0 && slots < kMaxSlots) {
                    value[slots] = w[p][e];
                    slot[p][e] = static_cast<int16_t>(slots++);
                }
            }
    }
};

namespace rows {

template <int L, int N>
constexpr RowLayout<L, N> up(const int16_t (&t)[L][N]) {
    RowLayout<L, N> l;
    l.history = N - 1;
    for (int p = 0; p < L; ++p)
        for (int e = 0; e < N; ++e) l.w[p][e] = t[p][e];
    l.finish();
    return l;
}

constexpr RowLayout<3, 17> up2to3() {
    RowLayout<3, 17> l;
    l.D = 2;
    l.history = 15;
    for (int p = 0; p < 3; ++p)
        for (int i = 0; i < 16; ++i) l.w[p][i + 1] = up::kFir2To3[p][i];
    l.finish();
    return l;
}

template <std::size_t N>
constexpr RowLayout<1, static_cast<int>(N)> down(const down::CoefTable &t, int M) {
    RowLayout<1, static_cast<int>(N)> l;
    l.D = M;
    l.shift = t.shift;
    l.history = static_cast<int>(N) - M;
    for (int e = 0; e < static_cast<int>(N); ++e) l.w[0][e] = t.at(0, e);
    l.finish();
    return l;
}

constexpr RowLayout<2, 17> down3to2() {
    RowLayout<2, 17> l;
    l.D = 3;
    l.shift = down::kTable3To2.shift;
    l.history = 14;
    for (int p = 0; p < 2; ++p)
        for (int k = 0; k < 16; ++k) l.w[p][k + p] = down::kTable3To2.at(p, k);
    l.finish();
    return l;
}

}  // namespace rows

}  // namespace rsmpl::fir
