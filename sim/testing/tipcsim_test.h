/* Tests in C of programs that use TIPC, on a simulated cluster on this machine: it starts processes on nodes, waits for
 * lines that they print, orders faults, and ends all of it. Behind every call is the program `tipcsim`; the man page
 * tipcsim(1) says what it does. All is in this file: nothing is to be linked.
 *
 * C99 and C++17. In strict C99 (-std=c99) this header comes first in its file, or _POSIX_C_SOURCE is 200809L.
 *
 * Results: 0 or more is success, below 0 is a negative errno. What fails says why on standard error, with what the
 * process in question has printed, so that a test need only end. Times are in milliseconds and 0 or more; a wait for
 * what is there already does not look at them.
 *
 * Ownership: tipcsim_begin and tipcsim_start make clusters and processes, which live until tipcsim_end. Texts that are
 * returned belong to the helpers.
 *
 * Threads: one thread at a time may work with a cluster and its processes; no lock is taken. Other threads may do
 * anything else. Only while a call runs are the outputs of processes read: one that prints more than 64 KiB meanwhile
 * waits until the next call. When the test program ends, however it does, its clusters end too. */
#ifndef TIPCSIM_TEST_H
#define TIPCSIM_TEST_H

#if defined(__STRICT_ANSI__) && !defined(_GNU_SOURCE) && !defined(_DEFAULT_SOURCE) && !defined(_POSIX_C_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#ifndef O_CLOEXEC
#error "include tipcsim_test.h before other headers, or define _POSIX_C_SOURCE as 200809L"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A cluster, and a process that was started in it. */
typedef struct tipcsim_cluster_s tipcsim_cluster_t;
typedef struct tipcsim_process_s tipcsim_process_t;

/* What a cluster is made with. Clear the whole record, then set what you need. */
typedef struct tipcsim_options_s {
    unsigned nodes;        /* nodes 1 to so many: 1..1024; 0: 1 */
    unsigned tolerance_ms; /* from a cut to the loss of the link: 1..30000; 0: 1500 */
    unsigned timeout_s;    /* seconds after which all of the cluster is ended: 1..1000000; 0: never */
    /* A preset of files that each node has for its own: the name of one that is installed, or a path with a slash.
     * Null: the one that TIPCSIM_NODE_FILES in the environment names, if any. */
    const char *node_files;
    const char *const *files; /* more of them, each "PATH=TEMPLATE", with a null pointer at the end; may be null */
    const char *tipcsim;      /* the simulator. Null: what TIPCSIM in the environment names, or that of the PATH */
} tipcsim_options_t;

/* Makes a cluster. `options` are needed during the call alone; null: one node. Waits until the cluster is there.
 *
 * Returns 0 and sets `cluster`; -ENOENT when there is no tipcsim; -EPROTO when tipcsim makes no cluster, for example
 * because of an option, and says why; -ENOMEM, -EAGAIN, -EMFILE as the system gives them. */
static inline int tipcsim_begin(tipcsim_cluster_t **cluster, const tipcsim_options_t *options);

/* The cluster that this program is started in, by tipcsim_add_test or `tipcsim cluster`. It goes on after tipcsim_end,
 * which ends only the processes that were started with it.
 *
 * Returns 0 and sets `cluster`; -ENOENT when there is none; -ENOMEM. */
static inline int tipcsim_current(tipcsim_cluster_t **cluster);

/* Ends the cluster, all its processes and whatever these started, and waits for it. The cluster, its processes and
 * their texts are not valid any more. Null is taken and does nothing.
 *
 * Returns 0; -ETIMEDOUT when the cluster's own time limit had passed. */
static inline int tipcsim_end(tipcsim_cluster_t *cluster);

/* Starts a program on a node, 1 or more, with its arguments and a null pointer at the end. It has the environment of
 * this program, and its input, output and errors are connected to it. On node 0 it runs beside the nodes, on the host:
 *
 *   recording = tipcsim_start(cluster, 0, "tipcsim", "record", "all.pcapng", NULL);
 *
 * Does not wait. A program that cannot be run prints a line and has the status 126 or 127. Returns the process, or null
 * with errno set. */
static inline tipcsim_process_t *tipcsim_start(tipcsim_cluster_t *cluster, unsigned node, const char *program, ...)
    __attribute__((sentinel));

/* Waits at most `timeout_ms` for a line that contains `text`, on standard output or standard error, after the line that
 * was found before. tipcsim_line then gives it. The program must not keep its lines back: setvbuf or fflush.
 *
 * Returns 0; -ETIMEDOUT; -EPIPE when the process has ended, or closed its outputs, and had not printed it; -ENOMEM. */
static inline int tipcsim_expect(tipcsim_process_t *process, const char *text, int timeout_ms);

/* The line that tipcsim_expect found last, without its end; empty before. Never null. Valid until the next
 * tipcsim_expect of this process. */
static inline const char *tipcsim_line(const tipcsim_process_t *process);

/* All that the process has printed and that has been read, lines and their ends. Never null. Valid until the next call
 * with this cluster. */
static inline const char *tipcsim_output(const tipcsim_process_t *process);

/* Writes a line to the input of the process, and its end. Does not wait.
 *
 * Returns 0; -EMSGSIZE for more than 4,095 bytes; -EAGAIN when the process has not read what it got before, about 64
 * KiB; -EPIPE when it has ended or closed its input. No signal comes from it. */
static inline int tipcsim_send(tipcsim_process_t *process, const char *line);

/* Ends the input of the process; for many programs that is the order to end. May be called twice. */
static inline void tipcsim_end_input(tipcsim_process_t *process);

/* Waits at most `timeout_ms` for the end of the process.
 *
 * Returns its status, 0..255, or 128 and the number of the signal that ended it; -ETIMEDOUT. */
static inline int tipcsim_wait(tipcsim_process_t *process, int timeout_ms);

/* The number of the process, for tools and orders; it is not reused before tipcsim_wait or tipcsim_kill has seen its
 * end. */
static inline pid_t tipcsim_pid(const tipcsim_process_t *process);

/* Sends a signal to the process. Returns 0; -ESRCH when it has ended; -EINVAL for no signal. */
static inline int tipcsim_signal(tipcsim_process_t *process, int signal);

/* Kills the process as a crash would, and waits for its end. One that has ended is left alone. */
static inline void tipcsim_kill(tipcsim_process_t *process);

/* Stops the process, and lets it go on. Unlike SIGSTOP this never stops it where the simulator would be held up.
 * Results as those of tipcsim_order. */
static inline int tipcsim_stall(tipcsim_process_t *process);
static inline int tipcsim_resume(tipcsim_process_t *process);

/* Gives an order to the cluster: a command of tipcsim and its words, with one blank between two, as a format of printf:
 *
 *   tipcsim_order(cluster, "delay %u %u %d", 1, 3, 200);
 *
 * Waits until it is carried out, at most 30 s. Returns 0; -EINVAL when tipcsim refuses it, and says why on standard
 * error; -E2BIG for more than 1,023 bytes or 31 words; -ETIMEDOUT for one that does not end, such as record; -ENOMEM,
 * -EAGAIN, -EMFILE as the system gives them. */
static inline int tipcsim_order(tipcsim_cluster_t *cluster, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* What the last order has printed, such as `links` or `names`. Never null. Valid until the next order. */
static inline const char *tipcsim_answer(const tipcsim_cluster_t *cluster);

/* What follows is how they do it. Names that begin with tipcsim_own_ are not for others. */

extern char **environ;

enum { TIPCSIM_OWN_LATE = 124, TIPCSIM_OWN_ORDER_MS = 30000, TIPCSIM_OWN_LOOK_MS = 10, TIPCSIM_OWN_WORDS = 32 };

struct tipcsim_process_s {
    tipcsim_process_t *next; /* in its cluster's list */
    tipcsim_cluster_t *cluster;
    pid_t pid;
    int status; /* -1: it runs, as far as is known */
    int in;     /* its input; -1: ended */
    int out;    /* its outputs; -1: ended */
    char *text; /* what was read of them, with a NUL behind it; null: nothing yet */
    size_t len;
    size_t next_line; /* the first one that tipcsim_expect has not passed */
    char *line;       /* found last; null: none */
    char name[64];
};

struct tipcsim_cluster_s {
    tipcsim_process_t *processes;
    tipcsim_process_t *holder; /* keeps the cluster; null: the cluster is not ours */
    tipcsim_process_t *order;  /* the last one; null: none */
    size_t num;                /* of processes */
    struct pollfd *waits;      /* room for so many and one more */
    char *tipcsim;
    char variable[PATH_MAX + 32]; /* names the cluster to whatever is started; empty: there is none yet */
};

static inline long long tipcsim_own_now(void) /* ms */
{
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static inline int tipcsim_own_left(long long until)
{
    long long left = until - tipcsim_own_now();
    return left < 0 ? 0 : (int)left;
}

static inline void tipcsim_own_close(int *fd)
{
    if (*fd >= 0)
        (void)close(*fd);
    *fd = -1;
}

/* A pipe, of which no other program that is started gets an end. */
static inline int tipcsim_own_pipe(int ends[2])
{
    if (pipe(ends) != 0)
        return -errno;
    (void)fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    (void)fcntl(ends[1], F_SETFD, FD_CLOEXEC);
    return 0;
}

static inline void tipcsim_own_free(tipcsim_process_t *process)
{
    if (process == NULL)
        return;
    tipcsim_own_close(&process->in);
    tipcsim_own_close(&process->out);
    free(process->text);
    free(process->line);
    free(process);
}

/* Whether a variable is of the cluster in which this program runs itself. */
static inline int tipcsim_own_is_of_a_cluster(const char *variable)
{
    return strncmp(variable, "LD_PRELOAD=", 11) == 0 ||
           (strncmp(variable, "TIPCSIM_", 8) == 0 && strncmp(variable, "TIPCSIM_DIR=", 12) != 0);
}

/* The environment of what is started. To be freed; the words are not. */
static inline char **tipcsim_own_environment(tipcsim_cluster_t *cluster)
{
    size_t num = 0;
    size_t to = 0;
    char **words;
    while (environ[num] != NULL)
        num++;
    words = (char **)calloc(num + 2, sizeof(*words));
    if (words == NULL)
        return NULL;
    if (cluster->variable[0] != '\0')
        words[to++] = cluster->variable;
    for (num = 0; environ[num] != NULL; num++) {
        if (!tipcsim_own_is_of_a_cluster(environ[num]))
            words[to++] = environ[num];
    }
    return words;
}

/* Runs the words with pipes as input and output. Their errors go with the output, or to this program's own. */
static inline int tipcsim_own_spawn(tipcsim_process_t *process, const char *const *words, int in, int out,
                                    int with_errors)
{
    char **environment = tipcsim_own_environment(process->cluster);
    posix_spawn_file_actions_t actions;
    int ret = -ENOMEM;
    if (environment != NULL && posix_spawn_file_actions_init(&actions) == 0) {
        (void)posix_spawn_file_actions_adddup2(&actions, in, 0);
        (void)posix_spawn_file_actions_adddup2(&actions, out, 1);
        if (with_errors)
            (void)posix_spawn_file_actions_adddup2(&actions, out, 2);
        ret = -posix_spawnp(&process->pid, words[0], &actions, NULL, (char *const *)words, environment);
        (void)posix_spawn_file_actions_destroy(&actions);
    }
    free(environment);
    return ret;
}

/* A process that is in no list yet. Null with errno set. */
static inline tipcsim_process_t *tipcsim_own_start(tipcsim_cluster_t *cluster, const char *const *words,
                                                   int with_errors)
{
    tipcsim_process_t *process = (tipcsim_process_t *)calloc(1, sizeof(*process));
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    int ret;
    if (process == NULL)
        return NULL;
    process->cluster = cluster;
    ret = tipcsim_own_pipe(in);
    if (ret == 0)
        ret = tipcsim_own_pipe(out);
    if (ret == 0)
        ret = tipcsim_own_spawn(process, words, in[0], out[1], with_errors);
    tipcsim_own_close(&in[0]);
    tipcsim_own_close(&out[1]);
    process->in = in[1];
    process->out = out[0];
    process->status = -1;
    if (ret == 0) {
        (void)fcntl(process->in, F_SETFL, O_NONBLOCK);
        return process;
    }
    tipcsim_own_free(process);
    errno = -ret;
    return NULL;
}

static inline void tipcsim_own_read(tipcsim_process_t *process)
{
    enum { ROOM = 65536 }; /* what a pipe holds */
    char *text = (char *)realloc(process->text, process->len + ROOM + 1);
    ssize_t bytes = text != NULL ? read(process->out, text + process->len, ROOM) : -1;
    process->text = text != NULL ? text : process->text;
    if (bytes <= 0)
        tipcsim_own_close(&process->out);
    else
        process->len += (size_t)bytes;
    if (text != NULL)
        text[process->len] = '\0';
}

/* Reads what all processes, and `other` when it is not null, have printed; waits for the first of it. */
static inline void tipcsim_own_wait(tipcsim_cluster_t *cluster, tipcsim_process_t *other, int timeout_ms)
{
    tipcsim_process_t *process;
    nfds_t num = 0;
    nfds_t at = 0;
    if (other != NULL && other->out >= 0)
        cluster->waits[num++].fd = other->out;
    for (process = cluster->processes; process != NULL; process = process->next) {
        if (process->out >= 0)
            cluster->waits[num++].fd = process->out;
    }
    while (at < num)
        cluster->waits[at++].events = POLLIN;
    if (poll(cluster->waits, num, timeout_ms) <= 0)
        return;
    at = 0;
    if (other != NULL && other->out >= 0 && cluster->waits[at++].revents != 0)
        tipcsim_own_read(other);
    for (process = cluster->processes; process != NULL; process = process->next) {
        if (process->out >= 0 && cluster->waits[at++].revents != 0)
            tipcsim_own_read(process);
    }
}

/* Whether the process has ended. `flags` are those of waitpid: WNOHANG, or 0 to wait for it. */
static inline int tipcsim_own_ended(tipcsim_process_t *process, int flags)
{
    int status = 0;
    pid_t found;
    if (process->status >= 0)
        return 1;
    while ((found = waitpid(process->pid, &status, flags)) < 0 && errno == EINTR)
        continue;
    if (found == 0)
        return 0;
    process->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return 1;
}

static inline int tipcsim_own_say(const tipcsim_process_t *process, int ret, const char *what, const char *text)
{
    fprintf(stderr, "tipcsim_test: %s %s%s. It printed:\n%s", process->name, what, text, tipcsim_output(process));
    return ret;
}

static inline tipcsim_cluster_t *tipcsim_own_cluster(const char *tipcsim)
{
    tipcsim_cluster_t *cluster = (tipcsim_cluster_t *)calloc(1, sizeof(*cluster));
    if (cluster == NULL)
        return NULL;
    if (tipcsim == NULL)
        tipcsim = getenv("TIPCSIM");
    if (tipcsim == NULL || *tipcsim == '\0')
        tipcsim = "tipcsim";
    cluster->tipcsim = strdup(tipcsim);
    cluster->waits = (struct pollfd *)calloc(1, sizeof(*cluster->waits));
    if (cluster->tipcsim != NULL && cluster->waits != NULL)
        return cluster;
    (void)tipcsim_end(cluster);
    return NULL;
}

/* Starts the process that keeps the cluster, and waits until it has printed the cluster's folder. It ends with its
 * input, thus at the latest with this program. */
static inline int tipcsim_own_hold(tipcsim_cluster_t *cluster, const char *const *words)
{
    tipcsim_process_t *holder = cluster->holder = tipcsim_own_start(cluster, words, 0);
    size_t len;
    if (holder == NULL)
        return -errno;
    while (holder->out >= 0 && (holder->len == 0 || holder->text[holder->len - 1] != '\n'))
        tipcsim_own_wait(cluster, holder, -1);
    len = strcspn(tipcsim_output(holder), "\n");
    if (len == 0 || len > PATH_MAX)
        return -EPROTO;
    (void)snprintf(cluster->variable, sizeof(cluster->variable), "TIPCSIM_CLUSTER=%.*s", (int)len, holder->text);
    return 0;
}

static inline size_t tipcsim_own_add(const char **words, size_t num, const char *first, const char *second)
{
    words[num] = first;
    words[num + 1] = second;
    return num + 2;
}

static inline int tipcsim_begin(tipcsim_cluster_t **cluster, const tipcsim_options_t *options)
{
    enum { FIXED = 16 }; /* the words beside those for files */
    static const tipcsim_options_t none = {0, 0, 0, NULL, NULL, NULL};
    const tipcsim_options_t *use = options != NULL ? options : &none;
    const char *const *file = use->files;
    const char *preset = use->node_files != NULL ? use->node_files : getenv("TIPCSIM_NODE_FILES");
    char numbers[3][16];
    size_t num = FIXED;
    const char **words;
    int ret = -ENOMEM;
    while (file != NULL && *file++ != NULL)
        num += 2;
    *cluster = tipcsim_own_cluster(use->tipcsim);
    words = (const char **)calloc(num, sizeof(*words));
    if (*cluster != NULL && words != NULL) {
        (void)snprintf(numbers[0], sizeof(numbers[0]), "%u", use->nodes != 0 ? use->nodes : 1);
        (void)snprintf(numbers[1], sizeof(numbers[1]), "%u", use->tolerance_ms != 0 ? use->tolerance_ms : 1500);
        (void)snprintf(numbers[2], sizeof(numbers[2]), "%u", use->timeout_s);
        num = tipcsim_own_add(words, 0, (*cluster)->tipcsim, "cluster");
        num = tipcsim_own_add(words, num, "--nodes", numbers[0]);
        num = tipcsim_own_add(words, num, "--tolerance", numbers[1]);
        if (use->timeout_s != 0)
            num = tipcsim_own_add(words, num, "--timeout", numbers[2]);
        if (preset != NULL && *preset != '\0')
            num = tipcsim_own_add(words, num, "--node-files", preset);
        for (file = use->files; file != NULL && *file != NULL; file++)
            num = tipcsim_own_add(words, num, "--file", *file);
        num = tipcsim_own_add(words, num, "--", "sh");
        (void)tipcsim_own_add(words, num, "-c", "echo \"$TIPCSIM_CLUSTER\"; read -r _");
        ret = tipcsim_own_hold(*cluster, words);
    }
    free(words);
    if (ret != 0) {
        (void)tipcsim_end(*cluster);
        *cluster = NULL;
    }
    return ret;
}

static inline int tipcsim_current(tipcsim_cluster_t **cluster)
{
    const char *place = getenv("TIPCSIM_CLUSTER");
    *cluster = NULL;
    if (place == NULL || *place == '\0' || strlen(place) > PATH_MAX)
        return -ENOENT;
    *cluster = tipcsim_own_cluster(NULL);
    if (*cluster == NULL)
        return -ENOMEM;
    (void)snprintf((*cluster)->variable, sizeof((*cluster)->variable), "TIPCSIM_CLUSTER=%s", place);
    return 0;
}

static inline int tipcsim_end(tipcsim_cluster_t *cluster)
{
    int late = 0;
    if (cluster == NULL)
        return 0;
    while (cluster->processes != NULL) {
        tipcsim_process_t *process = cluster->processes;
        cluster->processes = process->next;
        tipcsim_kill(process);
        tipcsim_own_free(process);
    }
    if (cluster->holder != NULL) {
        tipcsim_own_close(&cluster->holder->in);
        (void)tipcsim_own_ended(cluster->holder, 0);
        late = cluster->holder->status == TIPCSIM_OWN_LATE;
        tipcsim_own_free(cluster->holder);
    }
    tipcsim_own_free(cluster->order);
    free(cluster->waits);
    free(cluster->tipcsim);
    free(cluster);
    return late ? -ETIMEDOUT : 0;
}

static inline tipcsim_process_t *tipcsim_start(tipcsim_cluster_t *cluster, unsigned node, const char *program, ...)
{
    const char *last = strrchr(program, '/');
    char where[16];
    size_t num = 6;
    size_t at = 0;
    const char **words;
    struct pollfd *waits;
    tipcsim_process_t *process;
    va_list list;
    va_start(list, program);
    while (va_arg(list, const char *) != NULL)
        num++;
    va_end(list);
    words = (const char **)calloc(num, sizeof(*words));
    waits =
        (struct pollfd *)realloc(cluster->waits, (cluster->num + 2) * sizeof(*waits)); /* an order is waited for too */
    cluster->waits = waits != NULL ? waits : cluster->waits;
    if (words == NULL || waits == NULL) {
        free(words);
        errno = ENOMEM;
        return NULL;
    }
    (void)snprintf(where, sizeof(where), "%u", node);
    if (node != 0) {
        at = tipcsim_own_add(words, 0, cluster->tipcsim, "exec");
        at = tipcsim_own_add(words, at, where, "--");
    }
    words[at++] = node == 0 && strcmp(program, "tipcsim") == 0 ? cluster->tipcsim : program;
    va_start(list, program);
    do {
        words[at] = va_arg(list, const char *);
    } while (words[at++] != NULL);
    va_end(list);
    process = tipcsim_own_start(cluster, words, 1);
    free(words);
    if (process == NULL)
        return NULL;
    (void)snprintf(process->name, sizeof(process->name), "%.40s on node %u", last != NULL ? last + 1 : program, node);
    process->next = cluster->processes;
    cluster->processes = process;
    cluster->num++;
    return process;
}

/* Whether the next lines have the text; passes those that have not. A line without its end counts when it is the last
 * that will come. */
static inline int tipcsim_own_found(tipcsim_process_t *process, const char *text)
{
    while (process->next_line < process->len) {
        const char *line = process->text + process->next_line;
        size_t len = strcspn(line, "\n");
        char *copy;
        if (process->next_line + len == process->len && process->out >= 0)
            return 0;
        copy = strndup(line, len);
        if (copy == NULL)
            return -ENOMEM;
        process->next_line += len + 1;
        if (strstr(copy, text) != NULL) {
            free(process->line);
            process->line = copy;
            return 1;
        }
        free(copy);
    }
    return 0;
}

static inline int tipcsim_expect(tipcsim_process_t *process, const char *text, int timeout_ms)
{
    long long until = tipcsim_own_now() + timeout_ms;
    for (;;) {
        int found = tipcsim_own_found(process, text);
        int left = tipcsim_own_left(until);
        if (found != 0)
            return found > 0 ? 0 : found;
        if (process->out < 0)
            return tipcsim_own_say(process, -EPIPE, "has ended, and did not say: ", text);
        if (left == 0)
            return tipcsim_own_say(process, -ETIMEDOUT, "did not say in time: ", text);
        tipcsim_own_wait(process->cluster, NULL, left);
    }
}

static inline const char *tipcsim_line(const tipcsim_process_t *process)
{
    return process->line != NULL ? process->line : "";
}

static inline const char *tipcsim_output(const tipcsim_process_t *process)
{
    return process->text != NULL ? process->text : "";
}

/* One write, without a signal when nobody reads any more. */
static inline ssize_t tipcsim_own_write(int fd, const char *text, size_t len)
{
    const struct timespec at_once = {0, 0};
    sigset_t broken;
    sigset_t before;
    sigset_t pending;
    ssize_t bytes;
    int err;
    (void)sigemptyset(&broken);
    (void)sigaddset(&broken, SIGPIPE);
    (void)sigpending(&pending);
    (void)sigprocmask(SIG_BLOCK, &broken, &before);
    bytes = write(fd, text, len);
    err = errno;
    if (bytes < 0 && err == EPIPE && sigismember(&pending, SIGPIPE) == 0)
        (void)sigtimedwait(&broken, NULL, &at_once);
    (void)sigprocmask(SIG_SETMASK, &before, NULL);
    errno = err;
    return bytes;
}

static inline int tipcsim_send(tipcsim_process_t *process, const char *line)
{
    char text[4096]; /* so many bytes are written at once or not at all */
    size_t len = strlen(line);
    if (len >= sizeof(text))
        return -EMSGSIZE;
    if (process->in < 0)
        return -EPIPE;
    memcpy(text, line, len);
    text[len] = '\n';
    return tipcsim_own_write(process->in, text, len + 1) < 0 ? -errno : 0;
}

static inline void tipcsim_end_input(tipcsim_process_t *process)
{
    tipcsim_own_close(&process->in);
}

static inline int tipcsim_wait(tipcsim_process_t *process, int timeout_ms)
{
    long long until = tipcsim_own_now() + timeout_ms;
    while (!tipcsim_own_ended(process, WNOHANG)) {
        int left = tipcsim_own_left(until);
        if (left == 0)
            return tipcsim_own_say(process, -ETIMEDOUT, "has not ended in time", "");
        tipcsim_own_wait(process->cluster, NULL, left < TIPCSIM_OWN_LOOK_MS ? left : TIPCSIM_OWN_LOOK_MS);
    }
    tipcsim_own_wait(process->cluster, NULL, 0);
    return process->status;
}

static inline pid_t tipcsim_pid(const tipcsim_process_t *process)
{
    return process->pid;
}

static inline int tipcsim_signal(tipcsim_process_t *process, int signal)
{
    if (tipcsim_own_ended(process, WNOHANG))
        return -ESRCH;
    return kill(process->pid, signal) != 0 ? -errno : 0;
}

static inline void tipcsim_kill(tipcsim_process_t *process)
{
    (void)tipcsim_signal(process, SIGKILL);
    (void)tipcsim_own_ended(process, 0);
}

static inline int tipcsim_stall(tipcsim_process_t *process)
{
    return tipcsim_order(process->cluster, "stall --pid %ld", (long)process->pid);
}

static inline int tipcsim_resume(tipcsim_process_t *process)
{
    return tipcsim_order(process->cluster, "resume --pid %ld", (long)process->pid);
}

/* Splits the text at its blanks. Returns the number of words, or -E2BIG. */
static inline int tipcsim_own_split(char *text, const char **words, int num)
{
    for (; *text != '\0'; text += strcspn(text, " ")) {
        if (num == TIPCSIM_OWN_WORDS)
            return -E2BIG;
        if (*text == ' ')
            *text++ = '\0';
        words[num++] = text;
    }
    words[num] = NULL;
    return num;
}

static inline int tipcsim_order(tipcsim_cluster_t *cluster, const char *format, ...)
{
    long long until = tipcsim_own_now() + TIPCSIM_OWN_ORDER_MS;
    const char *words[TIPCSIM_OWN_WORDS + 1] = {cluster->tipcsim};
    tipcsim_process_t *order;
    char text[1024];
    va_list list;
    int len;
    va_start(list, format);
    len = vsnprintf(text, sizeof(text), format, list);
    va_end(list);
    if (len < 0 || len >= (int)sizeof(text) || tipcsim_own_split(text, words, 1) < 0)
        return -E2BIG;
    tipcsim_own_free(cluster->order);
    cluster->order = order = tipcsim_own_start(cluster, words, 0);
    if (order == NULL)
        return -errno;
    tipcsim_end_input(order);
    while (order->out >= 0 && tipcsim_own_left(until) > 0)
        tipcsim_own_wait(cluster, order, tipcsim_own_left(until));
    if (order->out >= 0) {
        tipcsim_kill(order);
        return -ETIMEDOUT;
    }
    (void)tipcsim_own_ended(order, 0);
    return order->status == 0 ? 0 : -EINVAL;
}

static inline const char *tipcsim_answer(const tipcsim_cluster_t *cluster)
{
    return cluster->order != NULL ? tipcsim_output(cluster->order) : "";
}

#ifdef __cplusplus
}
#endif

#endif
