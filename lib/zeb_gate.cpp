#include "zeb_gate.h"

#include "zeb_error.h"

zeb_gate_t g_zeb_gate;

// Taken under no other lock of the library but the one of zeb_stop, and no other is taken under it.
static zeb_mutex_t s_mutex = {PTHREAD_MUTEX_INITIALIZER};
static zeb_cond_t s_left = {PTHREAD_COND_INITIALIZER};

static thread_local bool t_callbacks;

void zeb_gate_close()
{
    g_zeb_gate.closed.store(true, std::memory_order_seq_cst);
}

void zeb_gate_open()
{
    g_zeb_gate.closed.store(false, std::memory_order_seq_cst);
}

int zeb_gate_refuse(const char *call)
{
    zeb_set_last_error("ZEB %s called while the library stops.\n", call);
    return -ESHUTDOWN;
}

void zeb_gate_left()
{
    zeb_scoped_lock lock(&s_mutex);
    zeb_cond_broadcast(&s_left);
}

// Place by place: a call that enters a place after it was seen empty finds the gate closed and leaves at once.
void zeb_gate_wait_empty()
{
    zeb_scoped_lock lock(&s_mutex);
    for (zeb_gate_place_t &place : g_zeb_gate.places) {
        while (place.calls.load(std::memory_order_seq_cst) != 0)
            zeb_cond_wait(&s_left, &s_mutex);
    }
}

void zeb_gate_forget()
{
    for (zeb_gate_place_t &place : g_zeb_gate.places)
        place.calls.store(0, std::memory_order_relaxed);
    zeb_gate_open();
}

bool zeb_set_callbacks(bool on)
{
    bool before = t_callbacks;
    t_callbacks = on;
    return before;
}

bool zeb_runs_callbacks()
{
    return t_callbacks;
}
