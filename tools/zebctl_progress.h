// What is under way, on standard error of a terminal, when it takes longer than a second; and a limit for calls of the
// library that have none. Both run in the handler of SIGALRM.
#ifndef ZEBCTL_PROGRESS_H
#define ZEBCTL_PROGRESS_H

#include <cstdint>
#include <string>

// From now on this is under way; an empty text ends it, and takes away what was shown.
void zebctl_progress(const std::string &what);

// Ends the process with ZEBCTL_TIMED_OUT and this text unless it is called again within that time. 0: no limit.
void zebctl_limit(int64_t ms, const std::string &text);

#endif
