/* Waits until this application is online on a number of boards before it starts its work. Usage: all_boards NUMBER */
#include <stdio.h>
#include <unistd.h>
#include <zeb/zeb_ext.h>

#define APP 100
#define PATIENCE_MS 20000

static void *on_message(zeb_msg_t *msg)
{
    free(msg);
    return NULL;
}

int main(int argc, char **argv)
{
    const zeb_msg_dispatcher_t dispatchers[] = {{1, on_message}, {0, NULL}};
    uint32_t boards = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 10) : 2;
    uint32_t nodes[64];
    int num, i;

    (void)setvbuf(stdout, NULL, _IOLBF, 0);
    if (zeb_register(APP, "all_boards", dispatchers, NULL) != 0)
        return 1;
    zeb_run();
    if (zeb_wait_online(APP, APP, ZEB_NODE_ALL, boards, PATIENCE_MS) != 0)
        puts("starting with fewer boards");
    num = zeb_online_nodes(APP, APP, nodes, 64);
    printf("board %d sees", zeb_get_my_node_id());
    for (i = 0; i < num && i < 64; i++)
        printf(" %u", nodes[i]);
    putchar('\n');
    for (;;)
        pause();
}
