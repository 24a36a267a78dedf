// Lists the kernel engines this machine runs, one name per line, best last,
// and with --active the one the library picks (RSMPL_ENGINE honoured).
// scripts/test.sh runs the test suite once per listed engine.
#include <cstdio>
#include <cstring>

#include "rsmpl/engine/engine.hpp"

int main(int argc, char **argv) {
    if (argc > 1 && std::strcmp(argv[1], "--active") == 0) {
        std::printf("%s\n", rsmpl::engine_name());
        return 0;
    }
    if (argc > 1) {
        std::fprintf(stderr, "usage: %s [--active]\n", argv[0]);
        return 2;
    }
    for (const rsmpl::KernelSet *k : rsmpl::available_kernels()) std::printf("%s\n", k->name);
    return 0;
}
