// Virtual time in the waits of the simulator's own sockets. They pass through the library libtipcsim-clock.so, which is
// there as well then: a wait for one socket is one for a futex.
#include "preload.h"
#include "sim_clock.h"

#include <cstdlib>

extern "C" void tipcsim_clock_slice(int64_t until) __attribute__((weak)); // of that library

__attribute__((constructor)) static void begin()
{
    const char *path = getenv("TIPCSIM_CLOCK");
    if (path != nullptr && tipcsim_clock_slice != nullptr)
        (void)sim_clock_open(path, false);
}

// The kernel's wait is short, and the virtual clock moves to the end of the whole one.
int64_t preload_slice(int64_t until)
{
    if (tipcsim_clock_slice != nullptr)
        tipcsim_clock_slice(until != PRELOAD_EVER ? until * 1000 : SIM_NEVER);
    return PRELOAD_SLICE;
}

// With virtual time looks would be all that happens. What they look for is notified, too.
int64_t preload_look(int64_t ms)
{
    return g_sim_clock != nullptr ? INT32_MAX : ms;
}
