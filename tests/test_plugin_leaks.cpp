// Nothing leaks over repeated lifecycles: open, init, free, init (again
// without free), free, close through the operations table, and open,
// hw_params, hw_free, hw_params, close through alsa-lib. In a plain build
// the heap in use must be the same after many cycles as after the first; the
// test script also runs this program under valgrind's memcheck, which
// reports any block lost on the way.
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <vector>

#include "alsa_pcm.hpp"
#include "soak_support.hpp"

namespace {

using rsmpl_test::RatePcm;
using rsmpl_test::soak::Signal;

const bool g_plugin_dir_set = rsmpl_test::use_built_module();

const bool g_config_released = rsmpl_test::release_alsa_config_after_tests();

// Bytes the C library has handed out and not had back. Sanitizers and
// valgrind bring their own allocator, which this does not see: there the
// tools themselves judge leaks, and the count here stays 0.
size_t heap_in_use() { return mallinfo2().uordblks; }

snd_pcm_rate_info_t info_for(unsigned in_rate, unsigned out_rate, unsigned channels) {
    snd_pcm_rate_info_t info{};
    info.in.format = info.out.format = SND_PCM_FORMAT_S16_LE;
    info.in.rate = in_rate;
    info.out.rate = out_rate;
    info.in.period_size = in_rate / 50;
    info.out.period_size = out_rate / 50;
    info.channels = channels;
    return info;
}

// One lifecycle through the table, converting a period after each init.
void ops_cycle(snd_pcm_rate_open_func_t open, unsigned round) {
    void *obj = nullptr;
    snd_pcm_rate_ops_t ops{};
    ASSERT_EQ(open(round % 2 ? 0x010001u : 0x010002u, &obj, &ops), 0);
    const snd_pcm_rate_info_t setups[] = {info_for(8000, 48000, 4), info_for(44100, 48000, 2),
                                          info_for(48000, 16000, 3)};
    std::vector<int16_t> in = Signal(round).take(960 * 4), out(960 * 6 * 4);
    auto run = [&](snd_pcm_rate_info_t info) {
        ASSERT_EQ(ops.init(obj, &info), 0);
        ASSERT_EQ(ops.adjust_pitch(obj, &info), 0);
        ops.reset(obj);
        ops.convert_s16(obj, out.data(), static_cast<unsigned>(info.out.period_size), in.data(),
                        static_cast<unsigned>(info.in.period_size));
    };
    run(setups[round % 3]);
    ops.free(obj);
    run(setups[(round + 1) % 3]);
    run(setups[(round + 2) % 3]);  // init again without free in between
    ops.free(obj);
    ops.close(obj);
}

// A leak of even the smallest block the module allocates per lifecycle (its
// state, over 100 bytes) would add tens of kilobytes over these cycles; the
// C library's own caches move the count by a few hundred bytes at most.
constexpr size_t kSlack = 8192;

TEST(PluginLeaks, OpsTableCyclesReleaseEverything) {
    rsmpl_harness::Module module;
    ASSERT_TRUE(module.ok()) << module.error();
    auto open = module.entry("rsmplrate");
    ASSERT_NE(open, nullptr);
    for (unsigned round = 0; round < 20; ++round) ops_cycle(open, round);
    const size_t before = heap_in_use();
    for (unsigned round = 20; round < 320; ++round) ops_cycle(open, round);
    EXPECT_LE(heap_in_use(), before + kSlack);
}

// One lifecycle through alsa-lib: the rate PCM's hw_params calls init, its
// hw_free calls free, its close calls free and then close.
void alsa_cycle(unsigned round, const char *converter) {
    const unsigned in_rates[] = {8000, 16000, 44100, 48000};
    RatePcm pcm(in_rates[round % 4], 48000, 1 + round % 4, 20000, 80000, converter);
    ASSERT_TRUE(pcm.ok()) << pcm.error();
    std::vector<int16_t> in = Signal(round).take(4 * 1024);
    ASSERT_TRUE(pcm.write(in.data(), 1024 / (1 + round % 4)));
    ASSERT_TRUE(pcm.reconfigure(in_rates[(round + 1) % 4], 1 + (round + 2) % 4)) << pcm.error();
    ASSERT_TRUE(pcm.write(in.data(), 1024 / (1 + (round + 2) % 4)));
    ASSERT_TRUE(pcm.drain());
}

// Heap growth over many cycles after a warm-up.
size_t alsa_growth(const char *converter) {
    for (unsigned round = 0; round < 40; ++round) alsa_cycle(round, converter);
    const size_t before = heap_in_use();
    for (unsigned round = 40; round < 240; ++round) alsa_cycle(round, converter);
    return heap_in_use() - before;
}

// alsa-lib keeps a little more heap with every PCM it opens (about 15 bytes a
// cycle, released at exit), whatever the converter: ours may add nothing to
// what alsa-lib's own linear converter shows over the same cycles.
TEST(PluginLeaks, AlsaLibCyclesKeepNoMoreThanAlsaLibsOwnConverter) {
    ASSERT_TRUE(g_plugin_dir_set);
    const size_t theirs = alsa_growth("linear");
    const size_t ours = alsa_growth("rsmplrate");
    EXPECT_LE(ours, theirs + kSlack) << "alsa-lib's linear converter: " << theirs;
}

}  // namespace
