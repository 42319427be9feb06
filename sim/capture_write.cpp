// Messages as packets of a pcapng file.
#include "capture.h"

#include <algorithm>
#include <cstring>

constexpr uint32_t SECTION = 0x0A0D0D0A; // types of blocks
constexpr uint32_t INTERFACE = 1;
constexpr uint32_t STATISTICS = 5;
constexpr uint32_t PACKET = 6;
constexpr uint16_t OPTION_COMMENT = 1;
constexpr uint32_t ETHERNET = 1;
constexpr uint32_t SNAP_LENGTH = 262144;

typedef std::vector<uint8_t> bytes_t;

template <typename T>
static void add(bytes_t *to, T value) // in the byte order of this machine, which the section's head tells
{
    uint8_t bytes[sizeof(T)];
    memcpy(bytes, &value, sizeof(T));
    to->insert(to->end(), bytes, bytes + sizeof(T));
}

static void add_big(bytes_t *to, uint32_t value, int size)
{
    for (int shift = size * 8 - 8; shift >= 0; shift -= 8)
        to->push_back((uint8_t)(value >> shift));
}

static void pad(bytes_t *to)
{
    while (to->size() % 4 != 0)
        to->push_back(0);
}

static void add_option(bytes_t *to, uint16_t code, const void *data, size_t size)
{
    add<uint16_t>(to, code);
    add<uint16_t>(to, (uint16_t)size);
    to->insert(to->end(), (const uint8_t *)data, (const uint8_t *)data + size);
    pad(to);
}

static void add_text(bytes_t *to, uint16_t code, const std::string &text)
{
    add_option(to, code, text.data(), std::min<size_t>(text.size(), UINT16_MAX));
}

static bool write_block(FILE *file, uint32_t type, const bytes_t &body)
{
    bytes_t block;
    uint32_t size = (uint32_t)body.size() + 12;
    add<uint32_t>(&block, type);
    add<uint32_t>(&block, size);
    block.insert(block.end(), body.begin(), body.end());
    add<uint32_t>(&block, size);
    return fwrite(block.data(), block.size(), 1, file) == 1;
}

bool capture_begin(FILE *file, const std::string &cluster)
{
    bytes_t section;
    add<uint32_t>(&section, 0x1A2B3C4D);
    add<uint16_t>(&section, 1);
    add<uint16_t>(&section, 0);
    add<uint64_t>(&section, UINT64_MAX); // nobody knows its length yet
    add_text(&section, 4, "tipcsim");
    add<uint32_t>(&section, 0);
    bytes_t interface;
    add<uint16_t>(&interface, (uint16_t)ETHERNET);
    add<uint16_t>(&interface, 0);
    add<uint32_t>(&interface, SNAP_LENGTH);
    add_text(&interface, 2, cluster);
    add_text(&interface, 3, "simulated TIPC cluster " + cluster);
    uint8_t nanoseconds = 9;
    add_option(&interface, 9, &nanoseconds, sizeof(nanoseconds));
    add<uint32_t>(&interface, 0);
    return write_block(file, SECTION, section) && write_block(file, INTERFACE, interface);
}

// A connection's messages have the short header, but for those that came back.
static uint32_t header_size(const packet_t &message)
{
    switch (message.form) {
    case CAPTURE_CONN:
        return message.err != 0 ? 32 : 24;
    case CAPTURE_MCAST:
        return 44;
    default:
        return message.form == CAPTURE_NAMED ? 40 : 32;
    }
}

static void add_address(bytes_t *to, uint32_t node) // of a frame: a local one
{
    add_big(to, 0x0254, 2);
    add_big(to, node, 4);
}

static bytes_t frame_of(const packet_t &message)
{
    bytes_t frame;
    uint32_t header = header_size(message);
    add_address(&frame, message.to);
    add_address(&frame, message.from);
    add_big(&frame, 0x88ca, 2);
    add_big(&frame,
            2U << 29 | message.importance << 25 | header / 4 << 21 | (message.droppable ? 1U << 19 : 0) |
                (message.syn ? 1U << 17 : 0) | (header + message.len),
            4);
    add_big(&frame, message.form << 29 | (message.err & 15U) << 25 | (message.form == CAPTURE_NAMED ? 2U << 19 : 0), 4);
    uint32_t words[] = {0,          message.from, message.from_port, message.to_port, message.from,
                        message.to, message.type, message.lower,     message.upper};
    for (uint32_t at = 8; at < header; at += 4)
        add_big(&frame, words[at / 4 - 2], 4);
    frame.insert(frame.end(), message.data.begin(), message.data.end());
    return frame;
}

bool capture_add(FILE *file, const packet_t &message)
{
    bytes_t frame = frame_of(message);
    bytes_t packet;
    add<uint32_t>(&packet, 0); // the interface
    add<uint32_t>(&packet, (uint32_t)(message.time >> 32));
    add<uint32_t>(&packet, (uint32_t)message.time);
    add<uint32_t>(&packet, (uint32_t)frame.size());
    add<uint32_t>(&packet, (uint32_t)(frame.size() + message.len - message.data.size()));
    packet.insert(packet.end(), frame.begin(), frame.end());
    pad(&packet);
    if (!message.note.empty()) {
        add_text(&packet, OPTION_COMMENT, message.note);
        add<uint32_t>(&packet, 0);
    }
    return write_block(file, PACKET, packet);
}

bool capture_end(FILE *file, uint64_t time, uint64_t num, uint64_t lost)
{
    bytes_t body;
    add<uint32_t>(&body, 0);
    add<uint32_t>(&body, (uint32_t)(time >> 32));
    add<uint32_t>(&body, (uint32_t)time);
    add_option(&body, 4, &num, sizeof(num));
    add_option(&body, 5, &lost, sizeof(lost));
    add<uint32_t>(&body, 0);
    return write_block(file, STATISTICS, body);
}
