// How an interposed call finds the definition that it replaces.
#ifndef SIM_PRELOAD_NEXT_H
#define SIM_PRELOAD_NEXT_H

#include <dlfcn.h>

// A file names its calls in one list, LIST(NEXT_POINTER), and looks all of them up when the library is loaded,
// LIST(NEXT_FIND): dlsym must not be called in a signal handler. A call that comes earlier looks its own up.
template <typename call_t>
static inline call_t preload_next(call_t *next, const char *name)
{
    call_t found = __atomic_load_n(next, __ATOMIC_RELAXED);
    if (found != nullptr)
        return found;
    found = (call_t)dlsym(RTLD_NEXT, name);
    __atomic_store_n(next, found, __ATOMIC_RELAXED);
    return found;
}
#define NEXT_POINTER(name) static decltype(&::name) s_next_##name;
#define NEXT_FIND(name) (void)preload_next(&s_next_##name, #name);
#define CALL_NEXT(name) preload_next(&s_next_##name, #name)

#endif
