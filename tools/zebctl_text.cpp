#include "zebctl_text.h"

#include <ctime>

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
