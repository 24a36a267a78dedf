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
// (K + e) * 2^16 + r + q, the right one at (K - e - 1) * 2^16 + r + 2^16 - q.
// So row e of a slot table holds, per lane, the entry B the tap reads when
// its fraction v = r + q (left) or r + 2^16 - q (right) stays below 2^16,
// and what changes when v carries into B + 1:
//   wing  W(B)              step  W(B+1) - W(B) = delta(B)
//   delta delta(B)          slope delta(B+1) - delta(B)
// so that the coefficient is, with m all ones on a carry,
//   W(B) + (m & delta) + (((delta + (m & slope)) * g') >> 16),  g = v mod 2^16,
// each lane one row of one table whatever its carry, and one add or
// subtract of q per group for the fractions: the left wing's lanes come
// first, in groups of their own. Lanes run in window order from
// `from` = h + 1 - `left` (x[c - h + from + lane]); lanes before the left
// wing or past the right one have zero entries. Entry -1 (right taps in
// the slot at 0) counts as zero with delta W(0): it always carries.
constexpr int32_t kSlotCells = 4096;
struct SlotShape {
    int32_t rows = 0, len = 0, left = 0, from = 0;
};
struct Slots : SlotShape {
    alignas(64) int32_t frac[kCoefs];
    alignas(64) int32_t wing[kSlotCells];
    alignas(64) int32_t delta[kSlotCells];
    alignas(64) int32_t slope[kSlotCells];
};

// A slot table depends on the table step, the half-length and the lanes of
// the engine that built it, never on samples or positions: one built per
// ratio serves every block and every context at that ratio. `key` is 0 while
// free, else the table's key (slot_key) with kSlotReady or kSlotBuilding in
// the low bits. An entry is claimed once and never given back, so a reader
// holding a ready table is never raced by a rebuild; when all are taken by
// other ratios, the caller builds its own table as before.
constexpr uint64_t kSlotBuilding = 1, kSlotReady = 2, kSlotStatus = 3;
struct SlotEntry {
    std::atomic<uint64_t> key{0};
    Slots slots;
};
constexpr int kSlotEntries = 4;
extern SlotEntry slotCache[kSlotEntries];  // defined in sinc.cpp

inline uint64_t slot_key(uint32_t tableStep, int32_t h, int lanes) {
    return uint64_t{tableStep} << 32 | uint64_t{static_cast<uint32_t>(h)} << 16 | uint64_t{static_cast<uint32_t>(lanes)} << 8;
}

}  // namespace rsmpl::sinc
