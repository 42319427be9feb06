// What a path through the library leaves behind each time that it is walked: memory, mutexes, conditions, descriptors.
#ifndef TESTS_SUPPORT_LEAKS_H
#define TESTS_SUPPORT_LEAKS_H

#include <functional>

// Walks `path` many times and fails the test when something of each walk is left. The path leaves no record that grows
// with every walk, and its messages, subscriptions and what the callbacks saw are forgotten after each. `own` is how
// much a walk may keep for good, in bytes.
void expect_nothing_left(const std::function<void()> &path, size_t own = 0);

#endif
