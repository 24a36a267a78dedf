// Slot tables of the sinc interpolator below 128 entries per tap (built and
// read by sinc_block.hpp), and the few kept for the whole process.
#pragma once

#include <atomic>
#include <cstdint>

#include <rsmpl/rsmpl.h>
#include "rsmpl/sinc/sinc_kernel.hpp"

namespace rsmpl::sinc {

constexpr int32_t kMaxHalf = 104;  // ratio 1/8
constexpr int32_t kCoefs = (2 * kMaxHalf + 1 + 15) / 16 * 16 + 16;

// Below 128 entries per tap, tap k of every output lies in the slot
// [k*T, (k+1)*T) of the table (right wing: [(k-1)*T, k*T)): with
// t0 = e * 2^16 + q and k*T = K * 2^16 + r, the left tap sits at
// (K + e) * 2^16 + r + q, the right one at (K - e - 1) * 2^16 + r + 2^16 - q
// (at (K - e) * 2^16 + r - q when r is 0xFFFF). So row e of a slot table
// holds, per lane, the entry B the tap reads while its fraction v (r + q,
// or r + 2^16 - q, below 2^17 - 1 either way) stays below 0xFFFF, and what
// changes when it reaches B + 1. With m all ones from v = 0xFFFF on, the
// coefficient is
//   c = W(B or B+1) + (d * g') >> 16,  d = delta(B) + (m & slope),
//   g = v mod 2^16, g' = g + (g >> 15),
// where v = 0xFFFF stands for B + 1 at fraction 0, exactly the value of B
// at fraction 0xFFFF (W(B) + delta(B) = W(B+1)). That lets (d * g') >> 16
// split into 16-bit products with g' below 2^16:
//   (d >> 16) * (g' - 2^15) + ((d & 0xFFFF) * g') >> 16 + (d >> 16) * 2^15,
// the first a pmaddwd of d with [0 | g' - 2^15], the second an unsigned
// mulhi, the third kept in the wing: `wing` holds W(B) + (delta(B) >> 16)
// * 2^15 and `step` what that becomes at B + 1, minus it. At v = 0xFFFF,
// g' = 2^16 makes both products read zero and the sum is W(B+1).
//   wing  W(B) + (delta(B) >> 16) * 2^15     step  wing(B+1) - wing(B)
//   delta delta(B)                           slope delta(B+1) - delta(B)
// Each lane reads one row of each array whatever its carry, and its
// fractions need one add or subtract of q per group: the left wing's lanes
// come first, in groups of their own. Lanes run in window order from
// `from` = h + 1 - `left` (x[c - h + from + lane]); lanes before the left
// wing or past the right one have zero entries. Entry -1 (right taps in the
// slot at 0) counts as zero with delta W(0): it always carries.
constexpr int32_t kSlotCells = 5120;  // enough for every ratio from 1/8 to 1
struct SlotShape {
    int32_t rows = 0, len = 0, left = 0, from = 0;
};
// The four arrays are interleaved by groups of lanes, so that an output
// reads one stretch of memory from one pointer: group j of row e holds
// wing, step, delta and slope of its lanes one after the other at
// cells + 4 * (e * len + j * lanes).
struct Slots : SlotShape {
    alignas(64) int32_t frac[kCoefs];
    alignas(64) int32_t cells[4 * kSlotCells];
};

// A slot table depends on the table step, the half-length and the lanes of
// the engine that built it, never on samples or positions: one built per
// ratio serves every block and every context at that ratio. `key` is 0 while
// free, else the table's key (slot_key) with kSlotReady or kSlotBuilding in
// the low bits. An entry is claimed once and never given back, so a reader
// holding a ready table is never raced by a rebuild; when all are taken by
// other ratios, or a table is still being built by another thread, the block
// computes its coefficients output by output instead. An entry is 81 KB of
// .bss, touched only once claimed (about 61 KB at 48000 -> 44100); eight
// leave room for a few streams, each rsmplrate_best stream below ratio 1
// taking up to three (its nominal ratio and the two it trims with).
constexpr uint64_t kSlotBuilding = 1, kSlotReady = 2, kSlotStatus = 3;
struct SlotEntry {
    std::atomic<uint64_t> key{0};
    Slots slots;
};
constexpr int kSlotEntries = 8;
extern SlotEntry slotCache[kSlotEntries];  // defined in sinc.cpp

inline uint64_t slot_key(uint32_t tableStep, int32_t h, int lanes) {
    return uint64_t{tableStep} << 32 | uint64_t{static_cast<uint32_t>(h)} << 16 |
           uint64_t{static_cast<uint32_t>(lanes)} << 8;
}

}  // namespace rsmpl::sinc
