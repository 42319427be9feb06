#include "zeb_python.h"

#include <errno.h>
#include <limits.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Where the callbacks of the zebpy_take in progress put what they get. A polled application's callbacks run in the
 * thread that dispatches, inside its call. */
static _Thread_local zebpy_item_t *s_next;

static void on_message(void *context, zeb_msg_t *msg)
{
    (void)context;
    s_next->kind = ZEBPY_MESSAGE;
    s_next->msg = msg;
    s_next++;
}

static void on_event(void *context, const zeb_event_t *event)
{
    (void)context;
    s_next->kind = ZEBPY_EVENT;
    s_next->event = event->type;
    s_next->event_app = event->event.app.app;
    s_next->event_node = event->event.app.node;
    s_next++;
}

static void on_done(uint32_t call, zeb_reply_msg_t *replies, void *context)
{
    (void)call;
    s_next->kind = ZEBPY_DONE;
    s_next->token = (uint64_t)(uintptr_t)context;
    s_next->replies = *replies;
    memset(replies->msg, 0, sizeof(replies->msg)); /* the taker's now */
    s_next++;
}

int zebpy_register(uint32_t app, const char *name, const uint32_t *versions, int num, uint32_t queue_notice,
                   uint32_t every_subscriber)
{
    zeb_app_dispatcher_t *table = calloc((size_t)num + 1, sizeof(*table));
    zeb_app_options_t options = {.size = sizeof(options),
                                 .app = app,
                                 .mode = ZEB_APP_POLLED,
                                 .name = name,
                                 .dispatchers = table,
                                 .event = on_event,
                                 .queue_notice = queue_notice,
                                 .every_subscriber = every_subscriber};
    int ret;

    if (table == NULL)
        return -ENOMEM;
    for (int i = 0; i < num; i++) {
        table[i].ver = versions[i];
        table[i].message = on_message;
    }
    ret = zeb_register_app(&options);
    free(table);
    return ret;
}

int zebpy_take(uint32_t app, zebpy_item_t *items, int max)
{
    int ret;

    s_next = items;
    ret = zeb_dispatch(app, max);
    return ret < 0 ? ret : (int)(s_next - items); /* a request that the library itself answers has no callback */
}

static zeb_msg_t *message_of(uint32_t version, const char *data, size_t size)
{
    zeb_msg_t *msg = size <= ZEB_MSG_MAX_DATA ? zeb_msg_alloc((int)size, version, 0) : NULL;

    if (msg != NULL && size > 0)
        memcpy(msg->data, data, size);
    return msg;
}

int zebpy_send(uint32_t app, uint32_t node, uint32_t to, uint32_t version, const char *data, size_t size, int flags)
{
    zeb_msg_t *msg = message_of(version, data, size);
    int ret;

    if (msg == NULL)
        return -EMSGSIZE;
    ret = node == ZEB_NODE_ALL ? zeb_send(app, to, msg, flags) : zeb_sendto(app, node, to, msg, flags);
    zeb_msg_free(msg);
    return ret;
}

int zebpy_call(uint32_t app, uint32_t node, uint32_t to, uint32_t version, const char *data, size_t size, int flags,
               uint32_t milliseconds, uint64_t token, uint32_t *call)
{
    zeb_msg_t *msg = message_of(version, data, size);
    int ret;

    if (msg == NULL)
        return -EMSGSIZE;
    ret = zeb_rpc_async(app, node, to, msg, flags, milliseconds, on_done, (void *)(uintptr_t)token, call);
    zeb_msg_free(msg);
    return ret;
}

int zebpy_reply(const zeb_msg_t *request, const char *data, size_t size)
{
    zeb_msg_t *msg = data != NULL ? message_of(request->hdr.app_ver, data, size) : NULL;
    int ret;

    if (data != NULL && msg == NULL)
        return -EMSGSIZE;
    ret = zeb_rpc_reply(request, msg, 0);
    zeb_msg_free(msg);
    return ret;
}

static int s_log_fd;
static pid_t s_log_pid;
static atomic_uint s_lost;

static void on_line(void *context, int level, const char *file, int line, const struct timespec *time, const char *text)
{
    char record[PIPE_BUF];
    zebpy_line_t head = {.level = level, .line = line, .seconds = time->tv_sec, .nanoseconds = time->tv_nsec};
    int saved_errno = errno;

    (void)context;
    if (getpid() != s_log_pid)
        return;
    head.lost = atomic_exchange(&s_lost, 0);
    head.file_len = (uint32_t)strnlen(file, 255);
    head.text_len = (uint32_t)strnlen(text, 1023);
    memcpy(record, &head, sizeof(head));
    memcpy(record + sizeof(head), file, head.file_len);
    memcpy(record + sizeof(head) + head.file_len, text, head.text_len);
    if (write(s_log_fd, record, sizeof(head) + head.file_len + head.text_len) < 0)
        atomic_fetch_add(&s_lost, head.lost + 1);
    errno = saved_errno;
}

int zebpy_log_start(int fd)
{
    s_log_fd = fd;
    s_log_pid = getpid();
    return zeb_set_log_handler(on_line, NULL);
}

int zebpy_log_stop(void)
{
    return zeb_set_log_handler(NULL, NULL);
}
