// What must hold once faults have stopped.
#ifndef EXPLORE_CHECK_H
#define EXPLORE_CHECK_H

#include "world.h"

constexpr uint32_t CALM_BOUND = 200000; // ms: three resume time-outs and what follows them; 188 s was the longest seen
constexpr uint32_t STAY_TIME = 130000;  // ms in which nothing happens after that; longer than any timer, twice

// Ends all faults, lets time pass with the smallest delays and checks. Returns how long it took until the last message
// of a core was sent, in ms.
uint32_t calm_down(world_t *world);

// Checks what holds once all is quiet.
void check_quiet(world_t *world);

const char *violation_text(violation_t violation);

#endif
