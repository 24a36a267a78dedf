// The module's operations table, driven directly the way alsa-lib's rate PCM
// drives it: the built module is dlopen'ed, opened through its entry point,
// and every operation is called with host-shaped arguments. Covers what a
// real host never exercises (old table layout, bad counts, zero channels,
// the reports that reach snd_lib_error).
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>
#include <dlfcn.h>
#include <malloc.h>

#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "rsmpl/rsmpl.h"
#include "support.hpp"

namespace {

using rsmpl_test::Guarded;
using rsmpl_test::random_samples;

constexpr uint32_t DIV = 0x80000;

// The converter state as the module lays it out, to read fields that no
// operation reports (pitch_shift, the stage indices, the context pointers).
struct StateView {
    uint32_t factor;
    int32_t up_index;
    int32_t down_index;
    uint32_t pitch;
    uint32_t pitch_shift;
    uint32_t channels;
    void *rsmpl_ctx[4];
    int16_t *sample_buf;
    void *convert_fn;
    char desc[64];
};

struct Report {
    std::string file;
    int line;
    std::string function;
    int err;
    std::string message;
};
std::vector<Report> g_reports;

void capture_report(const char *file, int line, const char *function, int err, const char *fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    g_reports.push_back({file ? file : "", line, function ? function : "", err, text});
}

class Module {
public:
    Module() {
        handle_ = dlopen(RSMPL_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        if (handle_ != nullptr)
            open_ = reinterpret_cast<snd_pcm_rate_open_func_t>(dlsym(handle_, "_snd_pcm_rate_rsmplrate_open"));
    }
    ~Module() {
        if (handle_ != nullptr) dlclose(handle_);
    }
    snd_pcm_rate_open_func_t open() const { return open_; }

private:
    void *handle_ = nullptr;
    snd_pcm_rate_open_func_t open_ = nullptr;
};

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
        ASSERT_NE(module_.open(), nullptr) << dlerror();
        ASSERT_EQ(module_.open()(0x010002, &obj_, &ops_), 0);
        g_reports.clear();
        snd_lib_error_set_handler(capture_report);
    }
    void TearDown() override {
        snd_lib_error_set_handler(nullptr);
        if (obj_ != nullptr) {
            ops_.free(obj_);
            ops_.close(obj_);
        }
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
        EXPECT_TRUE(dst.guard_intact()) << "write past dst_frames";
        return std::vector<int16_t>(dst.data(), dst.data() + dst.size());
    }

    std::string dump_text() {
        snd_output_t *out = nullptr;
        EXPECT_EQ(snd_output_buffer_open(&out), 0);
        ops_.dump(obj_, out);
        char *text = nullptr;
        const size_t n = snd_output_buffer_string(out, &text);
        std::string s(text, n);
        snd_output_close(out);
        return s;
    }

    Module module_;
    void *obj_ = nullptr;
    snd_pcm_rate_ops_t ops_{};
};

// ---- Entry and table -------------------------------------------------------

TEST_F(PluginOps, OldHostVersionGetsExactlyNineSlots) {
    constexpr uint8_t kPattern = 0xA5;
    struct {
        snd_pcm_rate_ops_t ops;
        uint8_t guard[64];
    } host;
    std::memset(&host, kPattern, sizeof(host));
    void *obj = nullptr;
    ASSERT_EQ(module_.open()(0x010001, &obj, &host.ops), 0);
    ASSERT_NE(obj, nullptr);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&host);
    const size_t nine = offsetof(snd_pcm_rate_ops_t, version);
    ASSERT_EQ(nine, 72u);
    for (size_t i = nine; i < sizeof(host); ++i) ASSERT_EQ(bytes[i], kPattern) << "byte " << i << " written";
    EXPECT_EQ(host.ops.close, ops_.close);
    EXPECT_EQ(host.ops.init, ops_.init);
    EXPECT_EQ(host.ops.free, ops_.free);
    EXPECT_EQ(host.ops.reset, ops_.reset);
    EXPECT_EQ(host.ops.adjust_pitch, ops_.adjust_pitch);
    EXPECT_EQ(host.ops.convert, nullptr);
    EXPECT_EQ(host.ops.convert_s16, ops_.convert_s16);
    EXPECT_EQ(host.ops.input_frames, ops_.input_frames);
    EXPECT_EQ(host.ops.output_frames, ops_.output_frames);
    host.ops.close(obj);
}

TEST_F(PluginOps, EveryOtherVersionGetsTheWholeTableAndNoMore) {
    for (unsigned version : {0x010002u, 0x010003u, 0u, 0x020000u}) {
        SCOPED_TRACE(version);
        constexpr uint8_t kPattern = 0x5A;
        struct {
            snd_pcm_rate_ops_t ops;
            uint8_t guard[64];
        } host;
        std::memset(&host, kPattern, sizeof(host));
        void *obj = nullptr;
        ASSERT_EQ(module_.open()(version, &obj, &host.ops), 0);
        EXPECT_EQ(host.ops.version, 0x010002u);
        EXPECT_NE(host.ops.get_supported_rates, nullptr);
        EXPECT_NE(host.ops.dump, nullptr);
        EXPECT_NE(host.ops.init, nullptr);
        EXPECT_EQ(host.ops.convert, nullptr);
        const auto *bytes = reinterpret_cast<const uint8_t *>(&host);
        for (size_t i = offsetof(snd_pcm_rate_ops_t, get_supported_formats); i < sizeof(host); ++i)
            ASSERT_EQ(bytes[i], kPattern) << "byte " << i << " written";
        host.ops.close(obj);
    }
}

TEST_F(PluginOps, OpenedStateIsFactorOneWithoutResources) {
    EXPECT_EQ(state().factor, 1u);
    EXPECT_EQ(state().up_index, -1);
    EXPECT_EQ(state().down_index, -1);
    EXPECT_EQ(state().pitch, 0u);
    EXPECT_EQ(state().pitch_shift, 0u);
    EXPECT_EQ(state().channels, 0u);
    for (void *ctx : state().rsmpl_ctx) EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(state().sample_buf, nullptr);
    EXPECT_EQ(state().convert_fn, nullptr);
    EXPECT_EQ(dump_text(), "RSMPL Converter: \n");
}

TEST_F(PluginOps, ConvertBeforeInitWritesNothing) {
    const auto src = random_samples(64, 1);
    const auto out = convert(src, 64, 1);
    for (int16_t s : out) EXPECT_EQ(s, 0x5a5a);
}

TEST_F(PluginOps, SupportedRatesAreFixed) {
    unsigned lo = 0, hi = 0;
    EXPECT_EQ(ops_.get_supported_rates(obj_, &lo, &hi), 0);
    EXPECT_EQ(lo, 8000u);
    EXPECT_EQ(hi, 48000u);
    setup(44100, 48000, 2, 882, 960);
    lo = hi = 0;
    EXPECT_EQ(ops_.get_supported_rates(obj_, &lo, &hi), 0);
    EXPECT_EQ(lo, 8000u);
    EXPECT_EQ(hi, 48000u);
}

// ---- init: path choice, validation, resources --------------------------------

struct PathCase {
    unsigned in_rate, out_rate;
    uint32_t factor;
    int32_t up_index, down_index;
    const char *desc;
};

TEST_F(PluginOps, InitChoosesThePathFromTheRates) {
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

TEST_F(PluginOps, InitAllocatesOneContextPerChannel) {
    for (unsigned channels : {0u, 1u, 4u, 3u}) {
        snd_pcm_rate_info_t info = make_info(16000, 48000, channels);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        EXPECT_EQ(state().channels, channels);
        EXPECT_NE(state().sample_buf, nullptr);
        for (unsigned c = 0; c < 4; ++c) EXPECT_EQ(state().rsmpl_ctx[c] != nullptr, c < channels) << c;
    }
}

// Init twice without free, then free: nothing of either init may stay
// allocated (LeakSanitizer watches the sanitizer build; glibc's counters
// this one).
TEST_F(PluginOps, RepeatedInitWithoutFreeReleasesEverything) {
    snd_pcm_rate_info_t four = make_info(8000, 16000, 4);
    snd_pcm_rate_info_t two = make_info(48000, 16000, 2);
    const size_t before = mallinfo2().uordblks;
    ASSERT_EQ(ops_.init(obj_, &four), 0);
    ASSERT_EQ(ops_.init(obj_, &two), 0);
    EXPECT_EQ(state().rsmpl_ctx[2], nullptr);
    EXPECT_EQ(state().rsmpl_ctx[3], nullptr);
    ops_.free(obj_);
    const size_t after = mallinfo2().uordblks;
    EXPECT_EQ(after, before);
    for (void *ctx : state().rsmpl_ctx) EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(state().sample_buf, nullptr);
}

// A repeated init starts every channel afresh: output after re-init equals
// the output of a first init.
TEST_F(PluginOps, RepeatedInitStartsFromFreshHistory) {
    const auto src = random_samples(320 * 2, 7);
    setup(16000, 48000, 2, 320, 960);
    const auto first = convert(src, 960, 2);
    convert(random_samples(320 * 2, 8), 960, 2);  // leave history behind
    setup(16000, 48000, 2, 320, 960);
    EXPECT_EQ(convert(src, 960, 2), first);
}

TEST_F(PluginOps, ZeroChannelsConvertNothing) {
    const std::pair<unsigned, unsigned> rates[] = {{16000, 48000}, {48000, 16000}, {44100, 48000}, {48000, 44100}};
    for (auto [in_rate, out_rate] : rates) {
        SCOPED_TRACE(in_rate);
        snd_pcm_rate_info_t info = make_info(in_rate, out_rate, 0);
        ASSERT_EQ(ops_.init(obj_, &info), 0);
        for (void *ctx : state().rsmpl_ctx) EXPECT_EQ(ctx, nullptr);
        ops_.reset(obj_);
        int16_t src[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        Guarded<int16_t> dst(0);
        ops_.convert_s16(obj_, dst.data(), 960, src, 960);
        EXPECT_TRUE(dst.guard_intact());
    }
}

// ---- Frame arithmetic and pitch refinement ------------------------------------

TEST_F(PluginOps, FrameCountsFollowTheRatio) {
    snd_pcm_rate_info_t info = make_info(48000, 16000, 1);
    ASSERT_EQ(ops_.init(obj_, &info), 0);
    EXPECT_EQ(state().pitch, 174763u);
    EXPECT_EQ(ops_.input_frames(obj_, 320), 960u);
    EXPECT_EQ(ops_.output_frames(obj_, 960), 320u);
    EXPECT_EQ(ops_.input_frames(obj_, 0), 0u);
    EXPECT_EQ(ops_.output_frames(obj_, 0), 0u);

    // Rounding to nearest, halves up: at ratio 2, 3 input frames are 1.5 outputs.
    info = make_info(8000, 16000, 1);
    ASSERT_EQ(ops_.init(obj_, &info), 0);
    EXPECT_EQ(ops_.output_frames(obj_, 3), 6u);
    EXPECT_EQ(ops_.input_frames(obj_, 3), 2u);  // 1.5 rounds up
    EXPECT_EQ(ops_.input_frames(obj_, 1), 1u);  // 0.5 rounds up

    // pitch 0 (zero input rate): divisions by zero give 0.
    info = make_info(0, 16000, 1);
    ASSERT_EQ(ops_.init(obj_, &info), 0);
    EXPECT_EQ(state().pitch, 0u);
    EXPECT_EQ(ops_.input_frames(obj_, 320), 0u);
    EXPECT_EQ(ops_.output_frames(obj_, 320), 0u);
}

struct PitchCase {
    snd_pcm_uframes_t in_period, out_period;
    uint32_t pitch, pitch_shift;
};

TEST_F(PluginOps, AdjustPitchMeetsThePeriods) {
    const PitchCase cases[] = {
        {941, 1024, 570532, 4},
        {160, 960, 3145728, 6},
        {960, 160, 87381, 6},  // below 1.0 the shift stays as the case before left it
        {882, 960, 570654, 4},
        {960, 882, 481690, 4},
        {960, 960, DIV, 4},
        {1, 2, 2 * DIV, 5},
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

struct BadPeriods {
    snd_pcm_uframes_t in_period, out_period;
    const char *message;
};

TEST_F(PluginOps, AdjustPitchReportsPeriodsItCannotMeet) {
    const BadPeriods cases[] = {
        {100000, 1, "invalid pcm period_size 100000 -> 1"},  // steps over 100000
        {20000, 10, "invalid pcm period_size 20000 -> 10"},
        {960, 0, "invalid pcm period_size 960 -> 0"},  // the count would stay 0 for ever
        {0, 960, "invalid pcm period_size 0 -> 960"},
        {0, 0, "invalid pcm period_size 0 -> 0"},
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
        EXPECT_EQ(g_reports[0].message, c.message);
        EXPECT_EQ(g_reports[0].function, "pcm_rsmpl_adjust_pitch");
        EXPECT_EQ(g_reports[0].file, "src/rate_rsmpl.cpp");
        EXPECT_EQ(g_reports[0].err, 0);
        EXPECT_GT(g_reports[0].line, 0);
        EXPECT_EQ(state().pitch_shift, 9u);
    }
    // The last pitch tried stays and the converter remains usable.
    info.in.period_size = 100000;
    info.out.period_size = 1;
    EXPECT_EQ(ops_.adjust_pitch(obj_, &info), -EIO);
    EXPECT_EQ(state().pitch, 6u);
    info.in.period_size = 882;
    info.out.period_size = 960;
    EXPECT_EQ(ops_.adjust_pitch(obj_, &info), 0);
}

// ---- Linear expander and shrinker ----------------------------------------------

TEST_F(PluginOps, ExpanderInterpolatesAndHoldsTheLastSample) {
    setup(8000, 32000, 1, 1, 2);  // linear expander; periods 1 -> 2 give pitch 2.0, shift 5
    ASSERT_EQ(state().pitch, 2 * DIV);
    ASSERT_EQ(state().pitch_shift, 5u);
    EXPECT_EQ(convert({100, 200}, 6, 1), (std::vector<int16_t>{0, 50, 100, 150, 200, 200}));
    // No input: every frame is the remembered last sample, which stays.
    EXPECT_EQ(convert({}, 3, 1), (std::vector<int16_t>{200, 200, 200}));
    EXPECT_EQ(convert({}, 2, 1), (std::vector<int16_t>{200, 200}));
    // Reset forgets it.
    ops_.reset(obj_);
    EXPECT_EQ(convert({100, 200}, 4, 1), (std::vector<int16_t>{0, 50, 100, 150}));
}

TEST_F(PluginOps, ExpanderRoundsTowardMinusInfinity) {
    setup(8000, 32000, 1, 1, 3);
    ASSERT_EQ(state().pitch, 3 * DIV);
    ASSERT_EQ(state().pitch_shift, 5u);
    EXPECT_EQ(convert({300, 600, 900}, 9, 1), (std::vector<int16_t>{0, 99, 199, 300, 399, 499, 600, 699, 799}));
    ops_.reset(obj_);
    EXPECT_EQ(convert({-300, -600, -900}, 4, 1), (std::vector<int16_t>{0, -100, -200, -300}));
}

TEST_F(PluginOps, ExpanderKeepsChannelsApart) {
    setup(8000, 32000, 2, 1, 2);
    // Channel 0 ramps up, channel 1 down; each remembers its own last sample.
    EXPECT_EQ(convert({100, -100, 200, -200}, 4, 2), (std::vector<int16_t>{0, 0, 50, -50, 100, -100, 150, -150}));
    EXPECT_EQ(convert({}, 1, 2), (std::vector<int16_t>{200, -200}));
}

TEST_F(PluginOps, ShrinkerPicksAndBlends) {
    setup(48000, 44100, 1, 2, 1);  // linear shrinker; periods 2 -> 1 give pitch 0.5
    ASSERT_EQ(state().pitch, DIV / 2);
    EXPECT_EQ(convert({10, 20, 30, 40, 50, 60}, 3, 1), (std::vector<int16_t>{10, 30, 50}));
    // No state between calls: input frame 0 always comes out as itself.
    EXPECT_EQ(convert({70, 80}, 1, 1), (std::vector<int16_t>{70}));
}

TEST_F(PluginOps, EqualRatesCopyTheInput) {
    setup(48000, 48000, 3, 960, 960);
    ASSERT_EQ(state().pitch, DIV);
    const auto src = random_samples(960 * 3, 11);
    EXPECT_EQ(convert(src, 960, 3), src);
    EXPECT_EQ(convert(src, 960, 3), src);
}

TEST_F(PluginOps, ShrinkerStopsAtDstFramesAndReportsEachChannel) {
    setup(48000, 48000, 2, 960, 960);
    const auto src = random_samples(5 * 2, 12);
    const auto out = convert(src, 3, 2);  // five frames fall due, three fit
    EXPECT_EQ(out, std::vector<int16_t>(src.begin(), src.begin() + 6));
    ASSERT_EQ(g_reports.size(), 2u);
    for (const auto &r : g_reports) {
        EXPECT_EQ(r.message, "dst_frames overflow");
        EXPECT_EQ(r.function, "src_linear_shrink_s16");
        EXPECT_EQ(r.file, "src/rate_rsmpl.cpp");
        EXPECT_EQ(r.err, 0);
    }
}

TEST_F(PluginOps, ShrinkerWithNoInputWritesNothing) {
    setup(48000, 44100, 1, 960, 882);
    Guarded<int16_t> dst(0);
    int16_t src[1] = {5};
    ops_.convert_s16(obj_, dst.data(), 882, src, 0);
    EXPECT_TRUE(dst.guard_intact());
    EXPECT_TRUE(g_reports.empty());
}

// ---- FIR path against the resampler interface called directly ------------------

// The FIR path through the RSMPL interface, one context per channel, cut into
// the given chunks: what the module must produce.
class Reference {
public:
    explicit Reference(unsigned channels) : ctx_(channels, std::vector<uint8_t>(RSMPL_GetContextSize())) {
        for (auto &c : ctx_) RSMPL_InitContext(reinterpret_cast<RSMPL_Ctx *>(c.data()));
    }
    std::vector<int16_t> up(const std::vector<int16_t> &src, unsigned factor, uint32_t index,
                            std::initializer_list<unsigned> chunks) {
        return run(src, factor, index, chunks, true);
    }
    std::vector<int16_t> down(const std::vector<int16_t> &src, unsigned factor, uint32_t index,
                              std::initializer_list<unsigned> chunks) {
        return run(src, factor, index, chunks, false);
    }

private:
    std::vector<int16_t> run(const std::vector<int16_t> &src, unsigned factor, uint32_t index,
                             std::initializer_list<unsigned> chunks, bool up) {
        const size_t channels = ctx_.size();
        std::vector<int16_t> out;
        size_t frame = 0;
        for (unsigned chunk : chunks) {
            const size_t produced = up ? size_t{chunk} * factor : chunk / factor;
            std::vector<int16_t> block(produced * channels);
            for (size_t c = 0; c < channels; ++c) {
                std::vector<int16_t> in(chunk), res(std::max<size_t>(produced, chunk) + 16);
                for (size_t k = 0; k < chunk; ++k) in[k] = src[(frame + k) * channels + c];
                auto *cx = reinterpret_cast<RSMPL_Ctx *>(ctx_[c].data());
                const uint32_t status = up ? RSMPL_Up(cx, in.data(), res.data(), static_cast<int32_t>(chunk), index)
                                           : RSMPL_Down(cx, in.data(), res.data(), static_cast<int32_t>(chunk), index);
                if (status != RSMPL_OK) std::fill(res.begin(), res.end(), int16_t{0});  // refused: silence
                for (size_t k = 0; k < produced; ++k) block[k * channels + c] = res[k];
            }
            out.insert(out.end(), block.begin(), block.end());
            frame += chunk;
        }
        return out;
    }
    std::vector<std::vector<uint8_t>> ctx_;
};

TEST_F(PluginOps, UpByTwoSplitsLargeBlocksIntoChunks) {
    const auto src = random_samples(1024 * 2, 21);
    setup(8000, 16000, 2, 1024, 2048);
    Reference ref(2);
    EXPECT_EQ(convert(src, 2048, 2), ref.up(src, 2, 1, {480, 544}));
    const auto more = random_samples(1024 * 2, 22);
    EXPECT_EQ(convert(more, 2048, 2), ref.up(more, 2, 1, {480, 544}));
}

TEST_F(PluginOps, UpByThreeAndSixChunks) {
    {
        const auto src = random_samples(1024, 23);
        setup(16000, 48000, 1, 1024, 3072);
        Reference ref(1);
        EXPECT_EQ(convert(src, 3072, 1), ref.up(src, 3, 2, {320, 320, 384}));
    }
    {
        const auto src = random_samples(241 * 3, 24);
        setup(8000, 48000, 3, 241, 1446);
        Reference ref(3);
        EXPECT_EQ(convert(src, 1446, 3), ref.up(src, 6, 4, {160, 81}));
        const auto next = random_samples(240 * 3, 25);
        EXPECT_EQ(convert(next, 1440, 3), ref.up(next, 6, 4, {240}));
    }
}

TEST_F(PluginOps, DownChunksAndEveryChannelStaysItsOwn) {
    {
        const auto src = random_samples(1920 * 4, 26);
        setup(48000, 8000, 4, 1920, 320);
        Reference ref(4);
        EXPECT_EQ(convert(src, 320, 4), ref.down(src, 6, 4, {960, 960}));
    }
    {
        const auto src = random_samples(3000 * 2, 27);
        setup(48000, 16000, 2, 3000, 1000);
        Reference ref(2);
        EXPECT_EQ(convert(src, 1000, 2), ref.down(src, 3, 2, {960, 960, 1080}));
    }
    {
        const auto src = random_samples(1440, 28);
        setup(48000, 24000, 1, 1440, 720);
        Reference ref(1);
        EXPECT_EQ(convert(src, 720, 1), ref.down(src, 2, 1, {1440}));
    }
}

// A chunk the stage refuses comes out as silence and leaves the history alone:
// the next call continues as if that chunk had never been there.
TEST_F(PluginOps, RefusedChunkIsSilenceAndKeepsHistory) {
    const auto src = random_samples(1441 * 2, 29);
    setup(48000, 24000, 2, 1441, 720);
    Reference ref(2);
    const auto out = convert(src, 720, 2);
    auto want = ref.down(src, 2, 1, {960, 481});  // 481 is no multiple of 4: refused
    EXPECT_EQ(out, want);
    for (size_t i = 480 * 2; i < out.size(); ++i) EXPECT_EQ(out[i], 0) << i;
    const auto next = random_samples(960 * 2, 30);
    EXPECT_EQ(convert(next, 480, 2), ref.down(next, 2, 1, {960}));

    // Up by 3 with fewer than 6 frames: silence, and nothing written past it.
    setup(16000, 48000, 1, 320, 960);
    const auto tiny = random_samples(5, 31);
    EXPECT_EQ(convert(tiny, 15, 1), std::vector<int16_t>(15, 0));
    EXPECT_TRUE(g_reports.empty());
}

TEST_F(PluginOps, NoInputLeavesTheHistoryAlone) {
    const auto src = random_samples(320, 32);
    setup(16000, 48000, 1, 320, 960);
    Reference ref(1);
    Guarded<int16_t> dst(0);
    ops_.convert_s16(obj_, dst.data(), 0, src.data(), 0);
    EXPECT_TRUE(dst.guard_intact());
    EXPECT_EQ(convert(src, 960, 1), ref.up(src, 3, 2, {320}));
}

// A host that offers less room than the FIR path produces: the output is
// cut at dst_frames, the rest is dropped with one report, and the history
// still takes in the whole input.
TEST_F(PluginOps, FirOutputNeverPassesDstFrames) {
    const auto src = random_samples(1024 * 2, 33);
    setup(8000, 16000, 2, 1024, 2048);
    Reference ref(2);
    const auto want = ref.up(src, 2, 1, {480, 544});
    const auto out = convert(src, 1000, 2);
    EXPECT_EQ(out, std::vector<int16_t>(want.begin(), want.begin() + 1000 * 2));
    ASSERT_EQ(g_reports.size(), 1u);
    EXPECT_EQ(g_reports[0].message, "dst_frames overflow");
    EXPECT_EQ(g_reports[0].function, "rsmplrate_Up");
    const auto next = random_samples(480 * 2, 34);
    EXPECT_EQ(convert(next, 960, 2), ref.up(next, 2, 1, {480}));

    g_reports.clear();
    const auto down_src = random_samples(1920 * 3, 35);
    setup(48000, 8000, 3, 1920, 320);
    Reference dref(3);
    const auto dwant = dref.down(down_src, 6, 4, {960, 960});
    EXPECT_EQ(convert(down_src, 200, 3), std::vector<int16_t>(dwant.begin(), dwant.begin() + 200 * 3));
    ASSERT_EQ(g_reports.size(), 1u);
    EXPECT_EQ(g_reports[0].function, "rsmplrate_Down");
    EXPECT_EQ(convert(down_src, 0, 3).size(), 0u);
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
