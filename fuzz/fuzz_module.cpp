// The alsa-lib module driven through its operations table with hostile
// set-ups: the built module is dlopen'ed like alsa-lib does, opened with any
// version number, and its operations are called in any order a careless host
// might use (convert before init or after free, init again without free)
// with zero and absurd rates, zero, tiny, exact-ratio and nearly-exact period
// sizes, calls at, near and far from those periods, 0 to 8 channels, foreign
// formats, and dst_frames smaller or larger than needed.
// Checked: the table is written only as far as the version allows; init and
// adjust_pitch answer as documented; convert stays inside the frames it is
// given (guards after every buffer), never changes its input, and nothing
// leaks (LeakSanitizer, per input).
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "harness/alsa_harness.hpp"

namespace {

using rsmpl_fuzz::Guarded;
using rsmpl_fuzz::Reader;

void quiet(const char *, int, const char *, int, const char *, ...) {}

// Loaded once and never unloaded: reports at exit still resolve the module's frames.
snd_pcm_rate_open_func_t entry(const char *converter) {
    static auto *module = [] {
        snd_lib_error_set_handler(quiet);
        auto *m = new rsmpl_harness::Module;
        if (!m->ok()) rsmpl_fuzz::fail(__FILE__, __LINE__, m->error().c_str());
        return m;
    }();
    auto fn = module->entry(converter);
    if (fn == nullptr) rsmpl_fuzz::fail(__FILE__, __LINE__, module->error().c_str());
    return fn;
}

snd_pcm_rate_open_func_t module_open() {
    static const snd_pcm_rate_open_func_t open = entry("rsmplrate");
    return open;
}

uint32_t pick_version(Reader &r) {
    static constexpr uint32_t kVersions[] = {0x010001, 0x010002, 0x010003, 0, 0x010000, 0x020000, 0xFFFFFFFF};
    return (r.u8() & 3) == 0 ? r.u32() : kVersions[r.u8() % (sizeof kVersions / sizeof kVersions[0])];
}

uint32_t pick_rate(Reader &r) {
    static constexpr uint32_t kRates[] = {0, 1, 2, 8000, 11025, 16000, 22050, 24000, 32000, 44100, 48000,
                                          96000, 192000, 8000 * 8192, 0x80000000u, 0xFFFFFFFFu};
    switch (r.u8() % 4) {
        case 0: return r.u32();
        case 1: return r.range(0, 200000);
        default: return kRates[r.u8() % (sizeof kRates / sizeof kRates[0])];
    }
}

snd_pcm_format_t pick_format(Reader &r) {
    static constexpr snd_pcm_format_t kFormats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S16_LE,
                                                    SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S16_BE,
                                                    SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_U8,
                                                    SND_PCM_FORMAT_FLOAT_LE, SND_PCM_FORMAT_UNKNOWN};
    // Any value the enumeration can hold (-1 .. 63 for its range of -1 .. 52).
    return (r.u8() & 15) == 0 ? static_cast<snd_pcm_format_t>(static_cast<int>(r.range(0, 64)) - 1)
                              : kFormats[r.u8() % (sizeof kFormats / sizeof kFormats[0])];
}

snd_pcm_uframes_t pick_period(Reader &r) {
    static constexpr snd_pcm_uframes_t kPeriods[] = {0, 1, 2, 3, 4, 6, 36, 160, 320, 441, 480, 941, 960,
                                                     1024, 1440, 1441, 2048, 4096, 65536, 0xFFFFFFFFu,
                                                     ~snd_pcm_uframes_t{0}};
    switch (r.u8() % 4) {
        case 0: return r.u64();
        case 1: return r.range(0, 70000);
        default: return kPeriods[r.u8() % (sizeof kPeriods / sizeof kPeriods[0])];
    }
}

// What the host's table looks like, with room for a newer layout after it.
struct HostTable {
    snd_pcm_rate_ops_t ops;
    uint8_t beyond[32];
};

struct Instance {
    void *obj = nullptr;
    HostTable host;
    bool full = false;            // the table has version, get_supported_rates and dump
    bool inited = false;          // a successful init since open
    bool allocated = false;       // contexts and buffer exist (init not followed by free)
    uint32_t channels = 0;        // of the last successful init
    snd_pcm_rate_info_t info{};   // last info handed to init / adjust_pitch
};

void open_instance(Instance &in, Reader &r, snd_pcm_rate_open_func_t open) {
    const uint32_t version = pick_version(r);
    std::memset(&in.host, 0xA5, sizeof in.host);
    FUZZ_CHECK(open(version, &in.obj, &in.host.ops) == 0);
    FUZZ_CHECK(in.obj != nullptr);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&in.host);
    // 0x010001 knows nine slots; every other version gets the 0x010002 table.
    const size_t end = version == 0x010001 ? offsetof(snd_pcm_rate_ops_t, version)
                                           : offsetof(snd_pcm_rate_ops_t, get_supported_formats);
    for (size_t i = end; i < sizeof in.host; ++i) FUZZ_CHECK(bytes[i] == 0xA5);
    in.full = version != 0x010001;
    if (in.full) FUZZ_CHECK(in.host.ops.version == 0x010002);
    FUZZ_CHECK(in.host.ops.convert == nullptr && in.host.ops.convert_s16 != nullptr);
}

void init(Instance &in, Reader &r) {
    snd_pcm_rate_info_t &info = in.info;
    info.in.rate = pick_rate(r);
    info.out.rate = (r.u8() & 1) ? pick_rate(r) : info.in.rate * (1 + r.range(0, 6));
    if (r.flag()) std::swap(info.in.rate, info.out.rate);
    info.in.format = pick_format(r);
    info.out.format = pick_format(r);
    info.channels = (r.u8() & 15) == 0 ? r.u32() : r.range(0, 8);
    const bool valid = info.channels <= 4 && info.in.format == SND_PCM_FORMAT_S16_LE &&
                       info.out.format == SND_PCM_FORMAT_S16_LE;
    const int err = in.host.ops.init(in.obj, &info);
    FUZZ_CHECK(err == (valid ? 0 : -EINVAL));
    if (err == 0) {
        in.inited = in.allocated = true;
        in.channels = info.channels;
    }
}

// The output period of every kind: unrelated, in a ratio of small numbers
// (exact for the FIR path), or off such a ratio by a frame or two as alsa-lib
// rounds it.
snd_pcm_uframes_t pick_out_period(Reader &r, snd_pcm_uframes_t in_period) {
    switch (r.u8() % 3) {
        case 0: return pick_period(r);
        case 1: return in_period * (1 + r.range(0, 6)) / (1 + r.range(0, 6));
        default: {
            const snd_pcm_uframes_t ratio = in_period * (1 + r.range(0, 6)) / (1 + r.range(0, 6));
            return ratio + r.range(0, 4) - 2;
        }
    }
}

// `specified`: the converter whose period-0 answers are fixed (rsmplrate);
// rsmplrate_best refuses any period it has no path for.
void adjust_pitch(Instance &in, Reader &r, bool specified) {
    snd_pcm_rate_info_t &info = in.info;
    info.in.period_size = (r.u8() & 3) == 0 ? r.range(0, 40) : pick_period(r);  // tiny periods too
    info.out.period_size = pick_out_period(r, info.in.period_size);
    const int err = in.host.ops.adjust_pitch(in.obj, &info);
    FUZZ_CHECK(err == 0 || err == -EIO);
    // No input period: pitch 0 meets it at once. No output period for a real input period: refused.
    if (specified && info.in.period_size == 0) FUZZ_CHECK(err == 0);
    if (info.in.period_size != 0 && info.out.period_size == 0) FUZZ_CHECK(err == -EIO);
    // Success means the output period maps back to exactly the input period.
    if (err == 0) FUZZ_CHECK(in.host.ops.input_frames(in.obj, info.out.period_size) == info.in.period_size);
}

void convert(Instance &in, Reader &r) {
    // The host passes its period sizes; a hostile one anything up to a few
    // thousand frames, and dst_frames that may be short of what is due.
    uint32_t src_frames, dst_frames;
    const uint8_t kind = r.u8();
    const bool periods = in.info.in.period_size <= 8192 && in.info.out.period_size <= 8192;
    if (kind % 4 == 0 && periods) {
        src_frames = static_cast<uint32_t>(in.info.in.period_size);
        dst_frames = static_cast<uint32_t>(in.info.out.period_size);
    } else if (kind % 8 == 3 && periods) {  // a frame or two off the periods
        src_frames = static_cast<uint32_t>(in.info.in.period_size + r.range(0, 4)) - 2u;
        dst_frames = static_cast<uint32_t>(in.info.out.period_size + r.range(0, 4)) - 2u;
        src_frames = src_frames > 8192 ? 0 : src_frames;
        dst_frames = dst_frames > 8192 ? 0 : dst_frames;
    } else if (kind % 8 == 7) {  // below every block rule
        src_frames = r.range(0, 40);
        dst_frames = r.range(0, 250);
    } else {
        src_frames = r.range(0, 3000);
        dst_frames = kind % 4 == 1 ? static_cast<uint32_t>(
                                         in.host.ops.output_frames(in.obj, src_frames) % 20000)
                                   : r.range(0, 6000);
        if (kind & 0x10) dst_frames = dst_frames / (2 + (kind >> 5));  // short of what falls due
    }
    const size_t ch = in.channels;
    Guarded<int16_t> src(src_frames * ch), dst(dst_frames * ch);
    r.samples(src.data(), src.size());
    const auto src_before = src.bytes();
    in.host.ops.convert_s16(in.obj, dst.data(), dst_frames, src.data(), src_frames);
    FUZZ_CHECK(src.guards_intact() && dst.guards_intact());
    FUZZ_CHECK(src.bytes() == src_before);
    if (!in.allocated || ch == 0) FUZZ_CHECK(dst.untouched_from(0));  // nothing to convert with
}

void frames(Instance &in, Reader &r) {
    const snd_pcm_uframes_t n = (r.u8() & 1) ? r.u64() : r.range(0, 100000);
    const snd_pcm_uframes_t a = in.host.ops.input_frames(in.obj, n);
    const snd_pcm_uframes_t b = in.host.ops.output_frames(in.obj, n);
    if (n == 0) FUZZ_CHECK(a == 0 && b == 0);
}

void extras(Instance &in) {
    if (!in.full) return;  // an old host has no such slots
    unsigned lo = 1, hi = 1;
    FUZZ_CHECK(in.host.ops.get_supported_rates(in.obj, &lo, &hi) == 0);
    FUZZ_CHECK(lo == 8000 && hi == 48000);
    snd_output_t *out = nullptr;
    FUZZ_CHECK(snd_output_buffer_open(&out) == 0);
    in.host.ops.dump(in.obj, out);
    char *text = nullptr;
    const size_t n = snd_output_buffer_string(out, &text);
    const std::string s(text, n);
    snd_output_close(out);
    FUZZ_CHECK(s.rfind("RSMPL Converter: ", 0) == 0 && s.back() == '\n');
}

}  // namespace

// ---- rsmplrate_best, the second converter of the module: the same input
// drives it through the same operations. It takes 1 to 8 channels, and may
// refuse rates or periods it has no path for.
namespace {

void best_init(Instance &in, Reader &r) {
    snd_pcm_rate_info_t &info = in.info;
    info.in.rate = pick_rate(r);
    info.out.rate = (r.u8() & 1) ? pick_rate(r) : info.in.rate * (1 + r.range(0, 6));
    if (r.flag()) std::swap(info.in.rate, info.out.rate);
    info.in.format = pick_format(r);
    info.out.format = pick_format(r);
    info.channels = (r.u8() & 15) == 0 ? r.u32() : r.range(0, 9);
    const bool valid = info.channels >= 1 && info.channels <= 8 && info.in.format == SND_PCM_FORMAT_S16_LE &&
                       info.out.format == SND_PCM_FORMAT_S16_LE;
    const int err = in.host.ops.init(in.obj, &info);
    FUZZ_CHECK(err == 0 || err == -EINVAL);
    if (!valid) FUZZ_CHECK(err == -EINVAL);
    // Equal rates and periods always have a path: the copy.
    if (valid && info.in.rate == info.out.rate && info.in.rate != 0 &&
        info.in.period_size == info.out.period_size && info.in.period_size <= UINT32_MAX)
        FUZZ_CHECK(err == 0);
    if (err == 0) {
        in.inited = in.allocated = true;
        in.channels = info.channels;
    }
}

// One converter through a sequence of host operations read from the input.
// `specified`: rsmplrate, whose set-ups and period-0 answers are fixed.
void run(const uint8_t *data, size_t size, bool specified) {
    Reader r(data, size);
    Instance in;
    static const snd_pcm_rate_open_func_t best = entry("rsmplrate_best");
    open_instance(in, r, specified ? module_open() : best);
    for (int op = 0; op < 40 && !r.empty(); ++op) {
        switch (r.u8() % 10) {
            case 0:
                if (specified)
                    init(in, r);
                else
                    best_init(in, r);
                break;
            case 1: adjust_pitch(in, r, specified); break;
            case 2: in.host.ops.reset(in.obj); break;
            case 3:
                in.host.ops.free(in.obj);
                in.allocated = false;
                break;
            case 4: frames(in, r); break;
            case 5: extras(in); break;
            default: convert(in, r); break;
        }
    }
    // The host frees before it closes; close alone releases only the state.
    in.host.ops.free(in.obj);
    in.host.ops.close(in.obj);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    run(data, size, false);
    run(data, size, true);
    return 0;
}
