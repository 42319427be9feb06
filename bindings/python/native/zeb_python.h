/* What the Python package adds to the library's interface. No Python runs inside a frame of the library: callbacks only
 * put what they are given into a record of the caller's, and Python looks at it when zeb_dispatch has returned. So a
 * handler may do everything, zeb_stop too; and an interpreter that ends the thread in which it stands, as it does with
 * daemon threads at its exit, never unwinds the library. */
#ifndef ZEB_PYTHON_H
#define ZEB_PYTHON_H

#include <zeb/zeb_ext.h>

typedef enum zebpy_kind_e {
    ZEBPY_MESSAGE = 1, /* one-way message or request: `msg`, the taker's from now on */
    ZEBPY_EVENT = 2,   /* `event` */
    ZEBPY_DONE = 3     /* a call is complete: `token`, and `replies`, the taker's from now on */
} zebpy_kind_t;

/* One thing that a polled application was given. */
typedef struct zebpy_item_s {
    int kind; /* zebpy_kind_t */
    zeb_msg_t *msg;
    uint32_t event;      /* zeb_event_type_t */
    uint32_t event_app;  /* the peer instance */
    uint32_t event_node; /* 0..65535 */
    uint64_t token;
    zeb_reply_msg_t replies;
} zebpy_item_t;

/* Registers a polled application that takes messages and requests of the `num` versions. The last two are the options
 * of these names. Returns what zeb_register_app returns; -ENOMEM when there is no memory for the table. */
int zebpy_register(uint32_t app, const char *name, const uint32_t *versions, int num, uint32_t queue_notice,
                   uint32_t every_subscriber);

/* Takes up to `max` items off the queue of `app`, into `items`, which has room for them. Returns how many there are
 * now, or the error of zeb_dispatch. It does not wait. One thread at a time for each application. */
int zebpy_take(uint32_t app, zebpy_item_t *items, int max);

/* As zeb_send (`node` ZEB_NODE_ALL) and zeb_sendto, with a message made of `size` bytes. -EMSGSIZE: too many. */
int zebpy_send(uint32_t app, uint32_t node, uint32_t to, uint32_t version, const char *data, size_t size, int flags);

/* As zeb_rpc_async. The call's outcomes come as an item with this token. */
int zebpy_call(uint32_t app, uint32_t node, uint32_t to, uint32_t version, const char *data, size_t size, int flags,
               uint32_t milliseconds, uint64_t token, uint32_t *call);

/* As zeb_rpc_reply, in the request's version; null `data` refuses. */
int zebpy_reply(const zeb_msg_t *request, const char *data, size_t size);

/* Log lines. The library's handler runs in any thread, with locks of the library held. It must not take the
 * interpreter's lock, or one of Python's logging: the thread that has it may wait for a lock of the library, and
 * neither would go on.
 * So the handler writes each line into the pipe `fd` and never waits: where the pipe is full, the line is counted as
 * lost. A Python thread reads the other end. A forked child writes nothing: the pipe is its parent's.
 *
 * Each record is a zebpy_line_t and `len` bytes of text, at most PIPE_BUF together, so that lines of several threads do
 * not mix. */
typedef struct zebpy_line_s {
    int32_t level;
    int32_t line; /* in the library's file */
    int64_t seconds;
    int64_t nanoseconds;
    uint32_t lost; /* lines before this one for which there was no room */
    uint32_t file_len;
    uint32_t text_len;
    uint32_t reserved;
} zebpy_line_t;

int zebpy_log_start(int fd); /* not blocking; the caller's. What zeb_set_log_handler returns */
int zebpy_log_stop(void);    /* when it has returned, nothing writes to the descriptor */

#endif
