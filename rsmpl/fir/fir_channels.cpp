// One FIR stage over every channel of an interleaved period.
#include "rsmpl/fir/fir_channels.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/fir_stages.hpp"
#include "rsmpl/interface/context.hpp"

namespace rsmpl::fir {
namespace {

// A stage's shape and the engine's kernel for it.
struct Stage : StageShape {
    Kernel kernel;
};

Stage stage_of(Direction d, uint32_t index) {
    const StageId id = (d == Direction::up ? kUpStages : kDownStages)[index];
    return {kShapes[id], kernels().fir.stage[id]};
}

// Inputs per kernel call: a multiple of every group, so that pieces keep the
// pairing of 3:2 and the groups of the down-stages.
constexpr int32_t kPiece = 480;
constexpr int32_t kMaxHistory = 90;
static_assert(std::all_of(kShapes.begin(), kShapes.end(), [](const StageShape &s) {
    return s.history <= kMaxHistory && s.outputs * kPiece / s.group <= kPiece * 6 && kPiece % s.group == 0;
}));
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
        done += m;
        // The newest H samples: the next piece's history, or after the last
        // piece straight back to the contexts.
        for (size_t c = 0; c < C; ++c) {
            if (done < frames)
                std::memmove(staged[c], staged[c] + m, static_cast<size_t>(H) * sizeof(int16_t));
            else
                std::memcpy(ctx[c]->samples, staged[c] + m, static_cast<size_t>(H) * sizeof(int16_t));
        }
    }
    return o;
}

}  // namespace

int32_t stage_channels(Direction direction, uint32_t index, RSMPL_Ctx *const *ctx, uint32_t channels,
                       const int16_t *in, int16_t *out, int32_t frames, int16_t *last_channel) {
    if (ctx == nullptr || in == nullptr || out == nullptr || index >= std::size(kUpStages) || frames <= 0) return 0;
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
