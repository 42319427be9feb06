// Files of recorded messages: pcapng with Ethernet frames of TIPC's type and the header of TIPC version 2, as Wireshark
// reads them. The addresses of the frames are made up from the nodes. What no header can say is a comment of the
// packet.
#ifndef SIM_CAPTURE_H
#define SIM_CAPTURE_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

enum capture_form_e : uint32_t { CAPTURE_CONN, CAPTURE_MCAST, CAPTURE_NAMED, CAPTURE_DIRECT }; // the header's type

typedef struct packet_s {
    uint64_t time = 0; // ns since 1970
    uint32_t from = 0; // node address
    uint32_t from_port = 0;
    uint32_t to = 0;
    uint32_t to_port = 0;
    uint32_t form = CAPTURE_DIRECT; // capture_form_e
    uint32_t importance = 0;
    bool syn = false; // asks for a connection
    bool droppable = false;
    uint32_t err = 0;  // of a returned message: TIPC error code
    uint32_t type = 0; // of the name, for CAPTURE_NAMED and CAPTURE_MCAST
    uint32_t lower = 0;
    uint32_t upper = 0;
    uint32_t len = 0;          // bytes of its data
    std::string note;          // what became of it; empty when it was delivered
    std::vector<uint8_t> data; // the first bytes
} packet_t;

std::string capture_error(uint32_t code);          // the words for a TIPC error code
std::string capture_line(const packet_t &message); // one line of text, without its end

// Writes to a file (capture_write.cpp). False on an error of the file.
bool capture_begin(FILE *file, const std::string &cluster);
bool capture_add(FILE *file, const packet_t &message);
bool capture_end(FILE *file, uint64_t time, uint64_t num, uint64_t lost); // counts of messages

// Reads what these functions wrote, and other files with such frames (capture_read.cpp). Packets that are no TIPC
// messages are passed over.
typedef struct capture_s {
    FILE *file;
    bool begun;                  // its first block was read
    bool swapped;                // written on a machine of another byte order
    std::vector<uint64_t> units; // of time per second, by interface
    std::vector<uint32_t> links; // types, by interface
    std::string why;             // what is wrong with the file
} capture_t;

bool capture_next(capture_t *capture, packet_t *message); // false at the end, or when `why` says more

#endif
