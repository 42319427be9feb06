// What must hold when no more faults happen.
#ifndef EXPLORE_CHECK_H
#define EXPLORE_CHECK_H

#include "world.h"

constexpr uint32_t CALM_BOUND = 200000; // ms: three resume time-outs and what follows them; the longest seen was 188 s
constexpr uint32_t STAY_TIME = 130000;  // ms in which nothing happens after that; more than twice the longest timer

// Ends all faults, lets time pass with the smallest delays, and checks. Returns the time until the last message of a
// core was sent, in ms.
uint32_t calm_down(world_t *world);

// Checks what must hold when nothing more happens.
void check_quiet(world_t *world);

const char *violation_text(violation_t violation);

#endif
