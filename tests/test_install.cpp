// `cmake --install` into a staging directory (DESTDIR), then the staged files
// used the way an installed system uses them: alsa-lib loads the module and
// the pcm.rsmplrate definition (aplay -D rsmplrate:..., and
// defaults.pcm.rate_converter), and a program builds against the headers
// through the pkg-config file.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "rate_support.hpp"
#include "support.hpp"

namespace fs = std::filesystem;

namespace {

using rsmpl_test::Cmd;
using rsmpl_test::sh;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

std::string cache_value(const std::string &key) {
    std::ifstream f(RSMPL_BINARY_DIR "/CMakeCache.txt");
    for (std::string line; std::getline(f, line);)
        if (line.rfind(key + ":", 0) == 0) return line.substr(line.find('=') + 1);
    return {};
}

// Installed once for all tests of this program.
class Installed : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        stage_ = fs::temp_directory_path() / ("rsmpl-install-test-" + std::to_string(getpid()));
        fs::remove_all(stage_);
        install_ = sh("DESTDIR='" + stage_.string() + "' cmake --install '" RSMPL_BINARY_DIR "'");
        for (const auto &e : fs::recursive_directory_iterator(stage_)) {
            const std::string name = e.path().filename().string();
            if (name == "libasound_module_rate_rsmplrate.so") module_ = e.path();
            if (name == "10-rsmplrate.conf" && e.is_symlink()) conf_link_ = e.path();
            if (name == "10-rsmplrate.conf" && !e.is_symlink()) conf_ = e.path();
            if (name == "rsmpl.pc") pc_ = e.path();
            if (name == "rsmpl.h" || name == "rsmpl_util.h") headers_.push_back(e.path());
        }
    }
    static void TearDownTestSuite() { fs::remove_all(stage_); }

    // An alsa-lib top configuration: the system's, the staged definition, a
    // slave that captures into a file, and any extra text.
    static fs::path alsa_config(const fs::path &capture, const std::string &extra) {
        const fs::path path = stage_ / "asound-test.conf";
        std::ofstream f(path);
        f << "</usr/share/alsa/alsa.conf>\n"
          << "<" << conf_.string() << ">\n"
          << "pcm.capture { type file slave.pcm { type null } file \"" << capture.string() << "\" format raw }\n"
          << extra << "\n";
        return path;
    }
    static Cmd aplay(const fs::path &config, const std::string &device, const fs::path &wav) {
        return sh("ALSA_CONFIG_PATH='" + config.string() + "' ALSA_PLUGIN_DIR='" + module_.parent_path().string() +
                  "' aplay -v -D '" + device + "' '" + wav.string() + "'");
    }
    static fs::path tone(unsigned rate, unsigned frames) {
        const fs::path path = stage_ / "tone.wav";
        std::vector<int16_t> samples(frames);
        for (unsigned i = 0; i < frames; ++i) samples[i] = static_cast<int16_t>((i % 40) * 800 - 16000);
        rsmpl_test::write_wav(path, rate, 1, 16, samples);
        return path;
    }

    static inline fs::path stage_, module_, conf_, conf_link_, pc_;
    static inline std::vector<fs::path> headers_;
    static inline Cmd install_;
};

TEST_F(Installed, EveryPieceLandsWhereAlsaLibAndPkgConfigLook) {
    ASSERT_EQ(install_.status, 0) << install_.output;
    ASSERT_FALSE(module_.empty()) << install_.output;
    ASSERT_FALSE(conf_.empty()) << install_.output;
    ASSERT_FALSE(pc_.empty()) << install_.output;
    EXPECT_EQ(headers_.size(), 2u);
    EXPECT_EQ(conf_.parent_path().filename(), "alsa.conf.d");

    const std::string prefix = cache_value("CMAKE_INSTALL_PREFIX");
    // The target's alsa-lib, as the build saw it (a cross build points pkg-config elsewhere).
    const std::string pkg_config = std::string("PKG_CONFIG_LIBDIR='") + RSMPL_PKG_CONFIG_LIBDIR + "' pkg-config ";
    const std::string alsa_prefix = trimmed(sh(pkg_config + "--variable=prefix alsa").output);
    if (prefix == alsa_prefix) {
        // Installed under alsa-lib's own prefix: its plug-in directory, and a
        // link in the directory that alsa.conf loads.
        const std::string libdir = trimmed(sh(pkg_config + "--variable=libdir alsa").output);
        EXPECT_EQ(module_, stage_ / fs::path(libdir + "/alsa-lib/libasound_module_rate_rsmplrate.so").relative_path());
        ASSERT_FALSE(conf_link_.empty());
        EXPECT_EQ(conf_link_.parent_path(), stage_ / "etc/alsa/conf.d");
        EXPECT_EQ(fs::read_symlink(conf_link_), fs::path("/") / conf_.lexically_relative(stage_));
    }
}

TEST_F(Installed, ProgramsBuildAgainstThePkgConfigFile) {
    ASSERT_FALSE(pc_.empty());
    const fs::path src = stage_ / "use_rsmpl.c";
    std::ofstream(src) << "#include <rsmpl/rsmpl.h>\n#include <rsmpl/rsmpl_util.h>\n#include <stdio.h>\n"
                          "#include <stdlib.h>\n"
                          "int main(void) {\n"
                          "  RSMPL_Ctx *ctx = (RSMPL_Ctx *)malloc(RSMPL_GetContextSize());\n"
                          "  unsigned st = RSMPL_InitContext(ctx);\n"
                          "  short buf[4] = {1, 2, 3, 4};\n"
                          "  UTIL_Memset(buf, 0, sizeof(buf));\n"
                          "  printf(\"%u %u %d\\n\", (unsigned)RSMPL_GetContextSize(), st, buf[3]);\n"
                          "  free(ctx);\n"
                          "  return 0;\n"
                          "}\n";
    const std::string flags = "$(PKG_CONFIG_PATH='" + pc_.parent_path().string() + "' pkg-config --cflags --libs rsmpl)";
    const std::string sanitize = kSanitized ? " -fsanitize=address,undefined" : "";
    const Cmd build = sh(std::string(RSMPL_TARGET_CC) + " -std=c99 -Wall -Werror" + sanitize + " '" + src.string() + "' -o '" +
                         (stage_ / "use_rsmpl").string() + "' " + flags);
    ASSERT_EQ(build.status, 0) << build.output;
    const Cmd run = sh("${RSMPL_EMULATOR:-} '" + (stage_ / "use_rsmpl").string() + "'");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, "3336 0 0\n");
}

// Through the pcm.rsmplrate definition, and as alsa-lib's default rate
// converter under a plug PCM. aplay pads its last chunk (a quarter of its
// 500 ms buffer) with silence. aplay is not built with the sanitizers, so it
// cannot load a sanitized module.
TEST_F(Installed, AplayPlaysThroughTheDefinitionAndTheDefaultConverterSetting) {
    if (kSanitized) GTEST_SKIP() << "aplay cannot load a sanitizer-built module";
    if (std::getenv("RSMPL_EMULATOR") != nullptr) GTEST_SKIP() << "the host's aplay cannot load the target's module";
    if (sh("command -v aplay").status != 0) GTEST_SKIP() << "aplay not installed";
    ASSERT_FALSE(conf_.empty());
    struct Case { const char *extra, *device; unsigned rate; const char *line; uintmax_t min_bytes, max_bytes; };
    const Case cases[] = {
        {"", "rsmplrate:SLAVE=capture,RATE=48000", 16000, "FIR filter, UP 16000 -> 48000", 96000, 96000},
        {"defaults.pcm.rate_converter \"rsmplrate\"\npcm.plugout { type plug slave { pcm capture rate 48000 } }",
         "plugout", 44100, "Linear, UP 44100 -> 48000", 96000, 108000},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.device);
        const fs::path capture = stage_ / (std::string("captured-") + std::to_string(c.rate) + ".raw");
        const Cmd r = aplay(alsa_config(capture, c.extra), c.device, tone(c.rate, c.rate));
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_NE(r.output.find(std::string("RSMPL Converter: ") + c.line), std::string::npos) << r.output;
        EXPECT_GE(fs::file_size(capture), c.min_bytes);
        EXPECT_LE(fs::file_size(capture), c.max_bytes);
    }
}

}  // namespace
