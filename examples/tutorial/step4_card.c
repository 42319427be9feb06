/* Step 4, a line card: it answers calls for its status. */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb.h>

#define MANAGER_APP 300
#define CARD_APP 301

enum { STATUS = 4 }; /* a call without a payload; the reply is text */

static void *on_status(zeb_msg_t *request)
{
    zeb_msg_t *reply = zeb_msg_alloc(8, STATUS, 0);

    memcpy(reply->data, "48 ports", 8);
    (void)zeb_rpc_reply(request, reply, 0); /* a manager that is gone needs no reply */
    free(reply);
    free(request);
    return NULL;
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{STATUS, on_status}, {0, NULL}};

    if (zeb_register(CARD_APP, "card", dispatchers, NULL) != 0 || zeb_comm_with(CARD_APP, MANAGER_APP) != 0)
        return 1;
    zeb_run();
    for (;;)
        pause();
}
