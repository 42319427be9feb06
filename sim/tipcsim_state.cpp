// What the launcher does with the state that the processes of a cluster share, and with its broker.
#include "tipcsim.h"
#include "tipcsim_processes.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <linux/tipc.h>
#include <poll.h>
#include <unistd.h>

#include "sim_files.h"
#include "sim_protocol.h"
#include "sim_sys.h"

static void ask(uint32_t op, uint32_t a, uint32_t b, uint32_t value, const void *data = nullptr, size_t size = 0)
{
    int ret = sim_ask_broker(&g_cluster, self().c_str(), op, a, b, value, data, size);
    if (ret == -ENOTCONN)
        die("no broker in " + std::string(g_cluster.dir) + ": " + strerror(-ret));
    if (ret < 0)
        die(std::string("the broker refuses: ") + strerror(-ret));
}

static void start_broker()
{
    ask(SIM_HELLO, 0, 0, 0);
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
        fault.node = sim_node_index(g_cluster.state, node_number(options.node, "--node"));
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
    g_cluster.state->held = 1;
    int fd = pid > 0 ? (int)sys_call(SYS_pidfd_open, pid, 0) : -1;
    if (fd < 0 || kill(pid, SIGKILL) != 0)
        die("no broker to stop");
    struct pollfd ended = {fd, POLLIN, 0}; // before its parent has waited for it, which may take long
    while (poll(&ended, 1, -1) < 0)
        continue;
    (void)close(fd);
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
    sim_state_t *state = g_cluster.state;
    std::vector<sim_name_t> names;
    for (uint32_t i = 1; i < sim_name_num(state); i++) {
        if (sim_load(&sim_name_at(state, i)->id) != 0)
            names.push_back(*sim_name_at(state, i));
    }
    std::sort(names.begin(), names.end(), [](const sim_name_t &a, const sim_name_t &b) { return a.id < b.id; });
    for (const sim_name_t &name : names) {
        printf("%u %u-%u %s node %u socket %u\n", name.type, name.lower, name.upper,
               name.scope == TIPC_NODE_SCOPE ? "node" : "cluster", sim_node_address(state, name.node), name.port);
    }
    return 0;
}

static const char *kind_of(const sim_socket_t *socket)
{
    switch (socket->type) {
    case SOCK_STREAM:
        return "stream";
    case SOCK_SEQPACKET:
        return "seqpacket";
    case SOCK_DGRAM:
        return "dgram";
    default:
        return "rdm";
    }
}

// One line a socket: what `ss --tipc` and `tipc socket list` print on a kernel.
static int show_sockets()
{
    static const char *const STATES[] = {"open", "listen", "connecting", "established", "disconnecting"};
    sim_state_t *state = g_cluster.state;
    for (uint32_t slot = 0; slot < sim_load(&state->socket_num); slot++) {
        sim_socket_t *socket = sim_socket_at(state, slot);
        if (sim_load(&socket->use) != SIM_SLOT_OPEN || socket->served != 0)
            continue;
        uint32_t num = 0;
        uint64_t charged = 0;
        uint32_t conn = sim_conn_state(socket);
        sim_queue_size(state, socket, &num, &charged);
        printf("%s %s node %u socket %u pid %d names %u unread %u bytes %llu", kind_of(socket),
               conn < sizeof(STATES) / sizeof(*STATES) ? STATES[conn] : "?", state->nodes[socket->node], socket->port,
               socket->pid, socket->published, num, (unsigned long long)charged);
        if (conn == SIM_CONN_ESTABLISHED)
            printf(" peer node %u socket %u", sim_node_address(state, sim_conn_node(socket)), sim_conn_peer(socket));
        printf("\n");
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
    const sim_state_t *state = g_cluster.state;
    for (uint32_t a = 0; a < sim_node_num(state); a++) {
        for (uint32_t b = a + 1; b < sim_node_num(state); b++)
            printf("%u-%u: %s\n", state->nodes[a], state->nodes[b], link_state(state, a, b));
    }
    return 0;
}

// What is set for the link between the first two words already, with addresses.
static sim_impaired_t impaired(const options_t &options)
{
    const sim_state_t *state = g_cluster.state;
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

// The bytes of an identity: 16 of them in hexadecimal digits, or fewer as they stand.
static std::string identity_of(const std::string &text)
{
    std::string bytes = text;
    if (text.size() == 2UL * SIM_IDENTITY_LEN) {
        bytes.clear();
        for (size_t i = 0; i < text.size(); i += 2)
            bytes.push_back((char)strtoul(text.substr(i, 2).c_str(), nullptr, 16));
    }
    bool digits = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (bytes.size() > SIM_IDENTITY_LEN || (text.size() == 2UL * SIM_IDENTITY_LEN && !digits))
        die("--identity " + text + ": it has up to 16 characters, or 32 hexadecimal digits");
    bytes.resize(SIM_IDENTITY_LEN);
    return bytes;
}

static void set_identity(uint32_t index, const std::string &text)
{
    sim_state_t *state = g_cluster.state;
    std::string bytes = identity_of(text);
    std::string first = "node" + std::to_string(state->nodes[index]);
    first.resize(SIM_IDENTITY_LEN);
    uint32_t num = sim_node_num(state);
    for (uint32_t i = 0; i < num; i++) {
        bool same = memcmp(state->identities[i], bytes.data(), SIM_IDENTITY_LEN) == 0;
        if (same && i == index)
            return;
        if (same)
            die("--identity " + text + ": node " + std::to_string(state->nodes[i]) + " has it");
    }
    if (memcmp(state->identities[index], first.data(), SIM_IDENTITY_LEN) != 0)
        die("--identity " + text + ": node " + std::to_string(state->nodes[index]) + " has another one");
    memcpy(state->identities[index], bytes.data(), SIM_IDENTITY_LEN);
}

void add_node(const options_t &options)
{
    uint32_t index = sim_node_index(g_cluster.state, node_number(options.node, "a node"));
    if (index == SIM_ANY_NODE)
        die("a cluster has at most " + std::to_string(SIM_MAX_NODES) + " nodes");
    if (!options.identity.empty())
        set_identity(index, options.identity);
}

void serve_cluster()
{
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

void look_at_end()
{
    (void)sim_ask_broker(&g_cluster, nullptr, SIM_HELLO, 0, 0, 0, nullptr, 0);
}

void lose_links(uint32_t node)
{
    ask(SIM_NODE_DOWN, node, 0, 0);
}

static uint32_t other_node(const options_t &options)
{
    return options.words.size() > 1 ? node_word(options, 1) : SIM_ANY_NODE;
}

bool state_command(const std::string &verb, const options_t &options, int *status)
{
    *status = 0;
    if (verb == "cut" || verb == "heal")
        ask(verb == "cut" ? SIM_CUT : SIM_HEAL, node_word(options, 0), other_node(options),
            options.one_way ? SIM_CUT_ONE_WAY : 0);
    else if (verb == "node-up")
        ask(SIM_HEAL, node_word(options, 0), SIM_ANY_NODE, 0);
    else if (verb == "drop-topology")
        ask(SIM_DROP, options.words.empty() ? SIM_ANY_NODE : node_word(options, 0), 0, 0);
    else if (verb == "delay" || verb == "loss" || verb == "congest")
        *status = impair(verb, options);
    else if (verb == "fail")
        *status = fail_sends(options);
    else if (verb == "broker-stop")
        *status = broker_stop();
    else if (verb == "broker-start")
        *status = broker_start();
    else if (verb == "names")
        *status = show_names();
    else if (verb == "sockets")
        *status = show_sockets();
    else if (verb == "links")
        *status = show_links();
    else if (verb != "wait-links") // a healed link is up at once
        return false;
    return true;
}
