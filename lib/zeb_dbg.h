// Debug and log masks, the logging rule, the print buffer, the dumps and the texts of codes.
// Any thread may log. Each mask is one word, accessed relaxed: start-up and the receive thread write it, every thread
// reads it. The print buffer is one per process and has no lock: only the receive thread uses it.
#ifndef ZEB_DBG_H
#define ZEB_DBG_H

#include <cstdarg>
#include <cstdint>

#include <zeb/zeb_diag.h>

constexpr int ZEB_DBG_LINE_LEN = 256;     // a log line or one zeb_buf_printf text, with the terminator
constexpr int ZEB_PRINT_BUF_LEN = 16384;  // the print buffer, with its list link
constexpr int ZEB_DUMP_LEN = 256;         // bytes of a raw dump: a peer must not fill the output
constexpr uint32_t ZEB_DBG_MASK_ALL = 15; // mask of ZEB_DBG_LEVEL_ALL

extern "C" {
extern uint32_t g_zeb_dbg_level __attribute__((visibility("default"))); // levels printed to standard output
extern uint32_t g_zeb_log_level __attribute__((visibility("default"))); // levels recorded in the log file
}

// The masks are plain words because tools access them too.
static inline uint32_t zeb_load_relaxed(const uint32_t *mask)
{
    return __atomic_load_n(mask, __ATOMIC_RELAXED);
}

static inline void zeb_store_relaxed(uint32_t *mask, uint32_t value)
{
    __atomic_store_n(mask, value, __ATOMIC_RELAXED);
}

// True when a line of `level` goes anywhere. Tested before anything is formatted.
static inline bool zeb_log_on(zeb_dbg_level_t level)
{
    uint32_t mask = zeb_load_relaxed(&g_zeb_dbg_level) | zeb_load_relaxed(&g_zeb_log_level);
    return (mask & (1u << level)) != 0;
}

// Format one line and pass it to the outputs whose mask has `level`, and to the application's handler. errno is
// preserved.
void zeb_log_line(zeb_dbg_level_t level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5), cold));
void zeb_vlog_line(zeb_dbg_level_t level, const char *file, int line, const char *format, va_list args)
    __attribute__((format(printf, 4, 0), cold));

// Takes the line end off a text.
void zeb_cut_line_end(char *text);

// Records a formatted line of a recorded level. The sink is set once there is a file to record in.
typedef void (*zeb_log_sink_t)(const char *line);
void zeb_set_log_sink(zeb_log_sink_t sink);

// Writes a formatted line to standard output, with "%%" as one "%".
void zeb_dbg_print_line(const char *text);

constexpr const char *zeb_file_name(const char *path)
{
    const char *name = path;
    for (const char *p = path; *p != '\0'; p++)
        if (*p == '/')
            name = p + 1;
    return name;
}

#define ZEB_LOG(level, ...)                                                                                            \
    do {                                                                                                               \
        if (zeb_log_on(level)) {                                                                                       \
            constexpr const char *zeb_log_file_ = zeb_file_name(__FILE__);                                             \
            zeb_log_line(level, zeb_log_file_, __LINE__, __VA_ARGS__);                                                 \
        }                                                                                                              \
    } while (0)

#define ZEB_VERBOSE(...) ZEB_LOG(ZEB_DBG_LEVEL_VERBOSE, __VA_ARGS__)
#define ZEB_INFO(...) ZEB_LOG(ZEB_DBG_LEVEL_INFO, __VA_ARGS__)
#define ZEB_WARN(...) ZEB_LOG(ZEB_DBG_LEVEL_WARN, __VA_ARGS__)
#define ZEB_ERROR(...) ZEB_LOG(ZEB_DBG_LEVEL_ERROR, __VA_ARGS__)

#endif
