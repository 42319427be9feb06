#include "zebctl_text.h"

#include <zeb/zeb_diag.h>

static const char *const LEVELS[] = {"verbose", "info", "warn", "error"};

uint32_t zebctl_level(const std::string &name)
{
    for (int level = ZEB_DBG_LEVEL_VERBOSE; level <= ZEB_DBG_LEVEL_ERROR; level++) {
        if (name == LEVELS[level])
            return 1U << level;
    }
    return name == "all" ? 15U : 0;
}

std::vector<std::string> zebctl_level_names(uint32_t mask)
{
    std::vector<std::string> names;
    for (int level = ZEB_DBG_LEVEL_VERBOSE; level <= ZEB_DBG_LEVEL_ERROR; level++) {
        if ((mask & 1U << level) != 0)
            names.emplace_back(LEVELS[level]);
    }
    return names;
}

std::string zebctl_joined(const std::vector<std::string> &words, const char *between)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

std::string zebctl_joined(const ops_ids_t &ids, const char *between)
{
    std::vector<std::string> words;
    for (uint32_t id : ids)
        words.push_back(std::to_string(id));
    return zebctl_joined(words, between);
}

std::string zebctl_inst(ops_inst_t inst)
{
    return std::to_string(inst.app) + "@" + std::to_string(inst.node);
}

std::string zebctl_text_or(const std::string &text, const char *other)
{
    return text.empty() ? other : ops_printable(text);
}
