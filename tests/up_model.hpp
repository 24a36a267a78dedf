// The up-stages' model: the input zero-stuffed and convolved with each
// stage's prototype h in 64-bit integers, rounded and saturated.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "rsmpl/context.hpp"
#include "rsmpl/rsmpl.h"
#include "rsmpl/upsample.hpp"
#include "rsmpl/upsample_tables.hpp"
#include "support.hpp"

namespace rsmpl_test::up_model {

using namespace rsmpl_test;
using rsmpl::up::Engine;
using rsmpl::up::Kernel;
using Samples = std::vector<int16_t>;
using Wrapper = void (*)(const int16_t *, int16_t *, RSMPL_Ctx *, int32_t);

struct Stage {
    const char *name;
    Wrapper wrapper;
    Kernel Engine::*kernel;
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

template <size_t P, size_t N>
inline std::vector<Samples> rows_of(const int16_t (&c)[P][N]) {
    std::vector<Samples> rows;
    for (const auto &r : c) rows.emplace_back(r, r + N);
    return rows;
}

inline const std::vector<Stage> &stages() {
    using namespace rsmpl::up;
    static const std::vector<Stage> s = {
        {"Up3_2", Upsample3_2, &Engine::fir2to3, true, 3, 15, 6, 960, rows_of(kFir2To3),
         {33075, 33075, 33131}, {10094, 10094, 10111}, {-164, -456, 489, 418}},
        {"Up2_1", Upsample2_1, &Engine::fir1to2, false, 2, 35, 4, 720, rows_of(kFir1To2),
         {33710, 33710}, {10287, 10287}, {187, 360, 231, -210}},
        {"Up3_1", Upsample3_1, &Engine::fir1to3, false, 3, 15, 6, 480, rows_of(kFir1To3),
         {33024, 32992, 33024}, {10078, 10068, 10078}, {}},
        {"Up4_1", Upsample4_1, &Engine::fir1to4, false, 4, 15, 4, 360, rows_of(kFir1To4),
         {33047, 33018, 33018, 33047}, {}, {}},
        {"Up6_1", Upsample6_1, &Engine::fir1to6, false, 6, 15, 6, 240, rows_of(kFir1To6),
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
