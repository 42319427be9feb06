// What the library says of itself to its application: texts of results, and why a call failed.
// Any thread may enter; there is no lock. The last error is per thread. A failure sets it at the place that logs the
// reason, whatever the masks are; the road of a send that succeeds never touches it.
#ifndef ZEB_ERROR_H
#define ZEB_ERROR_H

#include <cstdint>

#include <zeb/zeb_ext.h>

#include "zeb_dbg.h"
#include "zeb_log_handler.h"

// Sets this thread's last error, without the line end. errno is preserved.
void zeb_set_last_error(const char *format, ...) __attribute__((format(printf, 1, 2), cold));

// The same for failures that a program may meet in a loop: the text is formatted only when somebody asks. `format` is a
// literal that takes up to four numbers of 32 bits.
typedef struct zeb_error_args_s {
    uint32_t arg[4];
} zeb_error_args_t;
void zeb_note_error(const char *format, zeb_error_args_t args) __attribute__((cold));

void zeb_clear_last_error();

// Adds to this thread's last error what to do about it: a literal that begins with a blank, for
// people alone. The next error takes it away.
void zeb_advise(const char *advice);

// The advice, which begins with a blank; empty without one.
const char *zeb_advice();

constexpr int ZEB_SAY_LEN = 640; // bytes of a line on standard error, with the terminator

// Writes one line to standard error, unless it is the one that was written last. In one write, without the stream and
// its lock: a forked child may do it too. errno is preserved.
void zeb_say(const char *format, ...) __attribute__((format(printf, 1, 2), cold));

// The same, unless the application takes the log lines itself.
#define ZEB_SAY_UNHANDLED(...)                                                                                         \
    do {                                                                                                               \
        if (!zeb_has_log_handler())                                                                                    \
            zeb_say(__VA_ARGS__);                                                                                      \
    } while (0)

// A log line that says why a call fails. Its text becomes the last error.
#define ZEB_LOG_WHY(level, ...)                                                                                        \
    do {                                                                                                               \
        zeb_set_last_error(__VA_ARGS__);                                                                               \
        ZEB_LOG(level, __VA_ARGS__);                                                                                   \
    } while (0)
#define ZEB_ERROR_WHY(...) ZEB_LOG_WHY(ZEB_DBG_LEVEL_ERROR, __VA_ARGS__)
#define ZEB_WARN_WHY(...) ZEB_LOG_WHY(ZEB_DBG_LEVEL_WARN, __VA_ARGS__)

#endif
