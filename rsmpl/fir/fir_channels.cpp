// One FIR stage over every channel of an interleaved period.
#include "rsmpl/fir/fir_channels.hpp"

#include <algorithm>
#include <cstring>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/interface/context.hpp"

namespace rsmpl::fir {
namespace {

using Kernel = void (*)(const int16_t *, int16_t *, int32_t);

struct Stage {
    int32_t history;  // H: samples kept in the context
    int32_t group;    // inputs per output group
    int32_t outputs;  // outputs per group
    int32_t tail;     // up: the wrapper filters the last T inputs apart (0: no split)
    Kernel kernel;
};

// RSMPL_Up / RSMPL_Down numbering: 3:2, x2, x3, x4, x6 and 2:3, /2, /3, /4, /6.
Stage stage_of(Direction d, uint32_t index) {
    const KernelSet &k = kernels();
    if (d == Direction::up) {
        const Stage up[] = {{15, 2, 3, 12, k.up.fir2to3}, {35, 1, 2, 18, k.up.fir1to2}, {15, 1, 3, 6, k.up.fir1to3},
                            {15, 1, 4, 4, k.up.fir1to4}, {15, 1, 6, 3, k.up.fir1to6}};
        return up[index];
    }
    const Stage down[] = {{14, 3, 2, 0, k.down.fir3to2}, {70, 2, 1, 0, k.down.fir2to1}, {45, 3, 1, 0, k.down.fir3to1},
                          {60, 4, 1, 0, k.down.fir4to1}, {90, 6, 1, 0, k.down.fir6to1}};
    return down[index];
}

// Inputs per kernel call: a multiple of every group, so that pieces keep the
// pairing of 3:2 and the groups of the down-stages.
constexpr int32_t kPiece = 480;
constexpr int32_t kMaxHistory = 90;
constexpr int32_t kMaxOutputs = kPiece * 6;

// Up to four channels go through a piece together: split in one pass over
// the period, merged in one pass that writes each output frame once. Their
// outputs per piece are bounded, which keeps the stack small.
constexpr uint32_t kTogether = 4;
constexpr int32_t kTogetherPiece = 960;
constexpr int32_t kTogetherOutputs = 1440;

int32_t stage_together(const Stage &s, RSMPL_Ctx *const *ctx, uint32_t channels, const int16_t *in, int16_t *out,
                       int32_t frames, int16_t *last_channel) {
    const KernelSet &k = kernels();
    const size_t C = channels;
    const int32_t H = s.history;
    // A multiple of the stage's group: only the last piece may end mid-group.
    const int32_t piece = std::min(kTogetherPiece, kTogetherOutputs / s.outputs * s.group);
    int16_t staged[kTogether][kMaxHistory + kTogetherPiece];
    int16_t result[kTogether][kTogetherOutputs];
    int16_t *fresh[kTogether];
    const int16_t *results[kTogether];
    for (size_t c = 0; c < C; ++c) {
        std::memcpy(staged[c], ctx[c]->samples, static_cast<size_t>(H) * sizeof(int16_t));
        fresh[c] = staged[c] + H;
        results[c] = result[c];
    }
    int32_t o = 0;
    // Only the pairing of 3:2 cares where the wrapper's passes end; one
    // input at a time, any cut gives the same stream.
    const int32_t bulk = s.group == 1 ? frames : frames - std::min(frames, s.tail);
    for (int32_t done = 0; done < frames;) {
        const int32_t m = std::min(done < bulk ? bulk - done : frames - done, piece);
        k.split_channels(fresh, in + static_cast<size_t>(done) * C, static_cast<uint32_t>(m), channels);
        for (size_t c = 0; c < C; ++c) s.kernel(staged[c], result[c], m);
        const int32_t outs = m / s.group * s.outputs;
        k.merge_channels(out + static_cast<size_t>(o) * C, results, static_cast<uint32_t>(outs), channels);
        if (last_channel != nullptr)
            std::memcpy(last_channel + o, result[C - 1], static_cast<size_t>(outs) * sizeof(int16_t));
        o += outs;
        for (size_t c = 0; c < C; ++c)
            std::memmove(staged[c], staged[c] + m, static_cast<size_t>(H) * sizeof(int16_t));
        done += m;
    }
    for (size_t c = 0; c < C; ++c) std::memcpy(ctx[c]->samples, staged[c], static_cast<size_t>(H) * sizeof(int16_t));
    return o;
}

}  // namespace

int32_t stage_channels(Direction direction, uint32_t index, RSMPL_Ctx *const *ctx, uint32_t channels,
                       const int16_t *in, int16_t *out, int32_t frames, int16_t *last_channel) {
    if (ctx == nullptr || in == nullptr || out == nullptr || index > 4 || frames <= 0) return 0;
    const KernelSet &k = kernels();
    const Stage s = stage_of(direction, index);
    if (channels >= 1 && channels <= kTogether) return stage_together(s, ctx, channels, in, out, frames, last_channel);
    const size_t C = channels;
    int32_t written = 0;
    for (size_t c = 0; c < C; ++c) {
        // The stream as the stage sees it: history, then this channel.
        int16_t staged[kMaxHistory + kPiece];
        int16_t result[kMaxOutputs];
        std::memcpy(staged, ctx[c]->samples, static_cast<size_t>(s.history) * sizeof(int16_t));
        int32_t o = 0;
        // Pieces end where the wrapper's passes end: an odd 3:2 bulk leaves
        // its last sample unpaired, and the tail pairs from its own start.
        const int32_t bulk = frames - std::min(frames, s.tail);
        for (int32_t done = 0; done < frames;) {
            const int32_t m = std::min(done < bulk ? bulk - done : frames - done, kPiece);
            k.gather_channel(staged + s.history, in + static_cast<size_t>(done) * C, static_cast<uint32_t>(m), channels,
                             static_cast<uint32_t>(c));
            s.kernel(staged, result, m);
            const int32_t outs = m / s.group * s.outputs;
            k.scatter_channel(out + static_cast<size_t>(o) * C, result, static_cast<uint32_t>(outs), channels,
                              static_cast<uint32_t>(c));
            if (last_channel != nullptr && c == C - 1)
                std::memcpy(last_channel + o, result, static_cast<size_t>(outs) * sizeof(int16_t));
            o += outs;
            // The newest H samples carry over to the next piece.
            std::memmove(staged, staged + m, static_cast<size_t>(s.history) * sizeof(int16_t));
            done += m;
        }
        std::memcpy(ctx[c]->samples, staged, static_cast<size_t>(s.history) * sizeof(int16_t));
        written = o;
    }
    return written;
}

}  // namespace rsmpl::fir
