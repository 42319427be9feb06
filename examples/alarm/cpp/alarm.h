// What the three programs of the alarm application share: ids, messages, and printing. The messages are those of the C
// and the Python programs, so programs of the three languages work together.
#ifndef ALARM_H
#define ALARM_H

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include <arpa/inet.h>

#include <zeb/zeb.hpp>

namespace alarms
{

constexpr zeb::app_id MANAGER = 300; // keeps the list of active alarms
constexpr zeb::app_id CARD = 301;    // raises and clears alarms
constexpr zeb::app_id CONSOLE = 302; // asks both

// Message versions. Numbers on the wire are big-endian.
constexpr uint32_t RAISE = 1;  // one-way, card to manager: uint32 alarm id, uint8 severity, text
constexpr uint32_t CLEAR = 2;  // one-way, card to manager: uint32 alarm id
constexpr uint32_t LIST = 3;   // call, console to manager: empty. Reply: a line "NODE/ID SEVERITY TEXT" for each alarm
constexpr uint32_t STATUS = 4; // call, console to all cards: empty. Reply: "ports 48, alarms N"

constexpr size_t ID_SIZE = sizeof(uint32_t);
constexpr size_t TEXT_MAX = 200; // bytes of an alarm's text

constexpr std::string_view SEVERITIES[] = {"", "minor", "major", "critical"};

struct alarm {
    uint32_t id = 0;
    uint8_t severity = 0; // 1 minor, 2 major, 3 critical
    std::string text;
};

// The severity of a word, or 0.
inline uint8_t severity_of(std::string_view word)
{
    uint8_t severity = 3;
    while (severity > 0 && word != SEVERITIES[severity])
        severity--;
    return severity;
}

inline zeb::message clear_message(uint32_t id)
{
    return zeb::message::from_object(CLEAR, htonl(id));
}

inline zeb::message raise_message(const alarm &raised)
{
    uint32_t id = htonl(raised.id);
    std::string payload(reinterpret_cast<const char *>(&id), sizeof(id));
    payload += static_cast<char>(raised.severity);
    return zeb::message::from_text(RAISE, payload + raised.text);
}

// The two below give nothing for a payload that no version of this application has sent.
inline std::optional<uint32_t> read_clear(const zeb::message &message)
{
    auto id = message.as<uint32_t>();
    return id ? std::optional<uint32_t>(ntohl(*id)) : std::nullopt;
}

inline std::optional<alarm> read_raise(const zeb::message &message)
{
    std::string_view payload = message.text();
    if (payload.size() <= ID_SIZE || payload.size() > ID_SIZE + 1 + TEXT_MAX)
        return std::nullopt;
    uint32_t id = 0;
    payload.copy(reinterpret_cast<char *>(&id), sizeof(id));
    alarm read{ntohl(id), static_cast<uint8_t>(payload[ID_SIZE]), std::string(payload.substr(ID_SIZE + 1))};
    if (read.severity < 1 || read.severity > 3 || read.text.find('\0') != std::string::npos)
        return std::nullopt;
    return read;
}

// Prints a line at once, and whole: handlers and main print from their own threads.
inline void say(const std::string &line)
{
    (void)std::fputs((line + "\n").c_str(), stdout);
    (void)std::fflush(stdout);
}

} // namespace alarms

#endif
