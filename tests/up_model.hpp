// The up-stages' model: the input zero-stuffed and convolved with each
// stage's prototype h in 64-bit integers, rounded and saturated.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include "support.hpp"

namespace rsmpl_test::up_model {

using namespace rsmpl_test;
using rsmpl::fir::Kernel;
using rsmpl::fir::StageId;
using Samples = std::vector<int16_t>;
using Wrapper = void (*)(const int16_t *, int16_t *, RSMPL_Ctx *, int32_t);

struct Stage {
    const char *name;
    Wrapper wrapper;
    StageId kernel;  // index of its kernel in every engine
    bool pairs;      // 3:2: consumes inputs in pairs
    int phases;      // outputs per input (per pair for 3:2)
    int history;     // H, samples kept in the context
    int32_t min_n, max_n;
    std::vector<Samples> rows;
    std::vector<int32_t> row_sums;  // documented DC gains
    Samples settled;                // documented output per phase for a constant 10000
    Samples impulse_head;           // documented first outputs for -32768 then zeros

    int group() const { return pairs ? 2 : 1; }
    int32_t outputs(int32_t n) const { return n < group() ? 0 : phases * (n / group()); }
    int32_t scratch(int32_t n) const { return outputs(n) + n % group(); }
    size_t proto_len() const { return pairs ? 45 : phases * rows[0].size(); }
    // Prototype index of row p, tap i; out of range for the zero taps of 3:2.
    int proto_index(int p, int i) const { return pairs ? 42 + 2 * p - 3 * i : phases * i + phases - 1 - p; }

    std::vector<int64_t> prototype() const {
        std::vector<int64_t> h(proto_len(), 0);
        for (int p = 0; p < phases; ++p)
            for (size_t i = 0; i < rows[p].size(); ++i) {
                const int k = proto_index(p, static_cast<int>(i));
                if (k >= 0 && k < static_cast<int>(h.size())) h[k] = rows[p][i];
            }
        return h;
    }
};

// The filters, typed in here on their own, one row per output phase in
// window order (oldest sample first), Q15. Each 3:2 row carries one zero tap.
inline const std::vector<Samples> k2To3 = {
    {456, -829, 1334, -2060, 3209, -5483, 13860, 26550, -6007, 2916, -1606, 874, -418, 115, 164, 0},
    {164, 115, -418, 874, -1606, 2916, -6007, 26550, 13860, -5483, 3209, -2060, 1334, -829, 456, 0},
    {0, 400, -489, 598, -707, 803, -878, 926, 31825, 926, -878, 803, -707, 598, -489, 400},
};
inline const std::vector<Samples> k1To2 = {
    {-360, 210, 192, -16, 317, -295, 557, -616, 826, -883, 989, -945, 851, -547, 15, 1089, -3845, 27663,
     11428, -5502, 3663, -2603, 1885, -1289, 858, -452, 214, 62, -129, 321, -228, 405, -170, 463, -231, -187},
    {-187, -231, 463, -170, 405, -228, 321, -129, 62, 214, -452, 858, -1289, 1885, -2603, 3663, -5502, 11428,
     27663, -3845, 1089, 15, -547, 851, -945, 989, -883, 826, -616, 557, -295, 317, -16, 192, 210, -360},
};
inline const std::vector<Samples> k1To3 = {
    {250, -160, 37, 185, -590, 1395, -3539, 30474, 6932, -3355, 2174, -1516, 1064, -725, 458, -60},
    {19, 352, -743, 1296, -2131, 3534, -6558, 20727, 20727, -6558, 3534, -2131, 1296, -743, 352, 19},
    {-60, 458, -725, 1064, -1516, 2174, -3355, 6932, 30474, -3539, 1395, -590, 185, 37, -160, 250},
};
inline const std::vector<Samples> k1To4 = {
    {295, -251, 184, -40, -252, 867, -2586, 31054, 5326, -2754, 1858, -1338, 967, -680, 450, -53},
    {106, 189, -524, 1018, -1797, 3167, -6323, 25246, 15619, -5875, 3370, -2131, 1361, -830, 441, -19},
    {-19, 441, -830, 1361, -2131, 3370, -5875, 15619, 25246, -6323, 3167, -1797, 1018, -524, 189, 106},
    {-53, 450, -680, 967, -1338, 1858, -2754, 5326, 31054, -2586, 867, -252, -40, 184, -251, 295},
};
inline const std::vector<Samples> k1To6 = {
    {334, -337, 329, -266, 97, 307, -1520, 31474, 3783, -2136, 1522, -1143, 857, -626, 437, -48},
    {205, -23, -199, 551, -1144, 2252, -5012, 28784, 10354, -4522, 2773, -1849, 1243, -807, 475, -41},
    {87, 243, -603, 1126, -1938, 3345, -6510, 23826, 17363, -6192, 3478, -2164, 1359, -812, 415, 2},
    {2, 415, -812, 1359, -2164, 3478, -6192, 17363, 23826, -6510, 3345, -1938, 1126, -603, 243, 87},
    {-41, 475, -807, 1243, -1849, 2773, -4522, 10354, 28784, -5012, 2252, -1144, 551, -199, -23, 205},
    {-48, 437, -626, 857, -1143, 1522, -2136, 3783, 31474, -1520, 307, 97, -266, 329, -337, 334},
};

inline const std::vector<Stage> &stages() {
    namespace f = rsmpl::fir;
    static const std::vector<Stage> s = {
        {"Up3_2", Upsample3_2, f::kUp2To3, true, 3, 15, 6, 960, k2To3,
         {33075, 33075, 33131}, {10094, 10094, 10111}, {-164, -456, 489, 418}},
        {"Up2_1", Upsample2_1, f::kUp1To2, false, 2, 35, 4, 720, k1To2,
         {33710, 33710}, {10287, 10287}, {187, 360, 231, -210}},
        {"Up3_1", Upsample3_1, f::kUp1To3, false, 3, 15, 6, 480, k1To3,
         {33024, 32992, 33024}, {10078, 10068, 10078}, {}},
        {"Up4_1", Upsample4_1, f::kUp1To4, false, 4, 15, 4, 360, k1To4,
         {33047, 33018, 33018, 33047}, {}, {}},
        {"Up6_1", Upsample6_1, f::kUp1To6, false, 6, 15, 6, 240, k1To6,
         {33064, 33040, 33025, 33025, 33040, 33064}, {}, {}},
    };
    return s;
}

inline int16_t round_q15(int64_t sum) { return static_cast<int16_t>(std::clamp<int64_t>((sum + 16384) >> 15, -32768, 32767)); }

// The stream s upsampled by `phases` with the prototype h (zero-stuffed and
// convolved), every `group`-th sample kept. Outputs 0 .. count-1, counted from
// stream sample `origin`: y(q) = R(sum_t h[group*q - phases*(t - origin)] * s[t]).
inline Samples model(const Stage &st, const Samples &s, size_t origin, size_t count) {
    const auto h = st.prototype();
    const int64_t up = st.phases, len = static_cast<int64_t>(h.size());
    Samples y(count);
    for (size_t q = 0; q < count; ++q) {
        const int64_t pos = st.group() * static_cast<int64_t>(q);
        int64_t sum = 0;
        for (int64_t t = static_cast<int64_t>(origin) + pos / up; t >= 0; --t) {
            const int64_t k = pos - up * (t - static_cast<int64_t>(origin));
            if (k >= len) break;
            if (t < static_cast<int64_t>(s.size())) sum += h[k] * s[t];
        }
        y[q] = round_q15(sum);
    }
    return y;
}

}  // namespace rsmpl_test::up_model
