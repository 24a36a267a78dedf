// The decimation stages' model: the whole stream filtered at once in 64-bit
// integers and every M-th output kept (2:3: zero-stuffed to twice the rate,
// filtered with its 30-tap prototype, every third output kept).
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/downsample_tables.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include "support.hpp"

namespace rsmpl_test::down_model {

using rsmpl_test::Guarded;
using Samples = std::vector<int16_t>;
using Wrapper = void (*)(const int16_t *, int16_t *, RSMPL_Ctx *, int32_t);
using Kernel = void (*)(const int16_t *, int16_t *, int32_t);

// The filters, typed in here on their own: first halves of the symmetric
// 1:M filters, and the 15 values a of the 2:3 stage.
inline const std::vector<int64_t> kHalf2 = {
    -187,  -360, -231, 210,  463,   192, -170, -16,  405,   317,   -228,  -295, 321, 557, -129, -616, 62,    826,
    214,   -883, -452, 989,  858,   -945, -1289, 851, 1885, -547, -2603, 15,   3663, 1089, -5502, -3845, 11428, 27663};
inline const std::vector<int64_t> kHalf3 = {-40,   12,    166,  306,  234,  -107, -484,  -495,  24,    709,  864,   123,
                                     -1011, -1420, -393, 1450, 2356, 930,  -2236, -4372, -2359, 4622, 13818, 20316};
inline const std::vector<int64_t> kHalf4 = {-53,   -19,   106,   295,  450,  441,  190,  -251, -680,  -830,  -524,
                                     184,   967,   1361,  1018, -40,  -1338, -2131, -1796, -252, 1858, 3370,
                                     3167,  867,   -2754, -5875, -6323, -2586, 5326, 15619, 25246, 31054};
inline const std::vector<int64_t> kHalf6 = {-32,   -28,   1,     58,    137,   223,   292,   317,  277,   162,   -15,   -225,
                                     -417,  -538,  -541,  -402,  -132,  219,   571,   829,  906,   751,   367,   -178,
                                     -762,  -1233, -1443, -1292, -763,  65,    1015,  1849, 2319,  2230,  1501,  204,
                                     -1424, -3015, -4128, -4340, -3341, -1013, 2522,  6903, 11575, 15884, 19189, 20983};
inline const std::vector<int64_t> kA = {291, -632, -1235, 1772, 597, -4360, 4885, 20059, 13816, -2083, -2524, 2303, 64, -1348, 79};

inline std::vector<int64_t> mirror(const std::vector<int64_t> &half) {
    std::vector<int64_t> h = half;
    h.insert(h.end(), half.rbegin(), half.rend());
    return h;
}

// The 2:3 prototype at twice the input rate: p[2k] = p[29 - 2k] = a[k].
inline std::vector<int64_t> prototype3to2() {
    std::vector<int64_t> p(30);
    for (size_t k = 0; k < 15; ++k) p[2 * k] = p[29 - 2 * k] = kA[k];
    return p;
}

struct Stage {
    const char *name;
    Wrapper wrapper;
    Kernel kernel;
    Kernel scalar;
    const rsmpl::down::CoefTable *table;
    int group_in, group_out;  // a group of inputs -> outputs
    int history, first_block;
    int min_block, block_step;  // what RSMPL_Down admits
    std::vector<int64_t> h;     // model impulse response (at twice the rate for 2:3)
    int shift;
    bool zero_stuffed;

    int32_t outputs(int64_t n) const { return static_cast<int32_t>(n / group_in * group_out); }
};

inline Kernel scalar(rsmpl::fir::StageId id) { return rsmpl::kScalarKernels.fir.stage[id]; }

inline const std::vector<Stage> &stages() {
    namespace d = rsmpl::down;
    static const std::vector<Stage> s = {
        {"Down2_3", Downsample2_3, DownsampleFIR3To2, scalar(rsmpl::fir::kDown3To2), &d::kTable3To2, 3, 2, 14, 48, 18, 6,
         prototype3to2(), 15, true},
        {"Down1_2", Downsample1_2, DownsampleFIR2To1, scalar(rsmpl::fir::kDown2To1), &d::kTable2To1, 2, 1, 70, 144, 8, 4,
         mirror(kHalf2), 16, false},
        {"Down1_3", Downsample1_3, DownsampleFIR3To1, scalar(rsmpl::fir::kDown3To1), &d::kTable3To1, 3, 1, 45, 72, 18, 6,
         mirror(kHalf3), 16, false},
        {"Down1_4", Downsample1_4, DownsampleFIR4To1, scalar(rsmpl::fir::kDown4To1), &d::kTable4To1, 4, 1, 60, 80, 16, 4,
         mirror(kHalf4), 17, false},
        {"Down1_6", Downsample1_6, DownsampleFIR6To1, scalar(rsmpl::fir::kDown6To1), &d::kTable6To1, 6, 1, 90, 108, 36, 6,
         mirror(kHalf6), 17, false},
    };
    return s;
}

struct ModelResult {
    Samples out;
    size_t clipped = 0;  // outputs whose exact value lay outside 16 bits
};

// x is H history samples followed by the stream, with silence before x[0].
// Convolves all of x, then keeps the instants the stage's outputs fall on: a
// 1:M output j is centred M*j - D stream samples in, D = (L-1)/2 - (M-1), so
// it is filter output t = H + M*j + M - 1; 2:3 output m is centred at
// 1.5*m - 6.75, doubled-rate output t = 2*H + 3*m + 1 of a 30-tap filter.
inline ModelResult model(const Stage &s, const Samples &x) {
    const int64_t count = static_cast<int64_t>(x.size()) - s.history;
    std::vector<int64_t> u;  // the signal the filter runs over
    if (s.zero_stuffed) {
        u.assign(2 * x.size(), 0);
        for (size_t i = 0; i < x.size(); ++i) u[2 * i] = x[i];
    } else {
        u.assign(x.begin(), x.end());
    }
    std::vector<int64_t> y(u.size(), 0);
    for (size_t t = 0; t < u.size(); ++t)
        for (size_t m = 0; m < s.h.size() && m <= t; ++m) y[t] += s.h[m] * u[t - m];

    ModelResult r;
    const int64_t n_out = count <= 0 ? 0 : s.outputs(count);
    for (int64_t j = 0; j < n_out; ++j) {
        const int64_t t = s.zero_stuffed ? 2 * s.history + 3 * j + 1 : s.history + s.group_in * j + s.group_in - 1;
        const int64_t v = (y[static_cast<size_t>(t)] + (int64_t{1} << (s.shift - 1))) >> s.shift;
        if (v > INT16_MAX || v < INT16_MIN) ++r.clipped;
        r.out.push_back(static_cast<int16_t>(std::clamp<int64_t>(v, INT16_MIN, INT16_MAX)));
    }
    return r;
}

}  // namespace rsmpl_test::down_model
