// The configuration file: every key and table looked up in any content.
#include <cstdlib>
#include <cstring>

#include "fuzz_world.h"
#include "zeb_cfg.h"
#include "zeb_dbg.h"

static void require(bool holds)
{
    if (!holds)
        abort();
}

template <size_t N>
static bool ends(const char (&text)[N])
{
    return memchr(text, '\0', N) != nullptr;
}

static void look_up_tables(uint32_t id)
{
    zeb_app_cfg_t app;
    if (zeb_get_app_cfg(id, &app) == 0)
        require(app.id == id && ends(app.name) && ends(app.developer) && ends(app.comment));
    zeb_app_mc_cfg_t group;
    if (zeb_get_app_mc_cfg(id, &group) == 0) {
        require(group.id == id && ends(group.name) && ends(group.comment));
        require(group.mbr_num >= 0 && group.mbr_num <= ZEB_CFG_MC_MBR_NUM);
    }
    uint32_t members[ZEB_CFG_MC_MBR_NUM];
    int num = zeb_get_app_mc_members(id, members);
    require(num >= 0 && num <= ZEB_CFG_MC_MBR_NUM);
    (void)zeb_get_app_priority(id);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    world::start();
    world::serve_file(ZEB_CFG_FILE, data + 1, size - 1);
    zeb_store_relaxed(&g_zeb_dbg_level, (data[0] & 1) != 0 ? 15u : 0u);
    for (uint32_t id : {1u, 100u, 0x3000u})
        look_up_tables(id);
    (void)zeb_get_dbg_cfg();
    (void)zeb_get_log_cfg();
    (void)zeb_get_log_size();
    (void)zeb_cfg_get_blocked_resume_enabled();
    char value[ZEB_CFG_VALUE_LEN];
    if (zeb_get_misc_cfg("zeb", value, sizeof(value)) == 0)
        require(ends(value));
    zeb_store_relaxed(&g_zeb_dbg_level, 0u);
    return 0;
}
