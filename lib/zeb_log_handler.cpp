#include "zeb_log_handler.h"

#include <atomic>
#include <cerrno>
#include <ctime>

#include "zeb_lock.h"

constexpr long DRAIN_POLL = 1000000; // ns between two looks at a handler that still runs

// Two places: a change fills the unused one, makes it the current one, and waits until no thread uses the other. So a
// place is written only while nobody reads it, and no line is lost in between.
typedef struct place_s {
    std::atomic<uint32_t> users; // threads in the handler, or about to find out that it has changed
    zeb_log_handler_t handler;   // null: none
    void *context;
} place_t;

static zeb_mutex_t s_change_mutex = {PTHREAD_MUTEX_INITIALIZER}; // orders changes; no other lock is taken under it
static place_t s_places[2];
static std::atomic<uint32_t> s_current;
static thread_local bool s_inside; // this thread is in the handler

// The current place, which stays as it is until leave().
static place_t *enter()
{
    for (;;) {
        uint32_t current = s_current.load();
        place_t *place = &s_places[current];
        place->users.fetch_add(1);
        if (s_current.load() == current)
            return place;
        place->users.fetch_sub(1);
    }
}

static void leave(place_t *place)
{
    place->users.fetch_sub(1);
}

bool zeb_has_log_handler()
{
    place_t *place = enter();
    bool has = place->handler != nullptr;
    leave(place);
    return has;
}

void zeb_handle_log_line(int level, const char *file, int line, const char *text)
{
    if (s_inside)
        return;
    place_t *place = enter();
    if (place->handler != nullptr) {
        struct timespec now;
        (void)clock_gettime(CLOCK_REALTIME, &now);
        s_inside = true;
        place->handler(place->context, level, file, line, &now, text);
        s_inside = false;
    }
    leave(place);
}

static void wait_unused(const place_t *place)
{
    while (place->users.load() != 0) {
        struct timespec pause = {0, DRAIN_POLL};
        (void)nanosleep(&pause, nullptr);
    }
}

int zeb_set_log_handler(zeb_log_handler_t handler, void *context)
{
    if (s_inside)
        return -EDEADLK;
    zeb_scoped_lock lock(&s_change_mutex);
    uint32_t former = s_current.load();
    place_t *next = &s_places[1 - former];
    next->handler = handler;
    next->context = context;
    s_current.store(1 - former);
    wait_unused(&s_places[former]);
    return 0;
}

void zeb_log_handler_enter_child()
{
    for (place_t &place : s_places)
        place.users.store(0);
    s_change_mutex = {PTHREAD_MUTEX_INITIALIZER};
}
