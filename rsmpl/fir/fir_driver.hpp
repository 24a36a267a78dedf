// The part of every vector FIR kernel that does not depend on the
// instruction set: which groups the vector body takes, in chunks, and how
// the last groups are finished from a zero-padded copy. Included by each
// vector source; everything here has internal linkage, so the copies
// compiled for different instruction sets never meet at link time.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "rsmpl/fir/fir_stages.hpp"

// One copy of a function, not a specialised clone per call site (GCC's
// noclone; clang does not clone there).
#if defined(__clang__)
#define RSMPL_FIR_NOINLINE [[gnu::noinline]]
#else
#define RSMPL_FIR_NOINLINE [[gnu::noinline, gnu::noclone]]
#endif

namespace rsmpl::fir {
namespace {

constexpr int64_t min64(int64_t a, int64_t b) { return a < b ? a : b; }

// Isa::kGroups groups make a block, each group reading Isa::reach<L>()
// samples from its first; Isa::chunk<L>(x, blocks, out) computes
// `blocks` blocks of groups whose samples start at x (group 0 at x[b0]) and
// writes their P outputs per group from out[0] on. Each block reads all its
// samples before it writes any of its outputs; blocks go in ascending order.
//
// In place (out inside x's buffer, each output below the samples later groups
// still need, as the stage wrappers arrange): the body reads a block before
// writing it, and the tail copies its samples before writing, so the vector
// kernel keeps the scalar kernel's read-before-write order group by group.
//
// Isa::chunk<L, 1>(x, 1, out) computes the first G/2 groups of one block only.
//
// Layouts that read every R-th pair (R > 1) go to Isa::streams<L>(x, groups,
// avail, out, outputs) instead, at most Isa::kStreamGroups groups a call: it
// reads x[0 .. avail-1] only, as zero beyond, and writes the first `outputs`
// outputs, all of its samples read before its first output is written.
template <class Isa, const auto &L>
void run(const int16_t *x, int16_t *out, int32_t count) {
    using Layout = std::remove_cvref_t<decltype(L)>;
    constexpr int G = Isa::kGroups;
    constexpr int P = Layout::P;
    constexpr int64_t kStep = 2 * L.R;                 // samples per group
    constexpr int64_t kReach = Isa::template reach<L>();  // samples one group reads
    if (count < L.unit_in) return;
    const int64_t units = count / L.unit_in;
    const int64_t span = L.unit_in * units + L.history;  // x[0 .. span-1] may be read
    const int64_t complete = units / L.units_per_group;
    const int64_t fitting = span >= kReach ? (span - kReach) / kStep + 1 : 0;
    const int64_t body = min64(complete, fitting) / G * G;

    int64_t t = 0;
    if constexpr (L.R > 1) {
        // The stream copy already zero-pads, so the last groups need no frame.
        const int64_t groups = (units + L.units_per_group - 1) / L.units_per_group;
        while (t < groups) {
            const int n = static_cast<int>(min64(Isa::kStreamGroups, groups - t));
            const int64_t outputs = min64((units - t * L.units_per_group) * L.unit_out, int64_t{P} * n);
            Isa::template streams<L>(x + kStep * t, n, span - kStep * t, out + P * t, outputs);
            t += n;
        }
    } else {
        // The last groups: partial, or reaching past the samples the kernel
        // may read. Their samples go into a zeroed frame (zero samples and the
        // rows' zero padding contribute nothing), taken before the body: the
        // tail's loads straddle the frame's stores, and so long after them
        // they find them in the cache rather than waiting for them. There is
        // one such block at most (body is short of the groups by less than G,
        // plus at most one group that reaches one sample too far).
        static_assert(
            [] {
                // Past the first units the shortfall repeats: the body and the
                // groups grow alike, one group per kStep samples.
                for (int64_t u = 0; u < 4096; ++u) {
                    const int64_t s = L.unit_in * u + L.history;
                    const int64_t fit = s >= kReach ? (s - kReach) / kStep + 1 : 0;
                    const int64_t b = min64(u / L.units_per_group, fit) / G * G;
                    if ((u + L.units_per_group - 1) / L.units_per_group - b > G) return false;
                }
                return true;
            }(),
            "one tail block");
        constexpr int64_t kFrame = kStep * (G - 1) + kReach;
        alignas(64) int16_t frame[kFrame + 32];
        const bool tail = body * L.units_per_group < units;
        const int64_t groups = (units - body * L.units_per_group + L.units_per_group - 1) / L.units_per_group;
        const bool half = groups <= G / 2;
        // Where the samples of a whole (half) block are there to read, the
        // tail reads them in place: only its outputs go through a copy. The
        // body's outputs lie below them, in place too.
        const bool direct = fitting - body >= (half ? G / 2 : G);
        if (tail && !direct) {
            std::memset(frame, 0, sizeof frame);
            std::memcpy(frame, x + kStep * body, static_cast<size_t>(min64(span - kStep * body, kFrame)) * sizeof(int16_t));
        }
        // One call: these chunks keep nothing on the stack.
        if (body > 0) Isa::template chunk<L>(x, static_cast<int>(body / G), out);
        t = body;
        if (tail) {
            alignas(64) int16_t result[P * G];
            const int16_t *from = direct ? x + kStep * body : frame;
            if (half)
                Isa::template chunk<L, 1>(from, 1, result);
            else
                Isa::template chunk<L>(from, 1, result);
            const int64_t outputs = min64((units - t * L.units_per_group) * L.unit_out, P * G);
            std::memcpy(out + P * t, result, static_cast<size_t>(outputs) * sizeof(int16_t));
        }
    }
}

// Groups per chunk of a row kernel: bounds its stream copies on the stack.
constexpr int kRowChunkGroups = 64;

// The driver of a row kernel (fir_rows.hpp): K is K::chunk<Mark>(x,
// blocks, out), eight groups a block, reading x[0 .. K::reach(blocks) - 1]
// before it writes any output of the chunk. Chunks go in ascending order, so
// in place (outputs below the samples later groups still need, as the stage
// wrappers arrange) the kernel keeps the scalar kernel's read-before-write
// order; the last groups are finished from a zero-padded copy, taken before
// their outputs are written.
template <class K, class Mark>
void run_rows(const int16_t *x, int16_t *out, int32_t count) {
    constexpr int D = K::D, P = K::P;
    if (count < D) return;
    const int64_t groups = count / D;
    const int64_t span = D * groups + K::history;  // x[0 .. span-1] may be read
    int64_t t = 0;
    for (;;) {
        int blocks = static_cast<int>(min64(kRowChunkGroups, groups - t) / 8);
        while (blocks > 0 && D * t + K::reach(blocks) > span) --blocks;
        if (blocks == 0) break;
        K::template chunk<Mark>(x + D * t, blocks, out + P * t);
        t += 8 * blocks;
    }
    while (t < groups) {
        alignas(16) int16_t frame[K::reach(1)] = {};
        alignas(16) int16_t result[8 * P];
        std::memcpy(frame, x + D * t, static_cast<size_t>(min64(span - D * t, K::reach(1))) * sizeof(int16_t));
        K::template chunk<Mark>(frame, 1, result);
        std::memcpy(out + P * t, result, static_cast<size_t>(min64(groups - t, 8) * P) * sizeof(int16_t));
        t += 8;
    }
}

// Calls f(std::integral_constant<int, I>) for I = 0 .. N-1, unrolled at
// compile time so that every table value is a constant in the code.
template <int N, class F>
[[gnu::always_inline]] inline void unroll(F &&f) {
    [&]<int... I>(std::integer_sequence<int, I...>) __attribute__((always_inline)) { (f(std::integral_constant<int, I>{}), ...); }(
        std::make_integer_sequence<int, N>{});
}

}  // namespace
}  // namespace rsmpl::fir
