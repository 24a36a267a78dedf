// rsmpl-convert, run as a program on WAV files written here: what it writes
// must be what the module gives inside alsa-lib, at the exact length, pitch
// and timing, and every input it cannot handle must end with a message, a
// non-zero exit and the old output untouched.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "rate_support.hpp"
#include "rsmpl/engine/engine.hpp"
#include "support.hpp"

namespace fs = std::filesystem;

namespace {

using rsmpl_test::hostile_samples;
using rsmpl_test::write_wav;

struct Wav {
    unsigned rate = 0, channels = 0, bits = 0;
    std::vector<int16_t> samples;  // 16-bit files only
};

Wav read_wav(const fs::path &path) {
    Wav w;
    std::ifstream f(path, std::ios::binary);
    std::vector<uint8_t> d((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    auto u16 = [&](size_t i) { return static_cast<uint32_t>(d[i] | d[i + 1] << 8); };
    auto u32 = [&](size_t i) { return u16(i) | u16(i + 2) << 16; };
    if (d.size() < 12 || std::string(d.begin(), d.begin() + 4) != "RIFF") return w;
    for (size_t pos = 12; pos + 8 <= d.size();) {
        const std::string id(d.begin() + static_cast<long>(pos), d.begin() + static_cast<long>(pos) + 4);
        const uint32_t size = u32(pos + 4);
        if (id == "fmt ") {
            w.channels = u16(pos + 10);
            w.rate = u32(pos + 12);
            w.bits = u16(pos + 22);
        } else if (id == "data") {
            const size_t n = std::min<size_t>(size, d.size() - pos - 8) / 2;
            for (size_t i = 0; i < n; ++i) w.samples.push_back(static_cast<int16_t>(u16(pos + 8 + 2 * i)));
        }
        pos += 8 + size + (size & 1);
    }
    return w;
}

rsmpl_test::Cmd run(const std::string &args, const char *engine = nullptr) {
    const std::string forced = engine != nullptr ? std::string("RSMPL_ENGINE=") + engine + " " : "";
    // ${RSMPL_EMULATOR}: the emulator of a cross build, empty otherwise.
    return rsmpl_test::sh(forced + "ALSA_PLUGIN_DIR='" RSMPL_BINARY_DIR "/alsa-lib' ${RSMPL_EMULATOR:-} '" RSMPL_BINARY_DIR
                          "/tools/rsmpl-convert' " + args);
}

class RsmplConvert : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() /
               ("rsmpl-convert-test-" + std::to_string(getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string path(const char *name) const { return (dir_ / name).string(); }
    fs::path dir_;
};

// The converters every timing test runs: ours and peers with and without a
// low-pass filter.
const char *const kConverters[] = {"rsmplrate_best", "rsmplrate", "speexrate", "linear"};

// alsa-lib's linear converter is built in; the others are modules, and a
// cross build's plug-in folder holds only ours.
bool available(const std::string &converter) {
    return converter == "linear" ||
           fs::exists(RSMPL_BINARY_DIR "/alsa-lib/libasound_module_rate_" + converter + ".so");
}

std::string quoted(const std::string &s) { return "'" + s + "'"; }

int64_t rounded_length(int64_t n, unsigned in, unsigned out) {
    return (n * out * 2 + in) / (2 * int64_t{in});
}

// A raised-cosine click wide enough that a converter without a low-pass
// filter cannot step over it when it lowers the rate.
std::vector<int16_t> click(size_t n, size_t at, unsigned in, unsigned out) {
    std::vector<int16_t> s(n, 0);
    const long half = 2 + static_cast<long>(2 * in / out);
    for (long k = -half + 1; k < half; ++k)
        s[at + static_cast<size_t>(k + half) - static_cast<size_t>(half)] =
            static_cast<int16_t>(std::lround(20000 * (0.5 + 0.5 * std::cos(M_PI * k / half))));
    return s;
}

// Centre of the main lobe around the largest sample.
double lobe_centre(const std::vector<int16_t> &s) {
    size_t peak = 0;
    for (size_t i = 0; i < s.size(); ++i)
        if (s[i] > s[peak]) peak = i;
    size_t lo = peak, hi = peak;
    while (lo > 0 && s[lo - 1] >= s[peak] / 2) --lo;
    while (hi + 1 < s.size() && s[hi + 1] >= s[peak] / 2) ++hi;
    double sum = 0, moment = 0;
    for (size_t i = lo; i <= hi; ++i) sum += s[i], moment += s[i] * static_cast<double>(i);
    return moment / sum;
}

// Frequency from the first to the last rising zero crossing, interpolated.
double frequency(const std::vector<int16_t> &s, unsigned rate) {
    double first = -1, last = -1;
    int crossings = 0;
    for (size_t i = 1; i < s.size(); ++i) {
        if (s[i - 1] < 0 && s[i] >= 0) {
            const double t = static_cast<double>(i - 1) + s[i - 1] / static_cast<double>(s[i - 1] - s[i]);
            if (first < 0) first = t;
            last = t;
            ++crossings;
        }
    }
    return crossings < 2 ? 0 : (crossings - 1) * rate / (last - first);
}

std::vector<int16_t> tone(size_t n, double hz, unsigned rate, double amplitude = 16000) {
    std::vector<int16_t> s(n);
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * hz * i / rate)));
    return s;
}

// 11025 Hz against the others is where 20 ms periods are not whole frames.
TEST_F(RsmplConvert, LengthClickAndPitchAtEveryPair) {
    const std::pair<unsigned, unsigned> pairs[] = {{11025, 48000}, {48000, 11025}, {11025, 22050}, {8000, 11025},
                                                   {16000, 48000}, {48000, 16000}, {44100, 48000}, {48000, 44100}};
    for (const char *conv : kConverters) {
        if (!available(conv)) {
            std::printf("converter %s is not installed here: not tried\n", conv);
            continue;
        }
        for (auto [in, out] : pairs) {
            SCOPED_TRACE(std::string(conv) + " " + std::to_string(in) + " -> " + std::to_string(out));
            // A short file: the click must not vanish in the converter's delay.
            const size_t n = 400, at = 200;
            write_wav(path("click.wav"), in, 1, 16, click(n, at, in, out));
            rsmpl_test::Cmd r = run("-q -c " + std::string(conv) + " -r " + std::to_string(out) + " " +
                                    quoted(path("click.wav")) + " " + quoted(path("click_out.wav")));
            ASSERT_EQ(r.status, 0) << r.output;
            const Wav c = read_wav(path("click_out.wav"));
            EXPECT_EQ(c.rate, out);
            EXPECT_EQ(static_cast<int64_t>(c.samples.size()), rounded_length(n, in, out));
            EXPECT_NEAR(lobe_centre(c.samples), static_cast<double>(at) * out / in, 1.0);

            // 3 cents is 0.17 %; the drift of a rounded period ratio was 0.23 %.
            const double hz = 997;
            write_wav(path("tone.wav"), in, 1, 16, tone(in / 2, hz, in));
            r = run("-q -c " + std::string(conv) + " -r " + std::to_string(out) + " " + quoted(path("tone.wav")) +
                    " " + quoted(path("tone_out.wav")));
            ASSERT_EQ(r.status, 0) << r.output;
            const Wav t = read_wav(path("tone_out.wav"));
            EXPECT_EQ(static_cast<int64_t>(t.samples.size()), rounded_length(in / 2, in, out));
            EXPECT_NEAR(frequency(t.samples, out), hz, hz * 0.0002);
        }
    }
}

TEST_F(RsmplConvert, FirPathWritesWhatTheModuleGivesWithoutItsDelay) {
    const auto in = hostile_samples(16000 * 2, 3);  // one second of stereo
    write_wav(path("in.wav"), 16000, 2, 16, in);
    const rsmpl_test::Cmd r = run("-c rsmplrate -r 48000 '" + path("in.wav") + "' '" + path("out.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("RSMPL Converter: FIR filter, UP 16000 -> 48000"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("frames in:  16000"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("frames out: 48000"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("x real time"), std::string::npos) << r.output;
    const Wav out = read_wav(path("out.wav"));
    EXPECT_EQ(out.rate, 48000u);
    EXPECT_EQ(out.channels, 2u);
    EXPECT_EQ(out.bits, 16u);
    // The x3 filter delays by 23.5 output frames: the tool drops 23 or 24.
    const size_t pos = r.output.find("delay of ");
    ASSERT_NE(pos, std::string::npos) << r.output;
    const size_t delay = std::stoul(r.output.substr(pos + 9));
    EXPECT_TRUE(delay == 23 || delay == 24) << delay;
    auto padded = in;
    padded.resize(in.size() + 2 * 16000 / 10, 0);  // silence pushes the end out
    const auto ref = rsmpl_test::FirReference(2, true, 3).periods(padded, 320);  // 20 ms periods
    ASSERT_GE(ref.size(), (delay + 48000) * 2);
    EXPECT_EQ(out.samples, std::vector<int16_t>(ref.begin() + static_cast<long>(delay * 2),
                                                ref.begin() + static_cast<long>((delay + 48000) * 2)));
}

// A float WAV (format tag 3) of the given values.
void write_float_wav(const std::string &file, unsigned rate, const std::vector<float> &s) {
    std::ofstream f(file, std::ios::binary);
    auto put = [&](uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) f.put(static_cast<char>(v >> (8 * i)));
    };
    const auto bytes = static_cast<uint32_t>(s.size() * 4);
    f.write("RIFF", 4), put(36 + bytes, 4), f.write("WAVEfmt ", 8);
    put(16, 4), put(3, 2), put(1, 2), put(rate, 4), put(rate * 4, 4), put(4, 2), put(32, 2);
    f.write("data", 4), put(bytes, 4);
    f.write(reinterpret_cast<const char *>(s.data()), static_cast<std::streamsize>(bytes));
}

std::string slurp(const std::string &file) {
    std::ifstream f(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// Wide samples holding 16-bit values: truncation must give the 16-bit file's
// result exactly, dither must stay within a few steps of it and repeat
// itself from run to run.
TEST_F(RsmplConvert, WideAndFloatInput) {
    const auto s = rsmpl_test::random_samples(8000, 11);
    write_wav(path("s16.wav"), 16000, 1, 16, s);
    write_wav(path("s24.wav"), 16000, 1, 24, s);
    std::vector<float> f(s.size());
    for (size_t i = 0; i < s.size(); ++i) f[i] = static_cast<float>(s[i]) / 32768.0f;
    write_float_wav(path("f32.wav"), 16000, f);
    const std::string conv = "-c rsmplrate -r 48k ";
    ASSERT_EQ(run(conv + quoted(path("s16.wav")) + " " + quoted(path("o16.wav"))).status, 0);
    const Wav ref = read_wav(path("o16.wav"));
    ASSERT_EQ(ref.samples.size(), 24000u);
    for (const char *wide : {"s24.wav", "f32.wav"}) {
        SCOPED_TRACE(wide);
        rsmpl_test::Cmd r = run(conv + "--no-dither " + quoted(path(wide)) + " " + quoted(path("t.wav")));
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find("reduced to 16 bits by truncation"), std::string::npos) << r.output;
        EXPECT_EQ(read_wav(path("t.wav")).samples, ref.samples);

        r = run(conv + quoted(path(wide)) + " " + quoted(path("d1.wav")));
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find("reduced to 16 bits with TPDF dither"), std::string::npos) << r.output;
        ASSERT_EQ(run(conv + "-q " + quoted(path(wide)) + " " + quoted(path("d2.wav"))).status, 0);
        EXPECT_EQ(slurp(path("d1.wav")), slurp(path("d2.wav")));
        const Wav d = read_wav(path("d1.wav"));
        ASSERT_EQ(d.samples.size(), ref.samples.size());
        int worst = 0;
        size_t differ = 0;
        for (size_t i = 0; i < d.samples.size(); ++i) {
            worst = std::max(worst, std::abs(d.samples[i] - ref.samples[i]));
            differ += d.samples[i] != ref.samples[i];
        }
        EXPECT_LE(worst, 4);
        EXPECT_GT(differ, d.samples.size() / 4);  // the dither is really there
    }
    // Floats beyond full scale are clipped, with a warning.
    f[100] = 1.5f;
    write_float_wav(path("loud.wav"), 16000, f);
    const rsmpl_test::Cmd r = run(conv + "--no-dither " + quoted(path("loud.wav")) + " " + quoted(path("loud_out.wav")));
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.output.find("1 samples beyond full scale were clipped"), std::string::npos) << r.output;
}

TEST_F(RsmplConvert, TruncatedFileWarnsAndConvertsWhatIsThere) {
    write_wav(path("full.wav"), 16000, 1, 16, rsmpl_test::random_samples(4000, 12));
    const std::string all = slurp(path("full.wav"));
    std::ofstream(path("cut.wav"), std::ios::binary) << all.substr(0, 44 + 2 * 1000);
    const rsmpl_test::Cmd r = run("-c rsmplrate -r 48k " + quoted(path("cut.wav")) + " " + quoted(path("o.wav")));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("shorter than its header says"), std::string::npos) << r.output;
    EXPECT_EQ(read_wav(path("o.wav")).samples.size(), 3000u);
}

TEST_F(RsmplConvert, StandardInputAndOutput) {
    write_wav(path("in.wav"), 44100, 2, 16, rsmpl_test::random_samples(44100, 13));
    ASSERT_EQ(run("-q -c rsmplrate -r 48k " + quoted(path("in.wav")) + " " + quoted(path("file.wav"))).status, 0);
    // Audio alone on standard output; the summary goes to standard error.
    rsmpl_test::Cmd r = run("-c rsmplrate -r 48k - - < " + quoted(path("in.wav")) + " > " + quoted(path("piped.wav")) +
                            " 2>" + quoted(path("err.txt")) + "; exit $?");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(slurp(path("piped.wav")), slurp(path("file.wav")));
    EXPECT_NE(slurp(path("err.txt")).find("frames out: 24000"), std::string::npos);
    r = run("-q -c rsmplrate -r 48k -t au - - < " + quoted(path("in.wav")) + " > " + quoted(path("piped.au")));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(slurp(path("piped.au")).substr(0, 4), ".snd");
}

TEST_F(RsmplConvert, OptionForms) {
    write_wav(path("-in.wav"), 22050, 1, 16, rsmpl_test::random_samples(2205, 14));
    const std::string in = quoted(path("-in.wav"));
    const struct {
        std::string args;
        unsigned rate;
    } forms[] = {
        {"-r48000 -crsmplrate", 48000},         {"-r 44.1k -c rsmplrate", 44100},
        {"--rate=11025 --converter=rsmplrate", 11025}, {"--rate 8k -qv --converter rsmplrate", 8000},
    };
    for (const auto &f : forms) {
        SCOPED_TRACE(f.args);
        const rsmpl_test::Cmd r = run(f.args + " -- " + in + " " + quoted(path("o.wav")));
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_EQ(read_wav(path("o.wav")).rate, f.rate);
    }
    EXPECT_NE(run("-qv -c rsmplrate -r 48k -- " + in + " " + quoted(path("o.wav"))).output.find("kernel engine"),
              std::string::npos);
    ASSERT_EQ(run("-q -c rsmplrate -r 16k -t flac -- " + in + " " + quoted(path("o.data"))).status, 0);
    EXPECT_EQ(slurp(path("o.data")).substr(0, 4), "fLaC");
    ASSERT_EQ(run("-q -c rsmplrate -r 16k -- " + in + " " + quoted(path("o.aiff"))).status, 0);
    EXPECT_EQ(slurp(path("o.aiff")).substr(0, 4), "FORM");

    rsmpl_test::Cmd r = run("-V");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.output.find("rsmpl-convert "), std::string::npos) << r.output;
    r = run("--version");
    EXPECT_EQ(r.status, 0);
    r = run("-x -r 48k a.wav b.wav");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.output.find("unknown option '-x'"), std::string::npos) << r.output;
    for (const char *bad : {"44.1", "48kk", "1.5.1k", "0", "k"}) {
        r = run(std::string("-r ") + bad + " " + in + " " + quoted(path("o.wav")));
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_NE(r.output.find("invalid rate"), std::string::npos) << r.output;
    }

    // Through a link, the file it points to is replaced and the link stays.
    const auto at_16k = fs::file_size(path("o.aiff"));
    fs::create_symlink(path("o.aiff"), path("link.aiff"));
    ASSERT_EQ(run("-q -c rsmplrate -r 8k -- " + in + " " + quoted(path("link.aiff"))).status, 0);
    EXPECT_TRUE(fs::is_symlink(path("link.aiff")));
    EXPECT_EQ(fs::file_size(path("o.aiff")), at_16k - 800 * 2);  // 1600 frames became 800

    // -n leaves an existing file alone, and says so.
    const std::string before = slurp(path("o.wav"));
    r = run("-n -c rsmplrate -r 16k -- " + in + " " + quoted(path("o.wav")));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("exists"), std::string::npos) << r.output;
    EXPECT_EQ(slurp(path("o.wav")), before);
}

// Temporary files this run left in the test's folder.
size_t leftovers(const fs::path &dir) {
    size_t n = 0;
    for (const auto &e : fs::directory_iterator(dir)) n += e.path().filename().string().find(".rsmpl-") != std::string::npos;
    return n;
}

// A file-size limit makes writes fail even for root, the way a full disk does.
TEST_F(RsmplConvert, FailingWriteLeavesTheOldOutputIntact) {
    write_wav(path("in.wav"), 48000, 2, 16, rsmpl_test::random_samples(48000 * 2 * 3, 15));
    write_wav(path("old.wav"), 8000, 1, 16, rsmpl_test::random_samples(800, 16));
    const std::string old = slurp(path("old.wav"));
    const rsmpl_test::Cmd r = rsmpl_test::sh("ulimit -f 300; trap '' XFSZ; ALSA_PLUGIN_DIR='" RSMPL_BINARY_DIR
                                             "/alsa-lib' ${RSMPL_EMULATOR:-} '" RSMPL_BINARY_DIR
                                             "/tools/rsmpl-convert' -q -c rsmplrate -r 44.1k " +
                                             quoted(path("in.wav")) + " " + quoted(path("old.wav")));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("writing '" + path("old.wav") + "' failed"), std::string::npos) << r.output;
    EXPECT_EQ(slurp(path("old.wav")), old);
    EXPECT_EQ(leftovers(dir_), 0u);

    // A folder that is not there.
    const rsmpl_test::Cmd missing =
        run("-c rsmplrate -r 44.1k " + quoted(path("in.wav")) + " " + quoted(path("nowhere/o.wav")));
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("cannot write"), std::string::npos) << missing.output;
}

// Ctrl-C while the input is still coming: the tool waits on a pipe that has
// half a file in it, the test waits for its temporary file and interrupts it.
TEST_F(RsmplConvert, InterruptLeavesTheOldOutputIntact) {
    write_wav(path("in.wav"), 16000, 1, 16, rsmpl_test::random_samples(32000, 17));
    write_wav(path("old.wav"), 8000, 1, 16, rsmpl_test::random_samples(800, 18));
    const std::string old = slurp(path("old.wav"));
    std::ofstream(path("half.wav"), std::ios::binary) << slurp(path("in.wav")).substr(0, 44 + 16000);
    const std::string d = quoted(dir_.string());
    const rsmpl_test::Cmd r = rsmpl_test::sh(
        "cd " + d + " && mkfifo feed && exec 3<>feed && "
        "{ ALSA_PLUGIN_DIR='" RSMPL_BINARY_DIR "/alsa-lib' ${RSMPL_EMULATOR:-} '" RSMPL_BINARY_DIR
        "/tools/rsmpl-convert' -q -c rsmplrate -r 48k - old.wav < feed & } ; pid=$!; cat half.wav >&3; "
        "for i in $(seq 600); do ls -a | grep -q '^.old.wav.rsmpl-' && { echo seen; break; }; sleep 0.05; done; "
        "kill -INT $pid; wait $pid; echo \"status $?\"");
    EXPECT_NE(r.output.find("seen\n"), std::string::npos) << r.output;  // it had begun writing
    EXPECT_NE(r.output.find("status 130"), std::string::npos) << r.output;
    EXPECT_EQ(slurp(path("old.wav")), old);
    EXPECT_EQ(leftovers(dir_), 0u);
}

// --verbose names the engine the library chose, honouring RSMPL_ENGINE.
TEST_F(RsmplConvert, VerboseNamesTheKernelEngine) {
    write_wav(path("in.wav"), 16000, 1, 16, hostile_samples(1600, 5));
    for (const rsmpl::KernelSet *k : rsmpl::available_kernels()) {
        const rsmpl_test::Cmd r =
            run(std::string("-q -v -c rsmplrate -r 48000 '") + path("in.wav") + "' '" + path("out.wav") + "'", k->name);
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find(std::string("kernel engine ") + k->name + "\n"), std::string::npos) << r.output;
    }
    const rsmpl_test::Cmd quiet = run("-q -c rsmplrate -r 48000 '" + path("in.wav") + "' '" + path("out.wav") + "'");
    EXPECT_EQ(quiet.output.find("kernel engine"), std::string::npos) << quiet.output;
}

TEST_F(RsmplConvert, LongFilesShowProgress) {
    write_wav(path("long.wav"), 8000, 1, 16, std::vector<int16_t>(8000 * 40, 1000));
    rsmpl_test::Cmd r = run("-c rsmplrate -r 16000 '" + path("long.wav") + "' '" + path("out.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("converting:  50%"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("frames out: 640000"), std::string::npos) << r.output;
    r = run("-q -c rsmplrate -r 16000 '" + path("long.wav") + "' '" + path("out.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output.find("converting"), std::string::npos) << r.output;
}

TEST_F(RsmplConvert, InputsItCannotHandleEndWithAMessage) {
    write_wav(path("five.wav"), 16000, 5, 16, hostile_samples(16000 * 5 / 10, 5));
    write_wav(path("fast.wav"), 96000, 1, 16, hostile_samples(9600, 7));
    write_wav(path("ok.wav"), 16000, 1, 16, hostile_samples(1600, 8));
    std::ofstream(path("text.wav")) << "not audio\n";

    const std::string c = "-c rsmplrate ";
    const std::pair<std::string, std::string> cases[] = {
        {c + "-r 48000 '" + path("missing.wav") + "' '" + path("o.wav") + "'", "cannot read"},
        {c + "-r 48000 '" + path("text.wav") + "' '" + path("o.wav") + "'", "cannot read"},
        {c + "-r 48000 '" + path("five.wav") + "' '" + path("o.wav") + "'", "5 channels"},
        {c + "-r 48000 '" + path("fast.wav") + "' '" + path("o.wav") + "'", "input rate 96000 Hz is outside 8000..48000"},
        {c + "-r 96000 '" + path("ok.wav") + "' '" + path("o.wav") + "'", "output rate 96000 Hz is outside 8000..48000"},
        {c + "-r 7999 '" + path("ok.wav") + "' '" + path("o.wav") + "'", "outside 8000..48000"},
        {c + "-r fast '" + path("ok.wav") + "' '" + path("o.wav") + "'", "invalid rate"},
        {c + "'" + path("ok.wav") + "' '" + path("o.wav") + "'", "no output rate"},
        {c + "-r 48000 '" + path("ok.wav") + "' '" + path("o.xyz") + "'", "no output format known"},
        {c + "-r 48000 -t xyz '" + path("ok.wav") + "' '" + path("o.wav") + "'", "unknown output type 'xyz'"},
        {c + "-r 48000 '" + path("ok.wav") + "' '" + path("ok.wav") + "'", "is the input file"},
        {"--converter 'x\"y' -r 48000 '" + path("ok.wav") + "' '" + path("o.wav") + "'", "invalid converter name"},
        {"--converter nosuchconverter -r 48000 '" + path("ok.wav") + "' '" + path("o.wav") + "'",
         "libasound_module_rate_nosuchconverter.so"},
    };
    for (const auto &[args, message] : cases) {
        SCOPED_TRACE(args);
        const rsmpl_test::Cmd r = run(args);
        EXPECT_NE(r.status, 0) << r.output;
        EXPECT_NE(r.output.find(message), std::string::npos) << r.output;
        EXPECT_EQ(r.output.find("ERROR: "), std::string::npos) << r.output;  // no sanitizer report
    }
    EXPECT_FALSE(fs::exists(path("o.wav")));
    EXPECT_EQ(leftovers(dir_), 0u);
    EXPECT_EQ(read_wav(path("ok.wav")).samples.size(), 1600u);  // the input is left alone

    // The limits are our converters' own: a peer takes 5 channels at 96 kHz.
    const rsmpl_test::Cmd peer =
        run("-q -c linear -r 44.1k '" + path("fast.wav") + "' '" + path("peer.wav") + "'");
    ASSERT_EQ(peer.status, 0) << peer.output;
    EXPECT_EQ(read_wav(path("peer.wav")).samples.size(), 4410u);
    ASSERT_EQ(run("-q -c linear -r 96k '" + path("five.wav") + "' '" + path("peer5.wav") + "'").status, 0);
    EXPECT_EQ(read_wav(path("peer5.wav")).samples.size(), 9600u * 5);
}

// Every option --help names is in the man page and the bash completion.
TEST(RsmplConvertDocs, ManPageAndCompletionFollowTheHelp) {
    const rsmpl_test::Cmd help = run("--help");
    ASSERT_EQ(help.status, 0);
    const std::string man = slurp(RSMPL_SOURCE_DIR "/tools/rsmpl-convert.1");
    const std::string completion = slurp(RSMPL_SOURCE_DIR "/tools/rsmpl-convert.bash-completion");
    ASSERT_FALSE(man.empty());
    size_t options = 0;
    std::istringstream lines(help.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("  -", 0) != 0) continue;
        std::istringstream words(line);
        for (std::string w; words >> w;) {
            if (w.rfind("-", 0) != 0) break;
            if (w.back() == ',') w.pop_back();
            ++options;
            std::string troff;
            for (char ch : w) troff += ch == '-' ? "\\-" : std::string(1, ch);
            EXPECT_NE(man.find("\\fB" + troff + "\\fR"), std::string::npos) << w << " missing from the man page";
            if (w.rfind("--", 0) == 0) {
                EXPECT_NE(completion.find(w), std::string::npos) << w << " missing from the completion";
            }
        }
    }
    EXPECT_GE(options, 15u);
}

// Installed where a user looks: the program, `man rsmpl-convert`, and the
// completion that bash-completion loads by command name.
TEST(RsmplConvertDocs, InstalledWithManPageAndCompletion) {
    const fs::path stage = fs::temp_directory_path() / ("rsmpl-convert-install-" + std::to_string(getpid()));
    fs::remove_all(stage);
    const rsmpl_test::Cmd install = rsmpl_test::sh("DESTDIR='" + stage.string() + "' cmake --install '" RSMPL_BINARY_DIR "'");
    ASSERT_EQ(install.status, 0) << install.output;
    fs::path program, man, completion;
    for (const auto &e : fs::recursive_directory_iterator(stage)) {
        const std::string p = e.path().string();
        if (p.ends_with("/bin/rsmpl-convert")) program = e.path();
        if (p.ends_with("/share/man/man1/rsmpl-convert.1")) man = e.path();
        if (p.ends_with("/share/bash-completion/completions/rsmpl-convert")) completion = e.path();
    }
    EXPECT_FALSE(program.empty()) << install.output;
    EXPECT_FALSE(man.empty()) << install.output;
    ASSERT_FALSE(completion.empty()) << install.output;
    const rsmpl_test::Cmd words = rsmpl_test::sh(
        "bash -c 'source \"" + completion.string() +
        "\"; COMP_WORDS=(rsmpl-convert --no-c); COMP_CWORD=1; _rsmpl_convert; echo \"${COMPREPLY[*]}\"; "
        "COMP_WORDS=(rsmpl-convert -t fl); COMP_CWORD=2; _rsmpl_convert; echo \"${COMPREPLY[*]}\"'");
    EXPECT_EQ(words.output, "--no-clobber\nflac\n");
    fs::remove_all(stage);
}

}  // namespace
