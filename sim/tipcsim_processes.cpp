// The processes of nodes, and signals to them.
#include "tipcsim.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <sys/file.h>
#include <unistd.h>

#include "sim_files.h"

typedef struct process_s {
    pid_t pid;
    uint32_t node;
} process_t;

static std::vector<process_t> processes()
{
    std::vector<process_t> found;
    sim_each_file(g_cluster.dir, "p.", [&found](const std::string &name) {
        uint32_t node = 0;
        std::ifstream(in_cluster(name)) >> node;
        int fd = open(in_cluster(name).c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0) // when the lock is free, the process has ended
            found.push_back({(pid_t)atol(name.c_str() + 2), node});
        if (fd >= 0)
            (void)close(fd);
    });
    return found;
}

void signal_node(uint32_t node, int signal)
{
    for (const process_t &process : processes()) {
        if (process.node == node || node == SIM_ANY_NODE)
            (void)kill(process.pid, signal);
    }
}

// The process of --pid, or 0 without the option.
pid_t pid_option(const options_t &options)
{
    return options.pid.empty() ? 0 : (pid_t)number(options.pid, "--pid", 1, 1L << 22);
}

// Calls visit(pid) for the process of --pid, or for every process of the node in the first word.
template <typename Visit>
static void each_chosen(const options_t &options, Visit visit)
{
    pid_t pid = pid_option(options);
    uint32_t node = pid == 0 ? node_word(options, 0) : 0;
    bool found = false;
    for (const process_t &process : processes()) {
        if (pid != 0 ? process.pid != pid : process.node != node)
            continue;
        visit(process.pid);
        found = true;
    }
    if (pid != 0 && !found)
        die("no process " + options.pid + " in this cluster");
}

// Whether all threads of the process have stopped: they do not stop at the same time. A process that has ended counts
// as stopped.
static bool stopped(pid_t pid)
{
    std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
    bool all = true;
    sim_each_file(tasks.c_str(), "", [&](const std::string &thread) {
        std::string text;
        std::ifstream in(tasks + thread + "/stat");
        std::getline(in, text);
        size_t at = text.rfind(") ");
        all = all && (at == std::string::npos || strchr("TtZX", text[at + 2]) != nullptr);
    });
    return all;
}

// Returns when it has stopped. Nobody waits for it, wherever that is.
static void stall(pid_t pid)
{
    (void)kill(pid, SIGSTOP);
    while (!stopped(pid) && kill(pid, 0) == 0)
        (void)sched_yield();
}

void signal_chosen(const options_t &options, int signal)
{
    each_chosen(options, [signal](pid_t pid) { (void)kill(pid, signal); });
}

void stall_chosen(const options_t &options)
{
    each_chosen(options, stall);
}
