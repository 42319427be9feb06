// The launcher. It starts processes on simulated nodes, makes a cluster for the length of a command, and orders faults.
#include "sim_protocol.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <linux/tipc.h>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "broker.h"
#include "sim_files.h"
#include "tipcsim_record.h"

static const char USAGE[] =
    R"(tipcsim run --node N [options] -- COMMAND [ARG...]      run COMMAND as a process of node N
  --cluster NAME        the cluster (default: the one that the caller runs in, else "default")
  --file PATH=TEMPLATE  give the node its own file PATH; @NODE@ in TEMPLATE is the node id (repeatable)
tipcsim cluster [options] -- COMMAND [ARG...]           make a cluster, run COMMAND, remove the cluster
  --nodes N             name nodes 1 to N in LAB_NODES and make their files (default 1)
  --rmem BYTES          size of a socket's receive queue at importance 0 (default 2097152)
  --tolerance MS        time from a cut to the loss of the link (default 1500)
  --timeout S           end everything after S seconds, with status 124
  --script FILE         order faults at the times that FILE says (below) while COMMAND runs
  --file PATH=TEMPLATE  as for run

While processes run, in the cluster that --cluster or TIPCSIM_CLUSTER names:
tipcsim exec NODE -- COMMAND [ARG...]                   as run
tipcsim cut A [B]     tipcsim heal A [B]                cut or heal all links of A, or the one to B; cut A B --one-way:
                                                        messages from A to B only
tipcsim node-down N   tipcsim node-up N                 a board loses its power: its links are lost at once and its
                                                        processes killed; node-up heals the links
tipcsim kill N        tipcsim stall N      tipcsim resume N
                                                        kill, stop or continue a node's processes, or one with --pid P
tipcsim drop-topology [N]                               close all topology connections, or those of node N
tipcsim delay A B MS [--jitter MS]                      delay messages between A and B, in both directions; 0 ends it;
                                                        with jitter by up to as much more, so that they overtake
tipcsim loss A B PERCENT                                lose as many of the messages between A and B; 0 ends it
tipcsim congest A B [--end]                             the link between A and B takes no messages, until --end
tipcsim fail --node N | --pid P  --sends COUNT  --errno E | --short BYTES | --return CODE  [--after COUNT]
                                                        make the next COUNT sends fail (default 1), or those after
                                                        the next COUNT
tipcsim script FILE                                     order faults at their times: each line of FILE is a time, as
                                                        1.5s, 200ms or +100ms after the line above, and a command
tipcsim record FILE [--bytes N] [--seconds S]           write what passes, for Wireshark, with N bytes of each message's
                                                        data (default 128), until a signal; - for standard output
tipcsim show [FILE] [--seconds S]                       print a line for each message of a file that record wrote, or of
                                                        the cluster from now on
tipcsim broker-stop   tipcsim broker-start              kill the broker, so that there is none until broker-start
tipcsim links | names | wait-links                      print the links or the names; wait-links returns at once
tipcsim broker --cluster DIR                            run the broker; clients start it when they need it
)";

typedef std::vector<std::string> words_t;

typedef struct options_s {
    std::string cluster;
    std::string node;
    long nodes = 1;
    long rmem = SIM_DEFAULT_RMEM;
    long tolerance = SIM_DEFAULT_TOLERANCE;
    long timeout = 0;
    long sends = 1;
    long jitter = 0; // ms
    long after = 0;  // sends
    long seconds = 0;
    long data = RECORD_BYTES; // bytes
    std::string script;
    bool one_way = false;
    bool end = false;
    std::string pid;
    std::string err;
    std::string bytes;
    std::string code;
    words_t files;
    words_t words; // arguments that are not options
    char **command = nullptr;
} options_t;

static sim_cluster_t s_cluster;

[[noreturn]] static void die(const std::string &text)
{
    fprintf(stderr, "tipcsim: %s\n", text.c_str());
    exit(125);
}

static long number(const std::string &text, const char *what, long lowest, long highest)
{
    char *end = nullptr;
    errno = 0;
    long value = strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || value < lowest || value > highest)
        die(std::string(what) + " is '" + text + "'; it takes " + std::to_string(lowest) + " to " +
            std::to_string(highest));
    return value;
}

static std::string self()
{
    char path[4096] = "";
    ssize_t len = readlink("/proc/self/exe", path, sizeof(path) - 1);
    return std::string(path, len > 0 ? (size_t)len : 0);
}

static std::string preload_library()
{
    std::string dir = self();
    dir.resize(dir.rfind('/'));
    for (const char *place : {"/libtipcsim.so", "/" TIPCSIM_LIBRARY_DIR "/libtipcsim.so", "/../lib/libtipcsim.so"}) {
        if (access((dir + place).c_str(), R_OK) == 0)
            return dir + place;
    }
    die("libtipcsim.so is not beside " + self());
}

static void make_folders(const std::string &path)
{
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
        (void)mkdir(path.substr(0, at).c_str(), 0700);
}

static std::string in_cluster(const std::string &name)
{
    return std::string(s_cluster.dir) + "/" + name;
}

static std::string chosen_cluster(const options_t &options)
{
    const char *inherited = getenv("TIPCSIM_CLUSTER");
    std::string name = !options.cluster.empty() ? options.cluster : inherited != nullptr ? inherited : "default";
    char dir[SIM_DIR_LEN];
    if (!sim_cluster_dir(name.c_str(), dir, sizeof(dir)))
        die("the folder of cluster " + name + " has a path of more than " + std::to_string(SIM_DIR_LEN - 1) + " bytes");
    return dir;
}

[[noreturn]] static void die_of(const std::string &dir, const char *why, int ret)
{
    die("cluster " + dir + ": " + why + ": " + strerror(-ret));
}

static void open_cluster(const options_t &options)
{
    std::string dir = chosen_cluster(options);
    const char *why = "";
    int ret = sim_cluster_open(&s_cluster, dir.c_str(), false, &why);
    if (ret == -ENOENT)
        die("no cluster at " + dir);
    if (ret != 0)
        die_of(dir, why, ret);
}

// The cluster's lock: until it is closed, the folder is not removed.
static int join_cluster(const options_t &options)
{
    std::string dir = chosen_cluster(options);
    const char *why = "";
    int lock = sim_cluster_join(&s_cluster, dir.c_str(), &why);
    if (lock < 0)
        die_of(dir, why, lock);
    return lock;
}

static void ask(uint32_t op, uint32_t a, uint32_t b, uint32_t value, const void *data = nullptr, size_t size = 0)
{
    int ret = sim_ask_broker(&s_cluster, self().c_str(), op, a, b, value, data, size);
    if (ret == -ENOTCONN)
        die("no broker in " + std::string(s_cluster.dir) + ": " + strerror(-ret));
    if (ret < 0)
        die(std::string("the broker refuses: ") + strerror(-ret));
}

static void start_broker()
{
    ask(SIM_HELLO, 0, 0, 0);
}

// PATH=TEMPLATE of every file that each node has a copy of: from the caller's options, the cluster's, and the defaults.
static words_t node_files(const options_t &options)
{
    words_t files = options.files;
    std::ifstream in(in_cluster("files"));
    for (std::string line; std::getline(in, line);)
        files.push_back(line);
    auto has = [&files](const std::string &path) {
        return std::any_of(files.begin(), files.end(),
                           [&](const std::string &f) { return f.rfind(path + "=", 0) == 0; });
    };
    for (const char *path : {"/etc/zeb.conf", "/tmp/addr/.zeb_node_addr"}) {
        if (!has(path))
            files.push_back(std::string(path) + "=");
    }
    return files;
}

static std::string filled(const std::string &path, const std::string &from, const std::string &node)
{
    if (from.empty() && path != "/etc/zeb.conf")
        return node + "\n";
    std::ifstream in(from.empty() ? path : from);
    if (!in && !from.empty())
        die("cannot read " + from);
    std::stringstream all;
    all << in.rdbuf();
    std::string text = all.str();
    for (size_t at = 0; (at = text.find("@NODE@", at)) != std::string::npos; at += node.size())
        text.replace(at, 6, node);
    return text;
}

// Makes the node's files once, when the node is first used. What its processes change or remove stays changed or
// removed.
static void make_node_files(const options_t &options, const std::string &node)
{
    std::string root = in_cluster("nodes/" + node);
    make_folders(in_cluster("nodes/"));
    if (mkdir(root.c_str(), 0700) != 0) {
        if (errno != EEXIST)
            die("cannot make " + root + ": " + strerror(errno));
        return;
    }
    for (const std::string &file : node_files(options)) {
        std::string path = file.substr(0, file.find('='));
        std::string from = file.substr(file.find('=') + 1);
        if (from.empty() && path == "/etc/zeb.conf" && access(path.c_str(), R_OK) != 0)
            continue;
        make_folders(root + path);
        std::ofstream out(root + path);
        out << filled(path, from, node);
        out.close();
        if (!out)
            die("cannot write " + root + path + ": " + strerror(errno));
    }
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

static void add_option(const char *name, const std::string &value)
{
    const char *old = getenv(name);
    (void)setenv(name, old == nullptr || *old == '\0' ? value.c_str() : (value + ":" + old).c_str(), 1);
}

[[noreturn]] static void become(char **command)
{
    (void)execvp(command[0], command);
    fprintf(stderr, "tipcsim: cannot run %s: %s\n", command[0], strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
}

static int run(const options_t &options)
{
    if (options.node.empty())
        die("run needs --node N");
    if (options.command == nullptr)
        die("no command (tipcsim help)");
    std::string node = std::to_string(number(options.node, "--node", 1, 65535));
    int lock = join_cluster(options);
    mark_process(node);
    make_node_files(options, node);
    (void)close(lock);
    if (sim_node_index(s_cluster.state, (uint32_t)atol(node.c_str())) == SIM_ANY_NODE)
        die("a cluster has at most " + std::to_string(SIM_MAX_NODES) + " nodes");
    if (s_cluster.state->held == 0) // the broker removes the cluster, even when the command never opens a socket
        start_broker();
    std::string list;
    for (const std::string &file : node_files(options))
        list += (list.empty() ? "" : ":") + file.substr(0, file.find('='));
    (void)setenv("TIPCSIM_FILES", list.c_str(), 1);
    (void)setenv("TIPCSIM_CLUSTER", s_cluster.dir, 1);
    (void)setenv("TIPCSIM_NODE", node.c_str(), 1);
    (void)setenv("TIPCSIM_TOOL", self().c_str(), 1);
    add_option("LD_PRELOAD", preload_library());
    add_option("ASAN_OPTIONS", "verify_asan_link_order=0"); // the preload library is loaded before the sanitizer
    become(options.command);
}

static int exec_in(options_t options)
{
    if (options.words.empty())
        die("exec needs a node");
    options.node = options.words[0];
    return run(options);
}

static uint32_t node_word(const options_t &options, size_t index)
{
    if (options.words.size() <= index)
        die("a node is missing (tipcsim help)");
    return (uint32_t)number(options.words[index], "a node", 1, 65535);
}

static uint32_t other_node(const options_t &options)
{
    return options.words.size() > 1 ? node_word(options, 1) : SIM_ANY_NODE;
}

typedef struct process_s {
    pid_t pid;
    uint32_t node;
} process_t;

static std::vector<process_t> processes()
{
    std::vector<process_t> found;
    sim_each_file(s_cluster.dir, "p.", [&found](const std::string &name) {
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

static void signal_node(uint32_t node, int signal)
{
    for (const process_t &process : processes()) {
        if (process.node == node || node == SIM_ANY_NODE)
            (void)kill(process.pid, signal);
    }
}

// The process of --pid, or 0 without the option.
static pid_t pid_option(const options_t &options)
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

// An entry that nobody uses any more.
static sim_fault_t *take_fault(sim_state_t *state)
{
    for (uint32_t at = 0; at < SIM_MAX_FAULTS; at++) {
        sim_fault_t *fault = &state->faults[at];
        uint32_t kind = sim_load(&fault->kind);
        bool spent = kind == SIM_FAULT_NONE || (kind != SIM_FAULT_TAKEN && sim_load(&fault->left) <= 0);
        if (!spent || !sim_swap(&fault->kind, kind, (uint32_t)SIM_FAULT_TAKEN))
            continue;
        for (uint32_t num = sim_load(&state->fault_num); num <= at; num = sim_load(&state->fault_num))
            (void)sim_swap(&state->fault_num, num, at + 1);
        return fault;
    }
    die("too many faults at once");
}

static int fail_sends(const options_t &options)
{
    sim_fault_t fault = {};
    fault.left = (int32_t)options.sends;
    fault.pid = pid_option(options);
    if (fault.pid == 0)
        fault.node = sim_node_index(s_cluster.state, (uint32_t)number(options.node, "--node", 1, 65535));
    if (!options.err.empty()) {
        fault.kind = SIM_FAULT_ERRNO;
        fault.value = 0;
        for (int e = 1; e < 134 && fault.value == 0; e++) {
            const char *name = strerrorname_np(e);
            fault.value = name != nullptr && options.err == name ? (uint32_t)e : 0;
        }
        if (fault.value == 0)
            fault.value = (uint32_t)number(options.err, "--errno", 1, 133);
    } else if (!options.bytes.empty()) {
        fault.kind = SIM_FAULT_SHORT;
        fault.value = (uint32_t)number(options.bytes, "--short", 0, SIM_MAX_DATA);
    } else {
        fault.kind = SIM_FAULT_RETURN;
        fault.value = (uint32_t)number(options.code, "--return", 1, 15);
    }
    sim_state_t *state = s_cluster.state;
    sim_fault_t *at = take_fault(state);
    at->pid = fault.pid;
    at->node = fault.node;
    at->skip = (int32_t)options.after;
    at->value = fault.value;
    sim_store(&at->left, fault.left);
    sim_store(&at->kind, fault.kind);
    return 0;
}

static int broker_stop()
{
    pid_t pid = 0;
    std::ifstream(in_cluster("broker.pid")) >> pid;
    s_cluster.state->held = 1;
    if (pid <= 0 || kill(pid, SIGKILL) != 0)
        die("no broker to stop");
    while (kill(pid, 0) == 0)
        (void)usleep(1000);
    return 0;
}

static int broker_start()
{
    s_cluster.state->held = 0;
    start_broker();
    return 0;
}

static int show_names()
{
    sim_state_t *state = s_cluster.state;
    std::vector<sim_name_t> names;
    for (uint32_t i = 1; i < sim_load(&state->name_num); i++) {
        if (sim_load(&sim_name_at(state, i)->id) != 0)
            names.push_back(*sim_name_at(state, i));
    }
    std::sort(names.begin(), names.end(), [](const sim_name_t &a, const sim_name_t &b) { return a.id < b.id; });
    for (const sim_name_t &name : names) {
        printf("%u %u-%u %s node %u socket %u\n", name.type, name.lower, name.upper,
               name.scope == TIPC_NODE_SCOPE ? "node" : "cluster", state->nodes[name.node], name.port);
    }
    return 0;
}

static const char *link_state(const sim_state_t *state, uint32_t a, uint32_t b)
{
    if (!sim_linked(state->down, a, b))
        return "down";
    return sim_linked(state->cut, a, b) && sim_linked(state->cut, b, a) ? "up" : "cut";
}

static int show_links()
{
    const sim_state_t *state = s_cluster.state;
    for (uint32_t a = 0; a < state->node_num; a++) {
        for (uint32_t b = a + 1; b < state->node_num; b++)
            printf("%u-%u: %s\n", state->nodes[a], state->nodes[b], link_state(state, a, b));
    }
    return 0;
}

// What is set for the link between the first two words already, with addresses.
static sim_impaired_t impaired(const options_t &options)
{
    const sim_state_t *state = s_cluster.state;
    sim_impaired_t how = {node_word(options, 0), node_word(options, 1), 0, 0, 0, 0, 0};
    uint32_t a = sim_node_find(state, how.a);
    uint32_t b = sim_node_find(state, how.b);
    for (uint32_t i = 0; i < sim_load(&state->impaired_num); i++) {
        const sim_impaired_t *link = &state->impaired[i];
        if ((link->a != a || link->b != b) && (link->a != b || link->b != a))
            continue;
        how.delay = link->delay;
        how.jitter = link->jitter;
        how.loss = link->loss;
        how.congest = link->congest;
    }
    return how;
}

static int impair(const std::string &verb, const options_t &options)
{
    sim_impaired_t how = impaired(options);
    if (options.words.size() != (verb == "congest" ? 2 : 3))
        die(verb + (verb == "delay" ? " takes A B MS" : verb == "loss" ? " takes A B PERCENT" : " takes A B"));
    if (verb == "delay") {
        how.delay = (uint32_t)number(options.words[2], "the delay", 0, 3600000);
        how.jitter = (uint32_t)options.jitter;
    } else if (verb == "loss") {
        char *end = nullptr;
        double percent = strtod(options.words[2].c_str(), &end);
        if (options.words[2].empty() || *end != '\0' || !(percent >= 0 && percent <= 100))
            die("the loss is '" + options.words[2] + "'; it takes 0 to 100");
        how.loss = (uint32_t)(percent * 100 + 0.5);
    } else {
        how.congest = options.end ? 0 : 1;
    }
    ask(SIM_IMPAIR, 0, 0, 0, &how, sizeof(how));
    return 0;
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
    for (int tries = 0; tries < 5000 && access(s_cluster.dir, F_OK) == 0; tries++)
        (void)usleep(1000);
    if (access(s_cluster.dir, F_OK) == 0)
        fprintf(stderr, "tipcsim: %s is still in use\n", s_cluster.dir);
}

static options_t parse(int argc, char **argv);
static int command(const std::string &verb, const options_t &options);

// A command of a script, in a process of its own.
static int script_command(const words_t &words)
{
    words_t all = words;
    all.insert(all.begin(), "tipcsim");
    std::vector<char *> argv;
    for (std::string &word : all)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return command(words[0], parse((int)all.size(), argv.data()));
}

static int cluster(options_t options)
{
    if (options.command == nullptr)
        die("no command (tipcsim help)");
    options.cluster = std::to_string(getpid()) + "-" + std::to_string(time(nullptr));
    int lock = join_cluster(options);
    int keep = keep_cluster();
    (void)close(lock);
    s_cluster.state->rmem = (uint32_t)options.rmem;
    s_cluster.state->tolerance = (uint32_t)options.tolerance;
    std::ofstream list(in_cluster("files"));
    for (const std::string &file : options.files)
        list << file << "\n";
    list.close();
    if (!list)
        die("cannot write " + in_cluster("files"));
    start_broker();
    std::string nodes;
    for (long node = 1; node <= options.nodes; node++) {
        nodes += (nodes.empty() ? "" : " ") + std::to_string(node);
        make_node_files(options, std::to_string(node));
        (void)sim_node_index(s_cluster.state, (uint32_t)node);
    }
    (void)setenv("TIPCSIM_CLUSTER", s_cluster.dir, 1);
    (void)setenv("LAB", self().c_str(), 1);
    (void)setenv("LAB_RUN", s_cluster.dir, 1);
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
    record_end(&s_cluster);
    s_cluster.state->held = 0;
    start_broker(); // when there is none: it removes the folder
    (void)close(keep);
    (void)sim_ask_broker(&s_cluster, nullptr, SIM_HELLO, 0, 0, 0, nullptr, 0); // so that it looks at once
    wait_for_removal();
    int result = command_status(status);
    return script_failed && result == 0 ? 125 : result;
}

static options_t parse(int argc, char **argv)
{
    options_t options;
    for (int i = 2; i < argc; i++) {
        std::string word = argv[i];
        if (word == "--") {
            options.command = argv[i + 1] != nullptr ? argv + i + 1 : nullptr;
            return options;
        }
        if (word.rfind("--", 0) != 0) {
            options.words.push_back(word);
            continue;
        }
        if (word == "--one-way" || word == "--end") {
            (word == "--end" ? options.end : options.one_way) = true;
            continue;
        }
        if (++i == argc)
            die(word + " needs a value");
        std::string value = argv[i];
        if (word == "--cluster")
            options.cluster = value;
        else if (word == "--node")
            options.node = value;
        else if (word == "--nodes")
            options.nodes = number(value, "--nodes", 1, SIM_MAX_NODES);
        else if (word == "--rmem")
            options.rmem = number(value, "--rmem", 4096, 1L << 28);
        else if (word == "--tolerance")
            options.tolerance = number(value, "--tolerance", 0, 30000);
        else if (word == "--timeout")
            options.timeout = number(value, "--timeout", 1, 1000000);
        else if (word == "--jitter")
            options.jitter = number(value, "--jitter", 0, 3600000);
        else if (word == "--sends")
            options.sends = number(value, "--sends", 1, 1000000);
        else if (word == "--after")
            options.after = number(value, "--after", 0, 1000000);
        else if (word == "--seconds")
            options.seconds = number(value, "--seconds", 1, 1000000);
        else if (word == "--bytes")
            options.data = number(value, "--bytes", 0, SIM_MAX_DATA);
        else if (word == "--script")
            options.script = value;
        else if (word == "--pid")
            options.pid = value;
        else if (word == "--errno")
            options.err = value;
        else if (word == "--short")
            options.bytes = value;
        else if (word == "--return")
            options.code = value;
        else if (word == "--file") {
            char *whole = realpath(value.substr(value.find('=') + 1).c_str(), nullptr);
            if (value[0] != '/' || value.find('=') == std::string::npos || whole == nullptr)
                die("--file takes PATH=TEMPLATE, PATH absolute and TEMPLATE readable, not '" + value + "'");
            options.files.push_back(value.substr(0, value.find('=') + 1) + whole);
            free(whole);
        } else
            die("unknown option '" + word + "' (tipcsim help)");
    }
    return options;
}

static int run_script(const options_t &options)
{
    if (options.words.empty())
        die("script needs a file");
    open_cluster(options);
    (void)setenv("TIPCSIM_CLUSTER", s_cluster.dir, 1);
    return script_run(options.words[0], script_command);
}

static int record(const options_t &options, bool text)
{
    if (text && !options.words.empty())
        return show_file(options.words[0]);
    if (!text && options.words.empty())
        die("record needs a file");
    open_cluster(options);
    return record_messages(&s_cluster, self(),
                           {text ? "" : options.words[0], text, text ? 0 : options.data, options.seconds});
}

static int command(const std::string &verb, const options_t &options)
{
    open_cluster(options);
    if (verb == "cut" || verb == "heal") {
        ask(verb == "cut" ? SIM_CUT : SIM_HEAL, node_word(options, 0), other_node(options),
            options.one_way ? SIM_CUT_ONE_WAY : 0);
    } else if (verb == "node-down") {
        ask(SIM_NODE_DOWN, node_word(options, 0), 0, 0);
        signal_node(node_word(options, 0), SIGKILL);
    } else if (verb == "node-up") {
        ask(SIM_HEAL, node_word(options, 0), SIM_ANY_NODE, 0);
    } else if (verb == "kill") {
        each_chosen(options, [](pid_t pid) { (void)kill(pid, SIGKILL); });
    } else if (verb == "stall") {
        each_chosen(options, stall);
    } else if (verb == "resume") {
        each_chosen(options, [](pid_t pid) { (void)kill(pid, SIGCONT); });
    } else if (verb == "drop-topology") {
        ask(SIM_DROP, options.words.empty() ? SIM_ANY_NODE : node_word(options, 0), 0, 0);
    } else if (verb == "delay" || verb == "loss" || verb == "congest") {
        return impair(verb, options);
    } else if (verb == "fail") {
        return fail_sends(options);
    } else if (verb == "broker-stop") {
        return broker_stop();
    } else if (verb == "broker-start") {
        return broker_start();
    } else if (verb == "names") {
        return show_names();
    } else if (verb == "links") {
        return show_links();
    } else if (verb != "wait-links") { // a healed link is up at once
        fputs(USAGE, stderr);
        return 2;
    }
    return 0;
}

int main(int argc, char **argv)
{
    std::string verb = argc > 1 ? argv[1] : "help";
    if (verb == "help" || verb == "--help" || verb == "-h") {
        fputs(USAGE, stdout);
        return 0;
    }
    options_t options = parse(argc, argv);
    if (verb == "run")
        return run(options);
    if (verb == "exec")
        return exec_in(options);
    if (verb == "cluster")
        return cluster(options);
    if (verb == "broker")
        return broker_main(options.cluster.c_str(), !options.words.empty());
    if (verb == "script")
        return run_script(options);
    if (verb == "record" || verb == "show")
        return record(options, verb == "show");
    return command(verb, options);
}
