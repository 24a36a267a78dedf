// rsmpl-convert: converts an audio file to another sample rate through
// alsa-lib's own rate PCM with a rate converter module, so that the file goes
// through exactly the path a playing application takes. The rate PCM plays
// into a file PCM in front of the null PCM, which needs no sound card.
//
// alsa-lib takes the conversion ratio from the two period sizes, so they are
// chosen in the exact ratio of the rates. The converter's delay is measured
// once with an impulse through a throwaway PCM of the same set-up; the real
// run drops that many leading frames, pads the input's end with silence and
// stops at round(n * out / in) frames. The file PCM writes into a pipe that a
// second thread empties into a temporary file beside the output, renamed over
// it at the end.
#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sndfile.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "harness/alsa_harness.hpp"
#include "rsmpl/engine/engine.hpp"

#ifndef RSMPL_VERSION
#define RSMPL_VERSION "unknown"
#endif

namespace {

constexpr unsigned kRateMin = 8000;
constexpr unsigned kRateMax = 48000;
constexpr unsigned kPeriods = 4;
constexpr double kProgressAfterSeconds = 30.0;  // audio longer than this shows progress
constexpr const char *kDefaultConverter = "rsmplrate_best";

// Our converters have rate and channel limits; the peers keep their own.
struct Limits {
    const char *name;
    unsigned max_channels;
};
constexpr Limits kOwnConverters[] = {{"rsmplrate", 4}, {"rsmplrate_best", 8}};

const Limits *own_converter(const std::string &name) {
    for (const Limits &l : kOwnConverters)
        if (name == l.name) return &l;
    return nullptr;
}

const char *g_prog = "rsmpl-convert";

// The temporary output file, removed on every way out but success. A fixed
// array, so that the signal handler can use it.
char g_tmp_path[4096];

void remove_tmp() {
    if (g_tmp_path[0] != '\0') unlink(g_tmp_path);
    g_tmp_path[0] = '\0';
}

extern "C" void on_signal(int sig) {
    if (g_tmp_path[0] != '\0') unlink(g_tmp_path);
    signal(sig, SIG_DFL);
    raise(sig);
}

[[noreturn]] void fail(const std::string &message) {
    std::fprintf(stderr, "%s: %s\n", g_prog, message.c_str());
    remove_tmp();
    // alsa-lib's and libsndfile's handles go with the process: the output
    // is the temporary file, already gone.
    std::_Exit(1);
}

struct Options {
    unsigned rate = 0;
    std::string converter = kDefaultConverter;
    std::string type;
    std::string input;
    std::string output;
    bool quiet = false;
    bool verbose = false;
    bool no_clobber = false;
    bool dither = true;
};

void usage(FILE *to) {
    std::fprintf(to,
                 "usage: %s [OPTION]... -r RATE INPUT OUTPUT\n"
                 "\n"
                 "Converts INPUT to RATE Hz through alsa-lib's rate plug-in and writes OUTPUT\n"
                 "as 16-bit audio in the format its extension (or -t) names. INPUT is anything\n"
                 "libsndfile reads; samples wider than 16 bits are reduced with TPDF dither.\n"
                 "'-' as INPUT reads standard input, as OUTPUT writes standard output.\n"
                 "\n"
                 "  -r, --rate RATE        output sample rate in Hz: 48000, 48k or 44.1k\n"
                 "  -c, --converter NAME   alsa-lib rate converter (default %s; also\n"
                 "                         rsmplrate, linear, speexrate, samplerate, ...)\n"
                 "  -t, --type TYPE        output file type (wav, flac, aiff, au, caf, raw, ...)\n"
                 "  -n, --no-clobber       never overwrite an existing OUTPUT\n"
                 "      --no-dither        truncate wide samples to 16 bits instead of dithering\n"
                 "  -q, --quiet            no progress display, no notes (warnings stay)\n"
                 "  -v, --verbose          also name the kernel engine (RSMPL_ENGINE forces one)\n"
                 "  -V, --version          the version\n"
                 "  -h, --help             this text\n"
                 "\n"
                 "rsmplrate takes 1 to 4 channels, rsmplrate_best 1 to 8, both at 8000..48000\n"
                 "Hz; other converters have their own limits. alsa-lib loads converter NAME\n"
                 "from libasound_module_rate_NAME.so in its plug-in directory, or in\n"
                 "$ALSA_PLUGIN_DIR when that is set.\n",
                 g_prog, kDefaultConverter);
}

[[noreturn]] void usage_error(const std::string &message) {
    std::fprintf(stderr, "%s: %s\n", g_prog, message.c_str());
    std::fprintf(stderr, "Try '%s --help'.\n", g_prog);
    std::exit(2);
}

// "48000", "48k", "44.1k", "22.05k": a whole number of hertz.
bool parse_rate(const char *text, unsigned *value) {
    if (text == nullptr) return false;
    std::string s = text;
    unsigned long long scale = 1;
    if (!s.empty() && (s.back() == 'k' || s.back() == 'K')) {
        s.pop_back();
        scale = 1000;
    }
    if (s.empty() || s.find_first_not_of("0123456789.") != std::string::npos) return false;
    const size_t dot = s.find('.');
    if (dot != std::string::npos && (scale == 1 || s.find('.', dot + 1) != std::string::npos)) return false;
    std::string whole = s.substr(0, dot), frac = dot == std::string::npos ? "" : s.substr(dot + 1);
    if (whole.empty() || whole.size() > 9 || frac.size() > 3) return false;
    while (frac.size() < 3 && scale == 1000) frac += '0';
    const unsigned long long hz = std::stoull(whole) * scale + (frac.empty() ? 0 : std::stoull(frac));
    if (hz == 0 || hz > 1000000000ull) return false;
    *value = static_cast<unsigned>(hz);
    return true;
}

Options parse_args(int argc, char **argv) {
    enum { kNoDither = 1000 };
    static const option longs[] = {
        {"rate", required_argument, nullptr, 'r'},   {"converter", required_argument, nullptr, 'c'},
        {"type", required_argument, nullptr, 't'},   {"no-clobber", no_argument, nullptr, 'n'},
        {"no-dither", no_argument, nullptr, kNoDither}, {"quiet", no_argument, nullptr, 'q'},
        {"verbose", no_argument, nullptr, 'v'},      {"version", no_argument, nullptr, 'V'},
        {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
    };
    Options o;
    bool have_rate = false;
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, ":r:c:t:nqvVh", longs, nullptr)) != -1;) {
        switch (c) {
        case 'r':
            if (!parse_rate(optarg, &o.rate)) usage_error(std::string("invalid rate '") + optarg + "'");
            have_rate = true;
            break;
        case 'c': o.converter = optarg; break;
        case 't': o.type = optarg; break;
        case 'n': o.no_clobber = true; break;
        case kNoDither: o.dither = false; break;
        case 'q': o.quiet = true; break;
        case 'v': o.verbose = true; break;
        case 'V': std::printf("%s %s\n", g_prog, RSMPL_VERSION); std::exit(0);
        case 'h': usage(stdout); std::exit(0);
        case ':': usage_error(std::string("option '") + argv[optind - 1] + "' needs a value");
        default: usage_error(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    if (!have_rate) usage_error("no output rate given (-r RATE)");
    if (argc - optind != 2) usage_error("expected INPUT and OUTPUT files");
    o.input = argv[optind];
    o.output = argv[optind + 1];
    // The name goes into an alsa-lib configuration and a library file name.
    if (o.converter.empty() || o.converter.size() > 40 ||
        o.converter.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") !=
            std::string::npos)
        usage_error("invalid converter name '" + o.converter + "'");
    if (own_converter(o.converter) != nullptr && (o.rate < kRateMin || o.rate > kRateMax))
        usage_error("output rate " + std::to_string(o.rate) + " Hz is outside " + std::to_string(kRateMin) + ".." +
                    std::to_string(kRateMax) + " Hz of " + o.converter);
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

// Sample formats whose every value 16 bits hold exactly.
bool fits_16_bits(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8: case SF_FORMAT_PCM_U8: case SF_FORMAT_PCM_16: case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW: case SF_FORMAT_IMA_ADPCM: case SF_FORMAT_MS_ADPCM: case SF_FORMAT_GSM610:
    case SF_FORMAT_VOX_ADPCM: case SF_FORMAT_G721_32: case SF_FORMAT_G723_24: case SF_FORMAT_G723_40:
    case SF_FORMAT_DWVW_12: case SF_FORMAT_DWVW_16: case SF_FORMAT_ALAC_16:
        return true;
    default:
        return false;
    }
}

// The container for a type name or a file name's extension, 0 if none.
int major_format_for(std::string ext) {
    for (auto &ch : ext) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (ext == "aif") ext = "aiff";
    if (ext == "ogg" || ext == "opus") ext = "oga";
    if (ext == "snd") ext = "au";
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

// 16-bit PCM where the container has it, else its first sample format that
// libsndfile can write (Vorbis in Ogg, for instance).
int output_format(int major, unsigned rate, unsigned channels, bool opus) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(rate);
    info.channels = static_cast<int>(channels);
    info.format = major | (opus ? SF_FORMAT_OPUS : SF_FORMAT_PCM_16);
    if (sf_format_check(&info)) return info.format;
    int count = 0;
    sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE_COUNT, &count, sizeof(count));
    for (int k = 0; k < count; ++k) {
        SF_FORMAT_INFO sub{};
        sub.format = k;
        if (sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE, &sub, sizeof(sub)) != 0) continue;
        info.format = major | sub.format;
        if (sf_format_check(&info)) return info.format;
    }
    return 0;
}

struct Setup {
    std::string converter;
    unsigned in_rate = 0, out_rate = 0, channels = 0;
    snd_pcm_uframes_t period_in = 0, period_out = 0;
};

// Periods in the exact ratio of the rates, near 20 ms (longer only when the
// smallest such pair is longer).
void choose_periods(Setup &s) {
    const unsigned long g = std::gcd(s.in_rate, s.out_rate);
    const unsigned long a = s.in_rate / g, b = s.out_rate / g;
    const unsigned long m = std::max(1ul, (s.in_rate / 50 + a / 2) / a);
    s.period_in = a * m;
    s.period_out = b * m;
}

// A rate PCM with the converter, writing the converted stream to fd; fails
// with a message when alsa-lib or the converter refuses the set-up.
void open_rate_pcm(rsmpl_harness::Pcm &pcm, const Setup &s, int fd, std::string *line) {
    int err = pcm.open(rsmpl_harness::rate_config("rsmpl_convert", s.converter, s.out_rate, fd), "rsmpl_convert");
    if (err < 0 && std::strcmp(pcm.step(), "config") == 0) fail("cannot build the alsa-lib configuration");
    if (err < 0)
        fail("cannot open alsa-lib's rate PCM with converter '" + s.converter + "': " + snd_strerror(err) +
             " (is libasound_module_rate_" + s.converter +
             ".so in alsa-lib's plug-in directory or in $ALSA_PLUGIN_DIR?)");

    rsmpl_harness::HwSetup hw;
    hw.format = SND_PCM_FORMAT_S16;
    hw.channels = s.channels;
    hw.rate = s.in_rate;
    hw.period = rsmpl_harness::Length::in_frames(s.period_in, true);
    hw.buffer = rsmpl_harness::Length::in_frames(s.period_in * kPeriods, true);
    if ((err = pcm.configure(hw)) < 0) {
        const std::string step = pcm.step();
        const std::string what = "converter '" + s.converter + "' refuses ";
        if (step == "access" || step == "format")
            fail(std::string("the rate PCM refuses interleaved 16-bit access: ") + snd_strerror(err));
        if (step == "channels") fail(what + std::to_string(s.channels) + " channels");
        if (step == "rate") fail(what + "input rate " + std::to_string(s.in_rate) + " Hz");
        if (step == "period" || step == "buffer")
            fail(what + "periods of " + std::to_string(s.period_in) + " -> " + std::to_string(s.period_out) +
                 " frames");
        fail(what + std::to_string(s.channels) + " channels at " + std::to_string(s.in_rate) + " -> " +
             std::to_string(s.out_rate) + " Hz: " + snd_strerror(err));
    }
    *line = rsmpl_harness::converter_line(rsmpl_harness::dump(pcm.get()));
    // alsa-lib falls back to another converter quietly in some set-ups: the
    // dump shows which one runs.
    if (own_converter(s.converter) != nullptr && line->rfind("RSMPL", 0) != 0)
        fail("alsa-lib did not run the " + s.converter + " converter (its dump shows '" + *line + "')");
}

void write_all(snd_pcm_t *pcm, const int16_t *p, snd_pcm_uframes_t frames, unsigned channels) {
    while (frames > 0) {
        snd_pcm_sframes_t n = snd_pcm_writei(pcm, p, frames);
        if (n < 0) n = snd_pcm_recover(pcm, static_cast<int>(n), 1);
        if (n < 0) fail(std::string("writing to the rate PCM failed: ") + snd_strerror(static_cast<int>(n)));
        frames -= static_cast<snd_pcm_uframes_t>(n);
        p += static_cast<size_t>(n) * channels;
    }
}

// Output frames between an input frame and where it lands at k * out / in:
// a pulse through a throwaway PCM of the same set-up, centred where its
// position at the output rate is a whole frame. The pulse is a few output
// frames wide, since a converter without a low-pass filter (alsa-lib's
// linear one) can step over a single-sample click when it lowers the rate.
long measure_delay(const Setup &s) {
    const int fd = memfd_create("rsmpl-convert-delay", MFD_CLOEXEC);
    if (fd < 0) fail(std::string("cannot create a memory file: ") + std::strerror(errno));
    std::string line;
    rsmpl_harness::Pcm pcm;
    open_rate_pcm(pcm, s, fd, &line);
    const unsigned long g = std::gcd(s.in_rate, s.out_rate);
    const unsigned long a = s.in_rate / g;
    const long half = 1 + static_cast<long>(2 * s.in_rate / s.out_rate);  // input frames each side
    const unsigned long k0 = (2 * s.period_in + 1000 + static_cast<unsigned long>(half) + a - 1) / a * a;
    const size_t frames = k0 + std::max<size_t>(s.in_rate / 4, 4 * s.period_in);
    std::vector<int16_t> in(frames * s.channels, 0);
    for (long k = -half + 1; k < half; ++k) {
        const double w = 0.5 + 0.5 * std::cos(M_PI * static_cast<double>(k) / static_cast<double>(half));
        for (unsigned c = 0; c < s.channels; ++c)
            in[(k0 + static_cast<unsigned long>(k + half) - static_cast<unsigned long>(half)) * s.channels + c] =
                static_cast<int16_t>(std::lround(16384 * w));
    }
    write_all(pcm.get(), in.data(), frames, s.channels);
    snd_pcm_drain(pcm.get());
    pcm.close();

    struct stat st {};
    fstat(fd, &st);
    std::vector<int16_t> out(static_cast<size_t>(st.st_size) / sizeof(int16_t));
    if (pread(fd, out.data(), out.size() * sizeof(int16_t), 0) != static_cast<ssize_t>(out.size() * sizeof(int16_t)))
        fail("cannot read back the delay measurement");
    close(fd);
    const size_t n = out.size() / s.channels;
    auto at = [&](size_t i) { return static_cast<double>(out[i * s.channels]); };
    size_t peak = 0;
    for (size_t i = 0; i < n; ++i)
        if (at(i) > at(peak)) peak = i;
    if (n == 0 || at(peak) <= 0) return 0;
    // Centre of the main lobe, so that a flat top does not pull it aside.
    size_t lo = peak, hi = peak;
    while (lo > 0 && at(lo - 1) >= at(peak) / 2) --lo;
    while (hi + 1 < n && at(hi + 1) >= at(peak) / 2) ++hi;
    double sum = 0, moment = 0;
    for (size_t i = lo; i <= hi; ++i) sum += at(i), moment += at(i) * static_cast<double>(i);
    return std::lround(moment / sum) - static_cast<long>(k0 / a * (s.out_rate / g));
}

// TPDF dither from a fixed-seed generator: the same file converts to the
// same bytes every time.
struct Quantiser {
    bool wide = false, dither = true;
    uint64_t state = 0x9E3779B97F4A7C15ull;
    uint64_t clipped = 0;
    double uniform() {
        state ^= state >> 12, state ^= state << 25, state ^= state >> 27;
        return static_cast<double>((state * 0x2545F4914F6CDD1Dull) >> 11) * 0x1p-53;
    }
    int16_t operator()(double x) {
        double v = x * 32768.0;
        if (wide) v = dither ? std::floor(v + uniform() - uniform() + 0.5) : std::floor(v);
        else v = std::nearbyint(v);
        if (v > 32767.0 || v < -32768.0) {
            ++clipped;
            v = std::clamp(v, -32768.0, 32767.0);
        }
        return static_cast<int16_t>(v);
    }
};

// Empties the file PCM's pipe into the output: drops the converter's delay,
// stops at the wanted length (known once the input is read to its end).
struct Writer {
    int pipe_fd = -1;
    SNDFILE *out = nullptr;
    unsigned channels = 0;
    long skip = 0;
    std::atomic<int64_t> limit{INT64_MAX};
    int64_t written = 0;
    std::string error;
    std::atomic<bool> failed{false};

    void run() {
        std::vector<int16_t> buf(65536);
        const size_t frame_bytes = sizeof(int16_t) * channels;
        size_t have = 0;  // bytes in buf
        auto *bytes = reinterpret_cast<char *>(buf.data());
        for (;;) {
            const ssize_t got = read(pipe_fd, bytes + have, buf.size() * sizeof(int16_t) - have);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            have += static_cast<size_t>(got);
            const size_t frames = have / frame_bytes;
            size_t first = 0;
            if (skip > 0) {
                first = std::min<size_t>(frames, static_cast<size_t>(skip));
                skip -= static_cast<long>(first);
            }
            const int64_t room = limit.load() - written;
            const int64_t n = std::min<int64_t>(room, static_cast<int64_t>(frames - first));
            if (n > 0 && error.empty()) {
                if (sf_writef_short(out, buf.data() + first * channels, n) != n) {
                    error = sf_strerror(out);
                    failed = true;
                }
                written += n;
            }
            std::memmove(bytes, bytes + frames * frame_bytes, have - frames * frame_bytes);
            have -= frames * frame_bytes;
        }
    }
};

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

// Where the output goes: a temporary file beside a regular OUTPUT, renamed at
// the end; standard output and other non-regular files get the finished file
// from memory, since most formats rewrite their header at the end.
struct Destination {
    std::string path;
    bool stream = false;
    int stream_fd = -1;
    int fd = -1;

    void open(const Options &o) {
        path = o.output;
        struct stat st {};
        bool exists = path != "-" && lstat(path.c_str(), &st) == 0;
        if (exists && S_ISLNK(st.st_mode)) {
            // Replace the file a link points to, not the link.
            std::error_code ec;
            const auto target = std::filesystem::canonical(path, ec);
            if (!ec) {
                path = target.string();
                exists = stat(path.c_str(), &st) == 0;
            }
        }
        if (path == "-" || (exists && !S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode))) {
            stream = true;
            stream_fd = path == "-" ? STDOUT_FILENO : -1;
            fd = memfd_create("rsmpl-convert-out", MFD_CLOEXEC);
            if (fd < 0) fail(std::string("cannot create a memory file: ") + std::strerror(errno));
            return;
        }
        if (exists && o.no_clobber) fail("'" + path + "' exists (-n refuses to overwrite it)");
        const std::filesystem::path p(path);
        const std::string dir = p.has_parent_path() ? p.parent_path().string() : ".";
        const std::string tmpl = dir + "/." + p.filename().string() + ".rsmpl-XXXXXX";
        if (tmpl.size() >= sizeof(g_tmp_path)) fail("'" + path + "': name too long");
        std::vector<char> name(tmpl.begin(), tmpl.end());
        name.push_back('\0');
        fd = mkstemp(name.data());
        if (fd < 0) fail("cannot write '" + path + "': " + std::strerror(errno));
        std::memcpy(g_tmp_path, name.data(), name.size());
        // The mode a new file would get, or the one of the file replaced.
        mode_t mode = 0666;
        struct stat target {};
        if (stat(path.c_str(), &target) == 0) mode = target.st_mode & 07777;
        else {
            const mode_t mask = umask(0);
            umask(mask);
            mode &= ~mask;
        }
        fchmod(fd, mode);
    }

    void commit() {
        if (stream) {
            const int to = stream_fd >= 0 ? stream_fd : ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
            if (to < 0) fail("cannot write '" + path + "': " + std::strerror(errno));
            struct stat st {};
            fstat(fd, &st);
            std::vector<char> buf(1 << 16);
            for (off_t at = 0; at < st.st_size;) {
                const ssize_t got = pread(fd, buf.data(), buf.size(), at);
                if (got <= 0) fail(std::string("cannot read back the output: ") + std::strerror(errno));
                for (ssize_t done = 0; done < got;) {
                    const ssize_t w = write(to, buf.data() + done, static_cast<size_t>(got - done));
                    if (w < 0 && errno == EINTR) continue;
                    if (w <= 0) fail("writing '" + path + "' failed: " + std::strerror(errno));
                    done += w;
                }
                at += got;
            }
            close(fd);
            return;
        }
        if (fsync(fd) != 0 || close(fd) != 0) fail("writing '" + path + "' failed: " + std::strerror(errno));
        if (std::string(g_tmp_path).empty()) fail("internal: no temporary file");
        if (link_or_rename() != 0) {
            if (errno == EEXIST) fail("'" + path + "' exists (-n refuses to overwrite it)");
            fail("cannot write '" + path + "': " + std::strerror(errno));
        }
        g_tmp_path[0] = '\0';
    }

    bool no_clobber = false;
    // -n must not replace a file that appeared meanwhile: link() refuses.
    int link_or_rename() {
        if (!no_clobber) return rename(g_tmp_path, path.c_str());
        if (link(g_tmp_path, path.c_str()) != 0) return -1;
        unlink(g_tmp_path);
        return 0;
    }
};

}  // namespace

int main(int argc, char **argv) {
    const Options opt = parse_args(argc, argv);
    if (opt.verbose) std::fprintf(stderr, "%s: kernel engine %s\n", g_prog, rsmpl::engine_name());

    SF_INFO in_info{};
    SNDFILE *in = opt.input == "-" ? sf_open_fd(STDIN_FILENO, SFM_READ, &in_info, 0)
                                   : sf_open(opt.input.c_str(), SFM_READ, &in_info);
    const std::string in_name = opt.input == "-" ? "standard input" : "'" + opt.input + "'";
    if (in == nullptr) fail("cannot read " + in_name + ": " + sf_strerror(nullptr));
    const unsigned channels = static_cast<unsigned>(in_info.channels);
    const unsigned in_rate = static_cast<unsigned>(in_info.samplerate);
    const Limits *own = own_converter(opt.converter);
    if (own != nullptr && (in_rate < kRateMin || in_rate > kRateMax))
        fail(in_name + ": input rate " + std::to_string(in_rate) + " Hz is outside " + std::to_string(kRateMin) +
             ".." + std::to_string(kRateMax) + " Hz of " + opt.converter);
    if (channels == 0 || (own != nullptr && channels > own->max_channels))
        fail(in_name + ": " + std::to_string(channels) + " channels; the " + opt.converter + " converter handles 1 to " +
             std::to_string(own != nullptr ? own->max_channels : 0));
    // libsndfile cuts a chunk that runs past the end of the file to what is
    // there and logs "size (should be smaller size)".
    bool short_warned = false;
    {
        char log[8192] = "";
        sf_command(in, SFC_GET_LOG_INFO, log, sizeof(log));
        for (const char *line = log; line != nullptr && *line != '\0' && !short_warned;) {
            long long said = 0, there = 0;
            const char *colon = std::strchr(line, ':');
            const char *eol = std::strchr(line, '\n');
            if (colon != nullptr && (eol == nullptr || colon < eol) &&
                std::sscanf(colon + 1, " %lld (should be %lld)", &said, &there) == 2 && there < said) {
                std::fprintf(stderr, "%s: warning: %s is shorter than its header says; converting the %" PRId64
                                     " frames present\n",
                             g_prog, in_name.c_str(), static_cast<int64_t>(in_info.frames));
                short_warned = true;
            }
            line = eol != nullptr ? eol + 1 : nullptr;
        }
    }

    std::string type = opt.type;
    if (type.empty() && opt.output == "-") type = "wav";
    if (type.empty()) {
        type = std::filesystem::path(opt.output).extension().string();
        if (!type.empty()) type.erase(0, 1);
    }
    const int major = major_format_for(type);
    const bool opus = type == "opus";
    const int format = major == 0 ? 0 : output_format(major, opt.rate, channels, opus);
    if (format == 0)
        fail(opt.type.empty() ? "'" + opt.output + "': no output format known for this file name extension (try .wav or -t)"
                              : "unknown output type '" + opt.type + "'");
    if (opt.input != "-" && opt.output != "-") {
        std::error_code ec;
        if (std::filesystem::equivalent(opt.input, opt.output, ec))
            fail("'" + opt.output + "' is the input file; choose another output name");
    }

    Quantiser quantise;
    quantise.wide = !fits_16_bits(in_info.format);
    quantise.dither = opt.dither;
    if (quantise.wide && !opt.quiet)
        std::fprintf(stderr, "%s: note: %s has %s samples, reduced to 16 bits %s\n", g_prog, in_name.c_str(),
                     subtype_name(in_info.format).c_str(),
                     opt.dither ? "with TPDF dither" : "by truncation (--no-dither)");

    Setup setup;
    setup.converter = opt.converter;
    setup.in_rate = in_rate;
    setup.out_rate = opt.rate;
    setup.channels = channels;
    choose_periods(setup);
    const long delay = std::max(0l, measure_delay(setup));

    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(sig, on_signal);
    Destination dest;
    dest.no_clobber = opt.no_clobber;
    dest.open(opt);
    SF_INFO out_info{};
    out_info.samplerate = static_cast<int>(opt.rate);
    out_info.channels = in_info.channels;
    out_info.format = format;
    SNDFILE *out = sf_open_fd(dest.fd, SFM_WRITE, &out_info, 0);
    if (out == nullptr) fail("cannot write '" + opt.output + "': " + sf_strerror(nullptr));

    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) fail(std::string("cannot create a pipe: ") + std::strerror(errno));
    std::string line;
    const auto start = std::chrono::steady_clock::now();
    rsmpl_harness::Pcm pcm;
    open_rate_pcm(pcm, setup, pipe_fds[1], &line);

    Writer writer;
    writer.pipe_fd = pipe_fds[0];
    writer.out = out;
    writer.channels = channels;
    writer.skip = delay;
    std::thread writer_thread([&writer] { writer.run(); });

    const bool length_known = opt.input != "-" && in_info.frames > 0;
    auto wanted = [&](int64_t frames) {
        return static_cast<int64_t>((static_cast<__int128>(frames) * opt.rate * 2 + in_rate) / (2 * in_rate));
    };
    if (length_known) writer.limit = wanted(in_info.frames);

    Progress progress;
    progress.enabled = !opt.quiet && length_known &&
                       in_info.frames > static_cast<sf_count_t>(kProgressAfterSeconds * in_rate);
    progress.tty = isatty(STDERR_FILENO) != 0;

    const size_t block_frames = setup.period_in;
    std::vector<double> wide(block_frames * channels);
    std::vector<int16_t> block(block_frames * channels);
    int64_t frames_in = 0;
    for (;;) {
        const sf_count_t got = sf_readf_double(in, wide.data(), static_cast<sf_count_t>(block_frames));
        if (got <= 0) break;
        for (size_t i = 0; i < static_cast<size_t>(got) * channels; ++i) block[i] = quantise(wide[i]);
        write_all(pcm.get(), block.data(), static_cast<snd_pcm_uframes_t>(got), channels);
        frames_in += got;
        // A full disk ends the run at once, not after the whole input.
        if (writer.failed) break;
        progress.update(frames_in, in_info.frames);
    }
    if (writer.failed) {
        close(pipe_fds[1]);
        writer_thread.join();
        fail("writing '" + opt.output + "' failed: " + writer.error);
    }
    if (sf_error(in) != SF_ERR_NO_ERROR) fail("reading " + in_name + " failed: " + sf_strerror(in));
    if (length_known && frames_in < in_info.frames && !short_warned)
        std::fprintf(stderr, "%s: warning: %s is shorter than its header says (%" PRId64 " of %" PRId64 " frames)\n",
                     g_prog, in_name.c_str(), frames_in, static_cast<int64_t>(in_info.frames));
    sf_close(in);
    const int64_t frames_out = wanted(frames_in);
    writer.limit = frames_out;

    // Silence behind the input pushes its end past the converter's delay.
    const size_t pad = static_cast<size_t>((delay + 2) * static_cast<int64_t>(in_rate) / opt.rate) + 2 * block_frames;
    std::fill(block.begin(), block.end(), int16_t{0});
    for (size_t left = pad; left > 0;) {
        const size_t n = std::min(left, block_frames);
        write_all(pcm.get(), block.data(), n, channels);
        left -= n;
    }
    int err = snd_pcm_drain(pcm.get());
    if (err < 0) fail(std::string("draining the rate PCM failed: ") + snd_strerror(err));
    pcm.close();
    close(pipe_fds[1]);
    writer_thread.join();
    close(pipe_fds[0]);
    rsmpl_harness::release_global_config();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    progress.finish();
    if (!writer.error.empty()) fail("writing '" + opt.output + "' failed: " + writer.error);
    if (writer.written != frames_out)
        fail("the converter gave " + std::to_string(writer.written) + " frames where " + std::to_string(frames_out) +
             " were wanted");
    if (sf_close(out) != 0) fail("writing '" + opt.output + "' failed");
    dest.commit();

    if (quantise.clipped > 0)
        std::fprintf(stderr, "%s: warning: %" PRIu64 " samples beyond full scale were clipped\n", g_prog,
                     quantise.clipped);
    // The summary goes to standard error when the audio goes to standard output.
    FILE *info = opt.output == "-" ? stderr : stdout;
    const double audio_seconds = static_cast<double>(frames_in) / in_rate;
    std::fprintf(info, "converter:  %s\n", line.c_str());
    std::fprintf(info, "input:      %s, %u Hz, %u channel%s\n", opt.input.c_str(), in_rate, channels,
                 channels == 1 ? "" : "s");
    std::fprintf(info, "output:     %s, %u Hz\n", opt.output.c_str(), opt.rate);
    std::fprintf(info, "frames in:  %" PRId64 " (%.3f s)\n", frames_in, audio_seconds);
    std::fprintf(info, "frames out: %" PRId64 " (delay of %ld frames removed)\n", frames_out, delay);
    if (seconds > 0) std::fprintf(info, "speed:      %.1f x real time\n", audio_seconds / seconds);
    return 0;
}
