/* A client of board_server. It reads commands from standard input:
 *   all TEXT       sends TEXT to every server
 *   to NODE TEXT   sends TEXT to the server on one node
 *   ask SECONDS    calls every server with a time-out of SECONDS, and prints the outcome of each
 *   group N1 N2 …  sends a message to a group of nodes
 *   end            ends the program */
#include <stdio.h>
#include <string.h>
#include <zeb/zeb.h>

#define SERVER_APP 100
#define CLIENT_APP 200

static void *on_message(zeb_msg_t *msg)
{
    printf("[client] node %u echoes \"%s\"\n", msg->hdr.src_node, (const char *)msg->data);
    fflush(stdout);
    free(msg);
    return NULL;
}

static void *on_event(zeb_event_t event)
{
    if (event.event.app.app == SERVER_APP) {
        printf("[client] server %u %s\n", event.event.app.node, event.type == ZEB_APP_JOIN ? "joined" : "quit");
        fflush(stdout);
    }
    return NULL;
}

static zeb_msg_t *new_text(const char *text)
{
    int size = (int)strlen(text) + 1;
    zeb_msg_t *msg = zeb_msg_alloc(size, 1, 0);

    memcpy(msg->data, text, (size_t)size);
    return msg;
}

static void send_text(uint32_t node, const char *text)
{
    zeb_msg_t *msg = new_text(text);
    int ret = zeb_sendto(CLIENT_APP, node, SERVER_APP, msg, 0);

    printf("[client] sent \"%s\": %s\n", text, ret == 0 ? "ok" : strerror(-ret));
    free(msg);
}

static void send_to_one(char *node_and_text)
{
    char *text = NULL;
    uint32_t node = (uint32_t)strtoul(node_and_text, &text, 10);

    send_text(node, *text == ' ' ? text + 1 : text);
}

static void print_outcome(const zeb_msg_t *reply)
{
    zeb_mismatch_info_t range;

    printf("[client] server %u: ", reply->hdr.src_node);
    switch (reply->hdr.rpc_stat) {
    case ZEB_SUCCESS:
        printf("\"%s\"\n", (const char *)reply->data);
        break;
    case ZEB_APP_MISMATCH: /* the range is in the server's byte order */
        memcpy(&range, reply->data, sizeof(range));
        printf("serves versions %u to %u only\n", range.low, range.high);
        break;
    case ZEB_TIMEOUT:
        printf("no answer in time\n");
        break;
    default:
        printf("failed (%d)\n", reply->hdr.rpc_stat);
        break;
    }
}

static void ask(uint32_t seconds)
{
    zeb_reply_msg_t replies;
    zeb_msg_t *msg = new_text("how are you?");
    int ret = zeb_rpc(CLIENT_APP, SERVER_APP, msg, 0, seconds, &replies);
    int i;

    for (i = 0; i < replies.num; i++) {
        print_outcome(replies.msg[i]);
        free(replies.msg[i]);
    }
    printf("[client] call done: %s, %d outcomes\n", ret == 0 ? "ok" : strerror(-ret), replies.num);
    free(msg);
}

static void send_group(char *nodes)
{
    int group = zeb_create_node_mcast(CLIENT_APP);
    char *word;

    if (group < 0)
        return;
    for (word = strtok(nodes, " "); word != NULL; word = strtok(NULL, " "))
        (void)zeb_add_node_mcast(CLIENT_APP, (uint32_t)group, (uint32_t)strtoul(word, NULL, 10));
    send_text((uint32_t)group, "to the group");
    zeb_destroy_node_mcast(CLIENT_APP, (uint32_t)group);
}

int main(void)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_message}, {0, NULL}};
    char line[256];

    if (zeb_register(CLIENT_APP, "board_client", dispatchers, on_event) != 0) {
        fprintf(stderr, "board_client: cannot register\n");
        return 1;
    }
    if (zeb_comm_with(CLIENT_APP, SERVER_APP) != 0)
        return 1;
    zeb_run();
    while (fgets(line, sizeof(line), stdin) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        if (strncmp(line, "all ", 4) == 0)
            send_text(ZEB_NODE_ALL, line + 4);
        else if (strncmp(line, "to ", 3) == 0)
            send_to_one(line + 3);
        else if (strncmp(line, "ask ", 4) == 0)
            ask((uint32_t)strtoul(line + 4, NULL, 10));
        else if (strncmp(line, "group ", 6) == 0)
            send_group(line + 6);
        else if (strcmp(line, "end") == 0)
            break;
        fflush(stdout);
    }
    return 0;
}
