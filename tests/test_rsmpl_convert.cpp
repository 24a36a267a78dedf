// rsmpl-convert, run as a program on WAV files written here: what it writes
// must be what the module gives inside alsa-lib, and every input it cannot
// handle must end with a message and a non-zero exit.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "rate_support.hpp"
#include "rsmpl/engine.hpp"
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

TEST_F(RsmplConvert, FirPathWritesWhatTheModuleGives) {
    const auto in = hostile_samples(16000 * 2, 3);  // one second of stereo
    write_wav(path("in.wav"), 16000, 2, 16, in);
    const rsmpl_test::Cmd r = run("-r 48000 '" + path("in.wav") + "' '" + path("out.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("RSMPL Converter: FIR filter, UP 16000 -> 48000"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("frames in:  16000"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("frames out: 48000"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("x real time"), std::string::npos) << r.output;
    const Wav out = read_wav(path("out.wav"));
    EXPECT_EQ(out.rate, 48000u);
    EXPECT_EQ(out.channels, 2u);
    EXPECT_EQ(out.bits, 16u);
    EXPECT_EQ(out.samples, rsmpl_test::FirReference(2, true, 3).periods(in, 320));  // 20 ms periods
}

TEST_F(RsmplConvert, LinearPathAndOtherConverters) {
    const auto in = hostile_samples(44100, 4);
    write_wav(path("in.wav"), 44100, 1, 16, in);
    rsmpl_test::Cmd r = run("-r 48000 '" + path("in.wav") + "' '" + path("out.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("RSMPL Converter: Linear, UP 44100 -> 48000"), std::string::npos) << r.output;
    EXPECT_EQ(read_wav(path("out.wav")).samples.size(), 48000u);

    // alsa-lib's built-in linear converter, for comparison.
    r = run("--converter linear -r 48000 '" + path("in.wav") + "' '" + path("lin.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Converter: linear-interpolation"), std::string::npos) << r.output;
    EXPECT_EQ(read_wav(path("lin.wav")).samples.size(), 48000u);
}

// --verbose names the engine the library chose, honouring RSMPL_ENGINE.
TEST_F(RsmplConvert, VerboseNamesTheKernelEngine) {
    write_wav(path("in.wav"), 16000, 1, 16, hostile_samples(1600, 5));
    for (const rsmpl::KernelSet *k : rsmpl::available_kernels()) {
        const rsmpl_test::Cmd r =
            run(std::string("-q -v -r 48000 '") + path("in.wav") + "' '" + path("out.wav") + "'", k->name);
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find(std::string("kernel engine ") + k->name + "\n"), std::string::npos) << r.output;
    }
    const rsmpl_test::Cmd quiet = run("-q -r 48000 '" + path("in.wav") + "' '" + path("out.wav") + "'");
    EXPECT_EQ(quiet.output.find("kernel engine"), std::string::npos) << quiet.output;
}

TEST_F(RsmplConvert, LongFilesShowProgress) {
    write_wav(path("long.wav"), 8000, 1, 16, std::vector<int16_t>(8000 * 40, 1000));
    rsmpl_test::Cmd r = run("-r 16000 '" + path("long.wav") + "' '" + path("out.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("converting:  50%"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("frames out: 640000"), std::string::npos) << r.output;
    r = run("-q -r 16000 '" + path("long.wav") + "' '" + path("out.wav") + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output.find("converting"), std::string::npos) << r.output;
}

struct BadInput {
    const char *what;
    const char *message;
};

TEST_F(RsmplConvert, InputsItCannotHandleEndWithAMessage) {
    write_wav(path("five.wav"), 16000, 5, 16, hostile_samples(16000 * 5 / 10, 5));
    write_wav(path("b24.wav"), 16000, 1, 24, hostile_samples(1600, 6));
    write_wav(path("fast.wav"), 96000, 1, 16, hostile_samples(9600, 7));
    write_wav(path("ok.wav"), 16000, 1, 16, hostile_samples(1600, 8));
    std::ofstream(path("text.wav")) << "not audio\n";

    const std::pair<std::string, std::string> cases[] = {
        {"-r 48000 '" + path("missing.wav") + "' '" + path("o.wav") + "'", "cannot read"},
        {"-r 48000 '" + path("text.wav") + "' '" + path("o.wav") + "'", "cannot read"},
        {"-r 48000 '" + path("five.wav") + "' '" + path("o.wav") + "'", "5 channels"},
        {"-r 48000 '" + path("b24.wav") + "' '" + path("o.wav") + "'", "is not supported"},
        {"-r 48000 '" + path("fast.wav") + "' '" + path("o.wav") + "'", "input rate 96000 Hz is outside 8000..48000"},
        {"-r 96000 '" + path("ok.wav") + "' '" + path("o.wav") + "'", "output rate 96000 Hz is outside 8000..48000"},
        {"-r 7999 '" + path("ok.wav") + "' '" + path("o.wav") + "'", "outside 8000..48000"},
        {"-r fast '" + path("ok.wav") + "' '" + path("o.wav") + "'", "invalid rate"},
        {"'" + path("ok.wav") + "' '" + path("o.wav") + "'", "no output rate"},
        {"-r 48000 '" + path("ok.wav") + "' '" + path("o.xyz") + "'", "no 16-bit output format"},
        {"-r 48000 '" + path("ok.wav") + "' '" + path("ok.wav") + "'", "is the input file"},
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
    EXPECT_EQ(read_wav(path("ok.wav")).samples.size(), 1600u);  // the input is left alone
}

}  // namespace
