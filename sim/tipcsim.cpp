// The launcher. It starts processes on simulated nodes, makes a cluster for the length of a command, and orders faults.
// This file has its command line.
#include "tipcsim.h"
#include "tipcsim_processes.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

#include "broker.h"

static const char USAGE[] =
    R"(tipcsim run --node N [options] -- COMMAND [ARG...]      run COMMAND as a process of node N
  --cluster NAME        the cluster (default: the one that the caller runs in, else "default")
  --file PATH=TEMPLATE  give the node its own file PATH; @NODE@ in TEMPLATE is the node id (repeatable); without
                        TEMPLATE a copy of the host's file, if there is one
  --node-files PRESET   the same for each line PATH=TEMPLATE of a file; without a slash in its name one that is installed
                        (default: TIPCSIM_NODE_FILES)
  --identity TEXT       the node's identity: up to 16 characters, or 16 bytes as 32 hexadecimal digits (default nodeN)
  --force               run COMMAND even if the simulator's library cannot be loaded into it
tipcsim cluster [options] -- COMMAND [ARG...]           make a cluster, run COMMAND, remove the cluster
  --nodes N             name nodes 1 to N in LAB_NODES and make their files (default 1)
  --rmem BYTES          size of a socket's receive queue at importance 0 (default 2097152)
  --tolerance MS        time from a cut to the loss of the link (default 1500)
  --timeout S           end everything after S seconds, with status 124
  --script FILE         order faults at the times that FILE says (below) while COMMAND runs
  --virtual-time        the clock of all processes moves on at once when all of them wait
  --file PATH=TEMPLATE  as for run
  --node-files PRESET   as for run

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
tipcsim links | names | sockets | wait-links            print the links, the names or the sockets, as tipc and ss do on
                                                        a kernel; wait-links returns at once
tipcsim broker --cluster DIR                            run the broker; clients start it when they need it
)";

sim_cluster_t g_cluster;

[[noreturn]] void die(const std::string &text)
{
    fprintf(stderr, "tipcsim: %s\n", text.c_str());
    exit(125);
}

long number(const std::string &text, const char *what, long lowest, long highest)
{
    char *end = nullptr;
    errno = 0;
    long value = strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || value < lowest || value > highest)
        die(std::string(what) + " is '" + text + "'; it takes " + std::to_string(lowest) + " to " +
            std::to_string(highest));
    return value;
}

uint32_t node_number(const std::string &text, const char *what)
{
    unsigned zone = 0;
    unsigned cluster = 0;
    unsigned node = 0;
    char rest = '\0';
    if (sscanf(text.c_str(), "%3u.%4u.%4u%c", &zone, &cluster, &node, &rest) == 3 && zone > 0 && zone < 256 &&
        cluster < 4096 && node < 4096)
        return zone << 24 | cluster << 12 | node;
    return (uint32_t)number(text, what, 1, UINT32_MAX - 1L);
}

std::string self()
{
    char path[4096] = "";
    ssize_t len = readlink("/proc/self/exe", path, sizeof(path) - 1);
    return std::string(path, len > 0 ? (size_t)len : 0);
}

void make_folders(const std::string &path)
{
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
        (void)mkdir(path.substr(0, at).c_str(), 0700);
}

std::string in_cluster(const std::string &name)
{
    return std::string(g_cluster.dir) + "/" + name;
}

uint32_t node_word(const options_t &options, size_t index)
{
    if (options.words.size() <= index)
        die("a node is missing (tipcsim help)");
    return node_number(options.words[index], "a node");
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
        if (word == "--force" || word == "--virtual-time") {
            (word == "--force" ? options.force : options.virtual_time) = true;
            continue;
        }
        if (++i == argc)
            die(word + " needs a value");
        std::string value = argv[i];
        if (word == "--cluster")
            options.cluster = value;
        else if (word == "--node")
            options.node = value;
        else if (word == "--identity")
            options.identity = value;
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
        else if (word == "--file")
            options.files.push_back(file_option(value));
        else if (word == "--node-files") {
            words_t more = preset_files(value);
            options.preset_files.insert(options.preset_files.end(), more.begin(), more.end());
        } else
            die("unknown option '" + word + "' (tipcsim help)");
    }
    return options;
}

static int command(const std::string &verb, const options_t &options)
{
    open_cluster(options);
    int status = 0;
    if (state_command(verb, options, &status))
        return status;
    if (verb == "node-down") {
        lose_links(node_word(options, 0));
        kill_node(node_word(options, 0));
    } else if (verb == "kill") {
        kill_chosen(options);
    } else if (verb == "stall") {
        stall_chosen(options);
    } else if (verb == "resume") {
        resume_chosen(options);
    } else {
        fputs(USAGE, stderr);
        return 2;
    }
    return 0;
}

int script_command(const words_t &words)
{
    words_t all = words;
    all.insert(all.begin(), "tipcsim");
    std::vector<char *> argv;
    for (std::string &word : all)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return command(words[0], parse((int)all.size(), argv.data()));
}

static int run_script(const options_t &options)
{
    if (options.words.empty())
        die("script needs a file");
    open_cluster(options);
    (void)setenv("TIPCSIM_CLUSTER", g_cluster.dir, 1);
    return script_run(options.words[0], script_command);
}

static int record(const options_t &options, bool text)
{
    if (text && !options.words.empty())
        return show_file(options.words[0]);
    if (!text && options.words.empty())
        die("record needs a file");
    open_cluster(options);
    return record_messages(&g_cluster, self(),
                           {text ? "" : options.words[0], text, text ? 0 : options.data, options.seconds});
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
    if (verb == "broker") {
        tree_mark(TREE_SERVANT);
        return broker_main(options.cluster.c_str(), !options.words.empty());
    }
    if (verb == "script")
        return run_script(options);
    if (verb == "record" || verb == "show")
        return record(options, verb == "show");
    return command(verb, options);
}
