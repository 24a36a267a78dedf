// Converter "rsmplrate_best" inside real alsa-lib: a `type rate` PCM in front
// of a file PCM over the null PCM. Every path (copy, each FIR stage up and
// down, sinc up and down at exact and at inexact period ratios) with 1, 2 and
// 8 channels must deliver, bit for bit, what the RSMPL interface called
// directly gives under the stream rule of tests/best_model.hpp, with exactly
// one output period per input period. Also: the dump names the path, refused
// set-ups, and set-ups repeated on one PCM.
#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "alsa_pcm.hpp"
#include "best_model.hpp"

namespace {

using rsmpl_test::RatePcm;
using rsmpl_test::best::Model;
using rsmpl_test::best::Path;

const bool g_plugin_dir_set = rsmpl_test::use_built_module();
const bool g_config_released = rsmpl_test::release_alsa_config_after_tests();

using rsmpl_harness::dump;

// Noise with loud stretches that reach full scale, so saturation shows.
std::vector<int16_t> test_audio(size_t samples, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> quiet(-8000, 8000);
    std::vector<int16_t> v(samples);
    for (size_t i = 0; i < samples; ++i) {
        const bool loud = (i / 3000) % 4 == 3;
        v[i] = loud ? int16_t((rng() & 1) ? 32767 : -32768) : int16_t(quiet(rng));
    }
    return v;
}

struct Case {
    const char *name;
    unsigned in_rate, out_rate;
    unsigned period_us;  // the client's period; some give period ratios off the rate ratio
    Path path;
};

const Case kCases[] = {
    {"copy_48k", 48000, 48000, 20000, Path::Copy},
    {"up2", 24000, 48000, 20000, Path::Up},
    {"up3", 16000, 48000, 20000, Path::Up},
    {"up4", 12000, 48000, 20000, Path::Up},
    {"up6", 8000, 48000, 20000, Path::Up},
    {"up3_2", 32000, 48000, 20000, Path::Up},
    {"down2", 48000, 24000, 20000, Path::Down},
    {"down3", 48000, 16000, 20000, Path::Down},
    {"down4", 48000, 12000, 20000, Path::Down},
    {"down6", 48000, 8000, 20000, Path::Down},
    {"down2_3", 48000, 32000, 20000, Path::Down},
    {"down2_3_odd_period", 48000, 32000, 10063, Path::Down},  // 483 frames: a carry of 3 every other call
    {"sinc_up_44k1_48k", 44100, 48000, 20000, Path::Sinc},
    {"sinc_down_48k_44k1", 48000, 44100, 20000, Path::Sinc},
    {"sinc_up_8k_44k1", 8000, 44100, 20000, Path::Sinc},
    {"sinc_down_44k1_8k", 44100, 8000, 20000, Path::Sinc},
    {"sinc_up_22k05_32k", 22050, 32000, 20000, Path::Sinc},
    {"sinc_inexact_48k_11k025", 48000, 11025, 20000, Path::Sinc},  // 960 -> 220.5 cannot be exact
    {"sinc_inexact_44k1_48k", 44100, 48000, 23220, Path::Sinc},
    {"sinc_inexact_48k_44k1", 48000, 44100, 21333, Path::Sinc},
    {"sinc_inexact_fir_pair_48k_8k", 48000, 8000, 21333, Path::Sinc},
    {"sinc_inexact_fir_pair_16k_48k", 16000, 48000, 21333, Path::Sinc},
};

struct Param {
    Case c;
    unsigned channels;
};

void PrintTo(const Param &p, std::ostream *os) { *os << p.c.name << ", " << p.channels << " channels"; }

class BestAlsa : public ::testing::TestWithParam<Param> {};

TEST_P(BestAlsa, MatchesTheInterfaceBitForBit) {
    const Case &c = GetParam().c;
    const unsigned ch = GetParam().channels;
    RatePcm pcm(c.in_rate, c.out_rate, ch, c.period_us, 4 * c.period_us, "rsmplrate_best");
    ASSERT_TRUE(pcm.ok()) << pcm.error();
    const size_t n = pcm.in_period(), m = pcm.out_period();
    Model model(c.in_rate, c.out_rate, ch, n, m);
    ASSERT_EQ(model.path(), c.path) << "periods " << n << " -> " << m;
    // The inexact cases must really get periods off the rate ratio.
    EXPECT_EQ(std::string(c.name).find("inexact") != std::string::npos, n * c.out_rate != m * c.in_rate);
    EXPECT_NE(dump(pcm.pcm()).find("RSMPL Converter: " + model.dump() + "\n"), std::string::npos)
        << dump(pcm.pcm());

    const size_t periods = 40 + 20000 / n;
    const std::vector<int16_t> in = test_audio(periods * n * ch, c.in_rate + ch);
    ASSERT_TRUE(pcm.write(in.data(), periods * n)) << pcm.error();
    ASSERT_TRUE(pcm.drain());
    std::vector<int16_t> out;
    pcm.take(out);

    std::vector<int16_t> want;
    for (size_t p = 0; p < periods; ++p) {
        const std::vector<int16_t> y = model.call(in.data() + p * n * ch, n, m);
        want.insert(want.end(), y.begin(), y.end());
    }
    ASSERT_EQ(out.size(), want.size()) << "one output period per input period";
    size_t first = 0;
    while (first < out.size() && out[first] == want[first]) ++first;
    EXPECT_EQ(first, out.size()) << "first difference at frame " << first / ch << " of " << out.size() / ch;
}

std::vector<Param> params() {
    std::vector<Param> v;
    for (const Case &c : kCases)
        for (unsigned ch : {1u, 2u, 8u}) v.push_back({c, ch});
    return v;
}

INSTANTIATE_TEST_SUITE_P(Paths, BestAlsa, ::testing::ValuesIn(params()), [](const auto &info) {
    return std::string(info.param.c.name) + "_" + std::to_string(info.param.channels) + "ch";
});

// Nine channels, or a format the converter does not take, are refused at
// hw_params; the same PCM then accepts a set-up it can do and converts it.
TEST(BestAlsaSetup, RefusedSetupsChangeNothing) {
    RatePcm pcm(44100, 48000, 2, 20000, 80000, "rsmplrate_best");
    ASSERT_TRUE(pcm.ok()) << pcm.error();
    EXPECT_FALSE(pcm.reconfigure(44100, 9));
    ASSERT_TRUE(pcm.reconfigure(44100, 8)) << pcm.error();
    const size_t n = pcm.in_period(), m = pcm.out_period();
    Model model(44100, 48000, 8, n, m);
    const std::vector<int16_t> in = test_audio(10 * n * 8, 7);
    ASSERT_TRUE(pcm.write(in.data(), 10 * n));
    ASSERT_TRUE(pcm.drain());
    std::vector<int16_t> out, want;
    pcm.take(out);
    for (size_t p = 0; p < 10; ++p) {
        const auto y = model.call(in.data() + p * n * 8, n, m);
        want.insert(want.end(), y.begin(), y.end());
    }
    EXPECT_EQ(out, want);
}

// Free and init again with other rates and channels (a new hw_params), and a
// restart of the stream (reset): each time a fresh stream, as the model gives.
TEST(BestAlsaSetup, RepeatedSetupsAndRestartsStartFresh) {
    RatePcm pcm(16000, 48000, 2, 20000, 80000, "rsmplrate_best");
    ASSERT_TRUE(pcm.ok()) << pcm.error();
    const struct {
        unsigned rate, channels;
    } steps[] = {{44100, 1}, {8000, 8}, {16000, 2}, {44100, 1}, {32000, 2}};
    for (const auto &s : steps) {
        ASSERT_TRUE(pcm.reconfigure(s.rate, s.channels)) << pcm.error();
        const size_t n = pcm.in_period(), m = pcm.out_period();
        for (int run = 0; run < 2; ++run) {
            Model model(s.rate, 48000, s.channels, n, m);
            const std::vector<int16_t> in = test_audio(12 * n * s.channels, s.rate + unsigned(run));
            ASSERT_EQ(snd_pcm_prepare(pcm.pcm()), 0);
            ASSERT_TRUE(pcm.write(in.data(), 12 * n));
            ASSERT_TRUE(pcm.drain());
            std::vector<int16_t> out, want;
            pcm.take(out);
            for (size_t p = 0; p < 12; ++p) {
                const auto y = model.call(in.data() + p * n * s.channels, n, m);
                want.insert(want.end(), y.begin(), y.end());
            }
            EXPECT_EQ(out, want) << s.rate << " Hz, " << s.channels << " ch, run " << run;
        }
    }
}

// Opens `device` from `text` (an alsa configuration), sets a stereo 44.1 kHz
// S16 stream up and returns the dump.
std::string setup_dump(const std::string &text, const char *device) {
    rsmpl_harness::Pcm pcm;
    if (pcm.open(text, device) < 0) return "not opened";
    rsmpl_harness::HwSetup hw;
    hw.channels = 2;
    hw.rate = 44100;
    return pcm.configure(hw) == 0 ? dump(pcm.get()) : "hw_params failed";
}

// As alsa-lib's default converter (under a plug PCM), and through the
// pcm.rsmplrate_best definition of the installed configuration file.
TEST(BestAlsaSetup, DefaultConverterAndInstalledDefinition) {
    const std::string line = "RSMPL Converter: Sinc, UP 44100 -> 48000\n";
    const std::string plug = setup_dump(
        "defaults.pcm.rate_converter \"rsmplrate_best\"\n"
        "pcm.t { type plug slave { pcm { type null } rate 48000 format S16_LE } }",
        "t");
    EXPECT_NE(plug.find(line), std::string::npos) << plug;

    std::ifstream file(RSMPL_SOURCE_DIR "/dist/10-rsmplrate.conf");
    const std::string conf((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(conf.empty());
    const std::string named = setup_dump(conf + "\ndefaults.namehint.basic on\npcm.nul { type null }", "rsmplrate_best:SLAVE=nul,RATE=48000");
    EXPECT_NE(named.find(line), std::string::npos) << named;
}

}  // namespace
