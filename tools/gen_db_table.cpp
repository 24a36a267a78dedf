// Prints util/db_table.inc, the whole-decibel scale table of the decibel
// conversion: gen_db_table > util/db_table.inc
#include <cstdio>

#include "tools/db_table_gen.hpp"

int main() {
    std::fputs(rsmpl::gen::db_table_source().c_str(), stdout);
    return 0;
}
