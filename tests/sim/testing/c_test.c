/* Tests of tipcsim_test.h, with boards that know TIPC alone. Usage: c_test CASE BOARD */
#include <tipcsim_test.h>

#include <dirent.h>
#include <sys/stat.h>

enum { PATIENCE = 30000, AT_ONCE = 0, SHORT = 50 };

static const char *s_board;
static int s_failed;

#define CHECK(what)                                                                                                    \
    do {                                                                                                               \
        if (!(what)) {                                                                                                 \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #what);                                         \
            s_failed = 1;                                                                                              \
        }                                                                                                              \
    } while (0)

static tipcsim_cluster_t *cluster_of(unsigned nodes, unsigned tolerance_ms)
{
    tipcsim_options_t options;
    tipcsim_cluster_t *cluster = NULL;
    memset(&options, 0, sizeof(options));
    options.nodes = nodes;
    options.tolerance_ms = tolerance_ms;
    CHECK(tipcsim_begin(&cluster, &options) == 0);
    if (cluster == NULL)
        exit(1);
    return cluster;
}

/* A board on each of two nodes, which know of each other. */
static tipcsim_cluster_t *two_boards(unsigned tolerance_ms, tipcsim_process_t *boards[2])
{
    tipcsim_cluster_t *cluster = cluster_of(2, tolerance_ms);
    for (unsigned i = 0; i < 2; i++)
        boards[i] = tipcsim_start(cluster, i + 1, s_board, NULL);
    for (unsigned i = 0; i < 4; i++)
        CHECK(tipcsim_expect(boards[i % 2], "is there", PATIENCE) == 0);
    return cluster;
}

static void lines(void)
{
    tipcsim_process_t *boards[2];
    tipcsim_cluster_t *cluster = two_boards(0, boards);
    tipcsim_process_t *said = tipcsim_start(cluster, 1, "printf", "one\ntwo\nlast", NULL);
    CHECK(strcmp(tipcsim_line(said), "") == 0);
    CHECK(tipcsim_expect(said, "w", PATIENCE) == 0);
    CHECK(strcmp(tipcsim_line(said), "two") == 0);
    CHECK(tipcsim_expect(said, "one", PATIENCE) == -EPIPE); /* it is before what was found */
    CHECK(strcmp(tipcsim_output(said), "one\ntwo\nlast") == 0);
    said = tipcsim_start(cluster, 1, "printf", "last", NULL);
    CHECK(tipcsim_expect(said, "last", PATIENCE) == 0);
    said = tipcsim_start(cluster, 1, "sh", "-c", "printf hel; read -r word; echo $word", NULL);
    CHECK(tipcsim_expect(said, "hel", SHORT) == -ETIMEDOUT); /* no whole line */
    CHECK(strcmp(tipcsim_output(said), "hel") == 0);
    CHECK(tipcsim_send(said, "lo") == 0);
    CHECK(tipcsim_expect(said, "hel", PATIENCE) == 0);
    CHECK(strcmp(tipcsim_line(said), "hello") == 0);
    CHECK(tipcsim_expect(boards[0], "nobody says that", AT_ONCE) == -ETIMEDOUT);
    CHECK(tipcsim_send(boards[0], "errors") == 0);
    CHECK(tipcsim_expect(boards[0], "this is an error", PATIENCE) == 0);
    CHECK(tipcsim_send(boards[0], "send 2 hello") == 0);
    CHECK(tipcsim_expect(boards[1], "hello", PATIENCE) == 0);
    CHECK(strcmp(tipcsim_line(boards[1]), "board 1 says hello") == 0);
    CHECK(tipcsim_expect(tipcsim_start(cluster, 2, s_board, "an argument", NULL), "2, an argument", PATIENCE) == 0);
    CHECK(tipcsim_end(cluster) == 0);
}

/* Meanwhile another one prints far more than a pipe holds. */
static void much_output(void)
{
    tipcsim_process_t *boards[2];
    tipcsim_cluster_t *cluster = two_boards(0, boards);
    CHECK(tipcsim_send(boards[0], "flood 50000") == 0);
    CHECK(tipcsim_send(boards[0], "send 2 done") == 0);
    CHECK(tipcsim_expect(boards[1], "board 1 says done", PATIENCE) == 0);
    CHECK(tipcsim_expect(boards[0], "line 0 of a flood", PATIENCE) == 0);
    CHECK(tipcsim_expect(boards[0], "line 49999 of a flood", PATIENCE) == 0);
    CHECK(tipcsim_end(cluster) == 0);
}

static void ends(void)
{
    tipcsim_process_t *boards[2];
    tipcsim_cluster_t *cluster = two_boards(0, boards);
    tipcsim_process_t *other = tipcsim_start(cluster, 1, "sh", "-c", "echo the end; exit 7", NULL);
    tipcsim_process_t *much;
    CHECK(tipcsim_wait(other, PATIENCE) == 7);
    CHECK(strcmp(tipcsim_output(other), "the end\n") == 0);
    CHECK(tipcsim_signal(other, SIGTERM) == -ESRCH);
    much = tipcsim_start(cluster, 1, "sh", "-c", "head -c 60000 /dev/zero | tr '\\0' x", NULL);
    CHECK(tipcsim_wait(much, PATIENCE) == 0);
    CHECK(strlen(tipcsim_output(much)) == 60000);
    tipcsim_kill(other);
    CHECK(tipcsim_wait(other, AT_ONCE) == 7);
    CHECK(tipcsim_wait(tipcsim_start(cluster, 1, "/no/such/program", NULL), PATIENCE) == 127);
    CHECK(tipcsim_wait(boards[0], SHORT) == -ETIMEDOUT);
    CHECK(tipcsim_signal(boards[0], -1) == -EINVAL);
    CHECK(tipcsim_signal(boards[0], SIGTERM) == 0);
    CHECK(tipcsim_wait(boards[0], PATIENCE) == 128 + SIGTERM);
    CHECK(tipcsim_expect(boards[1], "board 1 is gone", PATIENCE) == 0);
    tipcsim_kill(boards[1]);
    CHECK(tipcsim_wait(boards[1], AT_ONCE) == 128 + SIGKILL);
    CHECK(tipcsim_expect(boards[1], "more", PATIENCE) == -EPIPE);
    CHECK(tipcsim_end(cluster) == 0);
}

static void input(void)
{
    char line[4097];
    tipcsim_cluster_t *cluster = cluster_of(1, 0);
    tipcsim_process_t *cat = tipcsim_start(cluster, 1, "cat", NULL);
    tipcsim_process_t *sleeper = tipcsim_start(cluster, 1, "sleep", "3600", NULL);
    int ret = 0;
    memset(line, 'x', sizeof(line));
    line[4096] = '\0';
    CHECK(tipcsim_send(cat, line) == -EMSGSIZE);
    line[4095] = '\0';
    CHECK(tipcsim_send(cat, line) == 0);
    CHECK(tipcsim_expect(cat, line, PATIENCE) == 0);
    for (int i = 0; i < 1000 && ret == 0; i++)
        ret = tipcsim_send(sleeper, line);
    CHECK(ret == -EAGAIN);
    tipcsim_end_input(cat);
    tipcsim_end_input(cat);
    CHECK(tipcsim_wait(cat, PATIENCE) == 0);
    CHECK(tipcsim_send(cat, "more") == -EPIPE);
    tipcsim_kill(sleeper);
    CHECK(tipcsim_send(sleeper, "more") == -EPIPE); /* and this program goes on */
    CHECK(tipcsim_end(cluster) == 0);
}

static void faults(void)
{
    char far_too_long[2000];
    tipcsim_process_t *boards[2];
    tipcsim_cluster_t *cluster = two_boards(1, boards);
    CHECK(strcmp(tipcsim_answer(cluster), "") == 0);
    CHECK(tipcsim_order(cluster, "cut %d %u", 1, 2U) == 0);
    CHECK(tipcsim_expect(boards[0], "board 2 is gone", PATIENCE) == 0);
    CHECK(tipcsim_order(cluster, "links") == 0);
    CHECK(strcmp(tipcsim_answer(cluster), "1-2: down\n") == 0 || strcmp(tipcsim_answer(cluster), "1-2: cut\n") == 0);
    CHECK(tipcsim_order(cluster, "heal 1 2") == 0);
    CHECK(tipcsim_expect(boards[0], "board 2 is there", PATIENCE) == 0);
    CHECK(tipcsim_order(cluster, "cut 0") == -EINVAL);
    CHECK(tipcsim_order(cluster, "a b c d e f g h i j k l m n o p q r s t u v w x y z 1 2 3 4 5 6") == -E2BIG);
    memset(far_too_long, 'x', sizeof(far_too_long) - 1);
    far_too_long[sizeof(far_too_long) - 1] = '\0';
    CHECK(tipcsim_order(cluster, "%s", far_too_long) == -E2BIG);
    CHECK(tipcsim_stall(boards[1]) == 0);
    CHECK(tipcsim_send(boards[0], "send 2 hello") == 0);
    CHECK(tipcsim_expect(boards[1], "hello", SHORT) == -ETIMEDOUT);
    CHECK(tipcsim_resume(boards[1]) == 0);
    CHECK(tipcsim_expect(boards[1], "hello", PATIENCE) == 0);
    CHECK(tipcsim_order(cluster, "fail --pid %ld --errno EHOSTUNREACH", (long)tipcsim_pid(boards[0])) == 0);
    CHECK(tipcsim_send(boards[0], "send 2 again") == 0);
    CHECK(tipcsim_expect(boards[0], "not sent: No route to host", PATIENCE) == 0);
    CHECK(tipcsim_end(cluster) == 0);
}

static void beside_the_nodes(void)
{
    char file[] = "/tmp/tipcsim-c-test-XXXXXX";
    tipcsim_process_t *boards[2];
    tipcsim_cluster_t *cluster = two_boards(0, boards);
    tipcsim_process_t *recording;
    int fd = mkstemp(file);
    CHECK(fd >= 0 && close(fd) == 0);
    recording = tipcsim_start(cluster, 0, "tipcsim", "record", file, NULL);
    CHECK(tipcsim_expect(recording, "recording", PATIENCE) == 0);
    CHECK(tipcsim_send(boards[0], "send 2 hello") == 0);
    CHECK(tipcsim_expect(boards[1], "hello", PATIENCE) == 0);
    CHECK(tipcsim_signal(recording, SIGTERM) == 0);
    CHECK(tipcsim_wait(recording, PATIENCE) == 0);
    CHECK(tipcsim_order(cluster, "show %s", file) == 0);
    CHECK(strstr(tipcsim_answer(cluster), "5 bytes data") != NULL);
    CHECK(tipcsim_end(cluster) == 0);
    CHECK(unlink(file) == 0);
}

static void write_file(const char *path, const char *text)
{
    FILE *file = fopen(path, "w");
    CHECK(file != NULL && fputs(text, file) >= 0 && fclose(file) == 0);
}

static void shows(const tipcsim_options_t *options, const char *path, const char *text)
{
    tipcsim_cluster_t *cluster = NULL;
    CHECK(tipcsim_begin(&cluster, options) == 0);
    CHECK(tipcsim_expect(tipcsim_start(cluster, 2, "cat", path, NULL), text, PATIENCE) == 0);
    CHECK(tipcsim_end(cluster) == 0);
}

static void files(void)
{
    char folder[] = "/tmp/tipcsim-c-test-XXXXXX";
    char preset[64];
    char name[64];
    char word[128];
    const char *words[] = {word, NULL};
    tipcsim_options_t options;
    CHECK(mkdtemp(folder) != NULL);
    snprintf(preset, sizeof(preset), "%s/preset", folder);
    snprintf(name, sizeof(name), "%s/name.in", folder);
    snprintf(word, sizeof(word), "/etc/c-test.other=%s", name);
    write_file(preset, "/etc/c-test.name=name.in\n");
    write_file(name, "board @NODE@\n");
    memset(&options, 0, sizeof(options));
    options.nodes = 2;
    options.files = words;
    shows(&options, "/etc/c-test.other", "board 2");
    options.node_files = preset;
    shows(&options, "/etc/c-test.name", "board 2");
    CHECK(setenv("TIPCSIM_NODE_FILES", preset, 1) == 0);
    shows(NULL, "/etc/c-test.name", "board 2");
    CHECK(unlink(preset) == 0 && unlink(name) == 0 && rmdir(folder) == 0);
}

/* A simulator that prints what it is called with, in place of a cluster's folder. */
static void words(void)
{
    char file[] = "/tmp/tipcsim-c-test-XXXXXX";
    const char *const some[] = {"/etc/a=b", "/etc/c=", NULL};
    tipcsim_options_t options;
    tipcsim_cluster_t *cluster = NULL;
    tipcsim_process_t *said;
    int fd = mkstemp(file);
    CHECK(fd >= 0 && close(fd) == 0 && chmod(file, 0700) == 0);
    write_file(file, "#!/bin/sh\necho \"${*%% -- *}\"\n");
    memset(&options, 0, sizeof(options));
    options.nodes = 5;
    options.tolerance_ms = 250;
    options.timeout_s = 60;
    options.node_files = "preset";
    options.files = some;
    options.tipcsim = file;
    CHECK(tipcsim_begin(&cluster, &options) == 0);
    said = tipcsim_start(cluster, 0, "sh", "-c", "echo $TIPCSIM_CLUSTER", NULL);
    CHECK(tipcsim_expect(said, "", PATIENCE) == 0);
    CHECK(strcmp(tipcsim_line(said),
                 "cluster --nodes 5 --tolerance 250 --timeout 60 --node-files preset --file /etc/a=b "
                 "--file /etc/c=") == 0);
    CHECK(tipcsim_end(cluster) == 0);
    CHECK(unlink(file) == 0);
}

static void not_made(void)
{
    tipcsim_options_t options;
    tipcsim_cluster_t *cluster = NULL;
    memset(&options, 0, sizeof(options));
    options.nodes = 5000;
    CHECK(tipcsim_begin(&cluster, &options) == -EPROTO && cluster == NULL);
    options.nodes = 1;
    options.tipcsim = "/no/such/tipcsim";
    CHECK(tipcsim_begin(&cluster, &options) == -ENOENT && cluster == NULL);
    CHECK(tipcsim_end(NULL) == 0);
    CHECK(unsetenv("TIPCSIM_CLUSTER") == 0);
    CHECK(tipcsim_current(&cluster) == -ENOENT && cluster == NULL);
}

static void time_limit(void)
{
    tipcsim_options_t options;
    tipcsim_cluster_t *cluster = NULL;
    memset(&options, 0, sizeof(options));
    options.timeout_s = 1;
    CHECK(tipcsim_begin(&cluster, &options) == 0);
    CHECK(tipcsim_wait(tipcsim_start(cluster, 1, "sleep", "3600", NULL), PATIENCE) == 128 + SIGKILL);
    CHECK(tipcsim_end(cluster) == -ETIMEDOUT);
}

static int descriptors(void)
{
    DIR *open_ones = opendir("/proc/self/fd");
    int num = 0;
    while (open_ones != NULL && readdir(open_ones) != NULL)
        num++;
    CHECK(open_ones != NULL && closedir(open_ones) == 0);
    return num;
}

/* Nobody may have looked at the status of one that has ended. */
static int alive(pid_t pid)
{
    char path[64];
    char state = 'X';
    FILE *stat;
    snprintf(path, sizeof(path), "/proc/%ld/stat", (long)pid);
    stat = fopen(path, "r");
    if (stat != NULL && (fscanf(stat, "%*d (%*[^)]) %c", &state) != 1 || fclose(stat) != 0))
        return 1;
    return strchr("XZ", state) == NULL;
}

/* One that left its parent, its session and its output, and had the time to do so. */
static pid_t orphan_of(tipcsim_cluster_t *cluster)
{
    tipcsim_process_t *parent =
        tipcsim_start(cluster, 1, "sh", "-c", "setsid sleep 3600 >/dev/null 2>&1 & echo pid $!", NULL);
    long pid = 0;
    CHECK(tipcsim_expect(parent, "pid", PATIENCE) == 0);
    CHECK(sscanf(tipcsim_line(parent), "pid %ld", &pid) == 1 && alive((pid_t)pid));
    return (pid_t)pid;
}

static void nothing_is_left(void)
{
    int before = descriptors();
    tipcsim_process_t *boards[2];
    tipcsim_cluster_t *cluster = two_boards(0, boards);
    pid_t orphan = orphan_of(cluster);
    pid_t board = tipcsim_pid(boards[0]);
    CHECK(tipcsim_order(cluster, "links") == 0);
    CHECK(tipcsim_end(cluster) == 0);
    CHECK(!alive(orphan));
    CHECK(!alive(board));
    CHECK(descriptors() == before);
    CHECK(waitpid(-1, NULL, WNOHANG) == -1 && errno == ECHILD);
}

/* A test that is killed itself. What it started has an end of a pipe, which is closed with the last of it. */
static void nothing_is_left_of_a_killed_test(void)
{
    struct pollfd left = {-1, POLLIN, 0};
    int ends[2];
    char byte;
    pid_t test;
    CHECK(pipe(ends) == 0);
    test = fork();
    if (test == 0) {
        tipcsim_process_t *boards[2];
        tipcsim_cluster_t *cluster = two_boards(0, boards);
        (void)orphan_of(cluster);
        CHECK(write(ends[1], "x", 1) == 1);
        (void)pause();
    }
    (void)close(ends[1]);
    CHECK(read(ends[0], &byte, 1) == 1);
    CHECK(kill(test, SIGKILL) == 0 && waitpid(test, NULL, 0) == test);
    left.fd = ends[0];
    CHECK(poll(&left, 1, PATIENCE) == 1 && read(ends[0], &byte, 1) == 0);
    (void)close(ends[0]);
}

/* It runs in a cluster that somebody else has made. */
static void current(void)
{
    tipcsim_cluster_t *cluster = NULL;
    tipcsim_process_t *board;
    pid_t pid;
    CHECK(tipcsim_current(&cluster) == 0);
    board = tipcsim_start(cluster, 2, s_board, NULL);
    CHECK(tipcsim_expect(board, "board 2, plain", PATIENCE) == 0);
    CHECK(tipcsim_order(cluster, "names") == 0);
    CHECK(strstr(tipcsim_answer(cluster), "18000") != NULL);
    pid = tipcsim_pid(board);
    CHECK(tipcsim_end(cluster) == 0);
    CHECK(!alive(pid));
    CHECK(tipcsim_current(&cluster) == 0);
    CHECK(tipcsim_order(cluster, "names") == 0);
    CHECK(tipcsim_end(cluster) == 0);
}

int main(int argc, char **argv)
{
    static const struct {
        const char *name;
        void (*run)(void);
    } cases[] = {{"lines", lines},
                 {"much_output", much_output},
                 {"ends", ends},
                 {"input", input},
                 {"faults", faults},
                 {"beside_the_nodes", beside_the_nodes},
                 {"files", files},
                 {"words", words},
                 {"not_made", not_made},
                 {"time_limit", time_limit},
                 {"nothing_is_left", nothing_is_left},
                 {"nothing_is_left_of_a_killed_test", nothing_is_left_of_a_killed_test},
                 {"current", current}};
    s_board = argc > 2 ? argv[2] : "";
    for (size_t i = 0; argc > 2 && i < sizeof(cases) / sizeof(cases[0]); i++) {
        if (strcmp(argv[1], cases[i].name) == 0) {
            cases[i].run();
            return s_failed;
        }
    }
    fprintf(stderr, "usage: c_test CASE BOARD\n");
    return 2;
}
