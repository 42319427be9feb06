// Who is inside the library. Every exported call that needs the library's records enters here and leaves at its end, so
// that zeb_stop can refuse new calls, wait for those in progress, and free the records that they use without a lock.
// Any thread enters. There is no lock on the way in and out: a thread counts itself in and then looks whether the gate
// is closed, zeb_stop closes the gate and then looks at the counts, and both are sequentially consistent, so one of the
// two sees the other. The counts are spread over places of a cache line each, because all threads of a process send.
#ifndef ZEB_GATE_H
#define ZEB_GATE_H

#include <atomic>
#include <cerrno>
#include <pthread.h>

#include "zeb_slot.h"

constexpr unsigned ZEB_GATE_PLACE_BITS = 6;

typedef struct alignas(64) zeb_gate_place_s {
    std::atomic<int> calls; // in progress, of the threads that hash to this place
} zeb_gate_place_t;

typedef struct zeb_gate_s {
    std::atomic<bool> closed; // zeb_stop is in progress
    zeb_gate_place_t places[1 << ZEB_GATE_PLACE_BITS];
} zeb_gate_t;

extern zeb_gate_t g_zeb_gate;

// True while zeb_stop is in progress: whoever waits inside the library gives up, and its threads end.
static inline bool zeb_stopping()
{
    return g_zeb_gate.closed.load(std::memory_order_seq_cst);
}

int zeb_gate_refuse(const char *call) __attribute__((cold)); // sets the last error and returns -ESHUTDOWN
void zeb_gate_left();                                        // a call has ended while the gate is closed

// An exported call in progress, to the end of the scope.
class zeb_call_t
{
  public:
    explicit zeb_call_t(const char *name) : refused_(zeb_in_child(name) ? -EPERM : 0)
    {
        if (refused_ != 0)
            return;
        unsigned long self = (unsigned long)pthread_self();
        place_ = &g_zeb_gate.places[self * 0x9E3779B97F4A7C15ul >> (64 - ZEB_GATE_PLACE_BITS)];
        (void)place_->calls.fetch_add(1, std::memory_order_seq_cst);
        if (!zeb_stopping())
            return;
        leave();
        refused_ = zeb_gate_refuse(name);
    }
    ~zeb_call_t()
    {
        if (refused_ == 0)
            leave();
    }
    // 0; -EPERM in a forked child; -ESHUTDOWN while zeb_stop is in progress. A refused call does nothing.
    int refused() const
    {
        return refused_;
    }
    zeb_call_t(const zeb_call_t &) = delete;
    zeb_call_t &operator=(const zeb_call_t &) = delete;

  private:
    void leave()
    {
        (void)place_->calls.fetch_sub(1, std::memory_order_seq_cst);
        if (zeb_stopping())
            zeb_gate_left();
    }

    int refused_;
    zeb_gate_place_t *place_ = nullptr;
};

void zeb_gate_close();
void zeb_gate_wait_empty(); // until no call is in progress; the gate is closed
void zeb_gate_open();
void zeb_gate_forget(); // in a forked child: the callers are threads of the parent

// Whether this thread runs callbacks of applications: the library's own threads always, others inside zeb_dispatch.
bool zeb_set_callbacks(bool on); // returns what it was before
bool zeb_runs_callbacks();

#endif
