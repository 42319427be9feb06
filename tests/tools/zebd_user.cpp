// What the tests of zebd ask it with: a session, or bytes on its socket. Usage:
//   zebd_user count N                  asks until N instances have answered in full; how long that took
//   zebd_user view                     the instances
//   zebd_user stat APP NODE MS         what was answered, in a line
//   zebd_user follow                   events, until it is ended
//   zebd_user processes NODE PID
//   zebd_user log NODE PID OFFSET
//   zebd_user raw [FILE]               its input to the socket, and what comes to its output; reads when FILE is there
//   zebd_user flood NODE               as application 1, requests of all kinds to application 1 of NODE, for ever
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <platform/tipc_name.h>
#include <zeb/zeb.h>
#include <zeb/zeb_tlv.h>

#include "ops_session.h"
#include "ops_stat.h"

constexpr int64_t LONG = 30000; // ms

static int64_t number(char **argv, int at)
{
    return argv[at] == nullptr ? 0 : strtoll(argv[at], nullptr, 10);
}

static size_t whole_answers(ops_session_t *session, int64_t *took)
{
    std::vector<ops_seen_t> seen;
    std::vector<ops_request_t> requests;
    int64_t begin = ops_now();
    if (ops_session_view(session, &seen, begin + LONG) != 0)
        return 0;
    for (const ops_seen_t &one : seen) {
        requests.push_back(ops_request(one.inst, OPS_ASK_INFO));
        requests.push_back(ops_request(one.inst, OPS_ASK_STAT));
    }
    if (ops_session_ask(session, &requests, 2000) != 0)
        return 0;
    *took = ops_now() - begin;
    size_t whole = 0;
    for (size_t i = 0; i + 1 < requests.size(); i += 2) {
        const std::string &text = requests[i + 1].text;
        bool told = requests[i].outcome == OPS_ANSWERED && requests[i].info.pid != 0;
        whole += told && ops_stat_missing(ops_stat_parse(text.data(), text.size())).empty() ? 1 : 0;
    }
    return whole;
}

static int count(ops_session_t *session, size_t wanted)
{
    size_t whole = 0;
    for (int64_t deadline = ops_now() + LONG; ops_now() < deadline;) {
        int64_t took = 0;
        whole = whole_answers(session, &took);
        if (whole == wanted) {
            printf("%zu answered in %lld ms, by_zebd %d\n", whole, (long long)took, session->by_zebd ? 1 : 0);
            return 0;
        }
        (void)usleep(100000); // between two looks
    }
    printf("%zu answered, not %zu: %s\n", whole, wanted, session->why.c_str());
    return 1;
}

static int view(ops_session_t *session)
{
    std::vector<ops_seen_t> seen;
    int ret = ops_session_view(session, &seen, ops_now() + LONG);
    for (const ops_seen_t &one : seen)
        printf("%u@%u sockets %u\n", one.inst.app, one.inst.node, one.sockets);
    return ret;
}

static int counters(ops_session_t *session, char **argv)
{
    ops_inst_t inst = {(uint32_t)number(argv, 2), (uint32_t)number(argv, 3)};
    std::vector<ops_request_t> requests = {ops_request(inst, OPS_ASK_STAT)};
    int ret = ops_session_ask(session, &requests, number(argv, 4));
    ops_stat_t stat = ops_stat_parse(requests[0].text.data(), requests[0].text.size());
    printf("ret %d held %d outcome %d sent %u received %u %s %s\n", ret, session->held ? 1 : 0, requests[0].outcome,
           stat.send, stat.recv, requests[0].why.c_str(), ret == 0 ? "" : session->why.c_str());
    return ret == 0 && requests[0].outcome == OPS_ANSWERED ? 0 : 1;
}

static int follow(ops_session_t *session)
{
    static const char *const kinds[] = {"", "joined", "quit", "blocked", "unblocked", "lost"};
    ops_event_t event = {};
    for (;;) {
        int ret = ops_session_event(session, 0, &event, ops_now() + 1000);
        if (ret == 0)
            printf("%s %u@%u to %u@%u %d\n", kinds[event.kind], event.inst.app, event.inst.node, event.peer.app,
                   event.peer.node, event.unack);
        else if (ret != -ETIMEDOUT)
            printf("ret %d %s\n", ret, session->why.c_str());
        else
            printf("follows by_zebd %d\n", session->by_zebd ? 1 : 0);
        (void)fflush(stdout);
    }
}

static int processes(ops_session_t *session, char **argv)
{
    std::vector<ops_process_t> list;
    int ret = ops_session_processes(session, (uint32_t)number(argv, 2), {(int32_t)number(argv, 3)}, &list, 2000);
    for (const ops_process_t &process : list)
        printf("pid %d program %s started %d log %s bytes %lld\n", process.pid, process.program.c_str(),
               process.started != 0 ? 1 : 0, process.log.c_str(), (long long)process.log_bytes);
    printf("ret %d %s\n", ret, ret == 0 ? "" : session->why.c_str());
    return ret;
}

static int log_file(ops_session_t *session, char **argv)
{
    std::string text;
    int64_t next = 0;
    int ret = ops_session_log(session, (uint32_t)number(argv, 2), (int32_t)number(argv, 3), number(argv, 4), &text,
                              &next, 2000);
    printf("%s\nret %d next %lld %s\n", text.c_str(), ret, (long long)next, ret == 0 ? "" : session->why.c_str());
    return ret;
}

static int run(const std::string &how, char **argv)
{
    ops_session_t session;
    int ret = ops_session_open(&session, ops_now() + LONG);
    if (ret != 0) {
        printf("ret %d %s\n", ret, session.why.c_str());
        return 1;
    }
    if (how == "count")
        ret = count(&session, (size_t)number(argv, 2));
    else if (how == "view")
        ret = view(&session);
    else if (how == "stat")
        ret = counters(&session, argv);
    else if (how == "follow")
        ret = follow(&session);
    else
        ret = how == "log" ? log_file(&session, argv) : processes(&session, argv);
    ops_session_close(&session);
    return ret == 0 ? 0 : 1;
}

// Copies in both directions until the daemon closes. What it may not write at once is not waited for, once the daemon
// reads no more.
static int raw(const char *read_when)
{
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string path = ops_zebd_path();
    path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    int sd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(sd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
        printf("connect: %s\n", strerror(errno));
        return 1;
    }
    static char bytes[65536];
    for (ssize_t len = read(0, bytes, sizeof(bytes)); len > 0; len = read(0, bytes, sizeof(bytes))) {
        if (send(sd, bytes, (size_t)len, MSG_NOSIGNAL) != len)
            break;
    }
    while (read_when != nullptr && access(read_when, F_OK) != 0)
        (void)usleep(10000);
    for (ssize_t len = recv(sd, bytes, sizeof(bytes), 0); len > 0; len = recv(sd, bytes, sizeof(bytes), 0)) {
        (void)!write(1, bytes, (size_t)len);
    }
    return 0;
}

static int flood(uint32_t to)
{
    static const char *const bodies[] = {R"({"type":"log","pid":1,"offset":-1000})",
                                         R"({"type":"processes","pids":[1]})", "{", "[[[[", ""};
    static const uint8_t flags[] = {0, 2, 6, 8, 10, 14, 1, 255};
    static const uint32_t versions[] = {0, 1, 7101, 0xFFFFFFFF};
    auto node = (uint32_t)zeb_get_my_node_id();
    int sd = socket(AF_TIPC, SOCK_RDM, 0);
    struct sockaddr_tipc own = tipc_name(OPS_NAME_TYPE, ops_name_of({ZEBD_APP_ID, node}), TIPC_CLUSTER_SCOPE);
    struct sockaddr_tipc addr = tipc_name(OPS_NAME_TYPE, ops_name_of({ZEBD_APP_ID, to}), TIPC_CLUSTER_SCOPE);
    if (bind(sd, (struct sockaddr *)&own, sizeof(own)) != 0)
        return 1;
    for (uint32_t i = 0;; i++) {
        const char *body = bodies[i % 5];
        zeb_msg_t *msg = zeb_msg_alloc((int)strlen(body), versions[i / 5 % 4], 0);
        (void)std::string(body).copy((char *)msg->data, strlen(body));
        zeb_encode_msg_hdr(msg, flags[i / 20 % 8], ZEBD_APP_ID, node, ZEBD_APP_ID, to, i, 0);
        uint32_t len = msg->hdr.len - (i % 7 == 0 ? 3 : 0);
        zeb_convert_to_network(msg);
        (void)sendto(sd, &msg->hdr, len, MSG_DONTWAIT, (struct sockaddr *)&addr, sizeof(addr));
        free(msg);
        while (recv(sd, &own, sizeof(own), MSG_DONTWAIT) >= 0) { // what is answered
        }
        if (i % 64 == 0)
            (void)usleep(1000);
    }
}

int main(int argc, char **argv)
{
    std::string how = argc > 1 ? argv[1] : "";
    if (how == "raw")
        return raw(argv[2]);
    return how == "flood" ? flood((uint32_t)number(argv, 2)) : run(how, argv);
}
