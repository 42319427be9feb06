// What tests know of the library's records and cannot see from outside. The one place to change when records move.
#ifndef TESTS_SUPPORT_INTERNALS_H
#define TESTS_SUPPORT_INTERNALS_H

#include <cstdint>
#include <pthread.h>

namespace internals
{
// What threads wait on until the library runs.
const pthread_cond_t *running_cond();

// What callers of `app` wait on for their answers.
const pthread_cond_t *answer_cond(uint32_t app);

// Synchronisations that the retry timer is to send again, of all pairs.
int retry_num();

// How far a pair of a local application and a remote instance is, in a word.
const char *phase(uint32_t my_app, uint32_t app, uint32_t node);
} // namespace internals

#endif
