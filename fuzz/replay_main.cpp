// Runs a fuzz target once over every file of the directories given on the
// command line: the kept corpus and every input that ever failed, as a plain
// test in any build (no libFuzzer, no clang needed).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        for (const auto &entry : fs::directory_iterator(argv[i], ec))
            if (entry.is_regular_file() && entry.path().filename().string()[0] != '.') files.push_back(entry.path());
        if (ec) {
            std::fprintf(stderr, "cannot read %s: %s\n", argv[i], ec.message().c_str());
            return 2;
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "no inputs to replay\n");
        return 2;
    }
    for (const auto &path : files) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::fprintf(stderr, "replay %s (%zu bytes)\n", path.string().c_str(), data.size());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::printf("%zu inputs replayed\n", files.size());
    return 0;
}
