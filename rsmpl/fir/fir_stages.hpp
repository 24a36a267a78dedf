// The fixed-ratio FIR stages, one entry each. Every engine builds its kernel
// set from this list (the scalar reference and the AArch64 kernels from the
// rows, the x86 kernels from the tap pairs fir_layout.hpp derives), and the
// stage wrappers take their shape from it. A new ratio is its coefficient
// table, a line in RSMPL_FIR_STAGES and a branch in make_stage(); the
// interface then gives it a number (kUpStages / kDownStages below,
// rsmpl/interface/rsmpl.cpp) and a wrapper (upsample.cpp or downsample.cpp).
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "rsmpl/engine/mca.hpp"
#include "rsmpl/fir/fir_rows.hpp"

namespace rsmpl::fir {

// Id and the name the cost marks carry (scripts/arm-cost.sh and the
// performance documents key on the names). The order is the kernel index.
#define RSMPL_FIR_STAGES(X) \
    X(kUp2To3, "up2to3")     \
    X(kUp1To2, "up1to2")     \
    X(kUp1To3, "up1to3")     \
    X(kUp1To4, "up1to4")     \
    X(kUp1To6, "up1to6")     \
    X(kDown2To1, "down2to1") \
    X(kDown3To1, "down3to1") \
    X(kDown4To1, "down4to1") \
    X(kDown6To1, "down6to1") \
    X(kDown3To2, "down3to2")

enum StageId : int {
#define RSMPL_FIR_STAGE_ID(id, name) id,
    RSMPL_FIR_STAGES(RSMPL_FIR_STAGE_ID)
#undef RSMPL_FIR_STAGE_ID
    kStageCount
};

// The stage's rows, and what its wrapper needs besides them.
template <class Rows>
struct StageLayout {
    Rows rows;
    int tail = 0;         // up wrapper: the last T inputs are filtered from a frame of their own
    int first_block = 0;  // down wrapper: the first B inputs are filtered from a frame, the rest in place
};
template <class Rows>
StageLayout(Rows, int, int) -> StageLayout<Rows>;

template <int I>
constexpr auto make_stage() {
    if constexpr (I == kUp2To3) return StageLayout{rows::up2to3(), 12, 0};
    else if constexpr (I == kUp1To2) return StageLayout{rows::up(up::kFir1To2), 18, 0};
    else if constexpr (I == kUp1To3) return StageLayout{rows::up(up::kFir1To3), 6, 0};
    else if constexpr (I == kUp1To4) return StageLayout{rows::up(up::kFir1To4), 4, 0};
    else if constexpr (I == kUp1To6) return StageLayout{rows::up(up::kFir1To6), 3, 0};
    else if constexpr (I == kDown2To1) return StageLayout{rows::down<72>(down::kTable2To1, 2), 0, 144};
    else if constexpr (I == kDown3To1) return StageLayout{rows::down<48>(down::kTable3To1, 3), 0, 72};
    else if constexpr (I == kDown4To1) return StageLayout{rows::down<64>(down::kTable4To1, 4), 0, 80};
    else if constexpr (I == kDown6To1) return StageLayout{rows::down<96>(down::kTable6To1, 6), 0, 108};
    else {
        static_assert(I == kDown3To2);
        return StageLayout{rows::down3to2(), 0, 48};
    }
}

template <int I>
inline constexpr auto kStage = make_stage<I>();
// The rows as an object of their own, for kernels that take them by reference.
template <int I>
inline constexpr auto kRows = kStage<I>.rows;

// What the wrappers read at run time.
struct StageShape {
    int32_t group;        // D: inputs per group
    int32_t outputs;      // P: outputs per group
    int32_t history;      // H: samples kept in the context
    int32_t tail;         // up wrapper's T; 0 for a down-stage
    int32_t first_block;  // down wrapper's B; 0 for an up-stage
};
inline constexpr std::array<StageShape, kStageCount> kShapes = []<int... I>(std::integer_sequence<int, I...>) {
    return std::array<StageShape, kStageCount>{
        {StageShape{kRows<I>.D, kRows<I>.P, kRows<I>.history, kStage<I>.tail, kStage<I>.first_block}...}};
}(std::make_integer_sequence<int, kStageCount>{});

// The row kernels' limits: every bin below the bound, at most four bins a
// row, and a narrowing shift of 1 .. 16 after one bin (shift s) or two (a
// halving add, s - 1).
template <class Rows>
constexpr bool rows_well_formed(const Rows &l) {
    bool ok = l.heaviest_bin() < kRowBinBound && l.slots <= Rows::kMaxSlots && l.D >= 1 && l.D <= 6;
    for (int p = 0; p < Rows::P; ++p) {
        ok = ok && l.bins[p] >= 1 && l.bins[p] <= 4;
        ok = ok && (l.bins[p] > 2 || l.shift - (l.bins[p] - 1) <= 16);
    }
    return ok;
}
static_assert([]<int... I>(std::integer_sequence<int, I...>) {
    return (rows_well_formed(kRows<I>) && ...);
}(std::make_integer_sequence<int, kStageCount>{}));

// RSMPL_Up and RSMPL_Down number their stages this way.
inline constexpr StageId kUpStages[] = {kUp2To3, kUp1To2, kUp1To3, kUp1To4, kUp1To6};
inline constexpr StageId kDownStages[] = {kDown3To2, kDown2To1, kDown3To1, kDown4To1, kDown6To1};

// One stage kernel: x holds the stage's H history samples followed by
// `count` new ones, oldest first; out[P*t + p] for every whole group t. Each
// group's outputs are written only after its whole window is read, in
// ascending order, which the in-place wrappers rely on. A count below one
// group writes nothing.
using Kernel = void (*)(const int16_t *x, int16_t *out, int32_t count);

// One engine's kernels, indexed by StageId.
struct Kernels {
    Kernel stage[kStageCount];
};

// K<I>::kernel for every stage I.
template <template <int> class K>
constexpr Kernels make_kernels() {
    return []<int... I>(std::integer_sequence<int, I...>) { return Kernels{{K<I>::kernel...}}; }(
        std::make_integer_sequence<int, kStageCount>{});
}

// The cost-estimate marks (rsmpl/engine/mca.hpp) around one pass of stage
// I's kernel: kOuts outputs, kMacs multiplies per output.
template <int I, int kOuts, int kMacs>
struct StageMark {
    [[gnu::always_inline]] static inline void begin() {
#define RSMPL_FIR_MARK(id, name) \
    if constexpr (I == id) RSMPL_MCA_BEGIN(name, kOuts, kMacs);
        RSMPL_FIR_STAGES(RSMPL_FIR_MARK)
#undef RSMPL_FIR_MARK
    }
    [[gnu::always_inline]] static inline void end() {
#define RSMPL_FIR_MARK(id, name) \
    if constexpr (I == id) RSMPL_MCA_END(name, kOuts, kMacs);
        RSMPL_FIR_STAGES(RSMPL_FIR_MARK)
#undef RSMPL_FIR_MARK
    }
};

}  // namespace rsmpl::fir
