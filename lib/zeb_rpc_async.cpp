#include "zeb_rpc_async.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_gate.h"
#include "zeb_mng_msg.h"
#include "zeb_probe.h"
#include "zeb_tipc.h"

constexpr int64_t NS_PER_MS = 1000000;

static struct {
    zeb_mutex_t mutex = {PTHREAD_MUTEX_INITIALIZER}; // only that of the sequence number is taken under it
    zeb_heap_t heap ZEB_GUARDED_BY(mutex);           // by deadline: monotonic, nanoseconds
    int64_t looks_at ZEB_GUARDED_BY(mutex);          // when the receive thread looks next, by itself or woken
} s_deadlines;

static std::atomic<int> s_wake_fd{-1};   // an eventfd; written under g_lib_mutex, or alone in a child
static std::atomic<bool> s_ready{false}; // a call of an application without a queue is done

int zeb_rpc_async_wake_fd()
{
    return s_wake_fd.load(std::memory_order_acquire);
}

int zeb_rpc_async_prepare()
{
    if (zeb_rpc_async_wake_fd() != -1)
        return 0;
    zeb_scoped_lock lock(&g_lib_mutex);
    if (zeb_rpc_async_wake_fd() != -1)
        return 0;
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd == -1) {
        ZEB_ERROR_WHY("ZEB create descriptor for calls failed: %s.\n", strerror(errno));
        return -1;
    }
    s_wake_fd.store(fd, std::memory_order_release);
    // The receive thread may sleep without the new descriptor: a timer that expires at once has it look.
    if (g_zeb_mng.subscr_sd != -1)
        (void)zeb_start_timer(0, {ZEB_TIMER_TYPE_WAKE, 0});
    return 0;
}

// The receive thread itself looks at the end of its pass of the loop. A counter that is full is readable already.
static void wake()
{
    if (zeb_on_receive_thread())
        return;
    (void)eventfd_write(zeb_rpc_async_wake_fd(), 1);
}

zeb_rpc_async_t *zeb_rpc_async_new(zeb_call_done_fun_t fun, void *context)
{
    zeb_rpc_async_t *async = (zeb_rpc_async_t *)zeb_malloc(sizeof(zeb_rpc_async_t));
    async->fun = fun;
    async->context = context;
    return async;
}

// Two threads that draw at once may get one number. A caller of zeb_rpc does not see that once the other call is gone;
// but here the number is the handle by which a call is cancelled. So these callers draw one after the other.
uint32_t zeb_rpc_async_number()
{
    zeb_scoped_lock lock(&s_deadlines.mutex);
    return zeb_get_seq();
}

static zeb_rpc_async_t *async_of(const zeb_rpc_wait_t *wait)
{
    return list_entry(wait->reply, zeb_rpc_async_t, replies);
}

// True when the receive thread would sleep past the deadline.
static bool add_deadline(zeb_rpc_async_t *async, uint32_t milliseconds)
{
    int64_t deadline = zeb_monotonic_ns() + milliseconds * NS_PER_MS;
    zeb_scoped_lock lock(&s_deadlines.mutex);
    zeb_heap_add(&s_deadlines.heap, &async->deadline, deadline);
    if (deadline >= s_deadlines.looks_at)
        return false;
    s_deadlines.looks_at = deadline;
    return true;
}

static void remove_deadline(zeb_rpc_async_t *async)
{
    zeb_scoped_lock lock(&s_deadlines.mutex);
    zeb_heap_remove(&s_deadlines.heap, &async->deadline);
}

// Frees a call that is on no list any more, with the replies that are still there.
static void free_call(zeb_rpc_wait_t *wait)
{
    zeb_rpc_async_t *async = async_of(wait);
    remove_deadline(async);
    zeb_reply_msg_free(&async->replies);
    free(async);
    free(wait);
}

static void begin_running(zeb_app_rpc_wait_t *rpc, uint32_t seq) ZEB_REQUIRES(rpc->mutex)
{
    rpc->running_seq = seq;
    rpc->running_thread = pthread_self();
}

static void end_running(zeb_app_rpc_wait_t *rpc)
{
    zeb_scoped_lock lock(&rpc->mutex);
    rpc->running_seq = 0;
    if (rpc->cancel_num > 0)
        zeb_cond_broadcast(&rpc->wait_cond);
}

// The first call that is done; null when it was cancelled meanwhile, or the library stops.
static zeb_rpc_wait_t *take_done(zeb_app_rpc_wait_t *rpc)
{
    zeb_scoped_lock lock(&rpc->mutex);
    if (list_empty(&rpc->done_list.list) || zeb_stopping())
        return nullptr;
    zeb_rpc_wait_t *wait = list_record<zeb_rpc_wait_t>(rpc->done_list.list.next);
    indexed_list_remove(&rpc->done_list, wait);
    begin_running(rpc, wait->seq);
    return wait;
}

// False when no call is done, or the library stops.
static bool run_one(zeb_app_rpc_wait_t *rpc)
{
    zeb_rpc_wait_t *wait = take_done(rpc);
    if (wait == nullptr)
        return false;
    ZEB_PROBE_CALL_END(rpc->app_id, wait->seq, 0);
    zeb_rpc_async_t *async = async_of(wait);
    async->fun(wait->seq, &async->replies, async->context);
    free_call(wait);
    end_running(rpc);
    return true;
}

static void run_queued(zeb_app_info_t *app_info)
{
    (void)run_one(zeb_get_app_rpc(app_info->app_id));
}

// A call is done. The handshake may hold g_lib_mutex here, so the receive thread runs nothing yet.
static void done(zeb_app_rpc_wait_t *rpc)
{
    zeb_app_info_t *app_info = zeb_get_app_info(rpc->app_id);
    if (zeb_has_queue(app_info)) {
        zeb_enqueue_task(app_info, run_queued);
        return;
    }
    s_ready.store(true, std::memory_order_release);
    wake();
}

void zeb_rpc_async_start(zeb_app_rpc_wait_t *rpc, zeb_rpc_async_t *async, uint32_t milliseconds)
{
    async->rpc = rpc;
    bool sleeps_past = false;
    zeb_rpc_done_t done_already = nullptr;
    {
        zeb_scoped_lock lock(&rpc->mutex);
        if (milliseconds != 0)
            sleeps_past = add_deadline(async, milliseconds);
        done_already = __zeb_rpc_leave_wait(rpc, async->seq, done);
    }
    if (sleeps_past)
        wake();
    if (done_already != nullptr)
        done_already(rpc);
}

// A call that no thread waits for, off its list; null when there is none, or when its function has been called.
static zeb_rpc_wait_t *take(zeb_app_rpc_wait_t *rpc, uint32_t seq) ZEB_REQUIRES(rpc->mutex)
{
    zeb_rpc_wait_t *wait = indexed_list_find(&rpc->wait_list, seq);
    if (wait != nullptr && wait->done != nullptr) {
        indexed_list_remove(&rpc->wait_list, wait);
        return wait;
    }
    wait = indexed_list_find(&rpc->done_list, seq);
    if (wait != nullptr)
        indexed_list_remove(&rpc->done_list, wait);
    return wait;
}

// Waits while the function of the call runs. The function itself must not, and the receive thread must not either: the
// function may wait for what that thread brings.
static int wait_for_function(zeb_app_rpc_wait_t *rpc, uint32_t seq) ZEB_REQUIRES(rpc->mutex)
{
    if (rpc->running_seq != seq)
        return -EALREADY;
    if (zeb_on_receive_thread() || pthread_equal(pthread_self(), rpc->running_thread) != 0)
        return -EINPROGRESS;
    rpc->cancel_num++;
    while (rpc->running_seq == seq) {
        struct timespec slice = zeb_deadline_in(1);
        (void)zeb_cond_wait_until(&rpc->wait_cond, &rpc->mutex, &slice);
    }
    rpc->cancel_num--;
    return -EALREADY;
}

int zeb_rpc_async_cancel(zeb_app_rpc_wait_t *rpc, uint32_t seq)
{
    zeb_rpc_wait_t *wait = nullptr;
    {
        zeb_scoped_lock lock(&rpc->mutex);
        wait = take(rpc, seq);
        if (wait == nullptr)
            return wait_for_function(rpc, seq);
    }
    ZEB_PROBE_CALL_END(rpc->app_id, seq, -ECANCELED);
    free_call(wait);
    return 0;
}

bool zeb_rpc_async_ready()
{
    return s_ready.load(std::memory_order_relaxed);
}

void zeb_rpc_async_run_ready()
{
    while (zeb_rpc_async_ready() && s_ready.exchange(false, std::memory_order_acquire)) {
        zeb_each_app_mng([](const zeb_app_mng_t *slot) {
            while (!zeb_has_queue(slot->info) && run_one(slot->rpc))
                continue;
        });
    }
}

// Takes the earliest deadline off when it has passed. The record may be gone right after that: it is named by value.
static bool take_expired(int64_t now, zeb_app_rpc_wait_t **rpc, uint32_t *seq)
{
    zeb_scoped_lock lock(&s_deadlines.mutex);
    zeb_heap_node_t *first = s_deadlines.heap.root;
    if (first == nullptr || first->key > now)
        return false;
    zeb_rpc_async_t *async = list_entry(first, zeb_rpc_async_t, deadline);
    *rpc = async->rpc;
    *seq = async->seq;
    zeb_heap_remove(&s_deadlines.heap, first);
    return true;
}

void zeb_rpc_async_time_out()
{
    eventfd_t woken = 0;
    (void)eventfd_read(zeb_rpc_async_wake_fd(), &woken);
    int64_t now = zeb_monotonic_ns();
    zeb_app_rpc_wait_t *rpc = nullptr;
    uint32_t seq = 0;
    while (take_expired(now, &rpc, &seq))
        zeb_rpc_time_out(rpc, seq);
}

// Rounded up: a poll that ends a little early would only be repeated.
int zeb_rpc_async_until_next(int most)
{
    int64_t now = zeb_monotonic_ns();
    zeb_scoped_lock lock(&s_deadlines.mutex);
    const zeb_heap_node_t *first = s_deadlines.heap.root;
    int64_t left = first == nullptr ? most : (first->key - now + NS_PER_MS - 1) / NS_PER_MS;
    left = left < 0 ? 0 : left;
    left = left > most ? most : left;
    s_deadlines.looks_at = now + left * NS_PER_MS;
    return (int)left;
}

static void free_calls(uint32_t app, indexed_list<zeb_rpc_wait_t> *calls)
{
    indexed_list_each(calls, [&](zeb_rpc_wait_t *wait) {
        ZEB_PROBE_CALL_END(app, wait->seq, -ESHUTDOWN);
        free_call(wait);
    });
    indexed_list_init(calls);
}

void zeb_rpc_async_drop(zeb_app_rpc_wait_t *rpc)
{
    zeb_scoped_lock lock(&rpc->mutex);
    free_calls(rpc->app_id, &rpc->wait_list);
    free_calls(rpc->app_id, &rpc->done_list);
}

// The number is cleared first: a child that is forked now must not close the descriptor again.
void zeb_rpc_async_close()
{
    int fd = s_wake_fd.exchange(-1, std::memory_order_acq_rel);
    if (fd != -1)
        (void)close(fd);
    s_ready.store(false, std::memory_order_relaxed);
}
