// The scalar reference of every FIR stage: the definition of the arithmetic,
// which every vector kernel must equal bit for bit. One plain loop over the
// stage's rows (fir_rows.hpp):
//
//   out[P*t + p] = R_s( sum_e w[p][e] * x[D*t + e] )
//
// The sum is exact in 64 bits (|S| <= 32768 * sum|w| < 2^33 for every
// table); R_s adds 2^(s-1), shifts right arithmetically by s (ties towards
// +inf) and saturates to -32768..32767. A group's outputs are written after
// all of its sums are formed, so out may equal x (see the wrappers).
#include <cstddef>

#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/fir/fir_stages.hpp"
#include "util/fixed.hpp"

namespace rsmpl::fir {
namespace {

template <int I>
void stage_scalar(const int16_t *x, int16_t *out, int32_t count) {
    constexpr auto &r = kRows<I>;
    constexpr int D = r.D, P = r.P, E = decltype(kRows<I>)::E;
    const int32_t groups = count >= D ? count / D : 0;
    for (int32_t t = 0; t < groups; ++t) {
        const int16_t *window = x + std::ptrdiff_t{D} * t;
        int64_t sum[P] = {};
        for (int p = 0; p < P; ++p)
            for (int e = 0; e < E; ++e) sum[p] += mul16x16(r.w[p][e], window[e]);
        for (int p = 0; p < P; ++p) out[std::ptrdiff_t{P} * t + p] = round_sat16(sum[p], r.shift);
    }
}

template <int I>
struct ScalarStage {
    static constexpr Kernel kernel = stage_scalar<I>;
};

}  // namespace

constinit const Kernels kKernelsScalar = make_kernels<ScalarStage>();

}  // namespace rsmpl::fir
