// Many module instances inside alsa-lib, in many threads at once: each
// thread plays several rate PCMs side by side (FIR and linear paths, 1 to 4
// channels), and every stream must come out exactly as it does when the same
// streams are played one after another on one thread. Built under
// ThreadSanitizer by the test script.
#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "alsa_pcm.hpp"
#include "soak_support.hpp"

namespace {

using rsmpl_test::RatePcm;
using rsmpl_test::soak::Signal;

const bool g_plugin_dir_set = rsmpl_test::use_built_module();

const bool g_config_released = rsmpl_test::release_alsa_config_after_tests();

struct Job {
    unsigned in_rate, out_rate, channels;
};

// Every path: FIR up and down by 2, 3 and 6, linear both ways and at equal rates.
const Job kJobs[] = {
    {8000, 16000, 1}, {16000, 48000, 2}, {8000, 48000, 3},  {48000, 24000, 4}, {48000, 16000, 2},
    {48000, 8000, 1}, {44100, 48000, 2}, {48000, 44100, 4}, {8000, 32000, 1},  {32000, 32000, 2},
};
constexpr unsigned kThreads = 5;
constexpr unsigned kPerThread = 4;  // instances each thread plays side by side
constexpr double kSeconds = 1.5;

struct Result {
    bool ok = false;
    std::string error;
    std::vector<int16_t> out;
};

// Plays streams s = first, first + step, ... interleaved on this thread:
// a random amount into each PCM in turn until all are done.
void play(const std::vector<unsigned> &streams, std::vector<Result> &results) {
    std::vector<std::unique_ptr<RatePcm>> pcms;
    std::vector<std::vector<int16_t>> input;
    std::vector<size_t> done(streams.size(), 0);
    for (unsigned s : streams) {
        const Job &j = kJobs[s % std::size(kJobs)];
        pcms.push_back(std::make_unique<RatePcm>(j.in_rate, j.out_rate, j.channels));
        input.push_back(Signal(s).take(static_cast<size_t>(kSeconds * j.in_rate) * j.channels));
        if (!pcms.back()->ok()) results[s].error = pcms.back()->error();
    }
    std::mt19937 rng(streams.front());
    for (bool busy = true; busy;) {
        busy = false;
        for (size_t i = 0; i < streams.size(); ++i) {
            const unsigned ch = kJobs[streams[i] % std::size(kJobs)].channels;
            const size_t frames = input[i].size() / ch;
            if (!pcms[i]->ok() || done[i] == frames) continue;
            const size_t n = std::min<size_t>(frames - done[i], 1 + rng() % 2000);
            if (!pcms[i]->write(input[i].data() + done[i] * ch, n)) {
                results[streams[i]].error = pcms[i]->error();
                done[i] = frames;
                continue;
            }
            done[i] += n;
            busy = true;
        }
    }
    for (size_t i = 0; i < streams.size(); ++i) {
        Result &r = results[streams[i]];
        if (!pcms[i]->ok() || !r.error.empty()) continue;
        r.ok = pcms[i]->drain();
        pcms[i]->take(r.out);
    }
}

TEST(PluginThreads, ManyInstancesInManyThreadsMatchOneThread) {
    ASSERT_TRUE(g_plugin_dir_set);
    constexpr unsigned kStreams = kThreads * kPerThread;
    std::vector<Result> serial(kStreams), parallel(kStreams);
    for (unsigned s = 0; s < kStreams; ++s) play({s}, serial);

    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        std::vector<unsigned> mine;
        for (unsigned k = 0; k < kPerThread; ++k) mine.push_back(t + k * kThreads);
        threads.emplace_back([mine, &parallel] { play(mine, parallel); });
    }
    for (auto &t : threads) t.join();

    for (unsigned s = 0; s < kStreams; ++s) {
        SCOPED_TRACE(s);
        ASSERT_TRUE(serial[s].ok) << serial[s].error;
        ASSERT_TRUE(parallel[s].ok) << parallel[s].error;
        EXPECT_GT(serial[s].out.size(), 0u);
        EXPECT_TRUE(parallel[s].out == serial[s].out);
    }
}

}  // namespace
