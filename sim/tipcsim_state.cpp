// What the launcher does with the state that the processes of a cluster share, and with its broker.
#include "tipcsim.h"
#include "tipcsim_processes.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <linux/tipc.h>
#include <unistd.h>

#include "sim_files.h"
#include "sim_protocol.h"
#include "sim_queue.h"

static int connect_broker()
{
    int fd = sim_broker_connect(&g_cluster, self().c_str());
    if (fd < 0)
        die("no broker in " + std::string(g_cluster.dir) + ": " + strerror(-fd));
    return fd;
}

static void start_broker()
{
    (void)close(connect_broker());
}

static void ask(uint32_t op, uint32_t a, uint32_t b, uint32_t value)
{
    int fd = connect_broker();
    sim_request_t request = {SIM_MAGIC, op, 0, a, b, value};
    int ret = sim_broker_ask(fd, &request, nullptr, 0);
    if (ret != 0)
        die(std::string("the broker refuses: ") + strerror(-ret));
    (void)close(fd);
}

static bool is_thread_of(pid_t pid, pid_t thread)
{
    std::string task = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(thread);
    return thread != 0 && access(task.c_str(), F_OK) == 0;
}

bool holds_a_lock(pid_t pid)
{
    bool holds = is_thread_of(pid, sim_mutex_holder(&g_cluster.state->mutex));
    sim_each_file(g_cluster.dir, "s.", [&holds, pid](const std::string &name) {
        sim_queue_t queue;
        if (holds || sim_queue_open(&queue, g_cluster.dir, (uint32_t)atol(name.c_str() + 2)) != 0)
            return;
        holds = is_thread_of(pid, sim_mutex_holder(&queue.socket->mutex));
        sim_queue_unmap(&queue);
    });
    return holds;
}

static int fail_sends(const options_t &options)
{
    sim_fault_t fault = {};
    fault.left = (int32_t)options.sends;
    fault.pid = pid_option(options);
    if (fault.pid == 0)
        fault.node = sim_node_index(g_cluster.state, (uint32_t)number(options.node, "--node", 1, 65535));
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
    sim_state_t *state = g_cluster.state;
    sim_guard_s guard(&state->mutex);
    uint32_t at = 0;
    while (at < state->fault_num && state->faults[at].left > 0)
        at++;
    if (at == SIM_MAX_FAULTS)
        die("too many faults at once");
    state->faults[at] = fault;
    if (at == state->fault_num)
        __atomic_store_n(&state->fault_num, at + 1, __ATOMIC_RELAXED);
    return 0;
}

static int broker_stop()
{
    pid_t pid = 0;
    std::ifstream(in_cluster("broker.pid")) >> pid;
    g_cluster.state->held = 1;
    if (pid <= 0 || kill(pid, SIGKILL) != 0)
        die("no broker to stop");
    while (kill(pid, 0) == 0)
        (void)usleep(1000);
    return 0;
}

static int broker_start()
{
    g_cluster.state->held = 0;
    start_broker();
    return 0;
}

static int show_names()
{
    const sim_state_t *state = g_cluster.state;
    for (uint32_t i = 0; i < state->name_num; i++) {
        const sim_name_t &name = state->names[i];
        printf("%u %u-%u %s node %u socket %u\n", name.type, name.lower, name.upper,
               name.scope == TIPC_NODE_SCOPE ? "node" : "cluster", state->nodes[name.node], name.port);
    }
    return 0;
}

static int show_links()
{
    const sim_state_t *state = g_cluster.state;
    for (uint32_t a = 0; a < state->node_num; a++) {
        for (uint32_t b = a + 1; b < state->node_num; b++)
            printf("%u-%u: %s\n", state->nodes[a], state->nodes[b],
                   sim_linked(state->down, a, b) ? (sim_linked(state->cut, a, b) ? "up" : "cut") : "down");
    }
    return 0;
}

void add_node(const std::string &node)
{
    if (sim_node_index(g_cluster.state, (uint32_t)number(node, "a node", 1, 65535)) == SIM_ANY_NODE)
        die("a cluster has at most " + std::to_string(SIM_MAX_NODES) + " nodes");
    if (g_cluster.state->held == 0) // the broker removes the cluster, even when the command never opens a socket
        start_broker();
}

void begin_cluster(const options_t &options)
{
    g_cluster.state->rmem = (uint32_t)options.rmem;
    g_cluster.state->tolerance = (uint32_t)options.tolerance;
    start_broker();
    for (long node = 1; node <= options.nodes; node++)
        (void)sim_node_index(g_cluster.state, (uint32_t)node);
}

void end_cluster()
{
    g_cluster.state->held = 0;
    start_broker(); // when there is none: it removes the folder
}

void lose_links(uint32_t node)
{
    ask(SIM_CUT, node, SIM_ANY_NODE, 1);
}

static uint32_t other_node(const options_t &options)
{
    return options.words.size() > 1 ? node_word(options, 1) : SIM_ANY_NODE;
}

static int delay_link(const options_t &options)
{
    if (options.words.size() != 3)
        die("delay takes A B MS");
    ask(SIM_DELAY, node_word(options, 0), node_word(options, 1),
        (uint32_t)number(options.words[2], "the delay", 0, 3600000));
    return 0;
}

bool state_command(const std::string &verb, const options_t &options, int *status)
{
    *status = 0;
    if (verb == "cut" || verb == "heal")
        ask(verb == "cut" ? SIM_CUT : SIM_HEAL, node_word(options, 0), other_node(options), 0);
    else if (verb == "node-up")
        ask(SIM_HEAL, node_word(options, 0), SIM_ANY_NODE, 0);
    else if (verb == "drop-topology")
        ask(SIM_DROP, options.words.empty() ? SIM_ANY_NODE : node_word(options, 0), 0, 0);
    else if (verb == "delay")
        *status = delay_link(options);
    else if (verb == "fail")
        *status = fail_sends(options);
    else if (verb == "broker-stop")
        *status = broker_stop();
    else if (verb == "broker-start")
        *status = broker_start();
    else if (verb == "names")
        *status = show_names();
    else if (verb == "links")
        *status = show_links();
    else if (verb != "wait-links") // a healed link is up at once
        return false;
    return true;
}
