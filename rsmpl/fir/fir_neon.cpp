// The AArch64 Advanced SIMD FIR stages, built from the rows of the stage
// list (fir_stages.hpp). NEON is part of every AArch64 processor, so an AArch64 build
// always has them and needs no extra flags.
//
// Lanes are groups, eight per block. A chunk of groups first splits the input
// into its D streams (ld2/ld3/ld4 once per sample, no overlapping loads); a
// tap's samples of eight groups are then one plain load from a stream (from x
// itself when D = 1), shared by every row that uses the tap. The stage's
// distinct coefficients sit in a few registers for the whole call, and each
// tap is one multiply-accumulate by element per four lanes
// (smlal v.4s, v.4h, v.h[k]); zero taps are skipped at compile time.
//
// Arithmetic of every output, per group lane:
//   accumulate  16x16 products summed exactly into the 32-bit partial sum of
//               the tap's bin: each bin's taps have absolute values adding up
//               to less than 65536, so with |sample| <= 32768 no partial sum
//               can reach 2^31 (compile-time check, and the tests recompute it)
//   combine     one bin: as is. Two: a halving add, floor((a + b) / 2), exact
//               in 32 bits, and the shift below is one less. Three or four:
//               added in 64 bits (saddl)
//   round       sqrshrn adds half a unit in wider precision and shifts:
//               halves go towards +inf, like the scalar kernels
//   saturate    the same sqrshrn (or sqxtn after the 64-bit path) clamps to
//               -32768..32767
#include <arm_neon.h>

#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/fir/fir_driver.hpp"

namespace rsmpl::fir {
namespace {

// Phase outputs of eight groups to output order.
template <int P>
[[gnu::always_inline]] inline void store_groups(int16_t *out, const int16x8_t (&y)[P]) {
    if constexpr (P == 1) {
        vst1q_s16(out, y[0]);
    } else if constexpr (P == 2) {
        const int16x8x2_t t{{y[0], y[1]}};
        vst2q_s16(out, t);
    } else if constexpr (P == 3) {
        const int16x8x3_t t{{y[0], y[1], y[2]}};
        vst3q_s16(out, t);
    } else if constexpr (P == 4) {
        const int16x8x4_t t{{y[0], y[1], y[2], y[3]}};
        vst4q_s16(out, t);
    } else {
        static_assert(P == 6);
        // Pairs of phases as 32-bit elements: e[k][0] groups 0-3, e[k][1] 4-7.
        int32x4_t e[3][2];
        for (int k = 0; k < 3; ++k) {
            e[k][0] = vreinterpretq_s32_s16(vzip1q_s16(y[2 * k], y[2 * k + 1]));
            e[k][1] = vreinterpretq_s32_s16(vzip2q_s16(y[2 * k], y[2 * k + 1]));
        }
        auto *o = reinterpret_cast<int32_t *>(out);
        for (int h = 0; h < 2; ++h) {
            const int32x4x3_t t{{e[0][h], e[1][h], e[2][h]}};
            vst3q_s32(o + 12 * h, t);
        }
    }
}

// Row p's output of eight groups from its bins: acc[b][0] groups 0-3, [1] 4-7.
template <int s, int A>
[[gnu::always_inline]] inline int16x8_t finish(const int32x4_t (&acc)[4][2]) {
    if constexpr (A == 1) {
        return vqrshrn_high_n_s32(vqrshrn_n_s32(acc[0][0], s), acc[0][1], s);
    } else if constexpr (A == 2) {
        const int32x4_t lo = vhaddq_s32(acc[0][0], acc[1][0]), hi = vhaddq_s32(acc[0][1], acc[1][1]);
        return vqrshrn_high_n_s32(vqrshrn_n_s32(lo, s - 1), hi, s - 1);
    } else {
        int64x2_t q[4];
        for (int h = 0; h < 2; ++h) {
            q[2 * h] = vaddl_s32(vget_low_s32(acc[0][h]), vget_low_s32(acc[1][h]));
            q[2 * h + 1] = vaddl_high_s32(acc[0][h], acc[1][h]);
            q[2 * h] = vaddw_s32(q[2 * h], vget_low_s32(acc[2][h]));
            q[2 * h + 1] = vaddw_high_s32(q[2 * h + 1], acc[2][h]);
            if constexpr (A == 4) {
                q[2 * h] = vaddw_s32(q[2 * h], vget_low_s32(acc[3][h]));
                q[2 * h + 1] = vaddw_high_s32(q[2 * h + 1], acc[3][h]);
            }
        }
        const int32x4_t lo = vcombine_s32(vqrshrn_n_s64(q[0], s), vqrshrn_n_s64(q[1], s));
        const int32x4_t hi = vcombine_s32(vqrshrn_n_s64(q[2], s), vqrshrn_n_s64(q[3], s));
        return vqmovn_high_s32(vqmovn_s32(lo), hi);
    }
}

// acc[0] (groups 0-3) and acc[1] (4-7) += v * c[k], or = for the first tap
// of a bin. Written as volatile asm so that the compiler keeps the order the
// kernel chooses: loads ahead of their use and successive multiplies on
// different partial sums, which an in-order core needs and the compiler's
// own scheduling undoes. "x" keeps c in v0-v15, as by-element needs.
template <bool kFirst, int k>
[[gnu::always_inline]] inline void mac(int32x4_t (&acc)[2], int16x8_t v, int16x8_t c) {
    if constexpr (kFirst) {
        asm volatile("smull %0.4s, %1.4h, %2.h[%3]" : "=w"(acc[0]) : "w"(v), "x"(c), "i"(k));
        asm volatile("smull2 %0.4s, %1.8h, %2.h[%3]" : "=w"(acc[1]) : "w"(v), "x"(c), "i"(k));
    } else {
        asm volatile("smlal %0.4s, %1.4h, %2.h[%3]" : "+w"(acc[0]) : "w"(v), "x"(c), "i"(k));
        asm volatile("smlal2 %0.4s, %1.8h, %2.h[%3]" : "+w"(acc[1]) : "w"(v), "x"(c), "i"(k));
    }
}

template <const auto &L>
struct Rows {
    using Layout = std::remove_cvref_t<decltype(L)>;
    static constexpr int P = Layout::P;
    static constexpr int E = Layout::E;
    static constexpr int D = L.D;
    static constexpr int Q = (E - 1) / D;  // furthest stream offset of a tap
    static constexpr int history = L.history;
    static constexpr int kRegs = (L.slots + 7) / 8;

    // The first tap of each bin starts its sum with a plain multiply.
    static constexpr bool first(int p, int e) {
        for (int k = 0; k < e; ++k)
            if (L.w[p][k] != 0 && L.bin[p][k] == L.bin[p][e]) return false;
        return true;
    }

    static constexpr int kBinsPerBlock = [] {
        int n = 0;
        for (int p = 0; p < P; ++p) n += L.bins[p];
        return n;
    }();
    // Blocks per pass: two share every sample load where their partial sums
    // and the coefficients still fit the 32 registers.
    static constexpr int kPass = 2 * 2 * kBinsPerBlock + kRegs + 3 <= 28 ? 2 : 1;

    static constexpr int tap(int j, int r, int k) { return (j - 8 * k) * D + r; }
    static constexpr bool serves(int j, int r, int k) { return j >= 8 * k && tap(j, r, k) < E && L.used(tap(j, r, k)); }
    static constexpr bool any_serves(int j, int r, int NB) {
        bool a = false;
        for (int k = 0; k < NB; ++k) a = a || serves(j, r, k);
        return a;
    }

    // The sample vectors NB blocks load, in order: stream position j[i] of
    // stream r[i].
    template <int NB>
    struct Steps {
        static constexpr int kMax = (Q + 1 + 8 * (NB - 1)) * D;
        static constexpr int n = [] {
            int c = 0;
            for (int jj = 0; jj < Q + 1 + 8 * (NB - 1); ++jj)
                for (int rr = 0; rr < D; ++rr) c += any_serves(jj, rr, NB);
            return c;
        }();
        static constexpr auto list = [] {
            std::array<std::array<int, 2>, kMax> l{};
            int c = 0;
            for (int jj = 0; jj < Q + 1 + 8 * (NB - 1); ++jj)
                for (int rr = 0; rr < D; ++rr)
                    if (any_serves(jj, rr, NB)) l[c++] = {jj, rr};
            return l;
        }();
        static constexpr auto pick = [](int w) {
            std::array<int, kMax> a{};
            for (int i = 0; i < kMax; ++i) a[i] = list[i][w];
            return a;
        };
        static constexpr std::array<int, kMax> j = pick(0), r = pick(1);
    };

    // NB blocks of eight groups: stream r of group 0 at s[r] (x itself when
    // D = 1). The sample vector at stream position j serves block k with tap
    // e = (j - 8k) * D + r.
    template <int NB, class Mark>
    [[gnu::always_inline]] static inline void block(const int16_t *const *s, const int16x8_t (&c)[kRegs],
                                                    int16_t *out) {
        Mark::begin();
        int32x4_t acc[NB][P][4][2];
        using Plan = Steps<NB>;
        // Loads run kAhead steps before their multiplies, so that an in-order
        // core never waits for one; a single row has fewer multiplies a step.
        constexpr int kAhead = P == 1 ? 3 : 2;
        int16x8_t v[Plan::n + kAhead];
        auto load = [&](auto ic) __attribute__((always_inline)) {
            constexpr int i = decltype(ic)::value;
            if constexpr (i < Plan::n) {
                v[i] = vld1q_s16(s[Plan::r[i]] + Plan::j[i]);
                // Pinned among the multiplies (see mac), kAhead steps early;
                // one load for both halves.
                asm volatile("" : "+w"(v[i]));
            }
        };
        unroll<kAhead>(load);
        unroll<Plan::n>([&](auto ic) __attribute__((always_inline)) {
            constexpr int i = decltype(ic)::value;
            constexpr int j = Plan::j[i], r = Plan::r[i];
            load(std::integral_constant<int, i + kAhead>{});
            unroll<NB>([&](auto kc) __attribute__((always_inline)) {
                constexpr int k = decltype(kc)::value;
                if constexpr (serves(j, r, k)) {
                    constexpr int e = tap(j, r, k);
                    unroll<P>([&](auto pc) __attribute__((always_inline)) {
                        constexpr int p = decltype(pc)::value;
                        constexpr int slot = L.slot[p][e];
                        if constexpr (slot >= 0) {
                            constexpr int b = L.bin[p][e];
                            auto &a = acc[k][p][b];
                            mac<first(p, e), slot % 8>(a, v[i], c[slot / 8]);
                        }
                    });
                }
            });
        });
        unroll<NB>([&](auto kc) __attribute__((always_inline)) {
            constexpr int k = decltype(kc)::value;
            int16x8_t y[P];
            unroll<P>([&](auto pc) __attribute__((always_inline)) {
                constexpr int p = decltype(pc)::value;
                y[p] = finish<L.shift, L.bins[p]>(acc[k][p]);
            });
            store_groups<P>(out + 8 * P * k, y);
        });
        Mark::end();
    }

    struct NoMark {
        static void begin() {}
        static void end() {}
    };

    // `blocks` blocks: stream r of group 0 at s[r].
    template <class Mark>
    [[gnu::always_inline]] static inline void blocks_from(const int16_t *const *s0, int blocks, const int16x8_t (&c)[kRegs],
                                                          int16_t *out) {
        int b = 0;
        for (; b + kPass <= blocks; b += kPass) {
            const int16_t *s[D];
            for (int r = 0; r < D; ++r) s[r] = s0[r] + 8 * b;
            block<kPass, Mark>(s, c, out + P * 8 * b);
        }
        if (kPass > 1 && b < blocks) {
            const int16_t *s[D];
            for (int r = 0; r < D; ++r) s[r] = s0[r] + 8 * b;
            block<1, NoMark>(s, c, out + P * 8 * b);
        }
    }

    // Stream r of the chunk: x[D*t + r] for t = 0 .. 8*n - 1.
    [[gnu::always_inline]] static inline void split(const int16_t *x, int n, int16_t (*st)[kRowChunkGroups + Q + 8]) {
        for (int i = 0; i < n; ++i) {
            const int16_t *p = x + D * 8 * i;
            if constexpr (D == 2) {
                const int16x8x2_t a = vld2q_s16(p);
                for (int r = 0; r < 2; ++r) vst1q_s16(st[r] + 8 * i, a.val[r]);
            } else if constexpr (D == 3) {
                const int16x8x3_t a = vld3q_s16(p);
                for (int r = 0; r < 3; ++r) vst1q_s16(st[r] + 8 * i, a.val[r]);
            } else if constexpr (D == 4) {
                const int16x8x4_t a = vld4q_s16(p);
                for (int r = 0; r < 4; ++r) vst1q_s16(st[r] + 8 * i, a.val[r]);
            } else {
                static_assert(D == 6);
                // Stride 3 gives two samples per group: groups 0-3 from a,
                // 4-7 from b; even elements are streams r, odd ones r + 3.
                const int16x8x3_t a = vld3q_s16(p), b = vld3q_s16(p + 24);
                for (int r = 0; r < 3; ++r) {
                    vst1q_s16(st[r] + 8 * i, vuzp1q_s16(a.val[r], b.val[r]));
                    vst1q_s16(st[r + 3] + 8 * i, vuzp2q_s16(a.val[r], b.val[r]));
                }
            }
        }
    }

    // Samples a chunk of `blocks` blocks reads from its start.
    static constexpr int64_t reach(int blocks) {
        return D == 1 ? 8 * blocks + E - 1 : int64_t{D} * 8 * ((8 * blocks + Q + 7) / 8);
    }

    // Not inlined: the body and the zero-padded tail share one copy.
    template <class Mark>
    RSMPL_FIR_NOINLINE static void chunk(const int16_t *x, int blocks, int16_t *out) {
        int16x8_t c[kRegs];
        for (int k = 0; k < kRegs; ++k) {
            c[k] = vld1q_s16(L.value + 8 * k);
            asm("" : "+w"(c[k]));  // kept in a register, not reloaded from the constant pool
        }
        if constexpr (D == 1) {
            const int16_t *s[1] = {x};
            blocks_from<Mark>(s, blocks, c, out);
        } else {
            alignas(16) int16_t st[D][kRowChunkGroups + Q + 8];
            split(x, (8 * blocks + Q + 7) / 8, st);
            const int16_t *s[D];
            for (int r = 0; r < D; ++r) s[r] = st[r];
            blocks_from<Mark>(s, blocks, c, out);
        }
    }
};

}  // namespace
}  // namespace rsmpl::fir

namespace rsmpl {

namespace fir {
namespace {

// A stage's kernel: its cost marks count the outputs of one pass and the
// multiplies each output really needs.
template <int I>
struct NeonStage {
    using K = Rows<kRows<I>>;
    using Mark = StageMark<I, 8 * K::P * K::kPass, kRows<I>.taps_total() / K::P>;
    static constexpr Kernel kernel = run_rows<K, Mark>;
};

}  // namespace
}  // namespace fir

constinit const fir::Kernels fir::kKernelsNeon = fir::make_kernels<fir::NeonStage>();

}  // namespace rsmpl
