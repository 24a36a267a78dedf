// Apart from the rest, so that an installed program linking the harness
// carries no path into the build tree.
#include "harness/alsa_harness.hpp"

namespace rsmpl_harness {

const char *built_module() { return RSMPL_HARNESS_MODULE; }
const char *staged_plugin_dir() { return RSMPL_HARNESS_PLUGIN_DIR; }

}  // namespace rsmpl_harness
