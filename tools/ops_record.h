// The records between zebd and who uses it, as JSON. Nothing here has a descriptor: a record is text from outside,
// and what is missing in it, or of another type, or out of range, is told by the result.
#ifndef OPS_RECORD_H
#define OPS_RECORD_H

#include <nlohmann/json.hpp>

#include "ops_session.h"

typedef nlohmann::ordered_json ops_json_t;

constexpr size_t OPS_RECORD_MAX = 2 << 20;    // bytes of a record that zebd writes
constexpr size_t OPS_PROCESSES_MAX = 256;     // of one question
constexpr size_t OPS_LOG_READ_MAX = 32 << 10; // bytes of a log file at once

// Members of a record. False when there is none, or none of that type and range.
bool ops_record_number(const ops_json_t &record, const char *name, int64_t min, int64_t max, int64_t *number);
bool ops_record_text(const ops_json_t &record, const char *name, std::string *text);

// Bytes of any value as text that JSON can hold, and back.
std::string ops_record_wide(const std::string &bytes);
std::string ops_record_narrow(const std::string &text);

// One line, with its end.
std::string ops_record_line(const ops_json_t &record);

// An object, or a discarded value when the line is none.
ops_json_t ops_record_parse(const std::string &line);

// What was asked of an instance: the answer of zebd, and from it. False for no such record; `inst` is set first.
ops_json_t ops_record_of_reply(const ops_request_t &request);
bool ops_record_inst(const ops_json_t &record, ops_inst_t *inst);
bool ops_record_to_reply(const ops_json_t &record, ops_request_t *request);
const char *ops_record_ask(ops_ask_t ask);

ops_json_t ops_record_of_event(const ops_event_t &event);
bool ops_record_to_event(const ops_json_t &record, ops_event_t *event);

ops_json_t ops_record_of_seen(const ops_seen_t &seen);
bool ops_record_to_seen(const ops_json_t &record, ops_seen_t *seen);

ops_json_t ops_record_of_process(const ops_process_t &process);
bool ops_record_to_process(const ops_json_t &record, ops_process_t *process);

#endif
