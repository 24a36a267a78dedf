// Whole-decibel scale table of the decibel conversion (internal).
#pragma once

#include <cstdint>

namespace rsmpl {

// 8 bytes per entry: exponent, two zero bytes, Q30 mantissa in 0.5 .. 1.0.
struct DbScaleEntry {
    int16_t exponent;
    uint16_t zero;
    int32_t mantissa;
};
static_assert(sizeof(DbScaleEntry) == 8);

// Entry k is 10^((90 - k)/20) = mantissa * 2^(exponent - 30), k = 0 .. 180.
inline constexpr int kDbScaleTopLevel = 90;
inline constexpr int kDbScaleEntries = 2 * kDbScaleTopLevel + 1;
extern const DbScaleEntry kDbScaleTable[kDbScaleEntries];

}  // namespace rsmpl
