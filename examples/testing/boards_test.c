/* The test of boards_test in C: two servers answer a call, one loses its links, and the client gets its quit event.
 * Usage: boards_test FOLDER-OF-THE-PROGRAMS. It makes its own cluster. */
#include <tipcsim_test.h>

static int starts(tipcsim_cluster_t *cluster, const char *folder, tipcsim_process_t **client)
{
    char server[PATH_MAX];
    char program[PATH_MAX];
    snprintf(server, sizeof(server), "%s/board_server", folder);
    snprintf(program, sizeof(program), "%s/board_client", folder);
    if (tipcsim_start(cluster, 1, server, NULL) == NULL || tipcsim_start(cluster, 2, server, NULL) == NULL)
        return 0;
    *client = tipcsim_start(cluster, 3, program, NULL);
    return *client != NULL;
}

static int passes(tipcsim_cluster_t *cluster, const char *folder)
{
    const int patience = 30000; /* ms */
    tipcsim_process_t *client = NULL;
    if (!starts(cluster, folder, &client))
        return 0;
    if (tipcsim_expect(client, "joined", patience) != 0 || tipcsim_expect(client, "joined", patience) != 0)
        return 0;
    tipcsim_send(client, "ask 5");
    if (tipcsim_expect(client, "[client] call done: ok, 2 outcomes", patience) != 0)
        return 0;

    if (tipcsim_order(cluster, "cut %d", 2) != 0 || tipcsim_expect(client, "[client] server 2 quit", patience) != 0)
        return 0;
    tipcsim_send(client, "ask 5");
    return tipcsim_expect(client, "[client] call done: ok, 1 outcomes", patience) == 0;
}

int main(int argc, char **argv)
{
    tipcsim_options_t options;
    tipcsim_cluster_t *cluster;
    int passed;
    memset(&options, 0, sizeof(options));
    options.nodes = 3;
    options.node_files = "zeb";
    if (argc < 2 || tipcsim_begin(&cluster, &options) != 0)
        return 2;
    passed = passes(cluster, argv[1]);
    tipcsim_end(cluster);
    puts(passed ? "the client was served by what was left" : "failed");
    return passed ? 0 : 1;
}
