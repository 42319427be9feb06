/* Replies to a call from another thread, so that the dispatcher is free for the next message. */
#include <pthread.h>
#include <stdio.h>
#include <zeb/zeb_ext.h>

#define APP 100

static void *work(void *argument)
{
    zeb_msg_t *request = argument; /* the thread's own, until it is freed */
    zeb_msg_t *reply = zeb_msg_alloc(10, request->hdr.app_ver, 0);

    memcpy(reply->data, "self-test", 10); /* what takes long */
    (void)zeb_rpc_reply(request, reply, 0);
    free(reply);
    free(request);
    return NULL;
}

static void *on_request(zeb_msg_t *request)
{
    pthread_t thread;

    if (pthread_create(&thread, NULL, work, request) == 0) {
        (void)pthread_detach(thread);
        return NULL;
    }
    (void)zeb_rpc_reply(request, NULL, 0); /* the caller gets ZEB_SYSTEM_ERR now, and need not wait */
    free(request);
    return NULL;
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_request}, {0, NULL}};
    zeb_reply_msg_t replies;
    zeb_msg_t *request;

    if (zeb_register(APP, "reply_later", dispatchers, NULL) != 0)
        return 1;
    zeb_run();
    (void)zeb_wait_online(APP, APP, ZEB_NODE_LOCAL, 1, 0);
    request = zeb_msg_alloc(0, 1, 0);
    if (zeb_rpc(APP, APP, request, 0, 10, &replies) == 0 && replies.msg[0]->hdr.rpc_stat == ZEB_SUCCESS)
        printf("replied: %s\n", (const char *)replies.msg[0]->data);
    zeb_reply_free(&replies);
    free(request);
    return zeb_stop();
}
