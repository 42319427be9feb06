// What must hold between any two steps of the library, checked on demand. Built into debug and sanitizer builds alone
// (ZEB_INVARIANTS); for tests.
#ifndef ZEB_MNG_CHECK_H
#define ZEB_MNG_CHECK_H

#include <cstddef>

// Returns how many invariants are broken and describes them, a line each, in `text` of `size` bytes. Any thread may
// call it, under no lock; callers and traffic may go on meanwhile.
extern "C" __attribute__((visibility("default"))) int zeb_check_invariants(char *text, size_t size);

#endif
