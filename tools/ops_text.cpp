#include "ops_text.h"

#include <zeb/zeb_diag.h>

std::string ops_inst_text(ops_inst_t inst)
{
    return std::to_string(inst.app) + "@" + std::to_string(inst.node);
}

static const char *const LEVELS[] = {"verbose", "info", "warn", "error"};

uint32_t ops_level(const std::string &name)
{
    for (int level = ZEB_DBG_LEVEL_VERBOSE; level <= ZEB_DBG_LEVEL_ERROR; level++) {
        if (name == LEVELS[level])
            return 1U << level;
    }
    return name == "all" ? 15U : 0;
}

std::vector<std::string> ops_level_names(uint32_t mask)
{
    std::vector<std::string> names;
    for (int level = ZEB_DBG_LEVEL_VERBOSE; level <= ZEB_DBG_LEVEL_ERROR; level++) {
        if ((mask & 1U << level) != 0)
            names.emplace_back(LEVELS[level]);
    }
    return names;
}
