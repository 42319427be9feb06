// How an interposed call finds the definition that it replaces.
#ifndef SIM_PRELOAD_NEXT_H
#define SIM_PRELOAD_NEXT_H

#include <dlfcn.h>

// NEXT(name) looks the next definition of `name` up once; CALL(name) calls it.
#define NEXT(name)                                                                                                     \
    static decltype(&::name) s_next_##name;                                                                            \
    if (s_next_##name == nullptr)                                                                                      \
    s_next_##name = (decltype(&::name))dlsym(RTLD_NEXT, #name)
#define CALL(name) s_next_##name

// The same for a file that names its calls in one list, LIST(NEXT_POINTER), and looks all of them up when the library
// is loaded, LIST(NEXT_FIND): dlsym must not be called in a signal handler. A call that comes earlier looks its own up.
template <typename call_t>
static inline call_t preload_next(call_t *next, const char *name)
{
    if (*next == nullptr)
        *next = (call_t)dlsym(RTLD_NEXT, name);
    return *next;
}
#define NEXT_POINTER(name) static decltype(&::name) s_next_##name;
#define NEXT_FIND(name) (void)preload_next(&s_next_##name, #name);
#define CALL_NEXT(name) preload_next(&s_next_##name, #name)

#endif
