#include "zeb_error.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

// Plain data without a constructor, so that a thread's copy needs no set-up and no release.
typedef struct last_error_s {
    char text[ZEB_DBG_LINE_LEN];
    const char *format; // of a text that is not formatted yet, or null
    zeb_error_args_t args;
    const char *advice; // or null
} last_error_t;

static thread_local last_error_t s_last;

void zeb_set_last_error(const char *format, ...)
{
    int saved_errno = errno;
    va_list args;
    va_start(args, format);
    if (vsnprintf(s_last.text, sizeof(s_last.text), format, args) < 0)
        s_last.text[0] = '\0';
    va_end(args);
    zeb_cut_line_end(s_last.text);
    s_last.format = nullptr;
    s_last.advice = nullptr;
    errno = saved_errno;
}

void zeb_note_error(const char *format, zeb_error_args_t args)
{
    s_last.format = format;
    s_last.args = args;
    s_last.advice = nullptr;
}

// True when the line is the one that was said last. A program that tries again and again must not fill its output.
static bool said_last(const char *text)
{
    static std::atomic<uint64_t> s_last_said;
    uint64_t hash = 14695981039346656037u; // FNV-1a
    for (const char *p = text; *p != '\0'; p++)
        hash = (hash ^ (unsigned char)*p) * 1099511628211u;
    return s_last_said.exchange(hash, std::memory_order_relaxed) == hash;
}

void zeb_say(const char *format, ...)
{
    int saved_errno = errno;
    char text[ZEB_SAY_LEN + 1] = ""; // and the line end of a text that was cut
    va_list args;
    va_start(args, format);
    int len = vsnprintf(text, ZEB_SAY_LEN, format, args);
    va_end(args);
    zeb_cut_line_end(text);
    if (len > 0 && !said_last(text)) {
        size_t end = strlen(text);
        text[end++] = '\n';
        (void)!write(STDERR_FILENO, text, end);
    }
    errno = saved_errno;
}

void zeb_clear_last_error()
{
    s_last.text[0] = '\0';
    s_last.format = nullptr;
    s_last.advice = nullptr;
}

void zeb_advise(const char *advice)
{
    s_last.advice = advice;
}

const char *zeb_advice()
{
    return s_last.advice != nullptr ? s_last.advice : "";
}

const char *zeb_last_error(void)
{
    if (s_last.format == nullptr)
        return s_last.text;
    const uint32_t *arg = s_last.args.arg;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    zeb_set_last_error(s_last.format, arg[0], arg[1], arg[2], arg[3]);
#pragma GCC diagnostic pop
    return s_last.text;
}

typedef struct result_text_s {
    int result;
    const char *text;
} result_text_t;

static const result_text_t RESULT_TEXTS[] = {
    {0, "success"},
    {-EPERM, "a socket or system call failed, the node id is unknown, it is too late to register, or a forked child "
             "called"},
    {-ENOENT, "not registered, no such group, or no online server"},
    {-EAGAIN, "would block, or a part of the application could not be created"},
    {-EEXIST, "already registered, or the number of the RPC call is in use"},
    {-EINVAL, "a bad argument"},
    {-ENOBUFS, "a fixed table is full"},
    {-EDEADLK, "called where it would wait for itself: by the log handler, or in a callback"},
    {-ETIMEDOUT, "not enough servers came online in time"},
    {-EALREADY, "the function of the call has been called, or there is no such call"},
    {-EBUSY, "another thread dispatches for the application, or one of its own callbacks tries to"},
    {-ESHUTDOWN, "the library is stopping"},
    {-EINPROGRESS, "the function of the call is running"},
    {ETIMEDOUT, "the wait of an RPC call ended just as its last reply came"},
};

static const char *other_result_text(int result)
{
    static thread_local char s_text[96];
    if (result > 0) {
        (void)snprintf(s_text, sizeof(s_text), "%d: no error", result);
        return s_text;
    }
    char buf[64];
    int saved_errno = errno;
    (void)snprintf(s_text, sizeof(s_text), "%d: %s", result,
                   strerror_r((int)(0u - (unsigned)result), buf, sizeof(buf)));
    errno = saved_errno;
    return s_text;
}

const char *zeb_strerror(int result)
{
    for (const result_text_t &entry : RESULT_TEXTS) {
        if (entry.result == result)
            return entry.text;
    }
    return other_result_text(result);
}
