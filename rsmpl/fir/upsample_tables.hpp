// Coefficient tables of the up-stages: constant data, typed in as designed;
// nothing computes them at run time.
//
// Format: signed 16-bit Q15. One row per output phase, N taps per row, in
// window order: tap 0 multiplies the oldest sample of the window. Each row
// sums to about 32768, so the interpolation factor is already in the table and
// every phase has a gain close to 1. Access is table[phase][tap] everywhere.
//
// The rows of an L:1 table are the phases of one symmetric prototype h of
// L*N taps: row p, tap i = h[L*i + L-1 - p]; rows p and L-1-p are mirror
// images. The 3:2 rows are phases of a symmetric 45-tap prototype h(k),
// k = -22..22, for upsampling by 3 and keeping every second output:
// row p, tap i = h(20 + 2p - 3i), zero outside -22..22.
//
// Figures below: frequencies as fractions of the input Nyquist frequency.
#pragma once

#include <cstdint>

namespace rsmpl::up {

// 2:1, 2 x 36. Prototype 72 taps, group delay 35.5 output samples.
// Row sums 33710, 33710 (+0.246 dB). Equiripple passband -0.255..+0.248 dB
// up to 0.85, -3 dB at 0.905, stopband <= -59.4 dB from 1.0 upward.
// Absolute row sums 70306 (even/odd taps 26758/43548).
inline constexpr int16_t kFir1To2[2][36] = {
    {  -360,    210,    192,    -16,    317,   -295,    557,   -616,    826,   -883,    989,   -945,
        851,   -547,     15,   1089,  -3845,  27663,  11428,  -5502,   3663,  -2603,   1885,  -1289,
        858,   -452,    214,     62,   -129,    321,   -228,    405,   -170,    463,   -231,   -187},
    {  -187,   -231,    463,   -170,    405,   -228,    321,   -129,     62,    214,   -452,    858,
      -1289,   1885,  -2603,   3663,  -5502,  11428,  27663,  -3845,   1089,     15,   -547,    851,
       -945,    989,   -883,    826,   -616,    557,   -295,    317,    -16,    192,    210,   -360},
};

// 3:1, 3 x 16. Prototype 48 taps, group delay 23.5 output samples.
// Row sums 33024, 32992, 33024 (+0.065 dB). Passband -0.21..+0.24 dB up to
// 0.85, -3 dB at 0.927, about -9.3 dB at 1.0, <= -48.7 dB above 1.15,
// <= -59.1 dB above 1.5. Absolute row sums 52914, 70720, 52914.
inline constexpr int16_t kFir1To3[3][16] = {
    {   250,   -160,     37,    185,   -590,   1395,  -3539,  30474,
       6932,  -3355,   2174,  -1516,   1064,   -725,    458,    -60},
    {    19,    352,   -743,   1296,  -2131,   3534,  -6558,  20727,
      20727,  -6558,   3534,  -2131,   1296,   -743,    352,     19},
    {   -60,    458,   -725,   1064,  -1516,   2174,  -3355,   6932,
      30474,  -3539,   1395,   -590,    185,     37,   -160,    250},
};

// 4:1, 4 x 16. Prototype 64 taps, group delay 31.5 output samples.
// Row sums 33047, 33018, 33018, 33047 (+0.070 dB). Passband -0.22..+0.25 dB
// up to 0.85, -3 dB at 0.926, about -9.4 dB at 1.0, <= -48.8 dB above 1.15,
// <= -59.3 dB above 1.5. Absolute row sums 48955, 68016, 68016, 48955.
inline constexpr int16_t kFir1To4[4][16] = {
    {   295,   -251,    184,    -40,   -252,    867,  -2586,  31054,
       5326,  -2754,   1858,  -1338,    967,   -680,    450,    -53},
    {   106,    189,   -524,   1018,  -1797,   3167,  -6323,  25246,
      15619,  -5875,   3370,  -2131,   1361,   -830,    441,    -19},
    {   -19,    441,   -830,   1361,  -2131,   3370,  -5875,  15619,
      25246,  -6323,   3167,  -1797,   1018,   -524,    189,    106},
    {   -53,    450,   -680,    967,  -1338,   1858,  -2754,   5326,
      31054,  -2586,    867,   -252,    -40,    184,   -251,    295},
};

// 6:1, 6 x 16. Prototype 96 taps, group delay 47.5 output samples.
// Row sums 33064, 33040, 33025, 33025, 33040, 33064 (+0.073 dB). Passband
// -0.22..+0.25 dB up to 0.85 (-0.20 up to 0.849), -3 dB at 0.927, -9.43 dB at 1.0,
// <= -49.0 dB above 1.15, <= -59.5 dB above 1.5.
// Absolute row sums 45216, 60234, 69463, 69463, 60234, 45216.
inline constexpr int16_t kFir1To6[6][16] = {
    {   334,   -337,    329,   -266,     97,    307,  -1520,  31474,
       3783,  -2136,   1522,  -1143,    857,   -626,    437,    -48},
    {   205,    -23,   -199,    551,  -1144,   2252,  -5012,  28784,
      10354,  -4522,   2773,  -1849,   1243,   -807,    475,    -41},
    {    87,    243,   -603,   1126,  -1938,   3345,  -6510,  23826,
      17363,  -6192,   3478,  -2164,   1359,   -812,    415,      2},
    {     2,    415,   -812,   1359,  -2164,   3478,  -6192,  17363,
      23826,  -6510,   3345,  -1938,   1126,   -603,    243,     87},
    {   -41,    475,   -807,   1243,  -1849,   2773,  -4522,  10354,
      28784,  -5012,   2252,  -1144,    551,   -199,    -23,    205},
    {   -48,    437,   -626,    857,  -1143,   1522,  -2136,   3783,
      31474,  -1520,    307,     97,   -266,    329,   -337,    334},
};

// 3:2, 3 x 16, one row per output of an input pair. Rows 0 and 1 end in a
// zero tap and mirror each other over taps 0..14; row 2 starts with a zero tap
// and is symmetric about tap 8. Prototype 45 taps, group delay 11 output
// samples (7 1/3 input samples). Row sums 33075, 33075, 33131 (+0.086 dB).
// Passband -0.22..+0.26 dB up to 0.85, -3 dB at 0.926, about -9.4 dB at 1.0,
// <= -48.4 dB above 1.15, <= -58.1 dB above 1.5.
// Absolute row sums 65881, 65881, 41427.
inline constexpr int16_t kFir2To3[3][16] = {
    {   456,   -829,   1334,  -2060,   3209,  -5483,  13860,  26550,
      -6007,   2916,  -1606,    874,   -418,    115,    164,      0},
    {   164,    115,   -418,    874,  -1606,   2916,  -6007,  26550,
      13860,  -5483,   3209,  -2060,   1334,   -829,    456,      0},
    {     0,    400,   -489,    598,   -707,    803,   -878,    926,
      31825,    926,   -878,    803,   -707,    598,   -489,    400},
};

}  // namespace rsmpl::up
