// rsmpl-convert: converts an audio file to another sample rate through
// alsa-lib's own rate PCM with a rate converter module (rsmplrate unless
// --converter names another), so that the file goes through exactly the path
// a playing application takes. The rate PCM plays into a file PCM in front of
// the null PCM, which needs no sound card; the file PCM writes the converted
// stream into an unlinked temporary file, read back and written out through
// libsndfile.
#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "rsmpl/engine.hpp"

namespace {

constexpr unsigned kRateMin = 8000;
constexpr unsigned kRateMax = 48000;
constexpr unsigned kRsmplMaxChannels = 4;
constexpr unsigned kPeriodUs = 20000;  // 20 ms: exact period ratios, e.g. 320 -> 960, 882 -> 960
constexpr unsigned kPeriods = 4;
constexpr double kProgressAfterSeconds = 30.0;  // audio longer than this shows progress

const char *g_prog = "rsmpl-convert";

// What fail() releases on its way out (alsa-lib's and libsndfile's handles).
struct Resources {
    SNDFILE *in = nullptr;
    SNDFILE *out = nullptr;
    snd_pcm_t *pcm = nullptr;
    snd_config_t *conf = nullptr;
    int fd = -1;
} g_res;

void release() {
    if (g_res.in != nullptr) sf_close(g_res.in);
    if (g_res.out != nullptr) sf_close(g_res.out);
    if (g_res.pcm != nullptr) snd_pcm_close(g_res.pcm);
    if (g_res.conf != nullptr) snd_config_delete(g_res.conf);
    if (g_res.fd >= 0) close(g_res.fd);
    g_res = Resources{};
    snd_config_update_free_global();
}

struct Options {
    unsigned rate = 0;
    std::string converter = "rsmplrate";
    std::string input;
    std::string output;
    bool quiet = false;
    bool verbose = false;
};

[[noreturn]] void fail(const std::string &message) {
    std::fprintf(stderr, "%s: %s\n", g_prog, message.c_str());
    release();
    std::exit(1);
}

void usage(FILE *to) {
    std::fprintf(to,
                 "usage: %s -r RATE [--converter NAME] [-q] [-v] INPUT OUTPUT\n"
                 "\n"
                 "Converts INPUT (WAV, FLAC, AIFF, ... with 8- or 16-bit samples, or A-law/u-law)\n"
                 "to RATE Hz through alsa-lib's rate plug-in and writes OUTPUT as 16-bit PCM in\n"
                 "the format its extension names. Both rates lie in %u..%u Hz.\n"
                 "\n"
                 "  -r, --rate RATE        output sample rate in Hz\n"
                 "      --converter NAME   alsa-lib rate converter (default rsmplrate; also\n"
                 "                         linear, speexrate, samplerate, ... when installed)\n"
                 "  -q, --quiet            no progress display\n"
                 "  -v, --verbose          also name the kernel engine (RSMPL_ENGINE forces one)\n"
                 "  -h, --help             this text\n"
                 "\n"
                 "alsa-lib loads converter NAME from libasound_module_rate_NAME.so in its plug-in\n"
                 "directory, or in $ALSA_PLUGIN_DIR when that is set.\n",
                 g_prog, kRateMin, kRateMax);
}

[[noreturn]] void usage_error(const std::string &message) {
    std::fprintf(stderr, "%s: %s\n", g_prog, message.c_str());
    usage(stderr);
    std::exit(2);
}

bool parse_unsigned(const char *text, unsigned *value) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char *end = nullptr;
    const unsigned long v = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || v > 1000000000ul) return false;
    *value = static_cast<unsigned>(v);
    return true;
}

Options parse_args(int argc, char **argv) {
    Options o;
    std::vector<std::string> files;
    bool have_rate = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](const char *name) -> const char * {
            if (i + 1 >= argc) usage_error(std::string(name) + " needs a value");
            return argv[++i];
        };
        if (a == "-h" || a == "--help") {
            usage(stdout);
            std::exit(0);
        } else if (a == "-r" || a == "--rate") {
            const char *v = value("-r");
            if (!parse_unsigned(v, &o.rate)) usage_error(std::string("invalid rate '") + v + "'");
            have_rate = true;
        } else if (a.rfind("--rate=", 0) == 0) {
            if (!parse_unsigned(a.c_str() + 7, &o.rate)) usage_error("invalid rate '" + a.substr(7) + "'");
            have_rate = true;
        } else if (a == "--converter") {
            o.converter = value("--converter");
        } else if (a.rfind("--converter=", 0) == 0) {
            o.converter = a.substr(12);
        } else if (a == "-q" || a == "--quiet") {
            o.quiet = true;
        } else if (a == "-v" || a == "--verbose") {
            o.verbose = true;
        } else if (a.size() > 1 && a[0] == '-') {
            usage_error("unknown option '" + a + "'");
        } else {
            files.push_back(a);
        }
    }
    if (!have_rate) usage_error("no output rate given (-r RATE)");
    if (files.size() != 2) usage_error("expected INPUT and OUTPUT files");
    o.input = files[0];
    o.output = files[1];
    if (o.rate < kRateMin || o.rate > kRateMax)
        usage_error("output rate " + std::to_string(o.rate) + " Hz is outside " + std::to_string(kRateMin) + ".." +
                    std::to_string(kRateMax) + " Hz");
    // The name goes into an alsa-lib configuration and a library file name.
    if (o.converter.empty() || o.converter.size() > 40 ||
        o.converter.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") !=
            std::string::npos)
        usage_error("invalid converter name '" + o.converter + "'");
    return o;
}

std::string subtype_name(int format) {
    SF_FORMAT_INFO info{};
    info.format = format & SF_FORMAT_SUBMASK;
    if (sf_command(nullptr, SFC_GET_FORMAT_INFO, &info, sizeof(info)) == 0 && info.name != nullptr) return info.name;
    char text[32];
    std::snprintf(text, sizeof(text), "0x%04x", info.format);
    return text;
}

// Samples that 16 bits hold exactly; anything wider would be cut silently.
bool subtype_supported(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
        return true;
    default:
        return false;
    }
}

// The container that libsndfile associates with the output file's extension.
int output_major_format(const std::string &path) {
    std::string ext = std::filesystem::path(path).extension().string();
    if (!ext.empty()) ext.erase(0, 1);
    for (auto &ch : ext) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (ext == "aif") ext = "aiff";
    int count = 0;
    sf_command(nullptr, SFC_GET_FORMAT_MAJOR_COUNT, &count, sizeof(count));
    for (int k = 0; k < count; ++k) {
        SF_FORMAT_INFO info{};
        info.format = k;
        if (sf_command(nullptr, SFC_GET_FORMAT_MAJOR, &info, sizeof(info)) != 0) continue;
        if (info.extension != nullptr && ext == info.extension) return info.format;
    }
    return 0;
}

// The converter's own lines of a rate PCM dump: between the PCM's title line
// and the protocol version (or the setup).
std::string converter_line(snd_pcm_t *pcm) {
    snd_output_t *out = nullptr;
    if (snd_output_buffer_open(&out) < 0) return {};
    snd_pcm_dump(pcm, out);
    char *text = nullptr;
    const size_t size = snd_output_buffer_string(out, &text);
    const std::string dump(text, size);
    snd_output_close(out);

    std::string result;
    size_t pos = dump.find("Rate conversion PCM");
    if (pos == std::string::npos) return {};
    pos = dump.find('\n', pos);
    while (pos != std::string::npos && pos + 1 < dump.size()) {
        const size_t end = dump.find('\n', pos + 1);
        const std::string line = dump.substr(pos + 1, end == std::string::npos ? std::string::npos : end - pos - 1);
        if (line.rfind("Protocol version", 0) == 0 || line.rfind("Its setup is", 0) == 0) break;
        if (!result.empty()) result += "; ";
        result += line;
        pos = end;
    }
    return result;
}

struct Progress {
    bool enabled = false;
    bool tty = false;
    int last = -1;
    void update(sf_count_t done, sf_count_t total) {
        if (!enabled || total <= 0) return;
        const int percent = static_cast<int>(done * 100 / total);
        if (tty) {
            if (percent == last) return;
            std::fprintf(stderr, "\rconverting: %3d%%", percent);
        } else {
            if (percent / 10 == last / 10 && last >= 0) return;
            std::fprintf(stderr, "converting: %3d%%\n", percent / 10 * 10);
        }
        std::fflush(stderr);
        last = percent;
    }
    void finish() {
        if (enabled && tty) std::fprintf(stderr, "\rconverting: 100%%\n");
    }
};

}  // namespace

int main(int argc, char **argv) {
    const Options opt = parse_args(argc, argv);
    // The module makes the same choice from the same processor and environment.
    if (opt.verbose) std::fprintf(stderr, "%s: kernel engine %s\n", g_prog, rsmpl::engine_name());

    SF_INFO in_info{};
    SNDFILE *in = g_res.in = sf_open(opt.input.c_str(), SFM_READ, &in_info);
    if (in == nullptr) fail("cannot read '" + opt.input + "': " + sf_strerror(nullptr));
    const unsigned channels = static_cast<unsigned>(in_info.channels);
    const unsigned in_rate = static_cast<unsigned>(in_info.samplerate);
    if (!subtype_supported(in_info.format))
        fail("'" + opt.input + "': sample format " + subtype_name(in_info.format) +
             " is not supported (8- or 16-bit PCM, A-law or u-law; convert wider samples to 16 bits first)");
    if (in_rate < kRateMin || in_rate > kRateMax)
        fail("'" + opt.input + "': input rate " + std::to_string(in_rate) + " Hz is outside " +
             std::to_string(kRateMin) + ".." + std::to_string(kRateMax) + " Hz");
    if (channels == 0 || (opt.converter == "rsmplrate" && channels > kRsmplMaxChannels))
        fail("'" + opt.input + "': " + std::to_string(channels) + " channels; the rsmplrate converter handles 1 to " +
             std::to_string(kRsmplMaxChannels));

    const int major = output_major_format(opt.output);
    SF_INFO out_info{};
    out_info.samplerate = static_cast<int>(opt.rate);
    out_info.channels = in_info.channels;
    out_info.format = major | SF_FORMAT_PCM_16;
    if (major == 0 || !sf_format_check(&out_info))
        fail("'" + opt.output + "': no 16-bit output format known for this file name extension (try .wav)");
    {
        std::error_code ec;
        if (std::filesystem::equivalent(opt.input, opt.output, ec))
            fail("'" + opt.output + "' is the input file; choose another output name");
    }

    // The converted stream lands in an unlinked temporary file, handed to the
    // file PCM as a descriptor.
    const char *tmpdir = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp") + "/rsmpl-convert-XXXXXX";
    std::vector<char> tmpname(tmpl.begin(), tmpl.end());
    tmpname.push_back('\0');
    const int fd = g_res.fd = mkstemp(tmpname.data());
    if (fd < 0) fail(std::string("cannot create a temporary file in ") + tmpl + ": " + std::strerror(errno));
    unlink(tmpname.data());

    int err = 0;
    char conf_text[512];
    std::snprintf(conf_text, sizeof(conf_text),
                  "pcm.rsmpl_convert {\n"
                  "  type rate\n"
                  "  converter \"%s\"\n"
                  "  slave {\n"
                  "    pcm { type file slave.pcm { type null } file %d format raw }\n"
                  "    rate %u\n"
                  "    format S16_LE\n"
                  "  }\n"
                  "}\n",
                  opt.converter.c_str(), fd, opt.rate);
    snd_input_t *conf_in = nullptr;
    if (snd_config_top(&g_res.conf) < 0 || snd_input_buffer_open(&conf_in, conf_text, -1) < 0)
        fail("cannot build the alsa-lib configuration");
    err = snd_config_load(g_res.conf, conf_in);
    snd_input_close(conf_in);
    if (err < 0) fail("cannot build the alsa-lib configuration");

    const auto start = std::chrono::steady_clock::now();
    err = snd_pcm_open_lconf(&g_res.pcm, "rsmpl_convert", SND_PCM_STREAM_PLAYBACK, 0, g_res.conf);
    snd_pcm_t *pcm = g_res.pcm;
    if (err < 0)
        fail("cannot open alsa-lib's rate PCM with converter '" + opt.converter + "': " + snd_strerror(err) +
             " (is libasound_module_rate_" + opt.converter +
             ".so in alsa-lib's plug-in directory or in $ALSA_PLUGIN_DIR?)");

    snd_pcm_hw_params_t *hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    snd_pcm_hw_params_any(pcm, hw);
    unsigned period_us = kPeriodUs, buffer_us = kPeriodUs * kPeriods;
    if ((err = snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0 ||
        (err = snd_pcm_hw_params_set_format(pcm, hw, SND_PCM_FORMAT_S16)) < 0)
        fail(std::string("the rate PCM refuses interleaved 16-bit access: ") + snd_strerror(err));
    if ((err = snd_pcm_hw_params_set_channels(pcm, hw, channels)) < 0)
        fail("converter '" + opt.converter + "' refuses " + std::to_string(channels) + " channels");
    if ((err = snd_pcm_hw_params_set_rate(pcm, hw, in_rate, 0)) < 0)
        fail("converter '" + opt.converter + "' refuses input rate " + std::to_string(in_rate) + " Hz");
    snd_pcm_hw_params_set_period_time_near(pcm, hw, &period_us, nullptr);
    snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &buffer_us, nullptr);
    if ((err = snd_pcm_hw_params(pcm, hw)) < 0)
        fail("converter '" + opt.converter + "' refuses " + std::to_string(channels) + " channels at " +
             std::to_string(in_rate) + " -> " + std::to_string(opt.rate) + " Hz: " + snd_strerror(err));
    snd_pcm_uframes_t period = 0;
    snd_pcm_hw_params_get_period_size(hw, &period, nullptr);

    const std::string line = converter_line(pcm);
    if (opt.converter == "rsmplrate" && line.rfind("RSMPL Converter:", 0) != 0)
        fail("alsa-lib did not run the rsmplrate converter (its dump shows '" + line + "')");

    Progress progress;
    progress.enabled = !opt.quiet && in_info.frames > static_cast<sf_count_t>(kProgressAfterSeconds * in_rate);
    progress.tty = isatty(STDERR_FILENO) != 0;

    std::vector<int16_t> block(static_cast<size_t>(period) * 8 * channels);
    sf_count_t frames_in = 0;
    for (;;) {
        const sf_count_t got = sf_readf_short(in, block.data(), static_cast<sf_count_t>(block.size() / channels));
        if (got <= 0) break;
        const int16_t *p = block.data();
        snd_pcm_uframes_t left = static_cast<snd_pcm_uframes_t>(got);
        while (left > 0) {
            snd_pcm_sframes_t n = snd_pcm_writei(pcm, p, left);
            if (n < 0) n = snd_pcm_recover(pcm, static_cast<int>(n), 1);
            if (n < 0) fail(std::string("writing to the rate PCM failed: ") + snd_strerror(static_cast<int>(n)));
            left -= static_cast<snd_pcm_uframes_t>(n);
            p += static_cast<size_t>(n) * channels;
        }
        frames_in += got;
        progress.update(frames_in, in_info.frames);
    }
    if (sf_error(in) != SF_ERR_NO_ERROR) fail("reading '" + opt.input + "' failed: " + sf_strerror(in));
    sf_close(in);
    g_res.in = nullptr;
    if ((err = snd_pcm_drain(pcm)) < 0) fail(std::string("draining the rate PCM failed: ") + snd_strerror(err));
    snd_pcm_close(pcm);
    g_res.pcm = nullptr;
    snd_config_delete(g_res.conf);
    g_res.conf = nullptr;
    snd_config_update_free_global();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    progress.finish();

    // Copy the converted stream into the output file.
    struct stat st {};
    if (fstat(fd, &st) != 0) fail(std::string("cannot read back the converted stream: ") + std::strerror(errno));
    const size_t frame_bytes = sizeof(int16_t) * channels;
    const sf_count_t frames_out = static_cast<sf_count_t>(static_cast<size_t>(st.st_size) / frame_bytes);
    SNDFILE *out = g_res.out = sf_open(opt.output.c_str(), SFM_WRITE, &out_info);
    if (out == nullptr) fail("cannot write '" + opt.output + "': " + sf_strerror(nullptr));
    sf_count_t copied = 0;
    while (copied < frames_out) {
        const size_t want = std::min<size_t>(block.size() / channels, static_cast<size_t>(frames_out - copied));
        const ssize_t got = pread(fd, block.data(), want * frame_bytes, static_cast<off_t>(copied * frame_bytes));
        if (got <= 0) fail(std::string("cannot read back the converted stream: ") + std::strerror(errno));
        const sf_count_t frames = static_cast<sf_count_t>(static_cast<size_t>(got) / frame_bytes);
        if (sf_writef_short(out, block.data(), frames) != frames)
            fail("writing '" + opt.output + "' failed: " + sf_strerror(out));
        copied += frames;
    }
    g_res.out = nullptr;
    if (sf_close(out) != 0) fail("writing '" + opt.output + "' failed");
    g_res.fd = -1;
    close(fd);

    const double audio_seconds = static_cast<double>(frames_in) / in_rate;
    std::printf("converter:  %s\n", line.c_str());
    std::printf("input:      %s, %u Hz, %u channel%s\n", opt.input.c_str(), in_rate, channels, channels == 1 ? "" : "s");
    std::printf("output:     %s, %u Hz\n", opt.output.c_str(), opt.rate);
    std::printf("frames in:  %" PRId64 " (%.3f s)\n", static_cast<int64_t>(frames_in), audio_seconds);
    std::printf("frames out: %" PRId64 "\n", static_cast<int64_t>(frames_out));
    if (seconds > 0)
        std::printf("speed:      %.1f x real time\n", audio_seconds / seconds);
    return 0;
}
