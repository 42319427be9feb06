#include "wire.h"

#include <cstdio>

namespace wire
{
void put8(bytes_t *out, uint8_t value)
{
    out->push_back(value);
}

void put16(bytes_t *out, uint16_t value)
{
    put8(out, static_cast<uint8_t>(value >> 8));
    put8(out, static_cast<uint8_t>(value & 0xFF));
}

void put32(bytes_t *out, uint32_t value)
{
    put16(out, static_cast<uint16_t>(value >> 16));
    put16(out, static_cast<uint16_t>(value & 0xFFFF));
}

uint16_t get16(const bytes_t &in, size_t at)
{
    return static_cast<uint16_t>(in.at(at) << 8 | in.at(at + 1));
}

uint32_t get32(const bytes_t &in, size_t at)
{
    return static_cast<uint32_t>(get16(in, at)) << 16 | get16(in, at + 2);
}

bytes_t message(const header_t &header, const bytes_t &body)
{
    bytes_t out;
    put8(&out, header.ver);
    put8(&out, 0);
    put8(&out, header.flag);
    put8(&out, 0);
    put32(&out, header.len != 0 ? header.len : static_cast<uint32_t>(HEADER_LEN + body.size()));
    put32(&out, header.src_node);
    put32(&out, header.dst_node);
    put32(&out, header.src_app);
    put32(&out, header.dst_app);
    put32(&out, header.app_ver);
    put32(&out, header.seq);
    put32(&out, header.stat);
    return out + body;
}

header_t header_of(const bytes_t &message)
{
    header_t header;
    header.ver = message.at(0);
    header.flag = message.at(2);
    header.len = get32(message, LEN_AT);
    header.src_node = get32(message, 8);
    header.dst_node = get32(message, 12);
    header.src_app = get32(message, 16);
    header.dst_app = get32(message, 20);
    header.app_ver = get32(message, 24);
    header.seq = get32(message, SEQ_AT);
    header.stat = get32(message, 32);
    return header;
}

bytes_t body_of(const bytes_t &message)
{
    return bytes_t(message.begin() + HEADER_LEN, message.end());
}

bytes_t tlv(uint16_t type, const bytes_t &value, int len)
{
    bytes_t out;
    put16(&out, static_cast<uint16_t>(len >= 0 ? static_cast<size_t>(len) : value.size() + ELEMENT_LEN));
    put16(&out, type);
    out = out + value;
    while (out.size() % 4 != 0)
        put8(&out, 0);
    return out;
}

bytes_t operator+(const bytes_t &a, const bytes_t &b)
{
    bytes_t out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

bytes_t words(const std::vector<uint32_t> &values)
{
    bytes_t out;
    for (uint32_t value : values)
        put32(&out, value);
    return out;
}

bytes_t sync_inst(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t resume, uint32_t ttl)
{
    return tlv(SYNC_INST, words({seq, id, is_server, resume, ttl}));
}

bytes_t sync_ack(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t ttl)
{
    return tlv(SYNC_ACK, words({seq, id, is_server, 0, ttl}));
}

bytes_t sync_seq_ack(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t pseq, uint32_t ttl)
{
    return tlv(SYNC_SEQ_ACK, words({seq, id, is_server, 0, ttl, pseq}));
}

bytes_t both_acks(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t pseq, uint32_t ttl)
{
    return sync_ack(seq, id, is_server, ttl) + sync_seq_ack(seq, id, is_server, pseq, ttl);
}

std::string hex(const bytes_t &bytes)
{
    std::string out;
    char digits[4];
    for (uint8_t byte : bytes) {
        (void)snprintf(digits, sizeof(digits), "%02x", byte);
        out += digits;
    }
    return out;
}
} // namespace wire
