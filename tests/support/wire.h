// The tests' own encoder and decoder of what travels between processes, written from the bytes up and sharing nothing
// with the library's headers.
#ifndef TESTS_SUPPORT_WIRE_H
#define TESTS_SUPPORT_WIRE_H

#include <cstdint>
#include <string>
#include <vector>

namespace wire
{
typedef std::vector<uint8_t> bytes_t;

void put8(bytes_t *out, uint8_t value);
void put16(bytes_t *out, uint16_t value); // big-endian
void put32(bytes_t *out, uint32_t value); // big-endian
uint16_t get16(const bytes_t &in, size_t at);
uint32_t get32(const bytes_t &in, size_t at);

struct header_t {
    uint8_t ver = 2;
    uint8_t flag = 0;
    uint32_t src_node = 0;
    uint32_t dst_node = 0;
    uint32_t src_app = 0;
    uint32_t dst_app = 0;
    uint32_t app_ver = 1;
    uint32_t seq = 0;
    uint32_t stat = 0;
    uint32_t len = 0; // 0: filled from the body
};

constexpr uint8_t SYNC = 0x01;
constexpr uint8_t REQUEST = 0x02;
constexpr uint8_t ACK = 0x04;
constexpr uint8_t MNG = 0x08;

bytes_t message(const header_t &header, const bytes_t &body);
header_t header_of(const bytes_t &message);
bytes_t body_of(const bytes_t &message);

// One element with its padding; `len` other than 0 lies about the length.
bytes_t tlv(uint16_t type, const bytes_t &value, int len = -1);
bytes_t operator+(const bytes_t &a, const bytes_t &b);
bytes_t words(const std::vector<uint32_t> &values);

// Bodies of the handshake.
bytes_t sync_inst(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t resume, uint32_t ttl = 600);
bytes_t sync_ack(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t ttl = 600);
bytes_t sync_seq_ack(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t pseq, uint32_t ttl = 600);

std::string hex(const bytes_t &bytes);
} // namespace wire

#endif
