#include "zebctl_text.h"

#include <ctime>

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

std::string zebctl_time_text(int64_t ms)
{
    char text[32];
    struct tm local = {};
    time_t seconds = (time_t)(ms / 1000);
    if (ms == 0 || localtime_r(&seconds, &local) == nullptr)
        return "-";
    return strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local) == 0 ? "-" : text;
}

std::string zebctl_moment_text(int64_t ms)
{
    std::string part = std::to_string(1000 + ms % 1000);
    return zebctl_time_text(ms) + "." + part.substr(1);
}

std::string zebctl_span_text(int64_t ms)
{
    static const struct {
        int64_t ms;
        const char *name;
    } units[] = {{86400000, " d"}, {3600000, " h"}, {60000, " min"}, {1000, " s"}};
    for (const auto &unit : units) {
        if (ms >= 2 * unit.ms || (unit.ms == 1000 && ms >= 1000))
            return std::to_string(ms / unit.ms) + unit.name;
    }
    return std::to_string(ms) + " ms";
}
