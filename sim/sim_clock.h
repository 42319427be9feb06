// Virtual time: the clock that the processes of a cluster share when it is made with --virtual-time, the waits that the
// clock ends, and the timers that it fires. They lie in one file of the cluster's folder, `clock`, which each process
// maps. The time of a process is the kernel's plus `offset`, which only grows.
//
// Who waits for a time takes an entry, waits in the kernel for the time that is left, and gives the entry back. When
// all processes wait, the time-keeper (tipcsim_clock.cpp) moves the clock to the first of the times, and interrupts
// those whose time has come with a signal. Nothing is guarded by a lock: an entry's `use` says whose it is, and counts
// its uses. The time-keeper frees what a thread that ended has left.
#ifndef SIM_CLOCK_H
#define SIM_CLOCK_H

#include <cstdint>
#include <ctime>

constexpr uint32_t SIM_CLOCK_MAGIC = 0x56544d45;
constexpr uint32_t SIM_MAX_WAITS = 16384;
constexpr uint32_t SIM_MAX_TIMERS = 1024;
constexpr int SIM_CLOCK_SIGNAL = 62; // interrupts a wait. It is sent to a thread only while it has an entry.
constexpr int64_t SIM_NEVER = INT64_MAX;
constexpr int64_t SIM_SECOND = 1000000000; // ns; all times of the clock are in ns

enum sim_entry_e : uint32_t { // lower bits of `use`; the others count
    SIM_ENTRY_FREE,
    SIM_ENTRY_TAKEN, // being written
    SIM_ENTRY_SET,
    SIM_ENTRY_SENDING, // the time-keeper is about to send the signal: the entry may not be given back now
    SIM_ENTRY_SENT,
    SIM_ENTRY_STEP = 8
};

static inline uint32_t sim_entry_state(uint32_t use)
{
    return use % SIM_ENTRY_STEP;
}
static inline uint32_t sim_entry_as(uint32_t use, sim_entry_e state)
{
    return use - sim_entry_state(use) + state;
}

typedef struct sim_wait_s {
    uint32_t use;
    int32_t pid;
    int32_t tid;
    uint32_t unused;
    int64_t until; // of the virtual monotonic clock
    int64_t since; // of the kernel's CLOCK_BOOTTIME: a thread that began later is another one
} sim_wait_t;

enum sim_timer_kind_e : uint32_t { SIM_TIMER_ALARM, SIM_TIMER_POSIX }; // the first outlives an exec

typedef struct sim_timer_s { // a timer that sends a signal
    uint32_t use;
    uint32_t kind;
    int32_t pid;
    int32_t tid; // 0: any thread
    int32_t signal;
    int32_t id;
    uint64_t value; // si_value
    uint64_t start; // of the process, as in /proc/PID/stat
    int64_t until;  // SIM_NEVER: not armed
    int64_t interval;
    uint32_t overrun; // at the last signal
    int32_t clock;
} sim_timer_t;

typedef struct sim_clock_s {
    uint32_t magic;       // written last
    uint32_t descriptors; // 1: somebody has made a timerfd
    int64_t offset;
    uint32_t wait_num; // entries that have ever been in use
    uint32_t timer_num;
    sim_wait_t waits[SIM_MAX_WAITS];
    sim_timer_t timers[SIM_MAX_TIMERS];
} sim_clock_t;

#define SIM_HIDDEN __attribute__((visibility("hidden")))

SIM_HIDDEN extern sim_clock_t *g_sim_clock; // null without virtual time

// Maps the file, which `create` makes. 0 or a negative errno. From here on sys_now and the like are virtual.
SIM_HIDDEN int sim_clock_open(const char *path, bool create);
SIM_HIDDEN void sim_clock_use(sim_clock_t *clock);
SIM_HIDDEN void sim_clock_catch(void); // lets the signal have no effect but to interrupt
// For a process of the simulator itself: takes part in the clock of the cluster in `dir`, if it has one.
SIM_HIDDEN void sim_clock_join(const char *dir);

typedef struct sim_waiting_s { // the caller's side of an entry
    sim_wait_t *entry;         // null: the wait is not registered
    uint32_t use;
    bool blocked; // the thread had blocked the signal
} sim_waiting_t;

// Around one system call that waits until `until`, or SIM_NEVER. In between the signal is open: the call ends with
// EINTR when the time has come. Both leave errno alone, and after sim_wait_end no signal comes any more.
SIM_HIDDEN void sim_wait_begin(sim_waiting_t *waiting, int64_t until);
SIM_HIDDEN void sim_wait_end(sim_waiting_t *waiting);

SIM_HIDDEN int64_t sim_clock_now(void); // ns of the virtual monotonic clock

static inline struct timespec sim_span(int64_t ns)
{
    struct timespec span = {};
    span.tv_sec = (time_t)(ns / SIM_SECOND);
    span.tv_nsec = (long)(ns % SIM_SECOND);
    return span;
}

#endif
