/* A call with a limit in milliseconds, and one that is cancelled. Nobody replies to either. */
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <zeb/zeb_ext.h>

#define APP 100

static void on_request(void *context, zeb_msg_t *request)
{
    (void)context;
    free(request); /* without a reply */
}

static void on_done(uint32_t call, zeb_reply_msg_t *replies, void *context)
{
    int *calls = context;

    (void)call;
    printf("done: %s\n", zeb_reply_status_text(replies->msg[0]->hdr.rpc_stat));
    --*calls;
}

static int begin(uint32_t milliseconds, int *calls, uint32_t *call)
{
    zeb_msg_t *request = zeb_msg_alloc(0, 1, 0);
    int ret = zeb_rpc_async(APP, ZEB_NODE_ALL, APP, request, 0, milliseconds, on_done, calls, call);

    free(request); /* the library has its own copy */
    *calls += ret == 0;
    return ret;
}

int main(void)
{
    const zeb_app_dispatcher_t dispatchers[] = {{1, NULL, on_request}, {0, NULL, NULL}};
    const zeb_app_options_t options = {
        .size = sizeof(options), .app = APP, .mode = ZEB_APP_POLLED, .name = "limits", .dispatchers = dispatchers};
    struct pollfd ready = {.events = POLLIN};
    uint32_t limited, unlimited;
    int calls = 0;

    if (zeb_register_app(&options) != 0)
        return 1;
    zeb_run();
    (void)zeb_wait_online(APP, APP, ZEB_NODE_LOCAL, 1, 0);
    if (begin(250, &calls, &limited) != 0 || begin(0, &calls, &unlimited) != 0)
        return 1;
    if (zeb_rpc_cancel(APP, unlimited) == 0) { /* on_done will not be called for it */
        puts("cancelled");
        calls--;
    }
    ready.fd = zeb_app_fd(APP);
    while (calls > 0) {
        (void)poll(&ready, 1, -1);
        (void)zeb_dispatch(APP, INT_MAX);
    }
    return zeb_stop();
}
