// The node-address file: any content gives an id in range or none.
#include <cstdlib>

#include "fuzz_world.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    world::start();
    world::serve_file(ZEB_NODE_ADDR_FILE, data, size);
    zeb_store_relaxed(&g_zeb_dbg_level, size % 8 == 0 ? 15u : 0u);
    int node = zeb_read_my_node_id();
    zeb_store_relaxed(&g_zeb_dbg_level, 0u);
    if (node < -1 || node > 65535)
        abort();
    return 0;
}
