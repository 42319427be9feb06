// The loop of zebd: descriptors with a callback each, timers, and those who follow the model's events. It knows nothing
// of what they are for.
//
// One thread; callbacks run one after the other, and none of them waits. A callback may add and remove any entry, its
// own too: a removed one is not called any more, also when it was ready in the same round. Entries are named by numbers
// that are not used again, so a late call with an old number does nothing.
#ifndef ZEBD_LOOP_H
#define ZEBD_LOOP_H

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include <poll.h>

#include "ops_session.h"

typedef uint64_t zebd_entry_t; // 0: none

// `ready` is a set of POLLIN, POLLOUT, POLLERR and POLLHUP.
typedef std::function<void(short ready)> zebd_on_ready_t;
typedef std::function<void()> zebd_on_time_t;

// An event with its number, which grows by one from event to event.
typedef std::function<void(uint64_t number, const ops_event_t &event)> zebd_on_event_t;

typedef struct zebd_watch_s {
    int fd;
    short wanted; // POLLIN, POLLOUT, both, or none
    zebd_on_ready_t on_ready;
} zebd_watch_t;

typedef struct zebd_timer_s {
    int64_t at; // ms of CLOCK_MONOTONIC
    zebd_on_time_t on_time;
} zebd_timer_t;

typedef struct zebd_loop_s {
    bool ends; // set it to leave zebd_loop_run()
    zebd_entry_t last;
    std::map<zebd_entry_t, zebd_watch_t> watches;
    std::map<zebd_entry_t, zebd_timer_t> timers;
    std::map<zebd_entry_t, zebd_on_event_t> followers;
    size_t own_followers; // of them, areas of the daemon itself, for which nothing is asked more often
} zebd_loop_t;

// Calls `on_ready` when `fd` is ready for what is wanted (POLLERR and POLLHUP always). The descriptor stays the
// caller's, who removes the entry before it closes it.
zebd_entry_t zebd_loop_add(zebd_loop_t *loop, int fd, short wanted, zebd_on_ready_t on_ready);
void zebd_loop_want(zebd_loop_t *loop, zebd_entry_t watch, short wanted);

// Calls `on_time` once, `after` milliseconds from now.
zebd_entry_t zebd_loop_at(zebd_loop_t *loop, int64_t after, zebd_on_time_t on_time);

// Calls `on_event` with each event of the model from now on, after the model has it. While anyone follows, instances
// are asked more often.
zebd_entry_t zebd_loop_follow(zebd_loop_t *loop, zebd_on_event_t on_event);
void zebd_loop_tell(zebd_loop_t *loop, uint64_t number, const ops_event_t &event);

// Removes a watch, a timer or a follower. An entry that is gone is ignored.
void zebd_loop_remove(zebd_loop_t *loop, zebd_entry_t entry);

// One round: waits at most `longest` milliseconds, then calls back.
void zebd_loop_round(zebd_loop_t *loop, int64_t longest);

// Rounds until `ends`.
void zebd_loop_run(zebd_loop_t *loop);

#endif
