// A cluster for the length of a command.
#include "tipcsim.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

// Keeps the cluster, whatever becomes of its broker, until the descriptor is closed. Called with the cluster's lock
// held.
static int keep_cluster()
{
    std::string path = in_cluster("keep");
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) != 0)
        die("cannot lock " + path + ": " + strerror(errno));
    return fd;
}

static pid_t s_command;
static volatile sig_atomic_t s_late;

static void on_alarm(int /*signal*/)
{
    s_late = 1;
    (void)kill(s_command, SIGKILL);
}

static void pass_on(int signal)
{
    (void)kill(s_command, signal);
}

static int command_status(int status)
{
    if (s_late != 0) {
        fprintf(stderr, "tipcsim: time limit\n");
        return 124;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void wait_for_removal()
{
    for (int tries = 0; tries < 5000 && access(g_cluster.dir, F_OK) == 0; tries++)
        (void)usleep(1000);
    if (access(g_cluster.dir, F_OK) == 0)
        fprintf(stderr, "tipcsim: %s is still in use\n", g_cluster.dir);
}

int cluster(options_t options)
{
    if (options.command == nullptr)
        die("no command (tipcsim help)");
    options.cluster = std::to_string(getpid()) + "-" + std::to_string(time(nullptr));
    int lock = join_cluster(options);
    int keep = keep_cluster();
    (void)close(lock);
    std::ofstream list(in_cluster("files"));
    for (const std::string &file : options.files)
        list << file << "\n";
    list.close();
    if (!list)
        die("cannot write " + in_cluster("files"));
    begin_cluster(options);
    std::string nodes;
    for (long node = 1; node <= options.nodes; node++) {
        nodes += (nodes.empty() ? "" : " ") + std::to_string(node);
        make_node_files(options, std::to_string(node));
    }
    (void)setenv("TIPCSIM_CLUSTER", g_cluster.dir, 1);
    (void)setenv("LAB", self().c_str(), 1);
    (void)setenv("LAB_RUN", g_cluster.dir, 1);
    (void)setenv("LAB_NODES", nodes.c_str(), 1);
    pid_t script = options.script.empty() ? 0 : script_begin(options.script, script_command);
    if (script < 0)
        die("the command was not run");
    s_command = fork();
    if (s_command == 0)
        become(options.command);
    (void)signal(SIGALRM, on_alarm);
    (void)signal(SIGTERM, pass_on);
    (void)signal(SIGINT, pass_on);
    (void)alarm((unsigned)options.timeout);
    int status = 0;
    while (waitpid(s_command, &status, 0) < 0 && errno == EINTR)
        continue;
    bool script_failed = script != 0 && !script_end(script);
    signal_node(SIM_ANY_NODE, SIGKILL);
    record_end(&g_cluster);
    end_cluster();
    (void)close(keep);
    look_at_end();
    wait_for_removal();
    int result = command_status(status);
    return script_failed && result == 0 ? 125 : result;
}
