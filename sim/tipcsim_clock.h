// The time-keeper of a cluster with virtual time: a thread of the launcher `tipcsim cluster`. When all threads of all
// processes of the cluster sleep, it moves the clock to the first moment that one of them waits for.
//
// All sleep when two looks find each of them asleep and none has run in between: then there was a moment at which all
// slept, and what was registered at that moment is what they wait for. A process that has stopped or ended waits, too.
// A process of the cluster is what the launcher or another one of the cluster started, and what has joined the cluster.
#ifndef SIM_TIPCSIM_CLOCK_H
#define SIM_TIPCSIM_CLOCK_H

#include <map>
#include <sys/types.h>
#include <vector>

#include "sim_clock.h"

// In the launcher. clock_prepare makes the clock, before any process of the cluster is started; clock_begin starts the
// time-keeper once `command` is; clock_end ends it.
void clock_prepare(void);
void clock_begin(pid_t command);
void clock_end(void);

void clock_sleep_until(int64_t ms); // of sys_now
// The environment of a program of the cluster. Call it after the cluster was opened.
void clock_environment(void);

// The threads of the cluster, as the last look saw them (tipcsim_clock_look.cpp).
typedef struct thread_s {
    pid_t pid;
    int stat; // descriptors of its files in /proc, or -1
    int counts;
    int call;
    int64_t started; // ns of CLOCK_BOOTTIME, rounded down
    char state;
    uint64_t seen; // of what changes whenever the thread runs
} thread_t;

typedef std::map<pid_t, thread_t> thread_map_t;

void look_prepare(void); // before the first process of the cluster
void look_begin(pid_t command);
const thread_map_t &look_threads(void);
const std::map<pid_t, int> &look_processes(void); // with the number of their threads
bool look_adopt(pid_t pid);                       // a process that joined the cluster; true when it is new
bool look_stopped(pid_t pid);                     // all its threads have stopped or ended
// True when there was a moment at which all slept; `at_that_moment` was called then.
typedef void (*look_call_t)(void);
bool look_all_asleep(look_call_t at_that_moment);

// Timers (tipcsim_clock_timers.cpp). Moments of the virtual monotonic clock; SIM_NEVER for none.
int64_t timers_first(void);
void timers_fire(void);       // those whose time has come
int64_t timerfds_first(void); // finds them; the two below are about those
void timerfds_move(void);     // after the clock was moved
void timerfds_forget(void);

#endif
