// Prints rsmpl/sinc/sinc_tables.inc: gen_sinc_tables > rsmpl/sinc/sinc_tables.inc
#include <cstdio>

#include "tools/sinc_table_gen.hpp"

int main() {
    const std::string text = sinc_gen::render_tables();
    std::fwrite(text.data(), 1, text.size(), stdout);
    return 0;
}
