// Makes the system calls on sockets that its standard input names, one line each, and answers each with one line, `done
// VERB RESULT`. The result of a failed call is the name of its errno. The program judges nothing.
//   S is a socket's name. ADDR is an address as probe_text.h writes it, or none.
#include "probe_verbs.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <arpa/inet.h>
#include <iostream>
#include <linux/tipc.h>
#include <map>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

static std::map<std::string, int> s_sockets;
static pid_t s_child = -1;

int sd_named(const std::string &name)
{
    auto it = s_sockets.find(name);
    return it == s_sockets.end() ? -1 : it->second;
}

int sd_of(const words &w)
{
    return sd_named(w.size() > 1 ? w[1] : "");
}

void keep(const std::string &name, int sd)
{
    if (sd >= 0)
        s_sockets[name] = sd;
    else
        s_sockets.erase(name);
}

int type_named(const std::string &name)
{
    static const std::map<std::string, int> types = {
        {"rdm", SOCK_RDM}, {"seqpacket", SOCK_SEQPACKET}, {"dgram", SOCK_DGRAM}, {"stream", SOCK_STREAM}};
    return types.at(name);
}

static std::string open_socket(const words &w)
{
    int sd = socket(AF_TIPC, type_named(w.at(2)) | SOCK_CLOEXEC, 0);
    if (sd < 0)
        return result(-1);
    s_sockets[w[1]] = sd;
    return "0";
}

static std::string close_socket(const words &w)
{
    int sd = sd_of(w);
    s_sockets.erase(w.at(1));
    return result(close(sd));
}

// bind S ADDR SCOPE [len=BYTES]
static std::string bind_name(const words &w)
{
    struct sockaddr_tipc addr[9] = {address(w.at(2))}; // room for the longest length that the kernel takes, and more
    addr[0].scope = (signed char)atoi(w.at(3).c_str());
    bool none = w[2] == "none";
    socklen_t len = (socklen_t)option(w, "len", none ? 0 : sizeof(addr[0]));
    return result(bind(sd_of(w), none ? nullptr : (struct sockaddr *)addr, len));
}

// bindmany S TYPE COUNT: the instances from 0 on. Answers how many it bound, and the last call's result.
static std::string bind_many(const words &w)
{
    uint32_t count = number(w.at(3));
    uint32_t bound = 0;
    int ret = 0;
    while (ret == 0 && bound < count) {
        struct sockaddr_tipc addr = address("name:" + w.at(2) + ":" + str(bound));
        addr.scope = TIPC_CLUSTER_SCOPE;
        ret = bind(sd_of(w), (struct sockaddr *)&addr, sizeof(addr));
        bound += ret == 0;
    }
    return str(bound) + " " + result(ret);
}

// name S [len=BYTES]
static std::string own_address(const words &w)
{
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    socklen_t len = (socklen_t)option(w, "len", sizeof(addr));
    if (getsockname(sd_of(w), (struct sockaddr *)&addr, &len) != 0)
        return result(-1);
    if (option(w, "len", -1) >= 0)
        return "0 len=" + str(len);
    return addr.addrtype == TIPC_ADDR_ID && len == sizeof(addr) ? id_text(addr.addr.id) : "odd";
}

// connect S ADDR [len=BYTES]
static std::string connect_to(const words &w)
{
    struct sockaddr_tipc addr[2] = {address(w.at(2)), address(w.at(2))};
    bool none = w[2] == "none";
    socklen_t len = (socklen_t)option(w, "len", none ? 0 : sizeof(addr[0]));
    return result(connect(sd_of(w), none ? nullptr : (struct sockaddr *)addr, len));
}

// send S ADDR NUMBER LENGTH [dontwait] [count=MAX] [msg] [len=BYTES] [scope=SCOPE]: `count` sends more, numbered
// upwards, until one fails; the answer is how many were sent and the last call's result. `msg` uses sendmsg and two
// pieces.
static std::string send_to(const words &w)
{
    struct sockaddr_tipc addr[9] = {address(w.at(2))}; // room for the longest length that the kernel takes, and more
    addr[0].scope = (signed char)option(w, "scope", 0);
    bool none = w[2] == "none";
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_name = none ? nullptr : addr;
    hdr.msg_namelen = (socklen_t)option(w, "len", none ? 0 : sizeof(addr[0]));
    int flags = MSG_NOSIGNAL | (has(w, "dontwait") ? MSG_DONTWAIT : 0);
    long count = option(w, "count", 0);
    long sent = 0;
    ssize_t ret = 0;
    do {
        bytes data = message(number(w.at(3)) + (uint32_t)sent, number(w.at(4)));
        size_t half = data.size() / 2;
        struct iovec pieces[2] = {{data.data(), half}, {data.data() + half, data.size() - half}};
        hdr.msg_iov = pieces;
        hdr.msg_iovlen = 2;
        ret = has(w, "msg")
                  ? sendmsg(sd_of(w), &hdr, flags)
                  : sendto(sd_of(w), data.data(), data.size(), flags, (struct sockaddr *)hdr.msg_name, hdr.msg_namelen);
        sent += ret >= 0;
    } while (ret >= 0 && sent < count);
    return count == 0 ? result(ret) : str(sent) + " " + result(ret);
}

int wait_for(int sd, long ms, short events)
{
    struct pollfd fd = {sd, events, 0};
    return poll(&fd, 1, (int)ms);
}

static std::string ancillary(struct msghdr *hdr)
{
    std::string text;
    for (struct cmsghdr *c = CMSG_FIRSTHDR(hdr); c != nullptr; c = CMSG_NXTHDR(hdr, c)) {
        size_t len = c->cmsg_len - CMSG_LEN(0);
        bytes data(CMSG_DATA(c), CMSG_DATA(c) + len);
        uint32_t value[3] = {0, 0, 0};
        memcpy(value, data.data(), std::min(len, sizeof(value)));
        if (c->cmsg_level != SOL_TIPC)
            text += " strange=" + str(c->cmsg_level);
        else if (c->cmsg_type == TIPC_ERRINFO && len == 8)
            text += " err=" + str(value[0]) + " errlen=" + str(value[1]);
        else if (c->cmsg_type == TIPC_RETDATA)
            text += " ret=" + str((long long)len) + described(data.data(), len, "ret");
        else if (c->cmsg_type == TIPC_DESTNAME && len == 12)
            text += " dest=" + str(value[0]) + ":" + str(value[1]) + ":" + str(value[2]);
        else
            text += " strange=" + str(c->cmsg_type) + "/" + str((long long)len);
    }
    return text;
}

static std::string sender_text(const struct sockaddr_tipc &from)
{
    return from.family == AF_TIPC && from.addrtype == TIPC_ADDR_ID ? id_text(from.addr.id) : "odd";
}

// recv S [wait=MS] [buf=BYTES] [ctl=BYTES] [peek] [block] [plain] [member]: first waits for something to read; `plain`
// is recv without any address or control buffer, `block` reads without MSG_DONTWAIT.
std::string receive(const words &w)
{
    int sd = sd_of(w);
    long ms = option(w, "wait", 0);
    if (ms != 0 && wait_for(sd, ms, POLLIN) == 0)
        return "nothing";
    bytes data((size_t)option(w, "buf", 70000));
    bytes control((size_t)option(w, "ctl", 2048));
    int flags = (has(w, "block") ? 0 : MSG_DONTWAIT) | (has(w, "peek") ? MSG_PEEK : 0);
    if (has(w, "plain")) {
        ssize_t got = recv(sd, data.data(), data.size(), flags);
        return got < 0 ? result(got) : str(got) + described(data.data(), (size_t)got, "");
    }
    struct sockaddr_tipc from[2];
    struct iovec piece = {data.data(), data.size()};
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_name = from;
    hdr.msg_namelen = has(w, "member") ? sizeof(from) : sizeof(from[0]);
    hdr.msg_iov = &piece;
    hdr.msg_iovlen = 1;
    hdr.msg_control = control.empty() ? nullptr : control.data();
    hdr.msg_controllen = control.size();
    ssize_t ret = recvmsg(sd, &hdr, flags);
    if (ret < 0)
        return result(ret);
    std::string text = str(ret) + described(data.data(), (size_t)ret, "");
    if (hdr.msg_namelen != 0)
        text += " from=" + sender_text(from[0]);
    if (hdr.msg_namelen == sizeof(from) && has(w, "member"))
        text += " member=" + str(from[1].addr.nameseq.type) + ":" + str(from[1].addr.nameseq.lower);
    text += " fromlen=" + str(hdr.msg_namelen);
    text += (hdr.msg_flags & MSG_TRUNC) != 0 ? " flag=trunc" : "";
    text += (hdr.msg_flags & MSG_OOB) != 0 ? " flag=oob" : "";
    text += (hdr.msg_flags & MSG_EOR) != 0 ? " flag=eor" : "";
    text += (hdr.msg_flags & MSG_CTRUNC) != 0 ? " flag=ctrunc" : "";
    return text + ancillary(&hdr);
}

// drain S [until=COUNT]: reads all there is, and waits until that many were read. Answers how many messages were
// received, the first one's number, how many were out of order or damaged, and how many were returned, with the last
// one's error.
static std::string drain(const words &w)
{
    long plain = 0, back = 0, bad = 0;
    uint32_t first = 0, next = 0;
    std::string err = "0";
    for (;;) {
        words answer = split(receive({"recv", w.at(1)}), ' ');
        if (answer[0] == "EAGAIN" && plain + back < option(w, "until", 0) && wait_for(sd_of(w), 10000, POLLIN) > 0)
            continue;
        if (answer[0] == "EAGAIN")
            break;
        if (!isdigit(answer[0][0]))
            return answer[0];
        if (option(answer, "err", 0) != 0) {
            err = str(option(answer, "err", 0));
            back++;
            continue;
        }
        uint32_t num = (uint32_t)option(answer, "num", 0);
        first = plain == 0 ? num : first;
        bad += (plain != 0 && num != next) || !has(answer, "data=intact");
        next = num + 1;
        plain++;
    }
    return str(plain) + " first=" + str(first) + " bad=" + str(bad) + " back=" + str(back) + " err=" + err;
}

// poll S [in] [out] [hup] [all] [wait=MS]: for these events alone; `all` adds those that mean the same to the others.
static std::string poll_once(const words &w)
{
    struct pollfd fd = {sd_of(w), POLLIN | POLLOUT | POLLPRI | POLLRDHUP, 0};
    if (has(w, "in") || has(w, "out") || has(w, "hup"))
        fd.events = (short)((has(w, "in") ? POLLIN : 0) | (has(w, "out") ? POLLOUT : 0));
    if (has(w, "all"))
        fd.events |= POLLRDNORM | POLLRDBAND | POLLWRNORM | POLLWRBAND;
    if (poll(&fd, 1, (int)option(w, "wait", 0)) < 0)
        return result(-1);
    std::string text;
    text += (fd.revents & POLLIN) != 0 ? "in " : "";
    text += (fd.revents & POLLOUT) != 0 ? "out " : "";
    text += (fd.revents & POLLRDHUP) != 0 ? "rdhup " : "";
    text += (fd.revents & POLLHUP) != 0 ? "hup " : "";
    text += (fd.revents & POLLERR) != 0 ? "err " : "";
    text += (fd.revents & POLLPRI) != 0 ? "pri " : "";
    text += (fd.revents & POLLRDNORM) != 0 ? "rdnorm " : "";
    text += (fd.revents & POLLRDBAND) != 0 ? "rdband " : "";
    text += (fd.revents & POLLWRNORM) != 0 ? "wrnorm " : "";
    text += (fd.revents & POLLWRBAND) != 0 ? "wrband " : "";
    return text.empty() ? "none" : text.substr(0, text.size() - 1);
}

// opt S tipc|socket|LEVEL NAME [VALUE|null [len=BYTES]]: with a value it sets, else it gets.
static std::string sock_option(const words &w)
{
    int level = w.at(2) == "tipc" ? SOL_TIPC : w[2] == "socket" ? SOL_SOCKET : (int)number(w[2]);
    uint32_t value[4] = {0, 0, 0, 0};
    socklen_t len = (socklen_t)option(w, "len", sizeof(value[0]));
    if (w.size() > 4 && w[4].compare(0, 4, "len=") != 0) {
        value[0] = number(w[4]);
        return result(setsockopt(sd_of(w), level, (int)number(w.at(3)), w[4] == "null" ? nullptr : value, len));
    }
    if (getsockopt(sd_of(w), level, (int)number(w.at(3)), value, &len) != 0)
        return result(-1);
    return str(value[0]) + " " + str(len);
}

// subscribe S TYPE LOWER UPPER TIMEOUT FILTER HANDLE [bytes=BYTES] [net] [to=ADDR]: how much of the request is sent, in
// network byte order, from a socket that this connects.
static std::string subscribe(const words &w)
{
    bool net = has(w, "net");
    auto field = [&](size_t at) { return net ? htonl(number(w.at(at))) : number(w.at(at)); };
    struct tipc_subscr request[2];
    memset(request, 0, sizeof(request));
    request[0].seq = {field(2), field(3), field(4)};
    request[0].timeout = field(5);
    request[0].filter = field(6);
    strncpy(request[0].usr_handle, w.at(7).c_str(), sizeof(request[0].usr_handle) - 1);
    request[1] = request[0];
    size_t len = std::min((size_t)option(w, "bytes", sizeof(request[0])), sizeof(request));
    if (w.back().compare(0, 3, "to=") != 0)
        return result(send(sd_of(w), request, len, MSG_NOSIGNAL));
    struct sockaddr_tipc to = address(w.back().substr(3));
    return result(sendto(sd_of(w), request, len, MSG_NOSIGNAL, (struct sockaddr *)&to, sizeof(to)));
}

// All fields of an event but the handle, from network byte order.
static void to_host(struct tipc_event *e)
{
    uint32_t *const fields[] = {&e->event,      &e->found_lower, &e->found_upper, &e->port.ref,  &e->port.node,
                                &e->s.seq.type, &e->s.seq.lower, &e->s.seq.upper, &e->s.timeout, &e->s.filter};
    for (uint32_t *field : fields)
        *field = ntohl(*field);
}

// event S [wait=MS] [net]
static std::string read_event(const words &w)
{
    static const char *const kinds[] = {"none", "published", "withdrawn", "timeout"};
    long ms = option(w, "wait", 0);
    if (ms != 0 && wait_for(sd_of(w), ms, POLLIN) == 0)
        return "nothing";
    struct tipc_event event[2];
    memset(event, 0, sizeof(event));
    ssize_t ret = recv(sd_of(w), event, sizeof(event), MSG_DONTWAIT);
    if (ret != (ssize_t)sizeof(event[0]))
        return result(ret);
    struct tipc_event &e = event[0];
    if (has(w, "net"))
        to_host(&e);
    return std::string(e.event > 3 ? "odd" : kinds[e.event]) + " found=" + str(e.found_lower) + ":" +
           str(e.found_upper) + " port=" + id_text(e.port) + " asked=" + str(e.s.seq.type) + ":" + str(e.s.seq.lower) +
           ":" + str(e.s.seq.upper) + " timeout=" + str(e.s.timeout) + " filter=" + str(e.s.filter) +
           " handle=" + std::string(e.s.usr_handle, strnlen(e.s.usr_handle, sizeof(e.s.usr_handle)));
}

// Whether the topology service knows a name. Takes 20 ms.
static bool is_published(uint32_t type, uint32_t instance)
{
    struct sockaddr_tipc addr = address("name:1:1");
    int sd = socket(AF_TIPC, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    (void)connect(sd, (struct sockaddr *)&addr, sizeof(addr));
    struct tipc_subscr request;
    memset(&request, 0, sizeof(request));
    request.seq = {type, instance, instance};
    request.timeout = 20; // ms; a name that exists is reported at once, and the time-out ends the report
    request.filter = TIPC_SUB_SERVICE;
    bool there = false;
    struct tipc_event event;
    if (send(sd, &request, sizeof(request), MSG_NOSIGNAL) == (ssize_t)sizeof(request)) {
        while (recv(sd, &event, sizeof(event), 0) == (ssize_t)sizeof(event) && event.event != TIPC_SUBSCR_TIMEOUT)
            there = event.event == TIPC_PUBLISHED;
    }
    (void)close(sd);
    return there;
}

// await TYPE INSTANCE up|gone: until the name is, or is not, known here. The test that asks bounds the wait.
static std::string await_name(const words &w)
{
    bool up = w.at(3) == "up";
    while (is_published(number(w.at(1)), number(w.at(2))) != up)
        continue;
    return "0";
}

// fork: a child that holds copies of all sockets, and does nothing. endchild: it ends.
static std::string fork_child(const words &)
{
    s_child = fork();
    if (s_child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;)
            (void)pause();
    }
    return s_child > 0 ? "0" : result(-1);
}

static std::string end_child(const words &)
{
    if (s_child > 0) {
        (void)kill(s_child, SIGKILL);
        (void)waitpid(s_child, nullptr, 0);
    }
    s_child = -1;
    return "0";
}

static std::string reset(const words &w)
{
    for (const auto &socket : s_sockets)
        (void)close(socket.second);
    s_sockets.clear();
    return end_child(w);
}

int main(int argc, char **)
{
    if (argc > 1)
        read_after_exec();
    verb_table verbs = {
        {"open", open_socket}, {"close", close_socket}, {"bind", bind_name},  {"bindmany", bind_many},
        {"name", own_address}, {"connect", connect_to}, {"send", send_to},    {"recv", receive},
        {"drain", drain},      {"poll", poll_once},     {"opt", sock_option}, {"subscribe", subscribe},
        {"event", read_event}, {"await", await_name},   {"fork", fork_child}, {"endchild", end_child},
        {"reset", reset},
    };
    for (const verb_table &more : {connection_verbs(), call_verbs(), descriptor_verbs()})
        verbs.insert(more.begin(), more.end());
    for (std::string line; std::getline(std::cin, line);) {
        words w = split(line, ' ');
        auto verb = verbs.find(w.empty() ? "" : w[0]);
        std::string answer = verb == verbs.end() ? "unknown" : verb->second(w);
        printf("done %s %s\n", w.empty() ? "" : w[0].c_str(), answer.c_str());
        fflush(stdout);
    }
    return 0;
}
