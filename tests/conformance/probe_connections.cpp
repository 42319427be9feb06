// The probe's commands on connections and groups: listen, accept, peer, shutdown, bytes of a stream, join, leave.
#include "probe_verbs.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/tipc.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

static std::string do_listen(const words &w)
{
    return result(listen(sd_of(w), atoi(w.at(2).c_str())));
}

// accept S NEW [wait=MS] [nonblock] [cloexec]: first waits for a connection. Says which flags NEW has.
static std::string do_accept(const words &w)
{
    int sd = sd_of(w);
    long ms = option(w, "wait", 0);
    if (ms != 0 && wait_for(sd, ms, POLLIN) == 0)
        return "nothing";
    struct sockaddr_tipc from;
    memset(&from, 0, sizeof(from));
    socklen_t len = sizeof(from);
    int flags = (has(w, "nonblock") ? SOCK_NONBLOCK : 0) | (has(w, "cloexec") ? SOCK_CLOEXEC : 0);
    int got = accept4(sd, (struct sockaddr *)&from, &len, flags);
    if (got < 0)
        return result(-1);
    keep(w.at(2), got);
    bool right = from.family == AF_TIPC && from.addrtype == TIPC_ADDR_ID && from.scope == 0;
    return "0 from=" + (right ? id_text(from.addr.id) : "odd") + " fromlen=" + str(len) +
           " nonblock=" + str((fcntl(got, F_GETFL) & O_NONBLOCK) != 0) +
           " cloexec=" + str((fcntl(got, F_GETFD) & FD_CLOEXEC) != 0);
}

// peer S [len=BYTES]
static std::string peer_address(const words &w)
{
    struct sockaddr_tipc addr;
    memset(&addr, 0, sizeof(addr));
    socklen_t len = (socklen_t)option(w, "len", sizeof(addr));
    if (getpeername(sd_of(w), (struct sockaddr *)&addr, &len) != 0)
        return result(-1);
    bool right = addr.family == AF_TIPC && addr.addrtype == TIPC_ADDR_ID && addr.scope == 0;
    return (right ? id_text(addr.addr.id) : "odd") + " len=" + str(len);
}

static std::string set_nonblock(const words &w)
{
    int flags = fcntl(sd_of(w), F_GETFL);
    return result(fcntl(sd_of(w), F_SETFL, w.at(2) == "1" ? flags | O_NONBLOCK : flags & ~O_NONBLOCK));
}

static std::string do_shutdown(const words &w)
{
    return result(shutdown(sd_of(w), atoi(w.at(2).c_str())));
}

// Byte `at` of the stream that `write` writes and `read` expects.
static unsigned char stream_byte(size_t at)
{
    return (unsigned char)(at * 7 + (at >> 8) + (at >> 16));
}

static bool in_place(const bytes &data, size_t len, size_t at)
{
    for (size_t i = 0; i < len; i++) {
        if (data[i] != stream_byte(at + i))
            return false;
    }
    return true;
}

// write S AT LENGTH [dontwait]: one send of the stream's bytes from AT on.
static std::string write_stream(const words &w)
{
    size_t at = number(w.at(2));
    bytes data(number(w.at(3)));
    for (size_t i = 0; i < data.size(); i++)
        data[i] = stream_byte(at + i);
    int flags = MSG_NOSIGNAL | (has(w, "dontwait") ? MSG_DONTWAIT : 0);
    return result(send(sd_of(w), data.data(), data.size(), flags));
}

// read S AT LENGTH [wait=MS] [waitall] [peek] [trunc] [eor] [block]: one recv. Its bytes should be those from AT on.
static std::string read_stream(const words &w)
{
    int sd = sd_of(w);
    long ms = option(w, "wait", 0);
    if (ms != 0 && wait_for(sd, ms, POLLIN) == 0)
        return "nothing";
    bytes data(number(w.at(3)));
    int flags = (has(w, "block") || has(w, "waitall") ? 0 : MSG_DONTWAIT) | (has(w, "peek") ? MSG_PEEK : 0) |
                (has(w, "waitall") ? MSG_WAITALL : 0) | (has(w, "trunc") ? MSG_TRUNC : 0) |
                (has(w, "eor") ? MSG_EOR : 0) | (has(w, "oob") ? MSG_OOB : 0);
    struct iovec piece = {data.data(), data.size()};
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &piece;
    hdr.msg_iovlen = 1;
    ssize_t got = recvmsg(sd, &hdr, flags);
    if (got < 0)
        return result(-1);
    std::string text = str(got) + (in_place(data, (size_t)got, number(w.at(2))) ? " data=intact" : " data=damaged");
    return text + ((hdr.msg_flags & MSG_TRUNC) != 0 ? " flag=trunc" : "");
}

// readall S AT LENGTH [piece=BYTES]: reads until it has that much, or the end, or nothing comes for 10 s.
static std::string read_all(const words &w)
{
    size_t at = number(w.at(2));
    size_t wanted = number(w.at(3));
    bytes data((size_t)option(w, "piece", 70000));
    size_t got = 0;
    bool intact = true;
    while (got < wanted) {
        if (wait_for(sd_of(w), 10000, POLLIN) <= 0)
            break;
        ssize_t some = recv(sd_of(w), data.data(), std::min(data.size(), wanted - got), MSG_DONTWAIT);
        if (some <= 0)
            return str((long)got) + " end=" + result(some);
        intact = intact && in_place(data, (size_t)some, at + got);
        got += (size_t)some;
    }
    return str((long)got) + (intact ? " data=intact" : " data=damaged");
}

// join S TYPE INSTANCE SCOPE FLAGS [len=BYTES]: becomes a member of the group TYPE. leave S: no longer.
static std::string join_group(const words &w)
{
    struct tipc_group_req request = {number(w.at(2)), number(w.at(3)), number(w.at(4)), number(w.at(5))};
    socklen_t len = (socklen_t)option(w, "len", sizeof(request));
    return result(setsockopt(sd_of(w), SOL_TIPC, TIPC_GROUP_JOIN, &request, len));
}

static std::string leave_group(const words &w)
{
    return result(setsockopt(sd_of(w), SOL_TIPC, TIPC_GROUP_LEAVE, nullptr, 0));
}

verb_table connection_verbs()
{
    return {{"join", join_group},   {"leave", leave_group},     {"listen", do_listen},     {"accept", do_accept},
            {"peer", peer_address}, {"nonblock", set_nonblock}, {"shutdown", do_shutdown}, {"write", write_stream},
            {"read", read_stream},  {"readall", read_all}};
}
