// The module exports exactly the names listed in tests/exports/*.txt, each
// with C linkage (unmangled), and nothing else.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

std::set<std::string> listed_names() {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(RSMPL_SOURCE_DIR "/tests/exports")) {
        if (entry.path().extension() != ".txt") continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
            if (!line.empty() && line[0] != '#') names.insert(line);
    }
    return names;
}

std::set<std::string> exported_names() {
    std::set<std::string> names;
    FILE *p = popen("nm -D --defined-only --format=posix '" RSMPL_MODULE_PATH "'", "r");
    if (p == nullptr) return names;
    char name[512], type[8];
    while (std::fscanf(p, "%511s %7s %*[^\n]", name, type) == 2) names.insert(name);
    pclose(p);
    return names;
}

TEST(Exports, ModuleExportsExactlyTheListedNames) {
    const auto listed = listed_names();
    const auto exported = exported_names();
    ASSERT_FALSE(listed.empty());
    ASSERT_FALSE(exported.empty()) << "nm could not read " RSMPL_MODULE_PATH;
    for (const auto &n : listed) EXPECT_TRUE(exported.count(n)) << "not exported: " << n;
    for (const auto &n : exported) EXPECT_TRUE(listed.count(n)) << "exported but not listed (internal?): " << n;
}

TEST(Exports, EveryListedNameResolvesWithDlsym) {
    void *handle = dlopen(RSMPL_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const auto &n : listed_names()) EXPECT_NE(dlsym(handle, n.c_str()), nullptr) << n;
    dlclose(handle);
}

}  // namespace
