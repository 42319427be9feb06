// What a node can tell of a process of its own: its program, its start, and its log file.
//
// Whoever tells it may be another user than the process, without a right to its /proc/PID/exe. The directory of the log
// files can be written by anyone, so what is opened there must be a plain file with one name.
//
// A log file is never truncated: at its size it goes on from its first byte, over what is there. So the newest line
// ends somewhere in it, at the seam; the oldest that is left follows.
#ifndef OPS_LOG_H
#define OPS_LOG_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "ops_session.h"

// The time at the start of a line, "Www Mmm dd hh:mm:ss yyyy ", as a number that grows with time; 0 when there is none.
int64_t ops_log_stamp(const char *line, size_t len);

// The seam: where the next line will be written. `len` when the file has not gone on from its start yet.
size_t ops_log_seam(const char *text, size_t len);

// The parts of a file of `size` bytes and with that seam that a read from `offset` gives, `most` bytes at most.
typedef struct ops_log_range_s {
    int64_t begin;
    int64_t len;
    int64_t next; // the offset that follows
} ops_log_range_t;

ops_log_range_t ops_log_range(int64_t size, int64_t seam, int64_t offset, int64_t most);

// The same as ops_log_read(), `most` bytes at most.
int ops_log_read_some(const ops_process_t &process, int64_t offset, int64_t most, std::string *text, int64_t *next);

// The program in the name of a log file of that process, "log-PROGRAM-PID-YYYYMMDD-HHMMSS"; empty when it is none.
std::string ops_log_program(const std::string &name, int32_t pid);

#endif
