#include "zebctl_progress.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

#include "ops_view.h"
#include "zebctl.h"

constexpr size_t TEXT_MAX = 200;

// Written with SIGALRM blocked; the handler reads them, and its own flag alone.
static char s_what[TEXT_MAX];
static char s_over[TEXT_MAX];
static int64_t s_begun;
static int64_t s_limit; // ms of CLOCK_MONOTONIC; 0: none
static volatile sig_atomic_t s_shown;

static void put(const char *text)
{
    size_t len = 0;
    while (text[len] != '\0')
        len++;
    (void)!write(STDERR_FILENO, text, len);
}

static void put_number(int64_t number)
{
    char digits[24];
    size_t at = sizeof(digits) - 1;
    digits[at] = '\0';
    do {
        digits[--at] = (char)('0' + number % 10);
        number /= 10;
    } while (number != 0);
    put(digits + at);
}

static void take_away()
{
    if (s_shown != 0)
        put("\r\033[K");
    s_shown = 0;
}

// Calls only what a signal handler may.
static void tick(int)
{
    int err = errno;
    int64_t now = ops_now();
    if (s_limit != 0 && now >= s_limit) {
        take_away();
        put(s_over);
        _exit(ZEBCTL_TIMED_OUT);
    }
    if (s_what[0] != '\0' && isatty(STDERR_FILENO) != 0) {
        put("\r");
        put(s_what);
        put(" ... ");
        put_number((now - s_begun) / 1000);
        put(" s\033[K");
        s_shown = 1;
    }
    errno = err;
}

static void begin_ticking()
{
    static bool begun;
    if (begun)
        return;
    begun = true;
    struct sigaction action = {};
    action.sa_handler = tick;
    action.sa_flags = SA_RESTART;
    (void)sigaction(SIGALRM, &action, nullptr);
    struct itimerval timer = {{1, 0}, {1, 0}};
    (void)setitimer(ITIMER_REAL, &timer, nullptr);
}

static void block(bool on)
{
    sigset_t set;
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGALRM);
    (void)sigprocmask(on ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

void zebctl_progress(const std::string &what)
{
    block(true);
    if (what.empty())
        take_away();
    (void)snprintf(s_what, sizeof(s_what), "%s", what.c_str());
    s_begun = ops_now();
    block(false);
    begin_ticking();
}

void zebctl_limit(int64_t ms, const std::string &text)
{
    block(true);
    (void)snprintf(s_over, sizeof(s_over), "zebctl: %s\n", text.c_str());
    s_limit = ms == 0 ? 0 : ops_now() + ms;
    block(false);
    begin_ticking();
}
