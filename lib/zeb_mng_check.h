// The invariants of the library, checked on demand. Built only into debug and sanitizer builds (ZEB_INVARIANTS); for
// tests. Each record is checked under its own lock. The library may run on between two records, so nothing is compared
// across locks.
#ifndef ZEB_MNG_CHECK_H
#define ZEB_MNG_CHECK_H

#include <cstddef>

// Returns the number of broken invariants and describes each in one line of `text`, which has `size` bytes. Any thread
// may call it that holds no lock; calls and traffic may go on meanwhile.
extern "C" __attribute__((visibility("default"))) int zeb_check_invariants(char *text, size_t size);

#endif
