// The probe's commands for the less usual calls: vectors, many messages at once, bad pointers, ioctl, epoll, signals.
#include "probe_verbs.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <linux/tipc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

// writev S NUMBER LENGTH PIECES: one message of a connected socket, in pieces of nearly the same length.
static std::string do_writev(const words &w)
{
    bytes data = message(number(w.at(2)), number(w.at(3)));
    size_t count = number(w.at(4));
    std::vector<struct iovec> pieces;
    for (size_t i = 0, at = 0; i < count; i++) {
        size_t len = i + 1 == count ? data.size() - at : data.size() / count;
        pieces.push_back({data.data() + at, len});
        at += len;
    }
    return result(writev(sd_of(w), pieces.data(), (int)count));
}

// readv S LENGTH...
static std::string do_readv(const words &w)
{
    size_t total = 0;
    std::vector<size_t> lengths;
    for (size_t i = 2; i < w.size(); i++) {
        lengths.push_back(number(w[i]));
        total += lengths.back();
    }
    bytes data(total);
    std::vector<struct iovec> pieces;
    total = 0;
    for (size_t len : lengths) {
        pieces.push_back({data.data() + total, len});
        total += len;
    }
    ssize_t got = readv(sd_of(w), pieces.data(), (int)pieces.size());
    return got < 0 ? result(-1) : str(got) + described(data.data(), (size_t)got, "");
}

// zero S read|recv|readv|write|writev: the call with no bytes.
static std::string no_bytes(const words &w)
{
    int sd = sd_of(w);
    char byte = 0;
    struct iovec none = {&byte, 0};
    if (w.at(2) == "read")
        return result(read(sd, &byte, 0));
    if (w[2] == "recv")
        return result(recv(sd, &byte, 0, MSG_DONTWAIT));
    if (w[2] == "readv")
        return result(readv(sd, &none, 1));
    return result(w[2] == "write" ? write(sd, &byte, 0) : writev(sd, &none, 0));
}

// sendmmsg S ADDR NUMBER COUNT [bad=INDEX ADDR2]: the message INDEX goes to the last word's address. Answers the
// result, and the lengths that the call has noted.
static std::string do_sendmmsg(const words &w)
{
    size_t count = number(w.at(4));
    struct sockaddr_tipc to = address(w.at(2));
    struct sockaddr_tipc other = address(w.back());
    std::vector<bytes> data;
    std::vector<struct iovec> pieces(count);
    std::vector<struct mmsghdr> many(count);
    for (size_t i = 0; i < count; i++)
        data.push_back(message(number(w.at(3)) + (uint32_t)i, 10 + i));
    for (size_t i = 0; i < count; i++) {
        memset(&many[i], 0, sizeof(many[i]));
        pieces[i] = {data[i].data(), data[i].size()};
        many[i].msg_hdr.msg_iov = &pieces[i];
        many[i].msg_hdr.msg_iovlen = 1;
        many[i].msg_hdr.msg_name = option(w, "bad", -1) == (long)i ? &other : &to;
        many[i].msg_hdr.msg_namelen = sizeof(to);
    }
    int sent = sendmmsg(sd_of(w), many.data(), (unsigned)count, MSG_NOSIGNAL);
    std::string text = result(sent);
    for (int i = 0; i < sent; i++)
        text += " len=" + str(many[(size_t)i].msg_len);
    return text;
}

// recvmmsg S COUNT
static std::string do_recvmmsg(const words &w)
{
    size_t count = number(w.at(2));
    std::vector<bytes> data(count, bytes(1000));
    std::vector<struct iovec> pieces(count);
    std::vector<struct sockaddr_tipc> from(count);
    std::vector<struct mmsghdr> many(count);
    for (size_t i = 0; i < count; i++) {
        memset(&many[i], 0, sizeof(many[i]));
        pieces[i] = {data[i].data(), data[i].size()};
        many[i].msg_hdr.msg_iov = &pieces[i];
        many[i].msg_hdr.msg_iovlen = 1;
        many[i].msg_hdr.msg_name = &from[i];
        many[i].msg_hdr.msg_namelen = sizeof(from[i]);
    }
    int got = recvmmsg(sd_of(w), many.data(), (unsigned)count, MSG_DONTWAIT, nullptr);
    std::string text = result(got);
    for (size_t i = 0; got > 0 && i < (size_t)got; i++)
        text += " len=" + str(many[i].msg_len) + described(data[i].data(), many[i].msg_len, "") +
                " from=" + id_text(from[i].addr.id) + " fromlen=" + str(many[i].msg_hdr.msg_namelen);
    return text;
}

// Where no memory is.
static struct sockaddr *const NOWHERE = (struct sockaddr *)8;

using fault_table = std::map<std::string, std::function<ssize_t(int sd, struct sockaddr *to)>>;

static const socklen_t ADDRESS = sizeof(struct sockaddr_tipc);

static fault_table message_faults()
{
    static char data[100];
    static socklen_t len = ADDRESS;
    return {
        {"recv", [](int sd, struct sockaddr *) { return recv(sd, NOWHERE, 100, MSG_DONTWAIT); }},
        {"recvmsg", [](int sd, struct sockaddr *) { return recvmsg(sd, (struct msghdr *)NOWHERE, MSG_DONTWAIT); }},
        {"recvfrom",
         [](int sd, struct sockaddr *) { return recvfrom(sd, data, sizeof(data), MSG_DONTWAIT, NOWHERE, &len); }},
        {"recvfrom_len",
         [](int sd, struct sockaddr *to) { return recvfrom(sd, data, sizeof(data), MSG_DONTWAIT, to, nullptr); }},
        {"data", [](int sd, struct sockaddr *to) { return sendto(sd, NOWHERE, 10, 0, to, ADDRESS); }},
        {"sendto", [](int sd, struct sockaddr *) { return sendto(sd, data, 1, 0, NOWHERE, ADDRESS); }},
        {"sendmsg", [](int sd, struct sockaddr *) { return sendmsg(sd, (struct msghdr *)NOWHERE, 0); }},
    };
}

static fault_table socket_faults()
{
    static int value;
    static socklen_t len = sizeof(value);
    static socklen_t name_len = ADDRESS;
    return {
        {"bind", [](int sd, struct sockaddr *) { return bind(sd, NOWHERE, ADDRESS); }},
        {"bind_null", [](int sd, struct sockaddr *) { return bind(sd, nullptr, ADDRESS); }},
        {"connect", [](int sd, struct sockaddr *) { return connect(sd, NOWHERE, ADDRESS); }},
        {"name", [](int sd, struct sockaddr *) { return getsockname(sd, NOWHERE, &name_len); }},
        {"name_len", [](int sd, struct sockaddr *to) { return getsockname(sd, to, nullptr); }},
        {"setopt",
         [](int sd, struct sockaddr *) { return setsockopt(sd, SOL_TIPC, TIPC_IMPORTANCE, NOWHERE, sizeof(value)); }},
        {"getopt", [](int sd, struct sockaddr *) { return getsockopt(sd, SOL_TIPC, TIPC_IMPORTANCE, NOWHERE, &len); }},
        {"getopt_len",
         [](int sd, struct sockaddr *) { return getsockopt(sd, SOL_TIPC, TIPC_IMPORTANCE, &value, nullptr); }},
        {"nodeid", [](int sd, struct sockaddr *) { return ioctl(sd, SIOCGETNODEID, NOWHERE); }},
        {"linkname", [](int sd, struct sockaddr *) { return ioctl(sd, SIOCGETLINKNAME, NOWHERE); }},
    };
}

// fault S CALL ADDR: the call with a pointer to nowhere, or none where one is needed.
static std::string fault(const words &w)
{
    struct sockaddr_tipc to = address(w.at(3));
    for (const fault_table &table : {message_faults(), socket_faults()}) {
        auto call = table.find(w.at(2));
        if (call != table.end())
            return result(call->second(sd_of(w), (struct sockaddr *)&to));
    }
    return "unknown";
}

// fresh S recv|recvfrom|nodeid: the call with its arguments in memory that no call has used before, and how many bytes
// of the rest are not as they were.
static std::string fresh(const words &w)
{
    constexpr size_t PAGE = 4096;
    constexpr uint8_t FILL = 'z';
    void *memory = mmap(nullptr, 2 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return "no memory";
    memset(memory, FILL, 2 * PAGE);
    auto *first = (uint8_t *)memory;
    uint8_t *second = first + PAGE;
    size_t used = 0; // bytes of the second page, at its begin
    std::string text;
    if (w.at(2) == "recv") {
        text = result(recv(sd_of(w), second, PAGE, MSG_DONTWAIT));
    } else if (w[2] == "recvfrom") {
        auto *len = (socklen_t *)first;
        *len = used = sizeof(struct sockaddr_tipc);
        char data[100];
        text = result(recvfrom(sd_of(w), data, sizeof(data), MSG_DONTWAIT, (struct sockaddr *)second, len));
        text += " fromlen=" + str(*len);
    } else {
        struct sockaddr_tipc own;
        socklen_t len = sizeof(own);
        (void)getsockname(sd_of(w), (struct sockaddr *)&own, &len);
        used = sizeof(struct tipc_sioc_nodeid_req);
        memcpy(second, &own.addr.id.node, sizeof(own.addr.id.node));
        text = result(ioctl(sd_of(w), SIOCGETNODEID, second));
    }
    auto changed = PAGE - used - (size_t)std::count(second + used, second + PAGE, FILL);
    return text + " changed=" + str(changed);
}

// ioctl S NUMBER
static std::string do_ioctl(const words &w)
{
    char data[256] = "";
    return result(ioctl(sd_of(w), number(w.at(2)), data));
}

// nodeid S NODE
static std::string node_id(const words &w)
{
    struct tipc_sioc_nodeid_req request;
    memset(&request, 0, sizeof(request));
    request.peer = number(w.at(2));
    if (ioctl(sd_of(w), SIOCGETNODEID, &request) != 0)
        return result(-1);
    return "0 id=" + std::string(request.node_id, strnlen(request.node_id, sizeof(request.node_id)));
}

// linkname S NODE BEARER
static std::string link_name(const words &w)
{
    struct tipc_sioc_ln_req request;
    memset(&request, 0, sizeof(request));
    request.peer = number(w.at(2));
    request.bearer_id = number(w.at(3));
    if (ioctl(sd_of(w), SIOCGETLINKNAME, &request) != 0)
        return result(-1);
    return "0 link=" + std::string(request.linkname, strnlen(request.linkname, sizeof(request.linkname)));
}

static int s_epoll = -1;

// epoll S [et] [oneshot] [in]: a new epoll descriptor that watches S alone, for all events or for EPOLLIN.
static std::string watch_socket(const words &w)
{
    if (s_epoll >= 0)
        (void)close(s_epoll);
    s_epoll = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event event;
    memset(&event, 0, sizeof(event));
    event.events = EPOLLIN;
    event.events |= has(w, "et") ? (uint32_t)EPOLLET : 0U;
    event.events |= has(w, "oneshot") ? (uint32_t)EPOLLONESHOT : 0U;
    event.events |= has(w, "in") ? 0U : (uint32_t)(EPOLLOUT | EPOLLRDHUP | EPOLLPRI);
    return result(epoll_ctl(s_epoll, EPOLL_CTL_ADD, sd_of(w), &event));
}

// events [wait=MS]
static std::string wait_events(const words &w)
{
    struct epoll_event event;
    memset(&event, 0, sizeof(event));
    int count = epoll_wait(s_epoll, &event, 1, (int)option(w, "wait", 0));
    if (count <= 0)
        return count == 0 ? "none" : result(-1);
    std::string text;
    text += (event.events & EPOLLIN) != 0 ? "in " : "";
    text += (event.events & EPOLLOUT) != 0 ? "out " : "";
    text += (event.events & EPOLLRDHUP) != 0 ? "rdhup " : "";
    text += (event.events & EPOLLHUP) != 0 ? "hup " : "";
    text += (event.events & EPOLLERR) != 0 ? "err " : "";
    return text.substr(0, text.size() - 1);
}

// timeout S receive|send MS: sets it, and answers what is read back.
static std::string set_timeout(const words &w)
{
    int name = w.at(2) == "send" ? SO_SNDTIMEO : SO_RCVTIMEO;
    long ms = strtol(w.at(3).c_str(), nullptr, 10);
    struct timeval value = {ms / 1000, ms % 1000 * 1000};
    if (setsockopt(sd_of(w), SOL_SOCKET, name, &value, sizeof(value)) != 0)
        return result(-1);
    socklen_t len = sizeof(value);
    if (getsockopt(sd_of(w), SOL_SOCKET, name, &value, &len) != 0)
        return result(-1);
    return str(value.tv_sec * 1000 + value.tv_usec / 1000) + " " + str(len);
}

static volatile sig_atomic_t s_signals;
static int s_sender;
static struct sockaddr_tipc s_receiver;

static void on_signal(int)
{
    int keep_errno = errno;
    if (++s_signals == 3 && s_sender >= 0)
        (void)sendto(s_sender, "late", 4, MSG_DONTWAIT, (struct sockaddr *)&s_receiver, sizeof(s_receiver));
    errno = keep_errno;
}

// interrupted S recv|accept|connect|send restart|plain SENDER ADDR: a blocking call while SIGALRM comes every few
// milliseconds. The third signal's handler sends a message of 4 bytes from SENDER, when that is not none. Answers the
// call's result, and whether there were three signals.
static std::string interrupted(const words &w)
{
    int sd = sd_of(w);
    s_signals = 0;
    s_sender = sd_named(w.at(4));
    s_receiver = address(w.at(5));
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_signal;
    action.sa_flags = w.at(3) == "restart" ? SA_RESTART : 0;
    struct sigaction before;
    (void)sigaction(SIGALRM, &action, &before);
    struct itimerval period = {{0, 10000}, {0, 10000}};
    struct itimerval off = {{0, 0}, {0, 0}};
    static char data[66000];
    (void)setitimer(ITIMER_REAL, &period, nullptr);
    ssize_t ret = -1;
    if (w.at(2) == "recv")
        ret = recv(sd, data, sizeof(data), 0);
    else if (w[2] == "accept")
        ret = accept(sd, nullptr, nullptr);
    else if (w[2] == "connect")
        ret = connect(sd, (struct sockaddr *)&s_receiver, sizeof(s_receiver));
    else
        ret = send(sd, data, sizeof(data), MSG_NOSIGNAL);
    int error = errno;
    (void)setitimer(ITIMER_REAL, &off, nullptr);
    (void)sigaction(SIGALRM, &before, nullptr);
    errno = error;
    return result(ret) + (s_signals >= 3 ? " signals=many" : " signals=few");
}

// errno S ADDR: calls that succeed, S being bound to ADDR and empty. Names the first that changes errno.
static std::string keeps_errno(const words &w)
{
    int sd = sd_of(w);
    struct sockaddr_tipc to = address(w.at(2));
    struct sockaddr *addr = (struct sockaddr *)&to;
    socklen_t len = sizeof(to);
    char data[10] = "";
    struct pollfd fd = {sd, POLLIN, 0};
    errno = 77;
    if (sendto(sd, "x", 1, 0, addr, len) != 1 || errno != 77)
        return "sendto " + str(errno);
    if (poll(&fd, 1, 10000) != 1 || errno != 77)
        return "poll " + str(errno);
    if (recv(sd, data, sizeof(data), 0) != 1 || errno != 77)
        return "recv " + str(errno);
    if (getsockname(sd, addr, &len) != 0 || errno != 77)
        return "getsockname " + str(errno);
    int fresh = socket(AF_TIPC, SOCK_RDM, 0);
    if (fresh < 0 || close(fresh) != 0 || errno != 77)
        return "socket " + str(errno);
    return "0";
}

static volatile sig_atomic_t s_pipes;

static void on_pipe(int)
{
    s_pipes = 1;
}

// pipesend S send|write: without MSG_NOSIGNAL. Says whether SIGPIPE came.
static std::string send_with_sigpipe(const words &w)
{
    s_pipes = 0;
    void (*before)(int) = signal(SIGPIPE, on_pipe);
    ssize_t ret = w.at(2) == "write" ? write(sd_of(w), "x", 1) : send(sd_of(w), "x", 1, 0);
    std::string text = result(ret);
    (void)signal(SIGPIPE, before);
    return text + (s_pipes != 0 ? " sigpipe" : " quiet");
}

verb_table call_verbs()
{
    return {{"writev", do_writev},
            {"readv", do_readv},
            {"zero", no_bytes},
            {"sendmmsg", do_sendmmsg},
            {"recvmmsg", do_recvmmsg},
            {"fault", fault},
            {"ioctl", do_ioctl},
            {"nodeid", node_id},
            {"linkname", link_name},
            {"epoll", watch_socket},
            {"events", wait_events},
            {"timeout", set_timeout},
            {"interrupted", interrupted},
            {"errno", keeps_errno},
            {"pipesend", send_with_sigpipe},
            {"fresh", fresh}};
}
