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
// t0 = e * 2^16 + q and k*T = K * 2^16 + r, the left tap reads entry
// K + e + carry(r + q), the right one K - e - borrow(r - q), at fraction
// (r +- q) mod 2^16. A slot table holds, in window order, the entries of
// every tap for each e (row e: K + e left, K - e right), so the taps of an
// output are two contiguous rows, e and e + 1, picked per lane by the
// carry; `frac` holds r, `sign` the sign of q in the lane's fraction (1 on
// the left wing, -1 on the right, 0 past the taps).
constexpr int32_t kSlotCells = 4096;
struct Slots {
    int32_t rows = 0, len = 0;
    alignas(64) uint32_t frac[kCoefs];
    alignas(64) int32_t sign[kCoefs];
    alignas(64) int32_t wing[kSlotCells];
    alignas(64) int32_t delta[kSlotCells];
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
