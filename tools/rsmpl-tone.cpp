// rsmpl-tone: a 1 kHz tone upsampled through every up-stage.
//
// Generates 2 s of a 1 kHz sine at 16000 Hz (half full scale), converts it
// through each up-stage in place, block by block in one 1440-sample buffer as
// the plug-in does, and prints per stage the frames in and out, the output
// peak, the tone's frequency measured from zero crossings, and the speed as a
// multiple of real time. Writes nothing to disk.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <vector>

#include "rsmpl/context.hpp"
#include "rsmpl/rsmpl.h"

namespace {

constexpr int kRate = 16000;
constexpr double kSeconds = 2.0;
constexpr double kToneHz = 1000.0;

struct UpStage {
    const char *name;
    void (*run)(const int16_t *, int16_t *, RSMPL_Ctx *, int32_t);
    int num, den;   // output:input
    int32_t block;  // largest admissible input block
};

constexpr UpStage kStages[] = {
    {"3:2", Upsample3_2, 3, 2, 960}, {"x2", Upsample2_1, 2, 1, 720}, {"x3", Upsample3_1, 3, 1, 480},
    {"x4", Upsample4_1, 4, 1, 360},  {"x6", Upsample6_1, 6, 1, 240},
};

std::vector<int16_t> convert(const UpStage &st, const std::vector<int16_t> &in) {
    RSMPL_Ctx ctx{};  // zero history: silence before the stream
    std::vector<int16_t> out;
    out.reserve(in.size() * st.num / st.den);
    int16_t buf[RSMPL_MAX_BLOCK];
    for (size_t pos = 0; pos < in.size();) {
        const int32_t n = static_cast<int32_t>(std::min<size_t>(st.block, in.size() - pos));
        std::copy_n(in.data() + pos, n, buf);
        st.run(buf, buf, &ctx, n);
        out.insert(out.end(), buf, buf + n / st.den * st.num);
        pos += n;
    }
    return out;
}

// Frequency from the rising zero crossings after the filter has settled.
double tone_hz(const std::vector<int16_t> &y, double rate) {
    size_t first = 0, last = 0, crossings = 0;
    for (size_t i = 200; i < y.size(); ++i)
        if (y[i - 1] < 0 && y[i] >= 0) {
            if (crossings++ == 0) first = i;
            last = i;
        }
    return crossings < 2 ? 0.0 : (crossings - 1) * rate / static_cast<double>(last - first);
}

}  // namespace

int main() {
    const size_t frames = static_cast<size_t>(kRate * kSeconds);
    std::vector<int16_t> tone(frames);
    for (size_t i = 0; i < frames; ++i)
        tone[i] = static_cast<int16_t>(std::lround(16384.0 * std::sin(2.0 * std::numbers::pi * kToneHz * i / kRate)));

    std::printf("rsmpl-tone: %.0f Hz sine, %.1f s at %d Hz, peak 16384, converted in place in blocks\n",
                kToneHz, kSeconds, kRate);
    std::printf("%-5s %8s %10s %11s %6s %9s %16s\n", "stage", "rate", "frames in", "frames out", "peak",
                "tone Hz", "speed");
    for (const UpStage &st : kStages) {
        using clock = std::chrono::steady_clock;
        std::vector<int16_t> out;
        int passes = 0;
        const auto start = clock::now();
        double elapsed = 0;
        do {  // repeat until the timing means something
            out = convert(st, tone);
            ++passes;
            elapsed = std::chrono::duration<double>(clock::now() - start).count();
        } while (elapsed < 0.2);

        int peak = 0;
        for (int16_t s : out) peak = std::max(peak, std::abs(int{s}));
        const int out_rate = kRate * st.num / st.den;
        std::printf("%-5s %8d %10zu %11zu %6d %9.1f %9.0fx real time\n", st.name, out_rate, tone.size(),
                    out.size(), peak, tone_hz(out, out_rate), passes * kSeconds / elapsed);
    }
    return 0;
}
