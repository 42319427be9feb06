// Messages as lines of text.
#include "capture.h"

#include <ctime>
#include <linux/tipc.h>

std::string capture_error(uint32_t code)
{
    switch (code) {
    case TIPC_ERR_NO_NAME:
        return "no name";
    case TIPC_ERR_NO_PORT:
        return "no port";
    case TIPC_ERR_NO_NODE:
        return "no node";
    case TIPC_ERR_OVERLOAD:
        return "overload";
    case TIPC_CONN_SHUTDOWN:
        return "connection shut down";
    default:
        return "error " + std::to_string(code);
    }
}

static std::string time_of(uint64_t time) // of the day here
{
    time_t seconds = (time_t)(time / 1000000000U);
    struct tm day = {};
    char text[32];
    (void)localtime_r(&seconds, &day);
    (void)snprintf(text, sizeof(text), "%02d:%02d:%02d.%06u", day.tm_hour, day.tm_min, day.tm_sec,
                   (unsigned)(time % 1000000000U / 1000));
    return text;
}

static std::string name_of(const packet_t &message)
{
    if (message.form != CAPTURE_NAMED && message.form != CAPTURE_MCAST)
        return "-";
    std::string name = std::to_string(message.type) + ":" + std::to_string(message.lower);
    return message.form == CAPTURE_MCAST ? name + "-" + std::to_string(message.upper) : name;
}

static std::string kind_of(const packet_t &message)
{
    if (message.syn)
        return "connect";
    switch (message.form) {
    case CAPTURE_CONN:
        return message.err != 0 && message.len == 0 ? "end" : "connection";
    case CAPTURE_MCAST:
        return "multicast";
    default:
        return "data";
    }
}

std::string capture_line(const packet_t &message)
{
    char text[160];
    std::string from = std::to_string(message.from) + ":" + std::to_string(message.from_port);
    std::string to = std::to_string(message.to) + ":" + std::to_string(message.to_port);
    (void)snprintf(text, sizeof(text), "%s %s > %s %s %u bytes ", time_of(message.time).c_str(), from.c_str(),
                   to.c_str(), name_of(message).c_str(), message.len);
    std::string line = text + kind_of(message);
    if (message.err != 0)
        line += (kind_of(message) == "end" ? ", " : ", returned: ") + capture_error(message.err);
    for (char letter : message.note.empty() ? "" : ", " + message.note)
        line += (unsigned char)letter < ' ' ? '?' : letter; // a file may hold anything
    return line;
}
