// `cmake --install` into a staging directory (DESTDIR), then the staged files
// used the way an installed system uses them: alsa-lib loads the module and
// the pcm.rsmplrate definition (aplay -D rsmplrate:..., and
// defaults.pcm.rate_converter), and a C program builds against librsmpl
// through the pkg-config file and through the CMake package.
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
            if (name == "librsmpl.so") library_link_ = e.path();
            if (name == "rsmplConfig.cmake" || name == "rsmplConfigVersion.cmake") packages_.push_back(e.path());
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

    // The staged prefix, as a consumer's search path.
    static fs::path staged_prefix() { return stage_ / fs::path(cache_value("CMAKE_INSTALL_PREFIX")).relative_path(); }

    static inline fs::path stage_, module_, conf_, conf_link_, pc_, library_link_;
    static inline std::vector<fs::path> headers_, packages_;
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

// A C program that uses both headers and reports, by the documented numbers,
// the context size and the status of a good and of a rejected call.
const char kConsumer[] =
    "#include <rsmpl/rsmpl.h>\n#include <rsmpl/rsmpl_util.h>\n#include <stdio.h>\n#include <stdlib.h>\n"
    "int main(void) {\n"
    "  RSMPL_Ctx *ctx = (RSMPL_Ctx *)malloc(RSMPL_GetContextSize());\n"
    "  unsigned st = RSMPL_InitContext(ctx);\n"
    "  short in[8] = {1, 2, 3, 4, 5, 6, 7, 8}, out[16];\n"
    "  UTIL_Memset(in, 0, sizeof(in));\n"
    "  unsigned up = RSMPL_Up(ctx, in, out, 8, 1);\n"
    "  unsigned bad = RSMPL_Up(ctx, in, out, 8, 5);\n"
    "  printf(\"%u %u %d %u %u %d\\n\", (unsigned)RSMPL_GetContextSize(), st, in[3], up, bad, out[15]);\n"
    "  free(ctx);\n"
    "  return 0;\n"
    "}\n";
constexpr const char kConsumerOutput[] = "3336 0 0 0 3 0\n";

std::string consumer_cflags() { return kSanitized ? "-fsanitize=address,undefined" : ""; }

TEST_F(Installed, LibraryLandsWithItsDevelopmentLinkAndOnlyTheInterface) {
    ASSERT_FALSE(library_link_.empty()) << install_.output;
    EXPECT_EQ(library_link_.parent_path(), staged_prefix() / cache_value("CMAKE_INSTALL_LIBDIR"));
    ASSERT_TRUE(fs::is_symlink(library_link_));
    EXPECT_EQ(fs::read_symlink(library_link_), "librsmpl.so.1");
    const fs::path library = fs::canonical(library_link_);
    const Cmd dynamic = sh("readelf -d '" + library.string() + "'");
    ASSERT_EQ(dynamic.status, 0) << dynamic.output;
    EXPECT_NE(dynamic.output.find("Library soname: [librsmpl.so.1]"), std::string::npos) << dynamic.output;
    EXPECT_EQ(dynamic.output.find("RUNPATH"), std::string::npos) << dynamic.output;
    EXPECT_EQ(dynamic.output.find("RPATH"), std::string::npos) << dynamic.output;
    // Installing must not change what it exports (the build tree's file is held to the lists).
    const std::string nm = "nm -D --defined-only --format=posix ";
    const Cmd staged = sh(nm + "'" + library.string() + "' | cut -d' ' -f1 | sort");
    const Cmd built = sh(nm + "'" RSMPL_LIBRARY_PATH "' | cut -d' ' -f1 | sort");
    ASSERT_EQ(staged.status, 0);
    EXPECT_NE(staged.output.find("RSMPL_Up\n"), std::string::npos) << staged.output;
    EXPECT_EQ(staged.output, built.output);
}

TEST_F(Installed, ProgramsBuildAgainstThePkgConfigFile) {
    ASSERT_FALSE(pc_.empty());
    const fs::path src = stage_ / "use_rsmpl.c";
    std::ofstream(src) << kConsumer;
    const std::string pkg = "PKG_CONFIG_PATH='" + pc_.parent_path().string() + "' pkg-config ";
    const Cmd libs = sh(pkg + "--libs rsmpl");
    const std::string libs_out = trimmed(libs.output);
    ASSERT_EQ(libs_out.rfind("-L", 0), 0u) << libs_out;
    ASSERT_EQ(libs_out.substr(libs_out.find(' ')), " -lrsmpl") << libs_out;
    EXPECT_TRUE(fs::equivalent(libs_out.substr(2, libs_out.find(' ') - 2), library_link_.parent_path())) << libs_out;
    const std::string flags = "$(" + pkg + "--cflags --libs rsmpl)";
    const Cmd build = sh(std::string(RSMPL_TARGET_CC) + " -std=c99 -Wall -Werror " + consumer_cflags() + " '" +
                         src.string() + "' -o '" + (stage_ / "use_rsmpl").string() + "' " + flags);
    ASSERT_EQ(build.status, 0) << build.output;
    // No rpath: the loader finds the library where a system would have put it.
    const Cmd run = sh("LD_LIBRARY_PATH='" + library_link_.parent_path().string() + "' ${RSMPL_EMULATOR:-} '" +
                       (stage_ / "use_rsmpl").string() + "'");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, kConsumerOutput);
}

TEST_F(Installed, ProgramsBuildAgainstTheCMakePackage) {
    ASSERT_EQ(packages_.size(), 2u) << install_.output;
    const fs::path dir = stage_ / "cmake-consumer";
    fs::create_directories(dir);
    std::ofstream(dir / "use_rsmpl.c") << kConsumer;
    std::ofstream(dir / "CMakeLists.txt") << "cmake_minimum_required(VERSION 3.16)\n"
                                             "project(use_rsmpl C)\n"
                                             "find_package(rsmpl 0.1 REQUIRED)\n"
                                             "add_executable(use_rsmpl use_rsmpl.c)\n"
                                             "target_compile_options(use_rsmpl PRIVATE -Wall -Werror)\n"
                                             "target_link_libraries(use_rsmpl PRIVATE rsmpl::rsmpl)\n";
    std::string configure = "cmake -S '" + dir.string() + "' -B '" + (dir / "build").string() +
                            "' -DCMAKE_PREFIX_PATH='" + staged_prefix().string() + "' -DCMAKE_C_COMPILER='" +
                            RSMPL_TARGET_CC + "' -DCMAKE_C_FLAGS='" + consumer_cflags() + "'";
    const std::string toolchain = cache_value("CMAKE_TOOLCHAIN_FILE");
    if (!toolchain.empty()) configure += " -DCMAKE_TOOLCHAIN_FILE='" + toolchain + "'";
    const Cmd conf = sh(configure);
    ASSERT_EQ(conf.status, 0) << conf.output;
    const Cmd build = sh("cmake --build '" + (dir / "build").string() + "'");
    ASSERT_EQ(build.status, 0) << build.output;
    const Cmd run = sh("${RSMPL_EMULATOR:-} '" + (dir / "build" / "use_rsmpl").string() + "'");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, kConsumerOutput);
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
