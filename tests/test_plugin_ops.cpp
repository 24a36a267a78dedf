// The module's operations table, driven directly the way alsa-lib's rate PCM
// drives it: the built module is dlopen'ed, opened through its entry point,
// and every operation is called with host-shaped arguments. Covers what a
// real host never exercises (old table layout, bad counts, zero channels,
// the reports that reach snd_lib_error).
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>
#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "harness/alsa_harness.hpp"
#include "rate_support.hpp"
#include "support.hpp"

namespace {

using rsmpl_test::FirReference;
using rsmpl_test::Guarded;
using rsmpl_test::random_samples;

constexpr uint32_t DIV = 0x80000;

// The converter state as the module lays it out, to read fields that no
// operation reports (pitch_shift, the stage indices, the context pointers).
struct StateView {
    uint32_t factor;
    int32_t up_index, down_index;
    uint32_t pitch, pitch_shift, channels;
    void *rsmpl_ctx[4];
    int16_t *sample_buf;
    void *convert_fn;
    char desc[64];
};

struct Report { std::string file; int line; std::string function; int err; std::string message; };
std::vector<Report> g_reports;

void expect_report(const Report &r, const char *function, const char *message) {
    EXPECT_EQ(r.message, message);
    EXPECT_EQ(r.function, function);
    EXPECT_EQ(r.file, "src/rate_rsmpl.cpp");
    EXPECT_EQ(r.err, 0);
    EXPECT_GT(r.line, 0);
}

void capture_report(const char *file, int line, const char *function, int err, const char *fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    g_reports.push_back({file ? file : "", line, function ? function : "", err, text});
}

snd_pcm_rate_info_t make_info(unsigned in_rate, unsigned out_rate, unsigned channels,
                              snd_pcm_format_t in_format = SND_PCM_FORMAT_S16_LE,
                              snd_pcm_format_t out_format = SND_PCM_FORMAT_S16_LE) {
    snd_pcm_rate_info_t info{};
    info.in.format = in_format;
    info.in.rate = in_rate;
    info.out.format = out_format;
    info.out.rate = out_rate;
    info.channels = channels;
    return info;
}

class PluginOps : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(module_.ok()) << module_.error();
        open_ = module_.entry("rsmplrate");
        ASSERT_NE(open_, nullptr) << module_.error();
        conv_ = std::make_unique<rsmpl_harness::Converter>(open_, 0x010002);
        ASSERT_EQ(conv_->status(), 0);
        obj_ = conv_->obj();
        ops_ = conv_->ops();
        g_reports.clear();
        snd_lib_error_set_handler(capture_report);
    }
    void TearDown() override {
        snd_lib_error_set_handler(nullptr);
        conv_.reset();
    }
    StateView &state() { return *static_cast<StateView *>(obj_); }

    // init + adjust_pitch + reset, as the host does at hw_params and prepare.
    void setup(unsigned in_rate, unsigned out_rate, unsigned channels, snd_pcm_uframes_t in_period,
               snd_pcm_uframes_t out_period) {
        snd_pcm_rate_info_t info = make_info(in_rate, out_rate, channels);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        info.in.period_size = in_period;
        info.out.period_size = out_period;
        ASSERT_EQ(ops_.adjust_pitch(obj_, &info), 0);
        ops_.reset(obj_);
    }

    // Converts into a guarded buffer of exactly dst_frames frames.
    std::vector<int16_t> convert(const std::vector<int16_t> &src, unsigned dst_frames, unsigned channels) {
        Guarded<int16_t> dst(size_t{dst_frames} * channels);
        for (size_t i = 0; i < dst.size(); ++i) dst[i] = 0x5a5a;
        ops_.convert_s16(obj_, dst.data(), dst_frames, src.data(), static_cast<unsigned>(src.size() / channels));
        EXPECT_TRUE(dst.guards_intact()) << "write past dst_frames";
        return std::vector<int16_t>(dst.data(), dst.data() + dst.size());
    }

    std::string dump_text() { return rsmpl_harness::dump(ops_, obj_); }

    rsmpl_harness::Module module_;
    std::unique_ptr<rsmpl_harness::Converter> conv_;
    snd_pcm_rate_open_func_t open_ = nullptr;
    void *obj_ = nullptr;
    snd_pcm_rate_ops_t ops_{};
};

// ---- Entry, table and opened state ------------------------------------------

// Version 0x010001 gets the first nine slots (72 bytes), any other version the
// whole table; nothing after either is written.
TEST_F(PluginOps, EntryCopiesNineSlotsForTheOldHostAndTheWholeTableOtherwise) {
    EXPECT_EQ(ops_.version, 0x010002u);
    EXPECT_EQ(ops_.convert, nullptr);
    ASSERT_EQ(offsetof(snd_pcm_rate_ops_t, version), 72u);
    for (unsigned version : {0x010001u, 0x010002u, 0x010003u, 0u, 0x020000u}) {
        SCOPED_TRACE(version);
        struct {
            snd_pcm_rate_ops_t ops;
            uint8_t guard[64];
        } host;
        std::memset(&host, 0xA5, sizeof(host));
        void *obj = nullptr;
        ASSERT_EQ(open_(version, &obj, &host.ops), 0);
        ASSERT_NE(obj, nullptr);
        const bool old = version == 0x010001u;
        const size_t end = old ? 72 : offsetof(snd_pcm_rate_ops_t, get_supported_formats);
        const auto *bytes = reinterpret_cast<const uint8_t *>(&host);
        for (size_t i = end; i < sizeof(host); ++i) ASSERT_EQ(bytes[i], 0xA5) << "byte " << i << " written";
        EXPECT_EQ(std::memcmp(&host.ops, &ops_, 72), 0);  // the nine slots close .. output_frames
        if (!old) {
            EXPECT_EQ(host.ops.version, 0x010002u);
            EXPECT_EQ(host.ops.get_supported_rates, ops_.get_supported_rates);
            EXPECT_EQ(host.ops.dump, ops_.dump);
        }
        host.ops.close(obj);
    }
}

TEST_F(PluginOps, OpenedStateIsFactorOneWithoutResourcesAndConvertsNothing) {
    StateView want{};
    want.factor = 1;
    want.up_index = want.down_index = -1;
    EXPECT_EQ(std::memcmp(&state(), &want, sizeof(want)), 0);
    EXPECT_EQ(dump_text(), "RSMPL Converter: \n");
    for (int16_t s : convert(random_samples(64, 1), 64, 1)) EXPECT_EQ(s, 0x5a5a);
}

TEST_F(PluginOps, SupportedRatesAreFixed) {
    for (bool initialised : {false, true}) {
        if (initialised) setup(44100, 48000, 2, 882, 960);
        unsigned lo = 0, hi = 0;
        EXPECT_EQ(ops_.get_supported_rates(obj_, &lo, &hi), 0);
        EXPECT_EQ(lo, 8000u);
        EXPECT_EQ(hi, 48000u);
    }
}

// ---- init: path choice, validation, resources --------------------------------

TEST_F(PluginOps, InitChoosesThePathFromTheRates) {
    struct PathCase { unsigned in_rate, out_rate; uint32_t factor; int32_t up_index, down_index; const char *desc; };
    const PathCase cases[] = {
        {8000, 16000, 2, 1, -1, "FIR filter, UP 8000 -> 16000"},
        {16000, 48000, 3, 2, -1, "FIR filter, UP 16000 -> 48000"},
        {8000, 48000, 6, 4, -1, "FIR filter, UP 8000 -> 48000"},
        {8000, 32000, 0, -1, -1, "Linear, UP 8000 -> 32000"},
        {44100, 48000, 0, -1, -1, "Linear, UP 44100 -> 48000"},
        {48000, 24000, 2, -1, 1, "FIR filter, DOWN 48000 -> 24000"},
        {48000, 16000, 3, -1, 2, "FIR filter, DOWN 48000 -> 16000"},
        {48000, 8000, 6, -1, 4, "FIR filter, DOWN 48000 -> 8000"},
        {48000, 48000, 0, -1, -1, "Linear, DOWN 48000 -> 48000"},
        {48000, 44100, 0, -1, -1, "Linear, DOWN 48000 -> 44100"},
        {32000, 8000, 0, -1, -1, "Linear, DOWN 32000 -> 8000"},
        {16001, 48004, 0, -1, -1, "Linear, UP 16001 -> 48004"},
        {16001, 48003, 3, 2, -1, "FIR filter, UP 16001 -> 48003"},
        {0, 48000, 0, -1, -1, "Linear, UP 0 -> 48000"},
        {48000, 0, 0, -1, -1, "Linear, DOWN 48000 -> 0"},
        {0, 0, 0, -1, -1, "Linear, DOWN 0 -> 0"},
        {4294967295u, 1, 0, -1, -1, "Linear, DOWN -1 -> 1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.desc);
        snd_pcm_rate_info_t info = make_info(c.in_rate, c.out_rate, 2);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        EXPECT_EQ(state().factor, c.factor);
        EXPECT_EQ(state().up_index, c.up_index);
        EXPECT_EQ(state().down_index, c.down_index);
        EXPECT_EQ(dump_text(), std::string("RSMPL Converter: ") + c.desc + "\n");
        // pitch = out/in in Q19, rounded to nearest; 0 for a zero input rate.
        const uint64_t want = c.in_rate == 0 ? 0 : ((uint64_t{c.in_rate} / 2 + (uint64_t{c.out_rate} << 19)) / c.in_rate);
        EXPECT_EQ(state().pitch, static_cast<uint32_t>(want));
    }
}

TEST_F(PluginOps, RefusedInitChangesNothing) {
    setup(16000, 48000, 2, 320, 960);
    const snd_pcm_rate_info_t bad[] = {
        make_info(8000, 16000, 5),
        make_info(8000, 16000, 1000),
        make_info(8000, 16000, 1, SND_PCM_FORMAT_S32_LE),
        make_info(8000, 16000, 1, SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S32_LE),
        make_info(8000, 16000, 1, SND_PCM_FORMAT_S16_BE, SND_PCM_FORMAT_S16_LE),
        make_info(8000, 16000, 1, SND_PCM_FORMAT_FLOAT_LE, SND_PCM_FORMAT_FLOAT_LE),
    };
    for (auto info : bad) {
        StateView before = state();
        EXPECT_EQ(ops_.init(obj_, &info), -EINVAL);
        EXPECT_EQ(std::memcmp(&before, &state(), sizeof(StateView)), 0);
    }
    EXPECT_TRUE(g_reports.empty());
}

// One context per channel; with none, every path converts nothing.
TEST_F(PluginOps, InitAllocatesOneContextPerChannelAndZeroChannelsConvertNothing) {
    for (unsigned channels : {0u, 1u, 4u, 3u}) {
        snd_pcm_rate_info_t info = make_info(16000, 48000, channels);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        EXPECT_EQ(state().channels, channels);
        EXPECT_NE(state().sample_buf, nullptr);
        for (unsigned c = 0; c < 4; ++c) EXPECT_EQ(state().rsmpl_ctx[c] != nullptr, c < channels) << c;
    }
    for (auto [in_rate, out_rate] : {std::pair{16000u, 48000u}, {48000u, 16000u}, {44100u, 48000u}, {48000u, 44100u}}) {
        SCOPED_TRACE(in_rate);
        snd_pcm_rate_info_t info = make_info(in_rate, out_rate, 0);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        ops_.reset(obj_);
        int16_t src[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        Guarded<int16_t> dst(0);
        ops_.convert_s16(obj_, dst.data(), 960, src, 960);
        EXPECT_TRUE(dst.guards_intact());
    }
}

// Init twice without free, then free: nothing of either init may stay
// allocated (LeakSanitizer watches the sanitizer build; glibc's counters
// this one). A repeated init also starts every channel afresh.
TEST_F(PluginOps, RepeatedInitWithoutFreeReleasesEverythingAndStartsAfresh) {
    snd_pcm_rate_info_t four = make_info(8000, 16000, 4), two = make_info(48000, 16000, 2);
    const size_t before = mallinfo2().uordblks;
    ASSERT_EQ(ops_.init(obj_, &four), 0);
    ASSERT_EQ(ops_.init(obj_, &two), 0);
    EXPECT_EQ(state().rsmpl_ctx[2], nullptr);
    EXPECT_EQ(state().rsmpl_ctx[3], nullptr);
    ops_.free(obj_);
    EXPECT_EQ(mallinfo2().uordblks, before);
    for (void *ctx : state().rsmpl_ctx) EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(state().sample_buf, nullptr);

    const auto src = random_samples(320 * 2, 7);
    setup(16000, 48000, 2, 320, 960);
    const auto first = convert(src, 960, 2);
    convert(random_samples(320 * 2, 8), 960, 2);  // leave history behind
    setup(16000, 48000, 2, 320, 960);
    EXPECT_EQ(convert(src, 960, 2), first);
}

// ---- Frame arithmetic and pitch refinement ------------------------------------

TEST_F(PluginOps, FrameCountsFollowTheRatio) {
    struct Case { unsigned in_rate, out_rate; uint64_t frames, input_frames, output_frames; };
    for (const Case &c : {Case{48000, 16000, 320, 960, 107}, Case{48000, 16000, 960, 2880, 320},
                          Case{48000, 16000, 0, 0, 0},
                          Case{8000, 16000, 3, 2, 6},  // 1.5 rounds up
                          Case{8000, 16000, 1, 1, 2},  // 0.5 rounds up
                          Case{0, 16000, 320, 0, 0}}) {  // pitch 0: divisions by zero give 0
        snd_pcm_rate_info_t info = make_info(c.in_rate, c.out_rate, 1);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        EXPECT_EQ(ops_.input_frames(obj_, c.frames), c.input_frames) << c.in_rate << " " << c.frames;
        EXPECT_EQ(ops_.output_frames(obj_, c.frames), c.output_frames) << c.in_rate << " " << c.frames;
    }
}

TEST_F(PluginOps, AdjustPitchMeetsThePeriods) {
    struct Case { snd_pcm_uframes_t in_period, out_period; uint32_t pitch, pitch_shift; };
    const Case cases[] = {
        {941, 1024, 570532, 4}, {160, 960, 3145728, 6},
        {960, 160, 87381, 6},  // below 1.0 the shift stays as the case before left it
        {882, 960, 570654, 4}, {960, 882, 481690, 4}, {960, 960, DIV, 4}, {1, 2, 2 * DIV, 5},
    };
    snd_pcm_rate_info_t info = make_info(44100, 48000, 1);
    ASSERT_EQ(ops_.init(obj_, &info), 0);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in_period);
        info.in.period_size = c.in_period;
        info.out.period_size = c.out_period;
        ASSERT_EQ(ops_.adjust_pitch(obj_, &info), 0);
        EXPECT_EQ(state().pitch, c.pitch);
        EXPECT_EQ(state().pitch_shift, c.pitch_shift);
        EXPECT_EQ(ops_.input_frames(obj_, c.out_period), c.in_period);
    }
    EXPECT_TRUE(g_reports.empty());
}

TEST_F(PluginOps, AdjustPitchReportsPeriodsItCannotMeet) {
    struct Case { snd_pcm_uframes_t in_period, out_period; const char *message; };
    const Case cases[] = {
        {20000, 10, "invalid pcm period_size 20000 -> 10"},
        {960, 0, "invalid pcm period_size 960 -> 0"},  // the count would stay 0 for ever
        {1, 0, "invalid pcm period_size 1 -> 0"},
        {100000, 1, "invalid pcm period_size 100000 -> 1"},  // steps over 100000
    };
    snd_pcm_rate_info_t info = make_info(44100, 48000, 1);
    ASSERT_EQ(ops_.init(obj_, &info), 0);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        g_reports.clear();
        info.in.period_size = c.in_period;
        info.out.period_size = c.out_period;
        state().pitch_shift = 9;
        EXPECT_EQ(ops_.adjust_pitch(obj_, &info), -EIO);
        ASSERT_EQ(g_reports.size(), 1u);
        expect_report(g_reports[0], "pcm_rsmpl_adjust_pitch", c.message);
        EXPECT_EQ(state().pitch_shift, 9u);
    }
    // The last pitch tried (by 100000 -> 1) stays and the converter remains usable.
    EXPECT_EQ(state().pitch, 6u);
    info.in.period_size = 882;
    info.out.period_size = 960;
    EXPECT_EQ(ops_.adjust_pitch(obj_, &info), 0);
}

// With no input period every count is 0 and meets it at once: pitch 0,
// success, no report, the shift as it was (pitch is below 1.0). Both paths
// then convert without harm.
TEST_F(PluginOps, AdjustPitchWithoutAnInputPeriodGivesPitchZero) {
    struct Case { unsigned in_rate, out_rate; snd_pcm_uframes_t out_period; };
    for (const Case &c : {Case{44100, 48000, 0}, Case{44100, 48000, 960}, Case{48000, 44100, 0},
                          Case{16000, 48000, 0}, Case{48000, 16000, 1}, Case{48000, 16000, ~snd_pcm_uframes_t{0}}}) {
        SCOPED_TRACE(std::to_string(c.in_rate) + " -> " + std::to_string(c.out_rate) + " out " +
                     std::to_string(c.out_period));
        g_reports.clear();
        snd_pcm_rate_info_t info = make_info(c.in_rate, c.out_rate, 2);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        info.in.period_size = 0;
        info.out.period_size = c.out_period;
        state().pitch_shift = 9;
        EXPECT_EQ(ops_.adjust_pitch(obj_, &info), 0);
        EXPECT_EQ(state().pitch, 0u);
        EXPECT_EQ(state().pitch_shift, 9u);
        EXPECT_TRUE(g_reports.empty());
        EXPECT_EQ(ops_.input_frames(obj_, 960), 0u);
        EXPECT_EQ(ops_.output_frames(obj_, 960), 0u);
        ops_.reset(obj_);
        state().pitch_shift = 4;  // what a host's earlier adjust_pitch would have left for the expander
        const auto src = random_samples(960 * 2, 41);
        std::vector<int16_t> dst(2880 * 2);
        ops_.convert_s16(obj_, dst.data(), 960, src.data(), 960);
    }
}

// ---- Linear expander and shrinker ----------------------------------------------

// Worked examples, one convert call per step (an empty step is a reset); the
// output buffer starts as 0x5a5a, so frames left unwritten show.
TEST_F(PluginOps, LinearConvertersWorkedExamples) {
    using V = std::vector<int16_t>;
    struct Step { V src; unsigned dst_frames; V want; };
    struct Case { unsigned in_rate, out_rate, channels, in_period, out_period; uint32_t pitch, shift; std::vector<Step> steps; };
    const V copy = random_samples(960 * 3, 11);
    const Step reset{};
    const Case cases[] = {
        // Expander: the last sample is remembered, and held once the input runs out; reset forgets it.
        {8000, 32000, 1, 1, 2, 2 * DIV, 5,
         {{{100, 200}, 6, {0, 50, 100, 150, 200, 200}}, {{}, 3, {200, 200, 200}}, {{}, 2, {200, 200}},
          reset, {{100, 200}, 4, {0, 50, 100, 150}}}},
        // The shift by 16 rounds toward minus infinity.
        {8000, 32000, 1, 1, 3, 3 * DIV, 5,
         {{{300, 600, 900}, 9, {0, 99, 199, 300, 399, 499, 600, 699, 799}}, reset,
          {{-300, -600, -900}, 4, {0, -100, -200, -300}}}},
        {8000, 32000, 2, 1, 2, 2 * DIV, 5,
         {{{100, -100, 200, -200}, 4, {0, 0, 50, -50, 100, -100, 150, -150}}, {{}, 1, {200, -200}}}},
        // Shrinker: no state between calls, input frame 0 always comes out as itself.
        {48000, 44100, 1, 2, 1, DIV / 2, 0 /* unused */,
         {{{10, 20, 30, 40, 50, 60}, 3, {10, 30, 50}}, {{70, 80}, 1, {70}}, {{}, 2, {0x5a5a, 0x5a5a}}}},
        {48000, 48000, 3, 960, 960, DIV, 4, {{copy, 960, copy}, {copy, 960, copy}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.in_rate) + " -> " + std::to_string(c.out_rate) + ", " +
                     std::to_string(c.channels) + " channels");
        setup(c.in_rate, c.out_rate, c.channels, c.in_period, c.out_period);
        ASSERT_EQ(state().pitch, c.pitch);
        if (c.pitch >= DIV) {
            ASSERT_EQ(state().pitch_shift, c.shift);
        }
        for (const Step &step : c.steps) {
            if (step.dst_frames == 0) {
                ops_.reset(obj_);
                continue;
            }
            EXPECT_EQ(convert(step.src, step.dst_frames, c.channels), step.want);
        }
    }
    EXPECT_TRUE(g_reports.empty());
}

TEST_F(PluginOps, ShrinkerStopsAtDstFramesAndReportsEachChannel) {
    setup(48000, 48000, 2, 960, 960);
    const auto src = random_samples(5 * 2, 12);
    const auto out = convert(src, 3, 2);  // five frames fall due, three fit
    EXPECT_EQ(out, std::vector<int16_t>(src.begin(), src.begin() + 6));
    ASSERT_EQ(g_reports.size(), 2u);
    for (const auto &r : g_reports) expect_report(r, "src_linear_shrink_s16", "dst_frames overflow");
}

// ---- FIR path against the resampler interface called directly ------------------

// Periods longer than the sample buffer allows are cut into the documented
// chunks; every channel keeps its own history across chunks and calls, and
// the sample buffer ends up with the last channel's last chunk output.
TEST_F(PluginOps, FirPathChunksLikeTheResamplerInterface) {
    struct Call { unsigned frames; std::vector<unsigned> chunks; };
    struct Case { unsigned in_rate, out_rate, channels; std::vector<Call> calls; };
    const Case cases[] = {
        {8000, 16000, 2, {{1024, {480, 544}}, {1024, {480, 544}}}},
        {16000, 48000, 1, {{1024, {320, 320, 384}}}},
        {8000, 48000, 3, {{241, {160, 81}}, {240, {240}}}},
        {48000, 8000, 4, {{1920, {960, 960}}}},
        {48000, 16000, 2, {{3000, {960, 960, 1080}}}},
        {48000, 24000, 1, {{1440, {1440}}}},
        {48000, 24000, 2, {{1441, {960, 481}}, {960, {960}}}},  // 481 is no multiple of 4: refused
        {16000, 48000, 1, {{5, {5}}, {0, {}}, {320, {320}}}},  // fewer than 6 frames: refused; none: nothing
        {16000, 48000, 2, {{37, {37}}, {45, {45}}}},  // stereo lengths off the 8-frame vector step
        {48000, 16000, 2, {{222, {222}}, {21, {21}}}},
    };
    uint32_t seed = 20;
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.in_rate) + " -> " + std::to_string(c.out_rate));
        const bool up = c.out_rate > c.in_rate;
        const unsigned factor = up ? c.out_rate / c.in_rate : c.in_rate / c.out_rate;
        setup(c.in_rate, c.out_rate, c.channels, c.in_rate / 50, c.out_rate / 50);
        FirReference ref(c.channels, up, factor);
        for (const Call &call : c.calls) {
            const auto src = random_samples(size_t{call.frames} * c.channels, ++seed);
            const unsigned out_frames = up ? call.frames * factor : call.frames / factor;
            const std::vector<int16_t> want = ref.run(src, call.chunks);
            EXPECT_EQ(convert(src, out_frames, c.channels), want) << call.frames;
            if (call.chunks.empty()) continue;
            // The sample buffer is left holding the last channel's output of the last chunk.
            const unsigned last = up ? call.chunks.back() * factor : call.chunks.back() / factor;
            for (unsigned k = 0; k < last; ++k)
                ASSERT_EQ(state().sample_buf[k], want[size_t{out_frames - last + k} * c.channels + c.channels - 1])
                    << call.frames << " frames, sample " << k;
        }
    }
    EXPECT_TRUE(g_reports.empty());
}

// A host that offers less room than the FIR path produces: the output is
// cut at dst_frames, the rest is dropped with one report, and the history
// still takes in the whole input.
TEST_F(PluginOps, FirOutputNeverPassesDstFrames) {
    const auto src = random_samples(1024 * 2, 33);
    setup(8000, 16000, 2, 1024, 2048);
    FirReference ref(2, true, 2);
    const auto want = ref.run(src, {480, 544});
    EXPECT_EQ(convert(src, 1000, 2), std::vector<int16_t>(want.begin(), want.begin() + 1000 * 2));
    ASSERT_EQ(g_reports.size(), 1u);
    expect_report(g_reports[0], "rsmplrate_Up", "dst_frames overflow");
    const auto next = random_samples(480 * 2, 34);
    EXPECT_EQ(convert(next, 960, 2), ref.run(next, {480}));

    g_reports.clear();
    const auto down_src = random_samples(1920 * 3, 35);
    setup(48000, 8000, 3, 1920, 320);
    const auto dwant = FirReference(3, false, 6).run(down_src, {960, 960});
    EXPECT_EQ(convert(down_src, 200, 3), std::vector<int16_t>(dwant.begin(), dwant.begin() + 200 * 3));
    ASSERT_EQ(g_reports.size(), 1u);
    expect_report(g_reports[0], "rsmplrate_Down", "dst_frames overflow");
    EXPECT_EQ(convert(down_src, 0, 3).size(), 0u);
}

// Periods in the exact ratio that the stage cannot take as they come: the
// output is each channel's one-stream conversion behind a constant delay of
// silence, below one output group of the stage when the period reaches the
// stage's minimum block, and otherwise the least the carry needs (up to
// min_block - 1 input frames). Reset and a new init start the same again.
TEST_F(PluginOps, PeriodsOffTheBlockRulesGiveTheOneStreamDelayed) {
    struct Case { unsigned in_rate, out_rate, channels, in_period, max_delay; };
    const Case cases[] = {
        {44100, 22050, 2, 882, 1}, {48000, 16000, 3, 999, 1}, {16000, 8000, 4, 330, 1}, {48000, 24000, 1, 1442, 1},
        {48000, 8000, 1, 12, 5},   // below the 36-frame block of the stage
        {48000, 16000, 2, 3, 5},   // below 18
        {48000, 24000, 1, 2, 3},   // below 8
        {16000, 48000, 2, 5, 15},  // below the 6-frame block going up
        {8000, 16000, 1, 1, 6},    {8000, 48000, 4, 3, 30},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.in_rate) + " -> " + std::to_string(c.out_rate) + " period " +
                     std::to_string(c.in_period));
        const bool up = c.out_rate > c.in_rate;
        const unsigned n = up ? c.out_rate / c.in_rate : c.in_rate / c.out_rate;
        const unsigned out_period = up ? c.in_period * n : c.in_period / n;
        const size_t periods = 3000 / c.in_period + 40;
        const auto in = random_samples(periods * c.in_period * c.channels, c.in_period);
        int refused = 0;
        const auto want = rsmpl_test::one_stream_reference(c.channels, up, n, in, &refused);
        ASSERT_EQ(refused, 0);

        const auto run = [&] {
            std::vector<int16_t> out;
            for (size_t p = 0; p < periods; ++p) {
                const auto first = in.begin() + static_cast<std::ptrdiff_t>(p * c.in_period * c.channels);
                const std::vector<int16_t> src(first, first + static_cast<std::ptrdiff_t>(c.in_period * c.channels));
                const auto got = convert(src, out_period, c.channels);
                out.insert(out.end(), got.begin(), got.end());
            }
            return out;
        };
        setup(c.in_rate, c.out_rate, c.channels, c.in_period, out_period);
        const auto out = run();
        ASSERT_EQ(out.size(), periods * out_period * c.channels);
        size_t delay = 0;
        const auto matches = [&](size_t d) {
            const size_t skip = d * c.channels;
            return std::all_of(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(skip),
                               [](int16_t v) { return v == 0; }) &&
                   std::equal(out.begin() + static_cast<std::ptrdiff_t>(skip), out.end(), want.begin());
        };
        while (delay <= c.max_delay && !matches(delay)) ++delay;
        ASSERT_LE(delay, c.max_delay) << "no constant delay matches";

        ops_.reset(obj_);
        EXPECT_EQ(run(), out) << "after reset";
        setup(c.in_rate, c.out_rate, c.channels, c.in_period, out_period);
        EXPECT_EQ(run(), out) << "after a new init";
    }
    EXPECT_TRUE(g_reports.empty());
}

// A host that never calls adjust_pitch and whose first call breaks the
// block rules is taken at that call's frame counts: the same stream as with
// the periods announced.
TEST_F(PluginOps, PeriodsFromTheFirstCallWithoutAdjustPitch) {
    const auto in = random_samples(882 * 30 * 2, 51);
    const auto run = [&] {
        std::vector<int16_t> out;
        for (size_t p = 0; p < 30; ++p) {
            const auto first = in.begin() + static_cast<std::ptrdiff_t>(p * 882 * 2);
            const auto got = convert(std::vector<int16_t>(first, first + 882 * 2), 441, 2);
            out.insert(out.end(), got.begin(), got.end());
        }
        return out;
    };
    setup(44100, 22050, 2, 882, 441);
    const auto announced = run();
    snd_pcm_rate_info_t info = make_info(44100, 22050, 2);
    ASSERT_EQ(ops_.init(obj_, &info), 0);
    ops_.reset(obj_);
    EXPECT_EQ(run(), announced);
    EXPECT_NE(std::count(announced.begin(), announced.end(), int16_t{0}), static_cast<std::ptrdiff_t>(announced.size()));

    // A first call that meets the block rules keeps the plain loop, whatever
    // dst_frames says: N frames out per frame in, cut at dst_frames.
    info = make_info(16000, 48000, 1);
    ASSERT_EQ(ops_.init(obj_, &info), 0);
    ops_.reset(obj_);
    const auto src = random_samples(320, 52);
    const auto want = FirReference(1, true, 3).run(src, {320});
    EXPECT_EQ(convert(src, 900, 1), std::vector<int16_t>(want.begin(), want.begin() + 900));
    ASSERT_EQ(g_reports.size(), 1u);
    expect_report(g_reports[0], "rsmplrate_Up", "dst_frames overflow");
}

// Periods off the ratio N in both directions (alsa-lib never rounds an up
// period, a host may): a tone comes out at the period ratio's pitch, clean,
// with exactly out_period frames per call.
TEST_F(PluginOps, PeriodsOffTheRatioFollowThePeriodRatio) {
    struct Case { unsigned in_rate, out_rate, channels, in_period, out_period; };
    for (const Case &c : {Case{16000, 48000, 2, 320, 961}, Case{8000, 16000, 1, 160, 318}, Case{8000, 48000, 3, 5, 31},
                          Case{48000, 24000, 2, 962, 480}, Case{48000, 8000, 4, 35, 6}}) {
        SCOPED_TRACE(std::to_string(c.in_rate) + " -> " + std::to_string(c.out_rate) + " periods " +
                     std::to_string(c.in_period) + " -> " + std::to_string(c.out_period));
        setup(c.in_rate, c.out_rate, c.channels, c.in_period, c.out_period);
        const size_t periods = 4 * c.in_rate / c.in_period;  // 4 s
        std::vector<int16_t> out;
        for (size_t p = 0; p < periods; ++p) {
            std::vector<int16_t> src(size_t{c.in_period} * c.channels);
            for (size_t k = 0; k < c.in_period; ++k)
                for (unsigned ch = 0; ch < c.channels; ++ch)
                    src[k * c.channels + ch] = static_cast<int16_t>(std::lround(
                        9000.0 * std::sin(2 * M_PI * (400.0 + 150.0 * ch) * double(p * c.in_period + k) / c.in_rate)));
            const auto got = convert(src, c.out_period, c.channels);
            out.insert(out.end(), got.begin(), got.end());
        }
        ASSERT_EQ(out.size(), periods * c.out_period * c.channels);
        for (unsigned ch = 0; ch < c.channels; ++ch) {
            const double w = 2 * M_PI * (400.0 + 150.0 * ch) / c.in_rate * c.in_period / c.out_period;
            const rsmpl_test::SineFit f = rsmpl_test::fit_sine(out, c.channels, ch, c.out_rate / 50, w);
            EXPECT_NEAR(f.amplitude, 9000.0, 250.0) << ch;
            EXPECT_LT(f.worst, 0.002 * 9000.0) << ch;
        }
    }
    EXPECT_TRUE(g_reports.empty());
}

TEST_F(PluginOps, ResetClearsEveryChannelsHistory) {
    const auto src = random_samples(480 * 4, 36);
    setup(24000, 48000, 4, 480, 960);
    const auto first = convert(src, 960, 4);
    EXPECT_NE(convert(src, 960, 4), first);  // history now shapes the start
    ops_.reset(obj_);
    EXPECT_EQ(convert(src, 960, 4), first);
}

}  // namespace
