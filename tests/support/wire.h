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

// Sizes in bytes.
constexpr size_t HEADER_LEN = 36;
constexpr size_t ELEMENT_LEN = 4;           // of an element's own header
constexpr size_t SYNC_VALUE_LEN = 5 * 4;    // of a synchronisation and of the older acknowledgement
constexpr size_t SEQ_ACK_VALUE_LEN = 6 * 4; // the same with the pseq
constexpr size_t SYNC_LEN = HEADER_LEN + ELEMENT_LEN + SYNC_VALUE_LEN;
constexpr size_t BOTH_ACKS_LEN = SYNC_LEN + ELEMENT_LEN + SEQ_ACK_VALUE_LEN;
constexpr size_t BODY_MAX = 61440;
constexpr size_t MESSAGE_MAX = HEADER_LEN + BODY_MAX;

// Where the parts of a message are.
constexpr size_t LEN_AT = 4;
constexpr size_t SEQ_AT = 28;
constexpr size_t TYPE_AT = HEADER_LEN + 2;            // of the first element
constexpr size_t VALUE_AT = HEADER_LEN + ELEMENT_LEN; // the same
constexpr size_t PSEQ_AT = BOTH_ACKS_LEN - 4;         // the last word of both forms of an acknowledgement

// Words of a handshake element's value.
constexpr size_t SEQ = 0;
constexpr size_t SERVER = 2;
constexpr size_t RESUME = 3;
constexpr size_t TTL = 4;

// Types of elements.
constexpr uint16_t NUM_ACK = 0;
constexpr uint16_t SYNC_INST = 1;
constexpr uint16_t SYNC_ACK = 2;
constexpr uint16_t DEBUG_SWITCH = 3;
constexpr uint16_t APP_INFO = 4;
constexpr uint16_t APP_STAT = 5;
constexpr uint16_t PING = 6;
constexpr uint16_t PING_ECHO = 7;
constexpr uint16_t RELOAD = 8;
constexpr uint16_t SYNC_SEQ_ACK = 9;

// Bits of the header's flag.
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
bytes_t both_acks(uint32_t seq, uint32_t id, uint32_t is_server, uint32_t pseq, uint32_t ttl = 600);

// The name of every instance has this type, and its application and node for instance.
constexpr uint32_t NAME_TYPE = 2303;

// A subscription to the topology service, in this host's byte order: where its parts are.
constexpr size_t SUBSCRIPTION_LEN = 28;
constexpr size_t TIMER_TYPE_AT = 20; // its handle: which kind of timer
constexpr size_t TIMER_SEQ_AT = 24;  // and the number of that timer

// Kinds of timer.
constexpr uint32_t RESUME_TIMER = 0;
constexpr uint32_t RESEND_TIMER = 1;
constexpr uint32_t MONITOR_TIMER = 2;
constexpr uint32_t RETRY_TIMER = 3;

std::string hex(const bytes_t &bytes);
} // namespace wire

#endif
