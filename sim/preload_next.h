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

#endif
