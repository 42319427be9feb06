// The next definition of an interposed function.
#ifndef SIM_PRELOAD_NEXT_H
#define SIM_PRELOAD_NEXT_H

#include <dlfcn.h>

// NEXT(name) looks the next definition of `name` up once; CALL(name) calls it.
#define NEXT(name)                                                                                                     \
    static decltype(&::name) s_next_##name;                                                                            \
    if (__atomic_load_n(&s_next_##name, __ATOMIC_RELAXED) == nullptr)                                                  \
    __atomic_store_n(&s_next_##name, (decltype(&::name))dlsym(RTLD_NEXT, #name), __ATOMIC_RELAXED)
#define CALL(name) s_next_##name

#endif
