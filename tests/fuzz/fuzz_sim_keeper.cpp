// The keeper: what clients send it, with descriptors and without, and brokers that end.
#include <sys/socket.h>

#include "fuzz_sim.h"

#include "keeper.cpp" // NOLINT(bugprone-suspicious-include): with the functions that are its own

using fuzz_sim::below;
using fuzz_sim::input_t;
using fuzz_sim::number;
using fuzz_sim::require;

static input_t s_input;

static int some_descriptor() // a marked one, as programs send it, or another
{
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (below(&s_input, 4) != 0)
        (void)sys_fcntl(fd, F_SETSIG, SIM_MARK);
    return fd;
}

static void send_request(int to)
{
    sim_request_t requests[2] = {};
    sim_request_t *request = &requests[0];
    uint32_t how = below(&s_input, 256);
    uint32_t num = how % 8 < 5 ? how % 8 % 2 : how % 8 - 4; // of descriptors: none or one, or up to three
    *request = {how < 250 ? SIM_MAGIC : 0, SIM_KEEP + below(&s_input, 6), {}, 1, number(&s_input, 4), 0, 0};
    if (how % 16 != 15)
        memcpy(request->secret, s_keeper.cluster.state->secret, SIM_SECRET_LEN);
    if (request->op == SIM_GROW)
        request->a %= SIM_AREAS + 2;
    size_t len = how == 40 ? below(&s_input, sizeof(requests)) : sizeof(*request);
    struct iovec part = {requests, len};
    alignas(struct cmsghdr) uint8_t control[CMSG_SPACE(3 * sizeof(int))] = {};
    int fds[3];
    for (uint32_t i = 0; i < num; i++)
        fds[i] = some_descriptor();
    struct msghdr msg = {};
    msg.msg_iov = &part;
    msg.msg_iovlen = 1;
    if (num != 0) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(num * sizeof(int));
        struct cmsghdr *head = CMSG_FIRSTHDR(&msg);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(num * sizeof(int));
        memcpy(CMSG_DATA(head), fds, num * sizeof(int));
    }
    (void)sys_sendmsg(to, &msg, MSG_NOSIGNAL);
    for (uint32_t i = 0; i < num; i++)
        (void)close(fds[i]);
}

static int open_descriptors() // the lowest free one shows whether all were closed
{
    int fd = dup(0);
    (void)close(fd);
    return fd;
}

static void ask()
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    send_request(ends[1]);
    (void)read_conn(ends[0]);
    (void)close(ends[1]);
}

static void forget_kept()
{
    for (int &kept : s_keeper.kept) {
        if (kept > 0)
            (void)close(kept);
        kept = -1;
    }
    if (s_keeper.broker_fd > 0)
        (void)close(s_keeper.broker_fd);
    s_keeper.broker_fd = -1;
    s_keeper.broker = 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_sim::reset();
    if (s_keeper.epoll == 0) {
        (void)dup2(fuzz_sim::g_file, KEEPER_STATE);
        s_keeper.epoll = epoll_create1(EPOLL_CLOEXEC);
        std::fill_n(s_keeper.kept, SIM_MAX_SOCKETS, -1);
        s_keeper.broker_fd = -1;
    }
    s_keeper.cluster = fuzz_sim::g_cluster;
    s_keeper.self = {&s_keeper.cluster, 2, grow, wake_socket};
    s_keeper.limit = 1000;
    s_input = {data, size};
    int first = open_descriptors();
    while (s_input.left != 0) {
        if (below(&s_input, 8) == 0)
            s_keeper.cluster.state->broker = (int32_t)number(&s_input, 2);
        else
            ask();
    }
    forget_kept();
    require(open_descriptors() == first);
    return 0;
}
