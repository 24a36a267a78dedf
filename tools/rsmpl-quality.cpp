// rsmpl-quality: measures every conversion path of the library, and the
// converters installed for alsa-lib, on the same signals.
//
//   rsmpl-quality [--out DIR] [--only ID[,ID...]] [--quick] [--list]
//
// Paths: each fixed-ratio stage through RSMPL_Up / RSMPL_Down, the sinc
// interpolator through RSMPL_Resample, and every converter reached through a
// `type rate` PCM of alsa-lib (our module's two converters, alsa-lib's linear, speexrate,
// samplerate, lavrate) playing into a `type file` PCM over `null`. All paths
// are mono, 16-bit. Nominal rates give the fixed-ratio stages a scale in Hz.
//
// Signals, at the input rate: a stepped series of -6 dBFS tones (response,
// images, aliases), a -6 dBFS impulse (impulse response, group delay), a
// -6 dBFS linear sweep from 0 to the input Nyquist frequency (spectrogram),
// a 997 Hz tone at -6 dBFS (SNR, THD+N) and at full scale (saturation), and a
// constant at half scale (DC gain).
//
// Writes DIR/paths.tsv (one row of figures per path), DIR/<id>.resp.tsv (the
// measured response points), DIR/<id>.imp.s16 and DIR/<id>.sweep.s16 (raw
// native-endian outputs). scripts/quality_report.py turns them into plots and
// docs/quality.md. Exit status 1 if a path could not be measured.
#include <alsa/asoundlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numbers>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "harness/alsa_harness.hpp"
#include <rsmpl/rsmpl.h>
#include "tools/quality_analysis.hpp"

namespace {

using quality::amplitude_at;
using quality::kPi;
using quality::window;
using Samples = std::vector<int16_t>;
namespace fs = std::filesystem;

// ---- Sizes -------------------------------------------------------------------

struct Sizes {
    int tones_each;      // tones per grid (two grids: whole input band, around the lower Nyquist)
    size_t settle_out;   // output samples skipped after each tone change
    size_t window_out;   // output samples analysed per tone, times max(1, ratio), rounded up to 2^k
    size_t fft;          // 997 Hz analysis length at the output rate
    double sweep_s;      // sweep duration
};
constexpr Sizes kFull{192, 768, 2048, 32768, 6.0};
constexpr Sizes kQuick{6, 256, 512, 4096, 0.25};

// ---- Paths -------------------------------------------------------------------

struct Run {
    Samples out;
    std::string error;  // empty on success
    std::string note;   // e.g. the converter line of the PCM dump
};
using Converter = std::function<Run(const Samples &)>;

struct Path {
    std::string id;     // file stem
    std::string label;  // what the tables show
    std::string kind;   // "ours" or "peer"
    unsigned in_rate, out_rate;
    Converter run;
    double ratio() const { return double(out_rate) / in_rate; }
};

class Context {
public:
    Context() : mem_(RSMPL_GetContextSize()) { RSMPL_InitContext(get()); }
    RSMPL_Ctx *get() { return reinterpret_cast<RSMPL_Ctx *>(mem_.data()); }

private:
    std::vector<uint64_t> mem_;  // 8-byte aligned, more than enough room
};

// Fixed-ratio up-stage in place in one 1440-sample buffer, as the module does;
// the stream is padded with silence to whole blocks.
Converter rsmpl_up(uint32_t index, int32_t block, int num, int den) {
    return [=](const Samples &in) {
        Run r;
        Context ctx;
        int16_t buf[RSMPL_MAX_BLOCK];
        for (size_t pos = 0; pos < in.size(); pos += block) {
            const size_t n = std::min<size_t>(block, in.size() - pos);
            std::fill(std::copy_n(in.begin() + pos, n, buf), buf + block, int16_t{0});
            if (const uint32_t s = RSMPL_Up(ctx.get(), buf, buf, block, index); s != RSMPL_OK) {
                r.error = "RSMPL_Up status " + std::to_string(s);
                return r;
            }
            r.out.insert(r.out.end(), buf, buf + block / den * num);
        }
        return r;
    };
}

Converter rsmpl_down(uint32_t index, int num, int den) {
    return [=](const Samples &in) {
        constexpr int32_t block = 960;  // a multiple of every input group
        Run r;
        Context ctx;
        int16_t buf[block];
        for (size_t pos = 0; pos < in.size(); pos += block) {
            const size_t n = std::min<size_t>(block, in.size() - pos);
            std::fill(std::copy_n(in.begin() + pos, n, buf), buf + block, int16_t{0});
            if (const uint32_t s = RSMPL_Down(ctx.get(), buf, buf, block, index); s != RSMPL_OK) {
                r.error = "RSMPL_Down status " + std::to_string(s);
                return r;
            }
            r.out.insert(r.out.end(), buf, buf + block / den * num);
        }
        return r;
    };
}

// A new ratio takes effect after the next block, so a block of the fewest
// zeros the interface accepts goes first and its outputs are dropped: the
// stream then starts at the new ratio, after a little more silence.
Converter rsmpl_sinc(float ratio) {
    return [=](const Samples &in) {
        constexpr int32_t block = 960;
        Run r;
        Context ctx;
        uint32_t min_in = 0, max_in = 0, extra = 0, count = 0;
        if (RSMPL_SetResampleRatio(ctx.get(), &min_in, &max_in, &extra, ratio) != RSMPL_OK) {
            r.error = "ratio refused";
            return r;
        }
        Samples out(RSMPL_MAX_BLOCK * 8 + 64);
        const Samples zeros(min_in, 0);
        RSMPL_Resample(ctx.get(), zeros.data(), out.data(), static_cast<int32_t>(min_in), &count);
        for (size_t pos = 0; pos < in.size(); pos += block) {
            const int32_t n = static_cast<int32_t>(std::min<size_t>(block, in.size() - pos));
            if (const uint32_t s = RSMPL_Resample(ctx.get(), in.data() + pos, out.data(), n, &count); s != RSMPL_OK) {
                r.error = "RSMPL_Resample status " + std::to_string(s);
                return r;
            }
            r.out.insert(r.out.end(), out.begin(), out.begin() + count);
        }
        return r;
    };
}

// ---- alsa-lib ------------------------------------------------------------------

// Plays `in` through a rate PCM with the named converter and returns what the
// file PCM received. `expect` must appear in the PCM dump: alsa-lib falls back
// to another converter without saying so.
Run alsa_play(const std::string &converter, unsigned in_rate, unsigned out_rate, const std::string &expect,
              const Samples &in, int fd) {
    Run r;
    rsmpl_harness::Pcm pcm;
    if (int err = pcm.open(rsmpl_harness::rate_config("q", converter, out_rate, fd), "q"); err < 0) {
        r.error = std::string("open: ") + snd_strerror(err);
        return r;
    }
    // Two periods: with longer buffers lavrate at some ratios commits a count
    // the file PCM did not map, and alsa-lib aborts on an assertion.
    rsmpl_harness::HwSetup hw;
    hw.rate = in_rate;
    hw.period = rsmpl_harness::Length::in_us(20000, true);
    hw.buffer = rsmpl_harness::Length::in_us(40000);
    if (int err = pcm.configure(hw); err < 0) {
        r.error = std::string(pcm.step()) + ": " + snd_strerror(err);
    } else {
        const std::string dump = rsmpl_harness::dump(pcm.get());
        r.note = rsmpl_harness::line_with(dump, expect);
        if (r.note.empty()) {
            r.error = "converter not confirmed by the PCM dump (expected '" + expect + "')";
            if (std::getenv("RSMPL_QUALITY_DUMP")) std::fprintf(stderr, "%s\n", dump.c_str());
        }
        size_t done = 0;
        while (r.error.empty() && done < in.size()) {
            const snd_pcm_sframes_t w = snd_pcm_writei(pcm.get(), in.data() + done, in.size() - done);
            if (w <= 0) r.error = std::string("write: ") + snd_strerror(static_cast<int>(w));
            else done += static_cast<size_t>(w);
        }
        if (r.error.empty()) snd_pcm_drain(pcm.get());
    }
    return r;
}

// Each run goes in a child process, so that a converter or alsa-lib aborting
// costs one path its figures instead of ending the whole measurement. The
// stream comes back through a memory file, the verdict through a pipe.
Converter alsa(std::string converter, unsigned in_rate, unsigned out_rate, std::string expect) {
    return [=](const Samples &in) {
        Run r;
        const int fd = memfd_create("rsmpl-quality", 0);
        int pipefd[2];
        if (fd < 0 || pipe(pipefd) != 0) {
            r.error = "memfd_create or pipe failed";
            return r;
        }
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            close(pipefd[0]);
            const Run c = alsa_play(converter, in_rate, out_rate, expect, in, fd);
            rsmpl_harness::release_global_config();
            const std::string msg = (c.error.empty() ? "ok\n" : "error\n") + (c.error.empty() ? c.note : c.error);
            if (write(pipefd[1], msg.data(), msg.size()) < 0) _exit(3);
            _exit(0);
        }
        close(pipefd[1]);
        std::string msg;
        char buf[256];
        for (ssize_t n; (n = read(pipefd[0], buf, sizeof buf)) > 0;) msg.append(buf, static_cast<size_t>(n));
        close(pipefd[0]);
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid) {
            r.error = "fork failed";
        } else if (WIFSIGNALED(status)) {
            r.error = std::string("the converter run died of ") + strsignal(WTERMSIG(status)) +
                      " inside alsa-lib or the converter";
        } else if (msg.rfind("ok\n", 0) == 0) {
            r.note = msg.substr(3);
        } else {
            r.error = msg.size() > 6 ? msg.substr(6) : "no answer from the converter run";
        }
        const off_t size = lseek(fd, 0, SEEK_END);
        if (r.error.empty() && size > 0) {
            r.out.resize(static_cast<size_t>(size) / sizeof(int16_t));
            if (pread(fd, r.out.data(), r.out.size() * sizeof(int16_t), 0) != static_cast<ssize_t>(r.out.size() * 2))
                r.error = "short read of the captured stream";
        }
        close(fd);
        return r;
    };
}

// ---- The set of paths ------------------------------------------------------------

struct RatePair {
    unsigned in, out;
};

std::vector<Path> all_paths() {
    std::vector<Path> p;
    auto group = [](RatePair r) { return std::to_string(r.in) + "-" + std::to_string(r.out); };
    struct Stage {
        const char *name;
        uint32_t index;
        int num, den;
        int32_t up_block;
        RatePair rates;
    };
    const Stage up[] = {{"x2", RSMPL_STAGE_2, 2, 1, 720, {24000, 48000}},
                        {"x3", RSMPL_STAGE_3, 3, 1, 480, {16000, 48000}},
                        {"x4", RSMPL_STAGE_4, 4, 1, 360, {12000, 48000}},
                        {"x6", RSMPL_STAGE_6, 6, 1, 240, {8000, 48000}},
                        {"3:2", RSMPL_STAGE_3_2, 3, 2, 960, {32000, 48000}}};
    const Stage down[] = {{"/2", RSMPL_STAGE_2, 1, 2, 0, {48000, 24000}},
                          {"/3", RSMPL_STAGE_3, 1, 3, 0, {48000, 16000}},
                          {"/4", RSMPL_STAGE_4, 1, 4, 0, {48000, 12000}},
                          {"/6", RSMPL_STAGE_6, 1, 6, 0, {48000, 8000}},
                          {"2:3", RSMPL_STAGE_3_2, 2, 3, 0, {48000, 32000}}};
    std::vector<RatePair> pairs;
    for (const Stage &s : up) {
        p.push_back({group(s.rates) + "-stage", std::string("RSMPL_Up ") + s.name, "ours", s.rates.in, s.rates.out,
                     rsmpl_up(s.index, s.up_block, s.num, s.den)});
        pairs.push_back(s.rates);
    }
    for (const Stage &s : down) {
        p.push_back({group(s.rates) + "-stage", std::string("RSMPL_Down ") + s.name, "ours", s.rates.in, s.rates.out,
                     rsmpl_down(s.index, s.num, s.den)});
        pairs.push_back(s.rates);
    }
    const struct {
        const char *name;
        RatePair rates;
    } sinc[] = {{"2", {24000, 48000}}, {"1/2", {48000, 24000}}, {"48000/44100", {44100, 48000}},
                {"44100/48000", {48000, 44100}},
                {"48000/22050", {22050, 48000}}, {"32000/44100", {44100, 32000}}};
    for (const auto &s : sinc)
        p.push_back({group(s.rates) + "-sinc", std::string("RSMPL_Resample ") + s.name, "ours", s.rates.in,
                     s.rates.out, rsmpl_sinc(static_cast<float>(double(s.rates.out) / s.rates.in))});
    pairs.push_back({44100, 48000});
    pairs.push_back({48000, 44100});
    // Sinc pairs of rsmplrate_best whose images (aliases) from 1.2 fN fall below the output (input) Nyquist frequency.
    pairs.push_back({22050, 48000});
    pairs.push_back({44100, 32000});

    for (RatePair r : pairs) {
        const bool fir = (r.out % r.in == 0 || r.in % r.out == 0) &&
                         std::set<unsigned>{2, 3, 6}.count(std::max(r.in, r.out) / std::min(r.in, r.out));
        const std::string dir = r.out > r.in ? "UP" : "DOWN";
        p.push_back({group(r) + "-rsmplrate", std::string("module, ") + (fir ? "FIR" : "linear"), "ours", r.in,
                     r.out,
                     alsa("rsmplrate", r.in, r.out,
                          std::string("RSMPL Converter: ") + (fir ? "FIR filter, " : "Linear, ") + dir + " " +
                              std::to_string(r.in) + " -> " + std::to_string(r.out))});
        // The second converter: FIR stages wherever one exists (every stage pair here), sinc otherwise.
        const unsigned lo = std::min(r.in, r.out), hi = std::max(r.in, r.out);
        const bool stage_pair = (hi % lo == 0 && std::set<unsigned>{2, 3, 4, 6}.count(hi / lo)) || 2 * hi == 3 * lo;
        p.push_back({group(r) + "-rsmplrate_best", std::string("rsmplrate_best, ") + (stage_pair ? "FIR" : "sinc"),
                     "ours", r.in, r.out,
                     alsa("rsmplrate_best", r.in, r.out,
                          std::string("RSMPL Converter: ") + (stage_pair ? "FIR filter, " : "Sinc, ") + dir + " " +
                              std::to_string(r.in) + " -> " + std::to_string(r.out))});
        // Each peer's own line in the PCM dump names the converter that ran.
        p.push_back({group(r) + "-linear", "linear (alsa-lib)", "peer", r.in, r.out,
                     alsa("linear", r.in, r.out, "linear-interpolation")});
        p.push_back({group(r) + "-speexrate", "speexrate", "peer", r.in, r.out,
                     alsa("speexrate", r.in, r.out, "libspeex")});
        p.push_back({group(r) + "-samplerate", "samplerate", "peer", r.in, r.out,
                     alsa("samplerate", r.in, r.out, "libsamplerate")});
        p.push_back({group(r) + "-lavrate", "lavrate", "peer", r.in, r.out, alsa("lavrate", r.in, r.out, "libswresample")});
    }
    return p;
}

// ---- Analysis --------------------------------------------------------------------

void fft(std::vector<std::complex<double>> &a) {
    const size_t n = a.size();
    for (size_t i = 1, j = 0; i < n; ++i) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    for (size_t len = 2; len <= n; len <<= 1) {
        const std::complex<double> wl = std::polar(1.0, -2 * kPi / double(len));
        for (size_t i = 0; i < n; i += len) {
            std::complex<double> w = 1.0;
            for (size_t k = 0; k < len / 2; ++k, w *= wl) {
                const auto u = a[i + k], v = a[i + k + len / 2] * w;
                a[i + k] = u + v;
                a[i + k + len / 2] = u - v;
            }
        }
    }
}

struct ToneFigures {
    double level_dbfs = NAN;  // fundamental
    double thdn_db = NAN;     // everything else in the band, re the fundamental
    double snr_db = NAN;      // fundamental over everything but it and its harmonics
};

// Power spectrum of y[start, start + n) with the window; the band is
// 20 Hz .. min(20 kHz, Nyquist); +-12 bins around the fundamental and around
// each harmonic up to the 9th count as those components.
ToneFigures analyse_tone(const Samples &y, size_t start, size_t n, double f0, double rate) {
    ToneFigures t;
    if (start + n > y.size()) return t;
    const auto w = window(n);
    std::vector<std::complex<double>> a(n);
    for (size_t i = 0; i < n; ++i) a[i] = w[i] * y[start + i] / 32768.0;
    fft(a);
    const double bin = rate / double(n);
    const size_t lo = static_cast<size_t>(std::ceil(20 / bin));
    const size_t hi = std::min(n / 2 - 1, static_cast<size_t>(std::min(20000.0, rate / 2) / bin));
    const auto near = [&](size_t k, double f) { return std::fabs(double(k) - f / bin) <= 12; };
    double fund = 0, harm = 0, rest = 0;
    for (size_t k = lo; k <= hi; ++k) {
        const double p = std::norm(a[k]);
        if (near(k, f0)) {
            fund += p;
            continue;
        }
        bool h = false;
        for (int m = 2; m <= 9; ++m) h = h || near(k, m * f0);
        (h ? harm : rest) += p;
    }
    // Parseval: a windowed sine of amplitude A puts N * A^2/4 * sum w^2 into
    // one half of the spectrum.
    double w2 = 0;
    for (double v : w) w2 += v * v;
    t.level_dbfs = 10 * std::log10(std::max(4 * fund / (double(n) * w2), 1e-30));
    t.thdn_db = 10 * std::log10(std::max((harm + rest) / fund, 1e-30));
    t.snr_db = 10 * std::log10(std::max(fund / rest, 1e-30));
    return t;
}

// ---- Measurement of one path -------------------------------------------------------

struct Point {
    double x;      // Hz at the higher of the two rates: the tone, or the image it caused
    double tone;   // input tone, Hz
    double at;     // output frequency measured, Hz
    double db;     // level re the input tone
    char kind;     // 'p' passband, 'i' image, 'a' alias
};

struct Figures {
    std::string status = "ok";
    std::string note;
    double pass_min = NAN, pass_max = NAN, pass_edge = NAN, minus3 = NAN;
    double rej_fn = NAN, rej_12 = NAN;
    ToneFigures tone, full;
    double dc_gain = NAN, delay_out = NAN;
    size_t imp_at = 0;
    double imp_amp = 0;
    size_t sweep_at = 0;
    double sweep_s = 0;
};

Samples sine(size_t n, double f, double rate, double amp) {
    Samples s(n);
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<int16_t>(std::lround(amp * std::sin(2 * kPi * f * double(i) / rate)));
    return s;
}

size_t pow2_at_least(double v) {
    size_t n = 1;
    while (double(n) < v) n <<= 1;
    return n;
}

class Measurer {
public:
    Measurer(const Path &p, const Sizes &z) : p_(p), z_(z), fi_(p.in_rate), fo_(p.out_rate), r_(p.ratio()) {}

    Figures measure(std::vector<Point> &points, Samples &imp, Samples &sweep) {
        Figures f;
        if (!impulse(f, imp) || !tones(f, points) || !tone_997(f) || !dc(f) || !sweep_run(f, sweep)) f.status = error_;
        f.note = note_;
        return f;
    }

private:
    const Path &p_;
    const Sizes z_;
    const double fi_, fo_, r_;
    std::string error_, note_;

    bool convert(const Samples &in, Samples &out) {
        Run r = p_.run(in);
        if (!r.error.empty()) {
            error_ = r.error;
            return false;
        }
        if (note_.empty()) note_ = r.note;
        out = std::move(r.out);
        return true;
    }

    // Group delay at DC, from the first moment of the impulse response.
    bool impulse(Figures &f, Samples &y) {
        const size_t at = static_cast<size_t>(0.05 * fi_);
        Samples in(static_cast<size_t>(0.25 * fi_), 0);
        in[at] = 16384;
        if (!convert(in, y)) return false;
        const size_t from = static_cast<size_t>(at * r_), to = std::min(y.size(), from + static_cast<size_t>(0.15 * fo_));
        double m0 = 0, m1 = 0;
        for (size_t m = from; m < to; ++m) {
            m0 += y[m];
            m1 += double(m) * y[m];
        }
        if (m0 == 0) {
            error_ = "no impulse response";
            return false;
        }
        f.delay_out = m1 / m0 - double(at) * r_;
        f.imp_at = at;
        f.imp_amp = 16384;
        return true;
    }

    // Stepped -6 dBFS tones: the output at the tone (passband), at its images
    // k*fi +- f below the output Nyquist frequency, and, for tones above the
    // output Nyquist frequency, at the frequency they fold to (alias).
    bool tones(Figures &f, std::vector<Point> &pts) {
        const double fn_in = fi_ / 2, fn_out = fo_ / 2, fn_low = std::min(fn_in, fn_out);
        std::vector<double> grid;
        for (int k = 0; k < z_.tones_each; ++k) {
            grid.push_back(fn_in * (k + 0.5) / z_.tones_each);
            const double g = std::min(1.5 * fn_low, fn_in) * (k + 0.37) / z_.tones_each;
            grid.push_back(g);
        }
        std::sort(grid.begin(), grid.end());
        const size_t win = pow2_at_least(double(z_.window_out) * std::max(1.0, r_));
        const auto w = window(win);
        const double bin = fo_ / double(win);
        const size_t seg_in = static_cast<size_t>(std::ceil((z_.settle_out + win) / r_)) + 16;
        const size_t lead = static_cast<size_t>(std::max(0.0, f.delay_out / r_)) + 64;  // silence while the delay passes
        Samples in(lead + grid.size() * seg_in + seg_in, 0);
        for (size_t k = 0; k < grid.size(); ++k) {
            const Samples s = sine(seg_in, grid[k], fi_, 16384);
            std::copy(s.begin(), s.end(), in.begin() + lead + k * seg_in);
        }
        Samples y;
        if (!convert(in, y)) return false;
        // A component closer than 4.5 bins to 0 or to the output Nyquist
        // frequency overlaps its own mirror image; one that close to the tone
        // overlaps the tone.
        const auto clear = [&](double g) { return std::min(g, fn_out - g) >= 4.5 * bin; };
        for (size_t k = 0; k < grid.size(); ++k) {
            const double t = grid[k];
            const size_t start = static_cast<size_t>((lead + k * seg_in) * r_ + f.delay_out) + z_.settle_out;
            if (start + win > y.size()) {
                error_ = "output shorter than expected";
                return false;
            }
            const auto level = [&](double g) {
                return 20 * std::log10(std::max(amplitude_at(y, start, w, g, fo_) / 0.5, 1e-12));
            };
            if (t < fn_out) {
                if (clear(t)) pts.push_back({t, t, t, level(t), 'p'});
            } else {
                double g = std::fmod(t, fo_);
                if (g > fn_out) g = fo_ - g;
                if (clear(g)) pts.push_back({t, t, g, level(g), 'a'});
            }
            for (int m = 1; m * fi_ - t < fn_out; ++m)
                for (double g : {m * fi_ - t, m * fi_ + t})
                    if (g < fn_out && clear(g) && std::fabs(g - t) >= 9 * bin) pts.push_back({g, t, g, level(g), 'i'});
        }
        std::sort(pts.begin(), pts.end(), [](const Point &a, const Point &b) { return a.x < b.x; });

        f.pass_edge = 0.85 * fn_low;
        f.pass_min = 1e9, f.pass_max = -1e9;
        const Point *prev = nullptr;
        for (const Point &pt : pts) {
            if (pt.kind != 'p') continue;
            if (pt.x <= f.pass_edge) {
                f.pass_min = std::min(f.pass_min, pt.db);
                f.pass_max = std::max(f.pass_max, pt.db);
            }
            if (std::isnan(f.minus3) && pt.db < -3 && prev)
                f.minus3 = prev->x + (pt.x - prev->x) * (-3 - prev->db) / (pt.db - prev->db);
            prev = &pt;
        }
        f.rej_fn = -1e9, f.rej_12 = -1e9;
        bool any12 = false;
        for (const Point &pt : pts) {
            if (pt.kind == 'p' || pt.x < fn_low) continue;
            f.rej_fn = std::max(f.rej_fn, pt.db);
            if (pt.x >= 1.2 * fn_low) {
                f.rej_12 = std::max(f.rej_12, pt.db);
                any12 = true;
            }
        }
        if (!any12) f.rej_12 = NAN;
        if (f.rej_fn < -1e8) f.rej_fn = NAN;
        return true;
    }

    bool tone_997(Figures &f) {
        for (bool full : {false, true}) {
            const size_t n = full ? z_.fft / 2 : z_.fft;
            const size_t skip = static_cast<size_t>(std::max(0.0, f.delay_out)) + static_cast<size_t>(0.02 * fo_);
            const Samples in = sine(static_cast<size_t>((n + skip) / r_) + static_cast<size_t>(0.02 * fi_), 997, fi_,
                                    full ? 32767 : 16384);
            Samples y;
            if (!convert(in, y)) return false;
            if (skip + n > y.size()) {
                error_ = "tone output too short";
                return false;
            }
            (full ? f.full : f.tone) = analyse_tone(y, skip, n, 997, fo_);
        }
        return true;
    }

    bool dc(Figures &f) {
        const Samples in(static_cast<size_t>(0.2 * fi_), 16384);
        Samples y;
        if (!convert(in, y)) return false;
        const size_t from = static_cast<size_t>(0.1 * fo_ + std::max(0.0, f.delay_out)), n = static_cast<size_t>(0.02 * fo_);
        if (from + n > y.size()) {
            error_ = "dc output too short";
            return false;
        }
        double sum = 0;
        for (size_t i = from; i < from + n; ++i) sum += y[i];
        f.dc_gain = sum / double(n) / 16384.0;
        return true;
    }

    bool sweep_run(Figures &f, Samples &y) {
        const size_t lead = static_cast<size_t>(0.1 * fi_), len = static_cast<size_t>(z_.sweep_s * fi_);
        Samples in(lead + len + lead, 0);
        const double k = (fi_ / 2) / z_.sweep_s;  // Hz per second
        for (size_t i = 0; i < len; ++i) {
            const double t = double(i) / fi_;
            in[lead + i] = static_cast<int16_t>(std::lround(16384 * std::sin(kPi * k * t * t)));
        }
        f.sweep_at = lead;
        f.sweep_s = z_.sweep_s;
        return convert(in, y);
    }
};

// ---- Output ------------------------------------------------------------------------

std::string num(double v, int prec) {
    if (std::isnan(v)) return "nan";
    char b[32];
    std::snprintf(b, sizeof b, "%.*f", prec, v);
    return b;
}

void write_raw(const fs::path &file, const Samples &s) {
    std::ofstream o(file, std::ios::binary);
    o.write(reinterpret_cast<const char *>(s.data()), static_cast<std::streamsize>(s.size() * sizeof(int16_t)));
}

}  // namespace

int main(int argc, char **argv) {
    fs::path out = "quality-data";
    std::set<std::string> only;
    bool quick = false, list = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--out" && i + 1 < argc) {
            out = argv[++i];
        } else if (a == "--only" && i + 1 < argc) {
            std::stringstream ss(argv[++i]);
            for (std::string id; std::getline(ss, id, ',');) only.insert(id);
        } else if (a == "--quick") {
            quick = true;
        } else if (a == "--list") {
            list = true;
        } else {
            std::fprintf(stderr, "usage: %s [--out DIR] [--only ID[,ID...]] [--quick] [--list]\n", argv[0]);
            return 2;
        }
    }
    const std::vector<Path> paths = all_paths();
    if (list) {
        for (const Path &p : paths) std::printf("%-22s %5u -> %5u  %s\n", p.id.c_str(), p.in_rate, p.out_rate, p.label.c_str());
        return 0;
    }
    fs::create_directories(out);
    // build/alsa-lib holds our module beside links to the system's converters.
    rsmpl_harness::use_staged_plugin_dir();
    const Sizes &z = quick ? kQuick : kFull;

    std::ofstream table(out / "paths.tsv");
    table << "id\tlabel\tkind\tin_rate\tout_rate\tstatus\tnote\tpass_min_db\tpass_max_db\tpass_edge_hz\tminus3_hz"
             "\trej_fn_db\trej_12fn_db\tsnr_db\tthdn_db\tfull_level_dbfs\tfull_thdn_db"
             "\tdc_gain\tdelay_out\timp_at\timp_amp\tsweep_at\tsweep_s\n";
    // The analyser on the unconverted 16-bit test tones: the floor every path starts from.
    std::ofstream ref(out / "reference.tsv");
    ref << "rate\tsnr_db\tthdn_db\n";
    for (double rate : {8000.0, 44100.0, 48000.0}) {
        const ToneFigures t = analyse_tone(sine(z.fft, 997, rate, 16384), 0, z.fft, 997, rate);
        ref << rate << '\t' << num(t.snr_db, 1) << '\t' << num(t.thdn_db, 1) << '\n';
    }

    int failed = 0, measured = 0;
    for (const Path &p : paths) {
        if (!only.empty() && !only.count(p.id)) continue;
        std::vector<Point> pts;
        Samples imp, sweep;
        Measurer m(p, z);
        const Figures f = m.measure(pts, imp, sweep);
        ++measured;
        if (f.status != "ok") ++failed;
        std::printf("%-22s %-28s %s\n", p.id.c_str(), p.label.c_str(), f.status == "ok" ? f.note.c_str() : f.status.c_str());
        std::fflush(stdout);
        table << p.id << '\t' << p.label << '\t' << p.kind << '\t' << p.in_rate << '\t' << p.out_rate << '\t'
              << f.status << '\t' << f.note << '\t' << num(f.pass_min, 3) << '\t' << num(f.pass_max, 3) << '\t'
              << num(f.pass_edge, 1) << '\t' << num(f.minus3, 1) << '\t' << num(f.rej_fn, 1) << '\t'
              << num(f.rej_12, 1) << '\t' << num(f.tone.snr_db, 1) << '\t' << num(f.tone.thdn_db, 1) << '\t'
              << num(f.full.level_dbfs, 2) << '\t' << num(f.full.thdn_db, 1) << '\t'
              << num(f.dc_gain, 5) << '\t' << num(f.delay_out, 2) << '\t' << f.imp_at << '\t' << f.imp_amp << '\t'
              << f.sweep_at << '\t' << f.sweep_s << '\n';
        if (f.status != "ok") continue;
        std::ofstream resp(out / (p.id + ".resp.tsv"));
        resp << "x_hz\ttone_hz\tat_hz\tdb\tkind\n";
        for (const Point &pt : pts)
            resp << num(pt.x, 2) << '\t' << num(pt.tone, 2) << '\t' << num(pt.at, 2) << '\t' << num(pt.db, 3) << '\t'
                 << pt.kind << '\n';
        write_raw(out / (p.id + ".imp.s16"), imp);
        write_raw(out / (p.id + ".sweep.s16"), sweep);
    }
    rsmpl_harness::release_global_config();
    if (measured == 0) {
        std::fprintf(stderr, "no path matches\n");
        return 1;
    }
    return failed ? 1 : 0;
}
