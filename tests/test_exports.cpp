// The module exports exactly the names listed in tests/exports/*.txt, each
// with C linkage (unmangled), and nothing else; librsmpl exports the same
// names but the alsa-lib entry, and stands on its own.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "rate_support.hpp"

namespace {

constexpr const char *kPluginList = "plugin.txt";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::set<std::string> listed_names(bool with_plugin_entry) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(RSMPL_SOURCE_DIR "/tests/exports")) {
        if (entry.path().extension() != ".txt") continue;
        if (!with_plugin_entry && entry.path().filename() == kPluginList) continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
            if (!line.empty() && line[0] != '#') names.insert(line);
    }
    return names;
}

std::set<std::string> exported_names(const std::string &path) {
    std::set<std::string> names;
    FILE *p = popen(("nm -D --defined-only --format=posix '" + path + "'").c_str(), "r");
    if (p == nullptr) return names;
    char name[512], type[8];
    while (std::fscanf(p, "%511s %7s %*[^\n]", name, type) == 2) names.insert(name);
    pclose(p);
    return names;
}

void expect_exactly(const std::set<std::string> &listed, const std::string &path) {
    const auto exported = exported_names(path);
    ASSERT_FALSE(listed.empty());
    ASSERT_FALSE(exported.empty()) << "nm could not read " << path;
    for (const auto &n : listed) EXPECT_TRUE(exported.count(n)) << "not exported: " << n;
    for (const auto &n : exported) EXPECT_TRUE(listed.count(n)) << "exported but not listed (internal?): " << n;
}

void expect_resolvable(const std::set<std::string> &listed, const char *path) {
    void *handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const auto &n : listed) EXPECT_NE(dlsym(handle, n.c_str()), nullptr) << n;
    dlclose(handle);
}

TEST(Exports, ModuleExportsExactlyTheListedNames) { expect_exactly(listed_names(true), RSMPL_MODULE_PATH); }

TEST(Exports, EveryListedNameResolvesWithDlsym) { expect_resolvable(listed_names(true), RSMPL_MODULE_PATH); }

TEST(Exports, LibraryExportsTheInterfaceButNotTheAlsaEntry) {
    expect_exactly(listed_names(false), RSMPL_LIBRARY_PATH);
    expect_resolvable(listed_names(false), RSMPL_LIBRARY_PATH);
}

// What a distribution's tools read from the dynamic section: the versioned
// name programs record, no search path baked in, no alsa-lib or libstdc++
// dragged into a program that only resamples.
TEST(Exports, LibraryHasItsSonameAndNoPathOrAlsaDependency) {
    const rsmpl_test::Cmd r = rsmpl_test::sh("readelf -d '" RSMPL_LIBRARY_PATH "'");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Library soname: [librsmpl.so.1]"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("RPATH"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("RUNPATH"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("libasound"), std::string::npos) << r.output;
    // The sanitizers' run-time checks call into the C++ run-time library.
    if (!kSanitized) {
        EXPECT_EQ(r.output.find("libstdc++"), std::string::npos) << r.output;
    }
}

}  // namespace
