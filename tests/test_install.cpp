// `cmake --install` into a staging directory (DESTDIR), then the staged files
// used the way an installed system uses them: alsa-lib loads the module and
// the pcm.rsmplrate definition (aplay -D rsmplrate:..., and
// defaults.pcm.rate_converter), and a program builds against the headers
// through the pkg-config file.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support.hpp"

namespace fs = std::filesystem;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct Cmd {
    int status = -1;
    std::string output;
};

Cmd sh(const std::string &cmd) {
    Cmd r;
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) r.output.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

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
        std::ofstream f(path, std::ios::binary);
        auto put = [&](uint32_t v, int bytes) {
            for (int i = 0; i < bytes; ++i) f.put(static_cast<char>(v >> (8 * i)));
        };
        f.write("RIFF", 4);
        put(36 + frames * 2, 4);
        f.write("WAVEfmt ", 8);
        put(16, 4), put(1, 2), put(1, 2), put(rate, 4), put(rate * 2, 4), put(2, 2), put(16, 2);
        f.write("data", 4);
        put(frames * 2, 4);
        for (unsigned i = 0; i < frames; ++i) put(static_cast<uint16_t>((i % 40) * 800 - 16000), 2);
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
    const std::string alsa_prefix = trimmed(sh("pkg-config --variable=prefix alsa").output);
    if (prefix == alsa_prefix) {
        // Installed under alsa-lib's own prefix: its plug-in directory, and a
        // link in the directory that alsa.conf loads.
        const std::string libdir = trimmed(sh("pkg-config --variable=libdir alsa").output);
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
    const Cmd build = sh("cc -std=c99 -Wall -Werror" + sanitize + " '" + src.string() + "' -o '" +
                         (stage_ / "use_rsmpl").string() + "' " + flags);
    ASSERT_EQ(build.status, 0) << build.output;
    const Cmd run = sh("'" + (stage_ / "use_rsmpl").string() + "'");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, "3336 0 0\n");
}

// aplay is not built with the sanitizers, so it cannot load a sanitized module.
TEST_F(Installed, AplayPlaysThroughTheRsmplrateDefinition) {
    if (kSanitized) GTEST_SKIP() << "aplay cannot load a sanitizer-built module";
    if (sh("command -v aplay").status != 0) GTEST_SKIP() << "aplay not installed";
    ASSERT_FALSE(conf_.empty());
    const fs::path capture = stage_ / "captured.raw";
    const fs::path config = alsa_config(capture, "");
    const Cmd r = aplay(config, "rsmplrate:SLAVE=capture,RATE=48000", tone(16000, 16000));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("RSMPL Converter: FIR filter, UP 16000 -> 48000"), std::string::npos) << r.output;
    EXPECT_EQ(fs::file_size(capture), 48000u * 2);
}

TEST_F(Installed, DefaultRateConverterSetting) {
    if (kSanitized) GTEST_SKIP() << "aplay cannot load a sanitizer-built module";
    if (sh("command -v aplay").status != 0) GTEST_SKIP() << "aplay not installed";
    const fs::path capture = stage_ / "captured-default.raw";
    const fs::path config = alsa_config(capture,
                                        "defaults.pcm.rate_converter \"rsmplrate\"\n"
                                        "pcm.plugout { type plug slave { pcm capture rate 48000 } }\n");
    const Cmd r = aplay(config, "plugout", tone(44100, 44100));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("RSMPL Converter: Linear, UP 44100 -> 48000"), std::string::npos) << r.output;
    // aplay pads its last chunk (a quarter of its 500 ms buffer) with silence.
    EXPECT_GE(fs::file_size(capture), 48000u * 2);
    EXPECT_LE(fs::file_size(capture), (48000u + 48000u / 8) * 2);
}

}  // namespace
