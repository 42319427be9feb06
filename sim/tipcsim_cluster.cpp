// A cluster for the length of a command.
#include "tipcsim.h"
#include "tipcsim_clock.h"
#include "tipcsim_processes.h"

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

static volatile pid_t s_command; // 0 when it has ended: its number may be another process's
static volatile sig_atomic_t s_late;

static void on_alarm(int /*signal*/)
{
    s_late = 1;
    if (s_command > 0)
        (void)kill(s_command, SIGKILL);
}

static void pass_on(int signal)
{
    if (s_command > 0)
        (void)kill(s_command, signal);
}

static pid_t s_script; // 0: none, or it has ended
static int s_script_status;

static void begin_script(const options_t &options)
{
    if (options.script.empty())
        return;
    s_script = script_begin(options.script, script_command);
    if (s_script < 0)
        die("the command was not run");
}

// A script that has not come to its end is no failure.
static void end_script()
{
    if (s_script <= 0)
        return;
    (void)kill(s_script, SIGKILL);
    while (waitpid(s_script, nullptr, 0) < 0 && errno == EINTR)
        continue;
    s_script = 0;
}

// Waits for the command, and for the orphans of its tree that end meanwhile.
static int wait_for_command()
{
    for (;;) {
        siginfo_t info = {};
        if (waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) != 0)
            continue; // a signal
        bool command = info.si_pid == s_command;
        if (command)
            s_command = 0;
        int status = 0;
        (void)waitpid(info.si_pid, &status, 0);
        if (command)
            return status;
        if (info.si_pid == s_script) {
            s_script = 0;
            s_script_status = status;
        }
    }
}

static int command_status(int status)
{
    if (s_late != 0) {
        fprintf(stderr, "tipcsim: time limit\n");
        return 124;
    }
    if (status == 0 && s_script_status != 0)
        return 125;
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
    tree_id();
    (void)close(lock);
    tree_begin();
    if (options.virtual_time)
        clock_prepare();
    keep_file_options(options);
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
    begin_script(options);
    for (const char *name : {"TIPCSIM_NODE", "TIPCSIM_FILES"}) // of the cluster in which this one is made
        (void)unsetenv(name);
    pid_t pid = fork();
    if (pid < 0)
        die(std::string("cannot start the command: ") + strerror(errno));
    if (pid == 0) {
        tree_mark(TREE_COMMAND);
        become(options.command);
    }
    s_command = pid;
    if (options.virtual_time)
        clock_begin(pid);
    (void)signal(SIGALRM, on_alarm);
    (void)signal(SIGTERM, pass_on);
    (void)signal(SIGINT, pass_on);
    if (signal(SIGHUP, pass_on) == SIG_IGN) // nohup
        (void)signal(SIGHUP, SIG_IGN);
    (void)alarm((unsigned)options.timeout);
    int status = wait_for_command();
    clock_end();
    end_script();
    record_end(&g_cluster);
    tree_end();
    end_cluster();
    (void)close(keep);
    look_at_end();
    wait_for_removal();
    return command_status(status);
}
