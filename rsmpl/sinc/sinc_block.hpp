// The sinc interpolator's outputs over one block, shared by the vector
// engines; each instruction set supplies the three sums (see sinc_x86.hpp,
// sinc_neon.cpp). Equal to sinc_run_scalar bit for bit:
//
//   - the samples are shifted once per block into 32-bit lanes in the form
//     the instruction set multiplies best (Isa::Window), with zero padding
//     on both sides, so taps on samples the block has not received read
//     zero instead of being cut off one by one;
//   - at 128 entries per tap (ratios 1 and above) each wing's coefficients
//     are one row of sinc_rows() at one fraction: Isa::rows;
//   - outputs go in chunks: their sums first, then Isa::finish on all;
//   - below, the coefficients of an output are built into a buffer
//     (Isa::coefs) and kept while the fraction repeats, as it does at every
//     whole step (1/2, 1/3, ...); Isa::dot then sums against the samples;
//   - below with a fraction that moves, engines with Isa::kSlots read each
//     output's coefficients from the ratio's slot table (sinc_slots.hpp)
//     instead, kept for the process or, when none is free, built for the
//     block.
//
// Per tap, as the scalar form: coefficient wing[j] + ((delta[j] * g') >> 16)
// and tap (coef * (x >> s)) >> 16, each the floor of an exact product; taps
// summed modulo 2^32 in any order.
#pragma once

#include <algorithm>
#include <type_traits>

#include "rsmpl/engine/mca.hpp"
#include <rsmpl/rsmpl.h>
#include "rsmpl/sinc/sinc_kernel.hpp"
#include "rsmpl/sinc/sinc_slots.hpp"

namespace rsmpl::sinc {
namespace {

constexpr int32_t kPad = 32;       // zero samples before the history
// Right padding: a centre up to h + 16 past the last sample, h taps beyond
// it and a group of lanes.
constexpr int32_t kSamples = kPad + RSMPL_HISTORY_SAMPLES + 2 * kMaxHalf + 16 + kPad;
constexpr uint32_t kUnityTableStep = 0x800000u;

constexpr uint32_t kChunk = 64;  // outputs per pass of the driver

// The marked loops of an output at ratios 1 and above, for the cost estimate:
// arm-cost total: sinc_up_total = sinc_up + sinc_up_where + sinc_finish

// Writes f(x[i] >> shift) at kPad + i of a window, zero around it up to
// `filled` (kPad + valid + 2h + 16 + kPad).
template <class F>
void fill_window(const SincRun &r, int32_t filled, int32_t *w, F f) {
    for (int32_t i = 0; i < kPad; ++i) w[i] = 0;
    for (int32_t i = 0; i < r.valid; ++i) w[kPad + i] = f(r.x[i] >> r.shift);
    for (int32_t i = kPad + r.valid; i < filled; ++i) w[i] = 0;
}

inline uint32_t fraction(uint32_t t) {
    const uint32_t g = t & 0xFFFFu;
    return g + (g >> 15);  // 0xFFFF counts as a whole entry
}

// Where each output of a chunk reads at 128 entries per tap: its centre
// sample, the row offsets of both wings and their fractions g' (times
// 2^Isa::kFractionShift). Worked out for the whole chunk first, so the
// sums never wait on this chain of scalar arithmetic.
struct UnityOutputs {
    alignas(64) int32_t at[kChunk];
    alignas(64) int32_t left[kChunk];
    alignas(64) int32_t right[kChunk];
    alignas(64) int32_t gl[kChunk];
    alignas(64) int32_t gr[kChunk];
    // For engines that want them: g' as two halves below 2^15 (low word,
    // high word).
    alignas(64) int32_t gl2[kChunk];
    alignas(64) int32_t gr2[kChunk];
};

// The shape of the slot table of a run (rows, lanes per row, lanes of the
// left wing); false when it would not fit.
template <class Isa>
bool slot_shape(const SincRun &r, SlotShape &s) {
    constexpr int L = Isa::kLanes;
    s.left = (r.h + 1 + L - 1) / L * L;
    s.len = s.left + (r.h + L - 1) / L * L;
    s.from = r.h + 1 - s.left;
    s.rows = (static_cast<int32_t>(r.tableStep >> 16) + 1 + L - 1) / L * L;
    return s.rows * s.len <= kSlotCells && s.rows <= SincRows::kPaddedZero - 2 * L;
}

// Fills the slot table of a run that fits, kLanes rows by kLanes lanes at a
// time: each lane's entries are a run of the wing (rising on the left wing,
// falling on the right), loaded as a register and turned into row order by
// Isa::transpose. Deltas are taken from the wing itself (delta(j) is
// W(j+1) - W(j)), which also gives entry -1 its delta W(0).
template <class Isa>
void build_slots(const SincRun &r, Slots &s) {
    using V = typename Isa::V;
    constexpr int L = Isa::kLanes;
    slot_shape<Isa>(r, s);
    const int32_t *wp = sinc_rows().wingPadded;
    int32_t base[kCoefs];  // padded index of each lane's entry in row 0; 0 for no tap
    for (int32_t i = 0; i < s.len; ++i) {
        const int32_t w = s.from + i;
        const bool right = i >= s.left;
        const int32_t k = right ? w - r.h : r.h - w;
        const uint32_t kt = static_cast<uint32_t>(k) * r.tableStep;
        const bool tap = w >= 0 && w <= 2 * r.h;
        const bool low = right && (kt & 0xFFFFu) != 0xFFFFu;  // the right wing's slot below K
        s.frac[i] = static_cast<int32_t>((kt & 0xFFFFu) + (low ? 0x10000u : 0u));
        base[i] = tap ? SincRows::kPaddedZero + static_cast<int32_t>(kt >> 16) - (low ? 1 : 0) : 0;
    }
    for (int32_t i0 = 0; i0 < s.len; i0 += L)
        for (int32_t e0 = 0; e0 < s.rows; e0 += L) {
            V wv[L], tv[L], dv[L], sv[L];
            for (int c = 0; c < L; ++c) {
                const int32_t i = i0 + c;
                V w0 = Isa::set1(0), w1 = w0, w2 = w0;
                if (base[i] != 0 && i >= s.left) {
                    const int32_t at = base[i] - e0 - (L - 1);
                    w0 = Isa::reverse(Isa::load(wp + at));
                    w1 = Isa::reverse(Isa::load(wp + at + 1));
                    w2 = Isa::reverse(Isa::load(wp + at + 2));
                } else if (base[i] != 0) {
                    const int32_t at = base[i] + e0;
                    w0 = Isa::load(wp + at);
                    w1 = Isa::load(wp + at + 1);
                    w2 = Isa::load(wp + at + 2);
                }
                const V d0 = Isa::sub(w1, w0), d1 = Isa::sub(w2, w1);
                wv[c] = Isa::add(w0, Isa::slli(Isa::srai(d0, 16), 15));
                tv[c] = Isa::sub(Isa::add(w1, Isa::slli(Isa::srai(d1, 16), 15)), wv[c]);
                dv[c] = d0;
                sv[c] = Isa::sub(d1, d0);
            }
            Isa::transpose(wv);
            Isa::transpose(tv);
            Isa::transpose(dv);
            Isa::transpose(sv);
            for (int c = 0; c < L; ++c) {
                int32_t *cell = s.cells + 4 * ((e0 + c) * s.len + i0);
                Isa::store(cell, wv[c]);
                Isa::store(cell + L, tv[c]);
                Isa::store(cell + 2 * L, dv[c]);
                Isa::store(cell + 3 * L, sv[c]);
            }
        }
}

// The run's slot table from the process-wide cache: found ready, or built
// into a free entry and published. Null when the table is being built by
// another thread or every entry holds another ratio's: nobody waits.
template <class Isa>
const Slots *cached_slots(const SincRun &r) {
    const uint64_t key = slot_key(r.tableStep, r.h, Isa::kLanes);
    for (SlotEntry &e : slotCache) {
        uint64_t now = e.key.load(std::memory_order_acquire);
        if (now == 0 && e.key.compare_exchange_strong(now, key | kSlotBuilding, std::memory_order_acquire)) {
            build_slots<Isa>(r, e.slots);
            e.key.store(key | kSlotReady, std::memory_order_release);
            return &e.slots;
        }
        if ((now & ~kSlotStatus) == key) return now == (key | kSlotReady) ? &e.slots : nullptr;
    }
    return nullptr;
}

// Where each output of a chunk reads in a slot table: its first sample in
// the window, its row (as an offset into Slots::cells) and q, for
// t0 = e * 2^16 + q. Worked out for the whole chunk first, like
// UnityOutputs.
struct SlotOutputs {
    alignas(64) int32_t at[kChunk];
    alignas(64) uint32_t row[kChunk];
    alignas(64) uint32_t q[kChunk];
};

// The plain form of Isa::where: entries from .. n-1 of a chunk of a run at
// 128 entries per tap (output base + j at j), centres capped at `far`.
template <int kFractionShift>
void where_plain(const SincRun &r, uint32_t base, uint32_t from, uint32_t n, int32_t far, UnityOutputs &o) {
    for (uint32_t j = from; j < n; ++j) {
        const uint32_t p = r.p0 + sinc_advance(r.step, base + j);
        o.at[j] = std::min(static_cast<int32_t>(p >> 16) + r.h, far);
        const uint32_t f = p & 0xFFFFu;
        const uint32_t t0 = (f + (f >> 15)) << 7;  // (f' * 128 entries) >> 16, exactly
        const uint32_t u = kUnityTableStep - t0;
        o.left[j] = static_cast<int32_t>(t0 >> 16) * 16;
        o.right[j] = static_cast<int32_t>(u >> 16) * 16;
        o.gl[j] = static_cast<int32_t>(fraction(t0) << kFractionShift);
        o.gr[j] = static_cast<int32_t>(fraction(u) << kFractionShift);
    }
}

// The outputs of a run from a slot table. Out of line, so the other paths
// keep their registers.
template <class Isa>
[[gnu::noinline]] void run_slots(const SincRun &r, const typename Isa::Window &w, int32_t far, const Slots &table,
                                 int16_t *out) {
    SlotOutputs o;
    alignas(64) uint32_t acc[kChunk];
    for (uint32_t base = 0; base < r.count; base += kChunk) {
        const uint32_t n = std::min(kChunk, r.count - base);
        // Where each output reads first, so the sums run back to back.
        Isa::slot_where(r, base, n, far, table, o);
        Isa::slot_outputs(w, table, o, n, acc);
        Isa::finish(acc, n, r.gain, r.shift, out + base);
    }
}

template <class Isa>
void run(const SincRun &r, int16_t *out) {
    if (r.h < 0 || r.h > kMaxHalf || r.valid < 0 || r.valid > RSMPL_HISTORY_SAMPLES || r.count > 0xFFFFu ||
        r.gain > 0x7FFFFFFFu || r.shift < 0 || r.shift > 8 ||
        // Below 128 entries per tap every tap lies inside the table, as it
        // does at every ratio from 1/8 to 1.
        (r.tableStep != kUnityTableStep &&
         (uint64_t{static_cast<uint32_t>(r.h)} + 1) * r.tableStep >= uint64_t{kSincWingLength} << 16)) {
        sinc_run_scalar(r, out);
        return;
    }
    typename Isa::Window w;
    Isa::prepare(r, kPad + r.valid + 2 * r.h + 16 + kPad, w);
    // A centre more than h past the last sample has only zero taps: it is
    // moved to where the whole window reads padding, so no output branches.
    const int32_t far = r.valid - 1 + r.h + 16;
    const bool unity = r.tableStep == kUnityTableStep;
    const SincRows *rows = unity ? &sinc_rows() : nullptr;
    alignas(64) int32_t coef[kCoefs];
    const int32_t taps = 2 * r.h + 1;
    uint32_t made = ~0u;  // no t0 reaches it: t0 <= tableStep
    alignas(64) uint32_t acc[kChunk];
    // A slot table pays when the fraction changes from output to output (a
    // whole step keeps one set of coefficients). Without a kept one the block
    // takes the plain path below: a table of its own would need 81 KB of the
    // caller's stack, more than an audio thread can be assumed to have.
    if constexpr (Isa::kSlots) {
        SlotShape shape;
        if (!unity && (r.step & 0xFFFFFFu) != 0 && slot_shape<Isa>(r, shape))
            if (const Slots *s = cached_slots<Isa>(r)) {
                run_slots<Isa>(r, w, far, *s, out);
                return;
            }
    }
    for (uint32_t base = 0; base < r.count; base += kChunk) {
        const uint32_t n = std::min(kChunk, r.count - base);
        if (unity) {
            UnityOutputs o;
            Isa::where(r, base, n, far, o);
            Isa::rows(w, *rows, o, n, acc);
        } else {
            for (uint32_t j = 0; j < n; ++j) {
                const uint32_t p = r.p0 + sinc_advance(r.step, base + j);
                const int32_t centre = std::min(static_cast<int32_t>(p >> 16) + r.h, far);
                const uint32_t f = p & 0xFFFFu;
                const uint32_t t0 = static_cast<uint32_t>((uint64_t{f + (f >> 15)} * r.tableStep) >> 16);
                if (t0 != made) {
                    Isa::coefs(coef, taps, t0 + static_cast<uint32_t>(r.h) * r.tableStep, r.tableStep, r.h);
                    made = t0;
                }
                acc[j] = Isa::dot(w, centre - r.h, coef, taps);
            }
        }
        Isa::finish(acc, n, r.gain, r.shift, out + base);
    }
}

}  // namespace
}  // namespace rsmpl::sinc
