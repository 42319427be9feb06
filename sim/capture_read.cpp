// Packets of a pcapng file as messages. Nothing in a file is trusted.
#include "capture.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

constexpr uint32_t SECTION = 0x0A0D0D0A; // types of blocks
constexpr uint32_t INTERFACE = 1;
constexpr uint32_t PACKET = 6;
constexpr uint32_t ORDER = 0x1A2B3C4D;
constexpr uint16_t OPTION_COMMENT = 1;
constexpr uint16_t OPTION_TIME = 9;
constexpr uint32_t ETHERNET = 1;
constexpr uint32_t MAX_BLOCK = 16U << 20; // bytes
constexpr uint32_t FRAME_HEAD = 14;       // bytes of the addresses and the type
constexpr uint64_t SECOND = 1000000000;   // ns

typedef std::vector<uint8_t> bytes_t;

// The value at `at`; 0 behind the end.
static uint32_t get(const capture_t *capture, const bytes_t &bytes, size_t at, size_t size)
{
    if (at + size > bytes.size())
        return 0;
    if (size == 2) {
        uint16_t value;
        memcpy(&value, &bytes[at], sizeof(value));
        return capture->swapped ? __builtin_bswap16(value) : value;
    }
    uint32_t value;
    memcpy(&value, &bytes[at], sizeof(value));
    return capture->swapped ? __builtin_bswap32(value) : value;
}

static uint32_t get_big(const bytes_t &bytes, size_t at)
{
    if (at + 4 > bytes.size())
        return 0;
    return (uint32_t)bytes[at] << 24 | (uint32_t)bytes[at + 1] << 16 | (uint32_t)bytes[at + 2] << 8 | bytes[at + 3];
}

// The first option of that code, from `at` on. Null when there is none.
static const uint8_t *option(const capture_t *capture, const bytes_t &body, size_t at, uint16_t code, size_t *size)
{
    while (at + 4 <= body.size()) {
        uint32_t found = get(capture, body, at, 2);
        *size = get(capture, body, at + 2, 2);
        if (found == 0 || at + 4 + *size > body.size())
            return nullptr;
        if (found == code)
            return &body[at] + 4;
        at += 4 + (*size + 3) / 4 * 4;
    }
    return nullptr;
}

// The resolution is a negative power of 10, or of 2 with the highest bit set.
static uint64_t units_of(uint8_t resolution)
{
    uint64_t units = 1;
    for (uint8_t i = 0; i < (resolution & 0x7f) && units < 1ULL << 60; i++)
        units *= (resolution & 0x80) != 0 ? 2 : 10;
    return units;
}

static void take_interface(capture_t *capture, const bytes_t &body)
{
    size_t size = 0;
    const uint8_t *resolution = option(capture, body, 8, OPTION_TIME, &size);
    capture->links.push_back(get(capture, body, 0, 2));
    capture->units.push_back(resolution != nullptr && size == 1 ? units_of(*resolution) : 1000000);
}

static uint64_t nanoseconds(uint64_t time, uint64_t units)
{
    return time / units * SECOND + (uint64_t)((long double)(time % units) * SECOND / units + 0.5L);
}

// The node of an address that capture_write.cpp made up, else 0.
static uint32_t node_of(const bytes_t &frame, size_t at)
{
    return frame[at] == 0x02 && frame[at + 1] == 0x54 ? get_big(frame, at + 2) : 0;
}

static bool take_frame(const bytes_t &frame, packet_t *message)
{
    if (frame.size() < FRAME_HEAD + 24 || frame[12] != 0x88 || frame[13] != 0xca)
        return false;
    auto word = [&frame](uint32_t index) { return get_big(frame, FRAME_HEAD + index * 4); };
    uint32_t header = (word(0) >> 21 & 15U) * 4;
    uint32_t size = word(0) & 0x1ffffU;
    if (word(0) >> 29 != 2 || (word(0) >> 25 & 15U) > 3 || header < 24 || size < header)
        return false;
    if (frame.size() < FRAME_HEAD + header)
        return false;
    message->importance = word(0) >> 25 & 15U;
    message->droppable = (word(0) >> 19 & 1U) != 0;
    message->syn = (word(0) >> 17 & 1U) != 0;
    message->form = word(1) >> 29;
    message->err = word(1) >> 25 & 15U;
    message->from = header >= 32 ? word(6) : word(3);
    message->to = header >= 32 ? word(7) : node_of(frame, 0);
    message->from_port = word(4);
    message->to_port = word(5);
    message->type = header >= 40 ? word(8) : 0;
    message->lower = header >= 40 ? word(9) : 0;
    message->upper = header >= 44 ? word(10) : message->lower;
    message->len = size - header;
    size_t end = std::min(frame.size(), (size_t)FRAME_HEAD + size);
    message->data.assign(frame.begin() + FRAME_HEAD + header, frame.begin() + (std::ptrdiff_t)end);
    return message->form <= CAPTURE_DIRECT;
}

static bool take_packet(const capture_t *capture, const bytes_t &body, packet_t *message)
{
    uint32_t interface = get(capture, body, 0, 4);
    size_t size = get(capture, body, 12, 4);
    if (interface >= capture->links.size() || capture->links[interface] != ETHERNET || size > body.size() ||
        20 + size > body.size())
        return false;
    bytes_t frame(body.begin() + 20, body.begin() + 20 + (std::ptrdiff_t)size);
    *message = packet_t();
    if (!take_frame(frame, message))
        return false;
    uint64_t time = (uint64_t)get(capture, body, 4, 4) << 32 | get(capture, body, 8, 4);
    message->time = nanoseconds(time, capture->units[interface]);
    const uint8_t *text = option(capture, body, 20 + (size + 3) / 4 * 4, OPTION_COMMENT, &size);
    if (text != nullptr)
        message->note.assign((const char *)text, size);
    return true;
}

// What a section's head says counts for its own length already.
static bool take_order(capture_t *capture, const uint8_t *order)
{
    uint32_t value;
    memcpy(&value, order, sizeof(value));
    if (value != ORDER && value != __builtin_bswap32(ORDER)) {
        capture->why = "it is no pcapng file";
        return false;
    }
    capture->swapped = value != ORDER;
    capture->links.clear();
    capture->units.clear();
    return true;
}

// Reads a block; its body stands between the two lengths. False at the end, or when `why` says more.
static bool read_block(capture_t *capture, uint32_t *type, bytes_t *body)
{
    bytes_t head(12);
    size_t got = fread(head.data(), 1, head.size(), capture->file);
    if (got == 0 && ferror(capture->file) == 0)
        return false;
    memcpy(type, head.data(), sizeof(*type)); // that of a section is the same in both orders
    if (got == head.size() && *type == SECTION && !take_order(capture, &head[8]))
        return false;
    if (!capture->begun && *type != SECTION) {
        capture->why = "it is no pcapng file";
        return false;
    }
    capture->begun = true;
    *type = get(capture, head, 0, 4);
    uint32_t size = get(capture, head, 4, 4);
    if (got < head.size() || size < 12 || size % 4 != 0 || size > MAX_BLOCK) {
        capture->why = got < head.size() ? "its end is missing" : "a block has a length of " + std::to_string(size);
        return false;
    }
    body->assign(head.begin() + 8, head.end());
    body->resize(size - 8);
    if (size > 12 && fread(body->data() + 4, size - 12, 1, capture->file) != 1) {
        capture->why = "its end is missing";
        return false;
    }
    body->resize(size - 12);
    return true;
}

bool capture_next(capture_t *capture, packet_t *message)
{
    uint32_t type = 0;
    bytes_t body;
    while (read_block(capture, &type, &body)) {
        if (type == INTERFACE)
            take_interface(capture, body);
        else if (type == PACKET && take_packet(capture, body, message))
            return true;
    }
    return false;
}
