// End-to-end benchmark through the real alsa-lib: a playback `rate` PCM over a
// `null` slave, stereo S16, 20 ms periods, measured as CPU time per second of
// audio for our converter, alsa-lib's built-in `linear`, the converters of
// libasound2-plugins and a copy-only converter that shows the plumbing floor.
// All converters and rate pairs are measured in one process, interleaved
// over several rounds, so that a slow moment of a shared machine spreads over
// all of them instead of landing on one.
//
// Prints Markdown tables on stdout. Benchmarks are not tests: the exit status
// says only whether the harness worked (and, with --require, whether the
// named converters could be measured), never how fast anything was.
#include <alsa/asoundlib.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "engine.hpp"
#include "harness/alsa_harness.hpp"

#ifndef RSMPL_MODULE_PATH
#define RSMPL_MODULE_PATH ""
#endif
#ifndef RSMPL_COPY_MODULE_PATH
#define RSMPL_COPY_MODULE_PATH ""
#endif
#ifndef RSMPL_SYSTEM_PLUGIN_DIR
#define RSMPL_SYSTEM_PLUGIN_DIR "/usr/lib/x86_64-linux-gnu/alsa-lib"
#endif

namespace {

constexpr unsigned kPeriodsPerSecond = 50;  // 20 ms periods
constexpr unsigned kBufferPeriods = 4;

struct RatePair {
    unsigned in;
    unsigned out;
    unsigned channels = 2;
};

// The last two rows are four-channel twins of the first two: the cost of more channels.
const RatePair kPairs[] = {
    {16000, 48000}, {48000, 16000}, {8000, 48000}, {48000, 8000}, {24000, 48000}, {44100, 48000}, {48000, 44100}, {8000, 32000},
    {16000, 48000, 4}, {48000, 16000, 4},
};

struct Converter {
    const char *name;     // converter name in the alsa configuration
    const char *label;    // column heading
    const char *marker;   // text that snd_pcm_dump shows when this converter runs
};

// The first is ours, the last the floor; the peers in between. Each marker
// proves from the dump that the named converter ran and nothing fell back.
const Converter kConverters[] = {
    {"rsmplrate", "rsmplrate", "RSMPL Converter:"},
    {"rsmplrate_best", "rsmplrate_best", "RSMPL Converter:"},
    {"linear", "linear (alsa-lib)", "Converter: linear-interpolation"},
    {"speexrate", "speexrate", "Converter: libspeex"},
    {"samplerate", "samplerate", "Converter: libsamplerate"},
    {"lavrate", "lavrate", "Converter: libswresample"},
    {"benchcopy", "copy floor", "Bench copy converter"},
};
constexpr size_t kOurs = 0;
constexpr size_t kBest = 1;
constexpr size_t kFloor = sizeof(kConverters) / sizeof(kConverters[0]) - 1;
constexpr size_t kNumConverters = sizeof(kConverters) / sizeof(kConverters[0]);

struct Options {
    std::string module = RSMPL_MODULE_PATH;
    std::string copy_module = RSMPL_COPY_MODULE_PATH;
    std::string system_dir = RSMPL_SYSTEM_PLUGIN_DIR;
    int rounds = 9;
    double seconds = 20.0;  // audio per measurement
    std::vector<std::string> require;
    size_t max_pairs = sizeof(kPairs) / sizeof(kPairs[0]);
    bool verbose = false;
};

struct Cell {
    std::vector<double> cpu;  // CPU seconds per second of audio, one per round
    std::string failure;      // why it could not be measured
    std::string dump_line;    // the converter's own line from snd_pcm_dump
};

double ThreadCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

std::string RateText(unsigned rate) {
    char buf[32];
    if (rate % 1000 == 0)
        std::snprintf(buf, sizeof buf, "%uk", rate / 1000);
    else
        std::snprintf(buf, sizeof buf, "%.1fk", rate / 1000.0);
    return buf;
}

// The output rate, and the channels where they are not two.
std::string OutText(const RatePair &pair) {
    return RateText(pair.out) + (pair.channels == 2 ? "" : ", " + std::to_string(pair.channels) + " ch");
}

// A directory for ALSA_PLUGIN_DIR, which replaces alsa-lib's whole module
// search path: it links the system's modules (the peers) and ours side by side.
class PluginDir {
public:
    bool Create(const Options &opt, std::string *error) {
        char tmpl[] = "/tmp/rsmpl-e2e-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            *error = std::string("mkdtemp: ") + std::strerror(errno);
            return false;
        }
        dir_ = tmpl;
        std::vector<std::pair<std::string, std::string>> ours;
        auto add = [&](const std::string &target, std::string base = "") {
            if (target.empty()) return;
            if (base.empty()) base = target.substr(target.find_last_of('/') + 1);
            ours.emplace_back(base, target);
        };
        add(opt.module);
        add(opt.module, "libasound_module_rate_rsmplrate_best.so");
        add(opt.copy_module);
        links_ = rsmpl_harness::link_plugin_dir(dir_, opt.system_dir, ours);
        return true;
    }
    ~PluginDir() {
        for (const std::string &l : links_) unlink(l.c_str());
        if (!dir_.empty()) rmdir(dir_.c_str());
    }
    const std::string &path() const { return dir_; }

private:
    std::string dir_;
    std::vector<std::string> links_;
};

// Interleaved test signal, one second long: two tones and a little
// noise at about -6 dBFS, so that no converter sees a trivial input.
std::vector<int16_t> MakeSignal(unsigned rate, unsigned channels) {
    std::vector<int16_t> s(static_cast<size_t>(rate) * channels);
    uint32_t noise = 0x12345678u;
    for (unsigned i = 0; i < rate; ++i) {
        const double t = static_cast<double>(i) / rate;
        for (unsigned c = 0; c < channels; ++c) {
            noise = noise * 1664525u + 1013904223u;
            const double n = (static_cast<double>(noise >> 16) / 65536.0 - 0.5) * 0.02;
            const double v = 0.3 * std::sin(2 * M_PI * (440.0 + 110.0 * c) * t) +
                             0.18 * std::sin(2 * M_PI * 0.3 * rate * t) + n;
            s[static_cast<size_t>(i) * channels + c] = static_cast<int16_t>(std::lround(v * 32767.0));
        }
    }
    return s;
}

// Opens and configures the PCM, checks from its dump that the converter ran.
bool OpenPcm(rsmpl_harness::Pcm &pcm, const Converter &conv, const RatePair &pair, Cell *cell, bool verbose) {
    int err = pcm.open(rsmpl_harness::rate_config("bench", conv.name, pair.out), "bench");
    if (err < 0) {
        cell->failure = std::strcmp(pcm.step(), "config") == 0 ? "cannot build the configuration"
                                                                : std::string("open: ") + snd_strerror(err);
        return false;
    }
    const snd_pcm_uframes_t period = pair.in / kPeriodsPerSecond;
    rsmpl_harness::HwSetup hw;
    hw.channels = pair.channels;
    hw.rate = pair.in;
    hw.period = rsmpl_harness::Length::in_frames(period, true);
    hw.buffer = rsmpl_harness::Length::in_frames(period * kBufferPeriods);
    err = pcm.configure(hw);
    const char *step = pcm.step();
    if (err >= 0 && pcm.period_size() != period) step = "period readback", err = -EINVAL;
    if (err < 0) {
        cell->failure = std::string(step) + ": " + snd_strerror(err);
        pcm.close();
        return false;
    }

    const std::string dump_text = rsmpl_harness::dump(pcm.get());
    if (verbose) std::fprintf(stderr, "---- %s %u -> %u\n%s", conv.name, pair.in, pair.out, dump_text.c_str());
    cell->dump_line = rsmpl_harness::line_with(dump_text, conv.marker);
    if (cell->dump_line.empty()) {
        cell->failure = "another converter ran (not found in snd_pcm_dump)";
        pcm.close();
        return false;
    }
    return true;
}

// One measurement: CPU seconds spent per second of audio written.
bool Measure(const Converter &conv, const RatePair &pair, const std::vector<int16_t> &signal, double seconds,
             Cell *cell, bool verbose) {
    rsmpl_harness::Pcm handle;
    if (!OpenPcm(handle, conv, pair, cell, verbose)) return false;
    snd_pcm_t *pcm = handle.get();
    const unsigned period = pair.in / kPeriodsPerSecond;
    const unsigned channels = pair.channels;
    const long periods = std::max(1L, std::lround(seconds * kPeriodsPerSecond));
    int err = snd_pcm_prepare(pcm);
    size_t offset = 0;
    auto write_periods = [&](long count) -> int {
        for (long p = 0; p < count; ++p) {
            const snd_pcm_sframes_t w = snd_pcm_writei(pcm, &signal[offset * channels], period);
            if (w < 0) return static_cast<int>(w);
            if (static_cast<unsigned>(w) != period) return -EIO;
            offset += period;
            if (offset + period > signal.size() / channels) offset = 0;
        }
        return 0;
    };
    if (err >= 0) err = write_periods(kBufferPeriods * 2);  // warm caches and start the stream
    const double t0 = ThreadCpuSeconds();
    if (err >= 0) err = write_periods(periods);
    const double t1 = ThreadCpuSeconds();
    snd_pcm_drop(pcm);
    handle.close();
    if (err < 0) {
        cell->failure = std::string("write: ") + snd_strerror(err);
        return false;
    }
    cell->cpu.push_back((t1 - t0) / (static_cast<double>(periods) / kPeriodsPerSecond));
    return true;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

std::string Fmt(const char *format, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

// Times real time per core, with enough digits to compare but not more.
std::string Xrt(double cpu_per_second) {
    const double x = 1.0 / cpu_per_second;
    return Fmt(x >= 100 ? "%.0f" : x >= 10 ? "%.1f" : "%.2f", x);
}

std::string Ratio(double r) { return Fmt(r >= 10 ? "%.1f" : "%.2f", r); }

void Usage() {
    std::fprintf(stderr,
                 "usage: e2e_alsa [--rounds N] [--seconds S] [--pairs N] [--module PATH] [--copy-module PATH]\n"
                 "                [--system-dir DIR] [--require NAME,...] [--verbose]\n");
}

bool ParseArgs(int argc, char **argv, Options *opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        const char *v = nullptr;
        if (a == "--verbose") {
            opt->verbose = true;
            continue;
        }
        if ((v = value()) == nullptr) return false;
        if (a == "--rounds") opt->rounds = std::max(1, std::atoi(v));
        else if (a == "--seconds") opt->seconds = std::max(0.02, std::atof(v));
        else if (a == "--pairs") opt->max_pairs = std::clamp<size_t>(std::strtoul(v, nullptr, 10), 1, opt->max_pairs);
        else if (a == "--module") opt->module = v;
        else if (a == "--copy-module") opt->copy_module = v;
        else if (a == "--system-dir") opt->system_dir = v;
        else if (a == "--require") {
            std::string list = v;
            for (size_t pos = 0; pos <= list.size();) {
                const size_t comma = std::min(list.find(',', pos), list.size());
                if (comma > pos) opt->require.push_back(list.substr(pos, comma - pos));
                pos = comma + 1;
            }
        } else return false;
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    Options opt;
    if (!ParseArgs(argc, argv, &opt)) {
        Usage();
        return 2;
    }
    PluginDir plugin_dir;
    std::string error;
    if (!plugin_dir.Create(opt, &error)) {
        std::fprintf(stderr, "e2e_alsa: %s\n", error.c_str());
        return 1;
    }
    // alsa-lib reads this once, at its first module load: set it before any snd_* call.
    rsmpl_harness::use_plugin_dir(plugin_dir.path());

    const size_t num_pairs = opt.max_pairs;
    std::vector<std::vector<int16_t>> signals;
    for (size_t p = 0; p < num_pairs; ++p) signals.push_back(MakeSignal(kPairs[p].in, kPairs[p].channels));

    // cells[pair][converter]; rounds interleave every pair and converter, and
    // the converter order rotates per round so none always runs first.
    std::vector<std::vector<Cell>> cells(num_pairs, std::vector<Cell>(kNumConverters));
    for (int r = 0; r < opt.rounds; ++r) {
        for (size_t p = 0; p < num_pairs; ++p) {
            for (size_t k = 0; k < kNumConverters; ++k) {
                const size_t c = (k + static_cast<size_t>(r)) % kNumConverters;
                Cell &cell = cells[p][c];
                if (r > 0 && cell.cpu.empty()) continue;  // failed in round 0; reason kept
                if (!Measure(kConverters[c], kPairs[p], signals[p], opt.seconds, &cell, opt.verbose) && r > 0)
                    cell.cpu.clear();  // a converter that fails midway is reported as failed
            }
        }
        std::fprintf(stderr, "e2e_alsa: round %d of %d done\n", r + 1, opt.rounds);
    }

    // ---- Report ---------------------------------------------------------
    std::printf("Engine of rsmplrate: %s. Stereo S16 (where not marked otherwise), 20 ms periods, `null` slave; "
                "%d rounds of %.2f s of audio per converter and rate pair, interleaved.\n\n",
                BenchEngineName(), opt.rounds, opt.seconds);

    // One column per converter, one row per rate pair.
    auto table_head = [] {
        std::printf("| Rate pair |");
        for (const Converter &c : kConverters) std::printf(" %s |", c.label);
        std::printf("\n|---|");
        for (size_t c = 0; c < kNumConverters; ++c) std::printf("---:|");
        std::printf("\n");
    };
    std::printf("#### Times real time per core (median, min to max over rounds; higher is cheaper)\n\n");
    table_head();
    for (size_t p = 0; p < num_pairs; ++p) {
        std::printf("| %s → %s |", RateText(kPairs[p].in).c_str(), OutText(kPairs[p]).c_str());
        for (size_t c = 0; c < kNumConverters; ++c) {
            const Cell &cell = cells[p][c];
            if (cell.cpu.empty()) {
                std::printf(" n/a |");
                continue;
            }
            const auto [lo, hi] = std::minmax_element(cell.cpu.begin(), cell.cpu.end());
            std::printf(" %s (%s–%s) |", Xrt(Median(cell.cpu)).c_str(), Xrt(*hi).c_str(), Xrt(*lo).c_str());
        }
        std::printf("\n");
    }

    std::printf("\n#### CPU time per second of audio, µs (median; in brackets, above the copy floor)\n\n");
    table_head();
    for (size_t p = 0; p < num_pairs; ++p) {
        std::printf("| %s → %s |", RateText(kPairs[p].in).c_str(), OutText(kPairs[p]).c_str());
        const Cell &floor = cells[p][kFloor];
        for (size_t c = 0; c < kNumConverters; ++c) {
            const Cell &cell = cells[p][c];
            if (cell.cpu.empty()) {
                std::printf(" n/a |");
                continue;
            }
            std::printf(" %s", Fmt("%.1f", 1e6 * Median(cell.cpu)).c_str());
            if (c != kFloor && !floor.cpu.empty())
                std::printf(" [%s]", Fmt("%.1f", 1e6 * (Median(cell.cpu) - Median(floor.cpu))).c_str());
            std::printf(" |");
        }
        std::printf("\n");
    }

    // Ratios per round (the same round measured both), so drift of the
    // machine between rounds cancels; then median, min and max of those.
    auto ratio_table = [&](size_t mine) {
        const char *name = kConverters[mine].label;
        std::printf("\n#### %s against each other converter: its CPU time / %s CPU time (median, min to max over "
                    "rounds; above 1 means %s is cheaper)\n\n| Rate pair |",
                    name, name, name);
        for (size_t c = 0; c < kNumConverters; ++c)
            if (c != mine && c != kFloor) std::printf(" vs %s |", kConverters[c].label);
        std::printf("\n|---|");
        for (size_t c = 2; c < kNumConverters; ++c) std::printf("---:|");
        std::printf("\n");
        for (size_t p = 0; p < num_pairs; ++p) {
            std::printf("| %s → %s |", RateText(kPairs[p].in).c_str(), OutText(kPairs[p]).c_str());
            const Cell &ours = cells[p][mine];
            for (size_t c = 0; c < kNumConverters; ++c) {
                if (c == mine || c == kFloor) continue;
                const Cell &peer = cells[p][c];
                const size_t n = std::min(ours.cpu.size(), peer.cpu.size());
                if (n == 0) {
                    std::printf(" n/a |");
                    continue;
                }
                std::vector<double> ratios;
                for (size_t r = 0; r < n; ++r) ratios.push_back(peer.cpu[r] / ours.cpu[r]);
                const auto [lo, hi] = std::minmax_element(ratios.begin(), ratios.end());
                std::printf(" %s (%s–%s) |", Ratio(Median(ratios)).c_str(), Ratio(*lo).c_str(), Ratio(*hi).c_str());
            }
            std::printf("\n");
        }
    };
    ratio_table(kOurs);
    ratio_table(kBest);

    // More channels against stereo, per round: the same pair with two channels.
    std::printf("\n#### More channels against stereo: CPU time / CPU time of the stereo row (median, min to max over "
                "rounds)\n\n| Rate pair | rsmplrate | rsmplrate_best |\n|---|---:|---:|\n");
    for (size_t p = 0; p < num_pairs; ++p) {
        size_t q = 0;
        auto stereo_twin = [&](const RatePair &r) {
            return r.channels == 2 && r.in == kPairs[p].in && r.out == kPairs[p].out;
        };
        while (q < num_pairs && !stereo_twin(kPairs[q])) ++q;
        if (kPairs[p].channels == 2 || q == num_pairs) continue;
        std::printf("| %s → %s |", RateText(kPairs[p].in).c_str(), OutText(kPairs[p]).c_str());
        for (size_t c : {kOurs, kBest}) {
            const std::vector<double> &many = cells[p][c].cpu, &two = cells[q][c].cpu;
            std::vector<double> ratios;
            for (size_t r = 0; r < std::min(many.size(), two.size()); ++r) ratios.push_back(many[r] / two[r]);
            if (ratios.empty()) {
                std::printf(" n/a |");
                continue;
            }
            const auto [lo, hi] = std::minmax_element(ratios.begin(), ratios.end());
            std::printf(" %s (%s–%s) |", Ratio(Median(ratios)).c_str(), Ratio(*lo).c_str(), Ratio(*hi).c_str());
        }
        std::printf("\n");
    }

    std::printf("\n#### Which converter ran (from snd_pcm_dump)\n\n| Rate pair | rsmplrate | rsmplrate_best |\n"
                "|---|---|---|\n");
    for (size_t p = 0; p < num_pairs; ++p)
        std::printf("| %s → %s | %s | %s |\n", RateText(kPairs[p].in).c_str(), OutText(kPairs[p]).c_str(),
                    cells[p][kOurs].dump_line.empty() ? "n/a" : cells[p][kOurs].dump_line.c_str(),
                    cells[p][kBest].dump_line.empty() ? "n/a" : cells[p][kBest].dump_line.c_str());
    std::printf("\nEvery other measured cell was checked the same way: ");
    for (size_t c = 2; c < kNumConverters; ++c) std::printf("%s`%s`", c > 2 ? ", " : "", kConverters[c].marker);
    std::printf(".\n");

    int status = 0;
    bool any_failure = false;
    for (size_t p = 0; p < num_pairs; ++p)
        for (size_t c = 0; c < kNumConverters; ++c)
            if (cells[p][c].cpu.empty()) any_failure = true;
    if (any_failure) {
        std::printf("\nCould not be measured:\n\n");
        for (size_t p = 0; p < num_pairs; ++p)
            for (size_t c = 0; c < kNumConverters; ++c)
                if (cells[p][c].cpu.empty())
                    std::printf("- %s, %s → %s: %s\n", kConverters[c].label, RateText(kPairs[p].in).c_str(),
                                OutText(kPairs[p]).c_str(), cells[p][c].failure.c_str());
    }
    for (const std::string &name : opt.require) {
        bool found = false;
        for (size_t c = 0; c < kNumConverters; ++c) {
            if (name != kConverters[c].name) continue;
            found = true;
            for (size_t p = 0; p < num_pairs; ++p) {
                if (cells[p][c].cpu.empty()) {
                    std::fprintf(stderr, "e2e_alsa: required converter %s not measured for %u -> %u: %s\n",
                                 name.c_str(), kPairs[p].in, kPairs[p].out, cells[p][c].failure.c_str());
                    status = 1;
                }
            }
        }
        if (!found) {
            std::fprintf(stderr, "e2e_alsa: unknown converter %s\n", name.c_str());
            status = 2;
        }
    }
    return status;
}
