// The processes of nodes, and signals to them.
#include "tipcsim_processes.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <map>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim_files.h"

constexpr uint64_t MARK = 1ULL << 62; // no limit that anybody else would set
constexpr int NODE_BITS = 17;
constexpr uint32_t SERVANT_PLACE = (1U << NODE_BITS) - 1; // 0 is the command's, others are a node's index plus one
constexpr uint64_t ID_MASK = (1ULL << 44) - 1;
constexpr uint32_t NOBODY = UINT32_MAX;
constexpr double PATIENCE = 5; // seconds for processes to stop or to end, which a busy disk can delay

typedef struct seen_s { // a process, as /proc shows it
    pid_t pid;
    pid_t parent;
    uint64_t start; // clock ticks since the boot: with the number, it identifies the process
    char state;
    uint64_t mark; // 0 for none
    uint32_t node; // NOBODY when it is not one of this cluster
    bool below;    // this process, or one that is younger than the cluster, started it
    bool known;    // `node` and `below` have been found out
} seen_t;

typedef struct held_s { // a process that cannot be mistaken for another one
    pid_t pid;
    uint64_t start;
    uint64_t mark;
    int fd; // pidfd
} held_t;

typedef std::map<pid_t, seen_t> seen_map_t;
typedef std::map<pid_t, held_t> held_map_t;
typedef std::function<bool(const seen_t &)> choice_t;

static seen_map_t s_before; // children that this process had before its cluster

static double now()
{
    struct timespec time;
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static std::string whole_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

static std::string of_process(pid_t pid, const char *name)
{
    return "/proc/" + std::to_string(pid) + "/" + name;
}

static uint64_t mark_of(pid_t pid)
{
    std::string limits = whole_file(of_process(pid, "limits"));
    size_t at = limits.find("Max file locks");
    uint64_t mark = at == std::string::npos ? 0 : strtoull(limits.c_str() + at + strlen("Max file locks"), nullptr, 10);
    return (mark & MARK) != 0 ? mark : 0;
}

// False when there is no such process.
static bool look_at(pid_t pid, seen_t *seen)
{
    std::string stat = whole_file(of_process(pid, "stat"));
    size_t at = stat.rfind(") "); // the name before it may contain anything
    if (at == std::string::npos)
        return false;
    std::istringstream fields(stat.substr(at + 2));
    std::string skipped;
    *seen = seen_t();
    seen->pid = pid;
    seen->node = NOBODY;
    fields >> seen->state >> seen->parent;
    for (int i = 0; i < 17; i++)
        fields >> skipped;
    fields >> seen->start;
    seen->mark = mark_of(pid);
    return !fields.fail();
}

static bool ended(const seen_t &seen)
{
    return seen.state == 'Z' || seen.state == 'X';
}

uint64_t tree_number(const char *dir)
{
    return strtoull(whole_file(std::string(dir) + "/mark").c_str(), nullptr, 10);
}

static uint64_t cluster_id()
{
    return tree_number(g_cluster.dir);
}

// The value of a variable in the environment that a program was started with.
static std::string variable(const std::string &environment, const std::string &name)
{
    size_t at = environment.compare(0, name.size() + 1, name + "=") == 0 ? 0 : environment.find('\0' + name + "=");
    if (at == std::string::npos)
        return "";
    at = environment.find('=', at) + 1;
    return environment.substr(at, environment.find('\0', at) - at);
}

// Of a process without a mark: true when its environment says where it belongs.
static bool says_environment(const seen_t &seen, uint32_t *node)
{
    std::string environment = whole_file(of_process(seen.pid, "environ"));
    std::string cluster = variable(environment, "TIPCSIM_CLUSTER");
    std::string id = variable(environment, "TIPCSIM_NODE");
    // With a cluster alone it is the command of one, or a program that somebody started to give it orders.
    *node = cluster == g_cluster.dir && !id.empty() ? (uint32_t)strtoul(id.c_str(), nullptr, 10) : NOBODY;
    return !cluster.empty();
}

static uint32_t node_at(uint32_t place)
{
    if (place == 0)
        return TREE_COMMAND;
    return place <= SIM_MAX_NODES ? sim_load(&g_cluster.state->nodes[place - 1]) : NOBODY;
}

template <typename visit_t>
static void each_process(visit_t visit)
{
    sim_each_file("/proc", "", [&visit](const std::string &name) {
        seen_t seen;
        if (name.find_first_not_of("0123456789") == std::string::npos && look_at((pid_t)atol(name.c_str()), &seen))
            visit(seen);
    });
}

bool tree_any(uint64_t id)
{
    bool any = false;
    each_process([&any, id](const seen_t &seen) {
        uint32_t place = (uint32_t)seen.mark & SERVANT_PLACE;
        bool of_node = (seen.mark >> NODE_BITS & ID_MASK) == id && place != 0 && place != SERVANT_PLACE;
        any = any || (of_node && !ended(seen));
    });
    return any;
}

static void find_out(seen_map_t *all, seen_t *seen, uint64_t id)
{
    if (seen->known)
        return;
    seen->known = true;
    auto parent = all->find(seen->parent);
    auto before = s_before.find(seen->pid);
    if (parent != all->end())
        find_out(all, &parent->second, id);
    bool older = before != s_before.end() && before->second.start == seen->start;
    seen->below = !older && parent != all->end() && (seen->parent == getpid() || parent->second.below);
    if (seen->mark != 0) {
        uint32_t place = (uint32_t)seen->mark & SERVANT_PLACE;
        seen->below = seen->below && place != SERVANT_PLACE;
        seen->node = (seen->mark >> NODE_BITS & ID_MASK) == id ? node_at(place) : NOBODY;
    } else if (!says_environment(*seen, &seen->node)) {
        seen->node = parent != all->end() ? parent->second.node : NOBODY;
    }
}

static seen_map_t look()
{
    seen_map_t all;
    each_process([&all](const seen_t &seen) { all[seen.pid] = seen; });
    uint64_t id = cluster_id();
    for (auto &entry : all)
        find_out(&all, &entry.second, id);
    all.erase(getpid());
    return all;
}

// Takes hold of a process that was seen. False when it has ended since, or has been marked otherwise.
static bool hold(const seen_t &seen, held_t *held)
{
    held->pid = seen.pid;
    held->start = seen.start;
    held->mark = seen.mark;
    held->fd = (int)syscall(SYS_pidfd_open, seen.pid, 0);
    if (held->fd < 0 && errno != ESRCH)
        die(std::string("cannot get a descriptor of a process: ") + strerror(errno));
    seen_t again;
    if (held->fd >= 0 && look_at(seen.pid, &again) && again.start == seen.start && again.mark == seen.mark &&
        !ended(again))
        return true;
    if (held->fd >= 0)
        (void)close(held->fd);
    return false;
}

static void send(const held_t &held, int signal)
{
    (void)syscall(SYS_pidfd_send_signal, held.fd, signal, nullptr, 0);
}

static bool holds(const held_map_t &held, const seen_t &seen)
{
    auto found = held.find(seen.pid);
    return found != held.end() && found->second.start == seen.start;
}

static void let_go(held_map_t *held, pid_t pid)
{
    auto found = held->find(pid);
    if (found == held->end())
        return;
    (void)close(found->second.fd);
    held->erase(found);
}

static void release(held_map_t *held)
{
    while (!held->empty())
        let_go(held, held->begin()->first);
}

// Whether all threads of the process have stopped: they do not stop at the same time. A process that has ended counts
// as stopped.
static bool stopped(pid_t pid)
{
    std::string tasks = of_process(pid, "task/");
    bool all = true;
    sim_each_file(tasks.c_str(), "", [&](const std::string &thread) {
        std::string text = thread[0] == '.' ? "" : whole_file(tasks + thread + "/stat");
        size_t at = text.rfind(") ");
        all = all && (at == std::string::npos || strchr("TtZX", text[at + 2]) != nullptr);
    });
    return all;
}

// Stops those that are not held yet. Returns whether there were any.
static bool stop_new(const choice_t &chosen, held_map_t *held)
{
    bool any = false;
    for (const auto &entry : look()) {
        held_t one;
        if (ended(entry.second) || !chosen(entry.second) || holds(*held, entry.second) || !hold(entry.second, &one))
            continue;
        send(one, SIGSTOP);
        let_go(held, entry.first); // an earlier one of this number has ended
        held->insert({entry.first, one});
        any = true;
    }
    return any;
}

// Lets those go on that marked themselves otherwise just before they stopped.
static void continue_others(held_map_t *held)
{
    for (auto next = held->begin(); next != held->end();) {
        auto entry = next++;
        seen_t seen;
        if (!look_at(entry->first, &seen) || seen.start != entry->second.start || seen.mark == entry->second.mark)
            continue;
        send(entry->second, SIGCONT);
        let_go(held, entry->first);
    }
}

// Stops the chosen processes, and looks again until none of them can have started another one.
static held_map_t freeze(const choice_t &chosen)
{
    held_map_t held;
    double end = now() + PATIENCE;
    bool running = false;
    while (stop_new(chosen, &held) || running) {
        running = false;
        for (const auto &entry : held)
            running = running || !stopped(entry.first);
        if (now() > end)
            break;
        if (running)
            (void)sched_yield();
    }
    continue_others(&held);
    return held;
}

static void reap_orphans()
{
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        continue;
}

static void wait_for_end(const held_map_t &held, double end)
{
    for (const auto &entry : held) {
        struct pollfd ready = {entry.second.fd, POLLIN, 0};
        while (now() < end && poll(&ready, 1, 10) == 0)
            continue;
    }
}

static void kill_all(const choice_t &chosen)
{
    double end = now() + PATIENCE;
    held_map_t held = freeze(chosen);
    while (!held.empty() && now() < end) {
        for (const auto &entry : held)
            send(entry.second, SIGKILL);
        wait_for_end(held, end);
        release(&held);
        held = freeze(chosen); // one that started while another process ended
    }
    for (const auto &entry : held)
        fprintf(stderr, "tipcsim: process %d does not end\n", (int)entry.first);
    release(&held);
}

pid_t pid_option(const options_t &options)
{
    return options.pid.empty() ? 0 : (pid_t)number(options.pid, "--pid", 1, 1L << 22);
}

// The process of --pid, or those of the node in the first word.
static choice_t choice_of(const options_t &options)
{
    pid_t pid = pid_option(options);
    if (pid == 0) {
        uint32_t node = node_word(options, 0);
        return [node](const seen_t &seen) { return seen.node == node; };
    }
    seen_map_t all = look();
    auto found = all.find(pid);
    if (found == all.end() || found->second.node == NOBODY || found->second.node == TREE_COMMAND ||
        ended(found->second))
        die("no process " + options.pid + " in this cluster");
    uint64_t start = found->second.start;
    return [pid, start](const seen_t &seen) { return seen.pid == pid && seen.start == start; };
}

void kill_node(uint32_t node)
{
    kill_all([node](const seen_t &seen) { return seen.node == node; });
}

void kill_chosen(const options_t &options)
{
    kill_all(choice_of(options));
}

void stall_chosen(const options_t &options)
{
    held_map_t held = freeze(choice_of(options)); // nobody waits for them, wherever that is
    release(&held);
}

void resume_chosen(const options_t &options)
{
    choice_t chosen = choice_of(options);
    for (const auto &entry : look()) {
        held_t held;
        if (!chosen(entry.second) || !hold(entry.second, &held))
            continue;
        send(held, SIGCONT);
        (void)close(held.fd);
    }
}

void tree_id()
{
    uint64_t id = cluster_id();
    if (id != 0)
        return;
    if (getrandom(&id, sizeof(id), 0) != (ssize_t)sizeof(id))
        die(std::string("no random number: ") + strerror(errno));
    id = (id & ID_MASK) | 1;
    std::ofstream out(in_cluster("mark"));
    out << id << "\n";
    out.close();
    if (!out)
        die("cannot write " + in_cluster("mark"));
}

void tree_mark(uint32_t node)
{
    struct rlimit64 limit;
    uint64_t id = node == TREE_SERVANT ? 0 : cluster_id();
    if (getrlimit64(RLIMIT_LOCKS, &limit) != 0)
        return; // the environment tells where a process belongs
    uint32_t place = node == TREE_SERVANT ? SERVANT_PLACE : 0;
    if (node != TREE_SERVANT && node != TREE_COMMAND)
        place = sim_node_index(g_cluster.state, node) + 1;
    limit.rlim_cur = MARK | id << NODE_BITS | place;
    (void)setrlimit64(RLIMIT_LOCKS, &limit);
}

void tree_begin()
{
    for (const auto &entry : look()) {
        if (entry.second.parent == getpid())
            s_before[entry.first] = entry.second;
    }
    if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0)
        die(std::string("cannot adopt orphans: ") + strerror(errno));
}

void tree_end()
{
    kill_all([](const seen_t &seen) { return seen.below || seen.node != NOBODY; });
    reap_orphans();
}
