// Programs on simulated nodes: the cluster that they join, and how they are started.
#include "tipcsim.h"
#include "tipcsim_clock.h"
#include "tipcsim_processes.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

std::string preload_library()
{
    std::string dir = self();
    dir.resize(dir.rfind('/'));
    for (const char *place : {"/libtipcsim.so", "/" TIPCSIM_LIBRARY_DIR "/libtipcsim.so", "/../lib/libtipcsim.so"}) {
        if (access((dir + place).c_str(), R_OK) == 0)
            return dir + place;
    }
    die("libtipcsim.so is not beside " + self());
}

static std::string chosen_cluster(const options_t &options)
{
    const char *inherited = getenv("TIPCSIM_CLUSTER");
    std::string name = !options.cluster.empty() ? options.cluster : inherited != nullptr ? inherited : "default";
    char dir[SIM_DIR_LEN];
    if (!sim_cluster_dir(name.c_str(), dir, sizeof(dir)))
        die("the folder of cluster " + name + " has a path of more than " + std::to_string(SIM_DIR_LEN - 1) + " bytes");
    if (dir[0] == '/')
        return dir;
    char here[PATH_MAX]; // programs that change their folder are to find the cluster
    std::string whole = getcwd(here, sizeof(here)) == nullptr ? dir : std::string(here) + "/" + dir;
    if (whole.size() >= SIM_DIR_LEN)
        die("the folder of cluster " + name + " has a path of more than " + std::to_string(SIM_DIR_LEN - 1) + " bytes");
    return whole;
}

[[noreturn]] static void die_of(const std::string &dir, const char *why, int ret)
{
    die("cluster " + dir + ": " + why + ": " + strerror(-ret));
}

void open_cluster(const options_t &options)
{
    std::string dir = chosen_cluster(options);
    const char *why = "";
    int ret = sim_cluster_open(&g_cluster, dir.c_str(), false, &why);
    if (ret == -ENOENT)
        die("no cluster at " + dir);
    if (ret != 0)
        die_of(dir, why, ret);
    sim_clock_join(g_cluster.dir);
}

// The cluster's lock: until it is closed, the folder is not removed.
int join_cluster(const options_t &options)
{
    std::string dir = chosen_cluster(options);
    const char *why = "";
    int lock = sim_cluster_join(&g_cluster, dir.c_str(), &why);
    if (lock < 0)
        die_of(dir, why, lock);
    return lock;
}

// Makes the process's "p." file and locks it. The descriptor is inherited, so the lock is held as long as the process,
// or a child of it, lives. Called with the cluster's lock held.
static void mark_process(const std::string &node)
{
    std::string path = in_cluster("p." + std::to_string(getpid()));
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    int high = fd < 0 ? fd : fcntl(fd, F_DUPFD, 512);
    if (high < 0 || flock(high, LOCK_EX | LOCK_NB) != 0 || write(high, node.c_str(), node.size()) < 0)
        die("cannot write " + path + ": " + strerror(errno));
    (void)close(fd);
}

static void add_option(const char *name, const std::string &value)
{
    const char *old = getenv(name);
    (void)setenv(name, old == nullptr || *old == '\0' ? value.c_str() : (value + ":" + old).c_str(), 1);
}

[[noreturn]] void become(char **command)
{
    (void)execvp(command[0], command);
    fprintf(stderr, "tipcsim: cannot run %s: %s\n", command[0], strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
}

int run(const options_t &options)
{
    if (options.node.empty())
        die("run needs --node N");
    if (options.command == nullptr)
        die("no command (tipcsim help)");
    std::string node = std::to_string(node_number(options.node, "--node"));
    check_program(options);
    int lock = join_cluster(options);
    mark_process(node);
    tree_id();
    tree_mark((uint32_t)strtoul(node.c_str(), nullptr, 10));
    make_node_files(options, node);
    add_node(options);
    (void)close(lock);
    serve_cluster();
    (void)setenv("TIPCSIM_FILES", node_file_list(node).c_str(), 1);
    (void)setenv("TIPCSIM_CLUSTER", g_cluster.dir, 1);
    (void)setenv("TIPCSIM_NODE", node.c_str(), 1);
    (void)setenv("TIPCSIM_TOOL", self().c_str(), 1);
    sim_clock_join(g_cluster.dir);
    clock_environment();
    add_option("LD_PRELOAD", preload_library());
    add_option("ASAN_OPTIONS", "verify_asan_link_order=0"); // the preload library is loaded before the sanitizer
    become(options.command);
}

int exec_in(options_t options)
{
    if (options.words.empty())
        die("exec needs a node");
    options.node = options.words[0];
    return run(options);
}
