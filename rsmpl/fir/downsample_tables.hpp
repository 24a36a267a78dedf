// Coefficient tables of the five decimation stages. Internal: the stage list
// (fir_stages.hpp) and the tests read these.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rsmpl::down {

// A symmetric table typed in as its first half; the second half mirrors it.
template <std::size_t Half>
constexpr std::array<int16_t, 2 * Half> mirrored(const std::array<int16_t, Half> &first) {
    std::array<int16_t, 2 * Half> t{};
    for (std::size_t k = 0; k < Half; ++k) t[k] = t[2 * Half - 1 - k] = first[k];
    return t;
}

// 1:M tables: one phase of L taps, c[0] on the oldest sample of an output's
// span, stored whole in tap order. Measured (input rate fs):
//
//   table          L   Q    sum     sum|c|*32768   -3 dB      at out Nyquist  stopband >= 48 dB
//   2To1          72   16   67420   4607574016     0.226 fs   -60 dB (fs/4)   59.4 dB from fs/4
//   3To1          48   16   66026   3856596992     0.1545 fs  -9.3 dB (fs/6)  from 0.1892 fs
//   4To1          64   17  132134   7665811456     0.1158 fs  -9.4 dB (fs/8)  from 0.142 fs
//   6To1          96   17  132174   7642218496     0.0771 fs  -9.4 dB (fs/12) from 0.0946 fs
//
// The DC gains are slightly above 1 (+0.25, +0.07, +0.07, +0.07 dB), so a
// full-scale constant input saturates. 2To1 holds the same 72 values as the
// x2 up-stage prototype.
inline constexpr std::array<int16_t, 72> DownsampleCoef2To1 = mirrored<36>({
    -187, -360, -231, 210,  463,   192,   -170,  -16,   405,   317,  -228,  -295,
    321,  557,  -129, -616, 62,    826,   214,   -883,  -452,  989,  858,   -945,
    -1289, 851, 1885, -547, -2603, 15,    3663,  1089,  -5502, -3845, 11428, 27663,
});

inline constexpr std::array<int16_t, 48> DownsampleCoef3To1 = mirrored<24>({
    -40,   12,    166,  306,   234,   -107,  -484,  -495,  24,   709,   864,   123,
    -1011, -1420, -393, 1450,  2356,  930,   -2236, -4372, -2359, 4622, 13818, 20316,
});

inline constexpr std::array<int16_t, 64> DownsampleCoef4To1 = mirrored<32>({
    -53,   -19,   106,   295,   450,   441,   190,  -251, -680,  -830,  -524,  184,  967,  1361,  1018,  -40,
    -1338, -2131, -1796, -252,  1858,  3370,  3167, 867,  -2754, -5875, -6323, -2586, 5326, 15619, 25246, 31054,
});

inline constexpr std::array<int16_t, 96> DownsampleCoef6To1 = mirrored<48>({
    -32,  -28,   1,     58,    137,   223,   292,   317,  277,  162,  -15,  -225,
    -417, -538,  -541,  -402,  -132,  219,   571,   829,  906,  751,  367,  -178,
    -762, -1233, -1443, -1292, -763,  65,    1015,  1849, 2319, 2230, 1501, 204,
    -1424, -3015, -4128, -4340, -3341, -1013, 2522, 6903, 11575, 15884, 19189, 20983,
});

// 2:3 table, Q15, two phases of 16 taps stored phase after phase. With a the
// 15 listed values, phase 0 is a[0..14], 0 over x[3l .. 3l+15] and phase 1 is
// 0, a[14..0] over x[3l+1 .. 3l+16]. They are the even and odd taps of one
// symmetric 30-tap prototype running at twice the input rate. Each phase sums
// to 31684 (0.9669, -0.29 dB) and has sum|a| = 56048 < 65536, so a phase sum
// over 16-bit input fits 32 bits. Prototype: -3 dB at 0.298 fs, -10.6 dB at
// fs/3, >= 35 dB from 0.374 fs and >= 40 dB from 0.461 fs, zero at fs.
namespace detail {
inline constexpr std::array<int16_t, 15> kA3To2 = {291,  -632,  -1235, 1772, 597, -4360, 4885, 20059,
                                                    13816, -2083, -2524, 2303, 64,  -1348, 79};
constexpr std::array<int16_t, 32> phases3to2() {
    std::array<int16_t, 32> t{};
    for (std::size_t k = 0; k < 15; ++k) {
        t[k] = kA3To2[k];
        t[16 + 15 - k] = kA3To2[k];
    }
    return t;
}
}  // namespace detail
inline constexpr std::array<int16_t, 32> DownsampleCoef3To2 = detail::phases3to2();

// Shape of a stored table; index() is the one place that maps (phase, tap)
// to storage.
struct CoefTable {
    std::span<const int16_t> values;
    int phases;
    int taps;   // per phase
    int shift;  // fraction bits of the coefficients, and the output shift
    constexpr std::size_t index(int phase, int tap) const {
        return static_cast<std::size_t>(phase) * static_cast<std::size_t>(taps) + static_cast<std::size_t>(tap);
    }
    constexpr int16_t at(int phase, int tap) const { return values[index(phase, tap)]; }
};

// Largest |sum| of one phase over 16-bit input: sum|c| * 32768.
constexpr int64_t phase_bound(const CoefTable &t, int phase) {
    int64_t s = 0;
    for (int k = 0; k < t.taps; ++k) s += t.at(phase, k) < 0 ? -int64_t{t.at(phase, k)} : t.at(phase, k);
    return s * 32768;
}

inline constexpr CoefTable kTable2To1{DownsampleCoef2To1, 1, 72, 16};
inline constexpr CoefTable kTable3To1{DownsampleCoef3To1, 1, 48, 16};
inline constexpr CoefTable kTable4To1{DownsampleCoef4To1, 1, 64, 17};
inline constexpr CoefTable kTable6To1{DownsampleCoef6To1, 1, 96, 17};
inline constexpr CoefTable kTable3To2{DownsampleCoef3To2, 2, 16, 15};

}  // namespace rsmpl::down
