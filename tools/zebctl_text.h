// Words that several commands print.
#ifndef ZEBCTL_TEXT_H
#define ZEBCTL_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

#include "ops_stat.h"
#include "ops_text.h"

std::string zebctl_joined(const std::vector<std::string> &words, const char *between);
std::string zebctl_joined(const ops_ids_t &ids, const char *between);

// The text for a terminal, or `other` when it is empty.
std::string zebctl_text_or(const std::string &text, const char *other);

// Local time, "-" for 0; the second with milliseconds, for a stream.
std::string zebctl_time_text(int64_t ms);
std::string zebctl_moment_text(int64_t ms);

// A span in words for people: "850 ms", "12 s", "5 min", "3 h", "4 d".
std::string zebctl_span_text(int64_t ms);

#endif
