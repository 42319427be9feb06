// Calls that no thread waits for. Their records stand in the wait table like those of other calls (lib/zeb_rpc.h). With
// its last entry a record moves to the application's done_list, and the application's function is called: by the
// thread that dispatches its queue, or by the receive thread when it has none. Whoever takes a record off a list under
// the mutex of the table owns it, so the function is called once or, after zeb_rpc_async_cancel, never.
//
// Time-outs: one heap of deadlines for the process, with a lock of its own, taken last. The receive thread sleeps until
// the earliest one. A thread that adds an earlier one wakes it by a descriptor, which the first call of the process
// makes; until then the receive thread neither polls it nor looks at the heap.
#ifndef ZEB_RPC_ASYNC_H
#define ZEB_RPC_ASYNC_H

#include <zeb/zeb_ext.h>

#include "zeb_heap.h"
#include "zeb_rpc.h"

typedef struct zeb_rpc_async_s {
    zeb_reply_msg_t replies; // `reply` of the call's record points to it
    zeb_heap_node_t deadline;
    zeb_app_rpc_wait_t *rpc;
    uint32_t seq;
    zeb_call_done_fun_t fun;
    void *context;
} zeb_rpc_async_t;

// For callers. The record is freed with free() when its call could not be prepared; zeb_rpc_async_start takes it, with
// its `seq`. After that it may be gone at any time.
int zeb_rpc_async_prepare();     // makes the descriptor that wakes the receive thread. 0, or -1 after an ERROR line
uint32_t zeb_rpc_async_number(); // a sequence number that no other call of this kind has drawn
zeb_rpc_async_t *zeb_rpc_async_new(zeb_call_done_fun_t fun, void *context);
void zeb_rpc_async_start(zeb_app_rpc_wait_t *rpc, zeb_rpc_async_t *async, uint32_t milliseconds);
int zeb_rpc_async_cancel(zeb_app_rpc_wait_t *rpc, uint32_t seq); // as zeb_rpc_cancel

// For the receive thread. zeb_rpc_async_run_ready calls the functions of applications without a queue; it must not be
// called under a lock.
int zeb_rpc_async_wake_fd();   // -1 before the first call
void zeb_rpc_async_time_out(); // ends the calls whose deadline has passed
bool zeb_rpc_async_ready();    // whether zeb_rpc_async_run_ready has anything to do
void zeb_rpc_async_run_ready();
int zeb_rpc_async_until_next(int most); // milliseconds until the next deadline, at most `most`

// For a stop, when no call is in progress and the library's threads have ended. The first frees the calls of an
// application, whose functions are never called; every record on the lists is of such a call. The second closes the
// descriptor, also in a child.
void zeb_rpc_async_drop(zeb_app_rpc_wait_t *rpc);
void zeb_rpc_async_close();

#endif
