// The calendar clock, interposed: a test may hold it at a time of its own.
#include <atomic>
#include <ctime>
#include <dlfcn.h>

#include "fault.h"

static std::atomic<time_t> s_held{0};

void fault::hold_time(time_t seconds)
{
    s_held = seconds;
}

extern "C" time_t time(time_t *out)
{
    time_t now = s_held;
    if (now == 0)
        return reinterpret_cast<time_t (*)(time_t *)>(dlsym(RTLD_NEXT, "time"))(out);
    if (out != nullptr)
        *out = now;
    return now;
}
