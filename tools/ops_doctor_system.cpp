// What the doctor looks at of the node's system: TIPC, its links, the clock.
#include "ops_doctor.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/timex.h>
#include <sys/wait.h>
#include <unistd.h>

#include <platform/tipc_name.h>

constexpr int64_t TOOL_TIME = 2000; // ms for the program tipc
constexpr size_t TOOL_MAX = 1 << 20;

static const char NOT_SIMULATED[] = "not simulated";

bool ops_doctor_simulated()
{
    return getenv("TIPCSIM_CLUSTER") != nullptr && getenv("TIPCSIM_NODE") != nullptr;
}

static void add(ops_diagnoses_t *list, const char *area, ops_verdict_t verdict, const std::string &what,
                const std::string &type = "")
{
    list->push_back({area, verdict, what, type});
}

// The name that the node has in TIPC's network.
static void look_at_identity(ops_diagnoses_t *list, int sd)
{
    if (ops_doctor_simulated())
        return add(list, "identity", OPS_LEFT_OUT, NOT_SIMULATED);
    struct sockaddr_tipc addr = {};
    socklen_t len = sizeof(addr);
    if (getsockname(sd, (struct sockaddr *)&addr, &len) != 0)
        return add(list, "identity", OPS_DOUBTFUL, std::string("TIPC does not tell its node: ") + strerror(errno));
    if (addr.addr.id.node == 0)
        return add(list, "identity", OPS_WRONG, "the node has no identity in TIPC, and is in no network",
                   "tipc node set identity NAME, then tipc bearer enable media eth device eth0");
    struct tipc_sioc_nodeid_req request = {};
    request.peer = addr.addr.id.node;
    std::string name;
    if (ioctl(sd, SIOCGETNODEID, &request) == 0)
        name.assign(request.node_id, strnlen(request.node_id, sizeof(request.node_id)));
    char number[16];
    (void)snprintf(number, sizeof(number), "%x", addr.addr.id.node);
    add(list, "identity", OPS_GOOD, "TIPC node " + std::string(number) + (name.empty() ? "" : ", identity " + name));
}

void ops_doctor_tipc(ops_diagnoses_t *list)
{
    int sd = socket(AF_TIPC, SOCK_RDM | SOCK_CLOEXEC, 0);
    if (sd == -1) {
        bool none = errno == EAFNOSUPPORT;
        return add(list, "TIPC", OPS_WRONG,
                   none ? "the kernel has no TIPC" : std::string("no TIPC socket: ") + strerror(errno),
                   none ? "modprobe tipc" : "ulimit -n");
    }
    add(list, "TIPC", OPS_GOOD, ops_doctor_simulated() ? "simulated" : "the kernel has it");
    look_at_identity(list, sd);
    (void)close(sd);
}

static std::string read_pipe(int fd, pid_t pid, int *status)
{
    std::string text;
    int64_t deadline = ops_now() + TOOL_TIME;
    for (;;) {
        char part[4096];
        struct pollfd entry = {fd, POLLIN, 0};
        int64_t left = deadline - ops_now();
        if (left <= 0 || text.size() > TOOL_MAX) {
            (void)kill(pid, SIGKILL); // ours
            break;
        }
        if (poll(&entry, 1, (int)left) <= 0)
            continue;
        ssize_t len = read(fd, part, sizeof(part));
        if (len <= 0)
            break;
        text.append(part, (size_t)len);
    }
    while (waitpid(pid, status, 0) == -1 && errno == EINTR) {
        // until it has ended
    }
    return text;
}

// What `tipc ARG ARG` prints. False when it cannot be run, or fails, or takes too long.
static bool run_tool(const char *noun, const char *verb, std::string *text)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    (void)posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    (void)posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const char *const args[] = {"tipc", noun, verb, nullptr};
    pid_t pid = 0;
    int ret = posix_spawnp(&pid, args[0], &actions, nullptr, (char *const *)args, environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    (void)close(fds[1]);
    int status = -1;
    if (ret == 0)
        *text = read_pipe(fds[0], pid, &status);
    (void)close(fds[0]);
    return ret == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

static void look_at_bearers(ops_diagnoses_t *list)
{
    std::string text;
    if (!run_tool("bearer", "list", &text))
        return add(list, "bearers", OPS_LEFT_OUT, "the program tipc does not tell them", "apt-get install iproute2");
    std::string bearers;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.find(':') != std::string::npos)
            bearers += (bearers.empty() ? "" : ", ") + line;
    }
    if (bearers.empty())
        return add(list, "bearers", OPS_DOUBTFUL, "TIPC has no bearer: the node sees no other",
                   "tipc bearer enable media eth device eth0");
    add(list, "bearers", OPS_GOOD, bearers);
}

static void look_at_links(ops_diagnoses_t *list)
{
    std::string text;
    if (!run_tool("link", "list", &text))
        return add(list, "links", OPS_LEFT_OUT, "the program tipc does not tell them", "apt-get install iproute2");
    size_t up = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        size_t colon = line.rfind(": ");
        if (colon == std::string::npos || line.compare(0, 9, "broadcast") == 0)
            continue;
        if (line.compare(colon + 2, 2, "up") == 0)
            up++;
        else
            add(list, "links", OPS_WRONG, "link " + line, "tipc link statistics show");
    }
    if (up == 0)
        return add(list, "links", OPS_DOUBTFUL, "no link to another node is up",
                   "tipc node get netid, on both nodes: it must be the same");
    add(list, "links", OPS_GOOD, std::to_string(up) + " up");
}

void ops_doctor_links(ops_diagnoses_t *list)
{
    if (ops_doctor_simulated())
        return add(list, "links", OPS_LEFT_OUT, NOT_SIMULATED);
    look_at_bearers(list);
    look_at_links(list);
}

void ops_doctor_clock(ops_diagnoses_t *list)
{
    struct timex state = {};
    int ret = adjtimex(&state);
    if (ret == -1)
        return add(list, "clock", OPS_LEFT_OUT, std::string("the kernel does not tell its state: ") + strerror(errno));
    if (ret == TIME_ERROR || (state.status & STA_UNSYNC) != 0)
        return add(list, "clock", OPS_HINT,
                   "not synchronised: times in logs and events of several nodes cannot be compared",
                   "timedatectl set-ntp true");
    add(list, "clock", OPS_GOOD, "synchronised, at most " + std::to_string(state.maxerror / 1000) + " ms off");
}
