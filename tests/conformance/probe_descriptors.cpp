// The probe's commands that make sockets and copies of them.
#include "probe_verbs.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// socket TYPE PROTOCOL: by their numbers. The socket is closed again.
static std::string try_socket(const words &w)
{
    int sd = socket(AF_TIPC, (int)number(w.at(1)), (int)number(w.at(2)));
    if (sd < 0)
        return result(-1);
    (void)close(sd);
    return "0";
}

// release S range|dup2|stream: closes it in another way than by close. Answers what a read of another file, which has
// the descriptor's number now, gives.
static std::string release(const words &w)
{
    int sd = sd_of(w);
    keep(w[1], -1);
    if (w.at(2) == "range") {
        (void)close_range((unsigned)sd, (unsigned)sd, 0);
    } else if (w[2] == "stream") {
        FILE *file = fdopen(sd, "r");
        if (file != nullptr)
            (void)fclose(file);
    }
    int other = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    if (other != sd)
        (void)dup2(other, sd);
    char data[10];
    std::string text = result(read(sd, data, sizeof(data)));
    (void)close(sd);
    if (other != sd)
        (void)close(other);
    return text;
}

// pair S T TYPE [protocol=NUMBER]
static std::string make_pair_of(const words &w)
{
    int sds[2];
    if (socketpair(AF_TIPC, type_named(w.at(3)) | SOCK_CLOEXEC, (int)option(w, "protocol", 0), sds) != 0)
        return result(-1);
    keep(w[1], sds[0]);
    keep(w[2], sds[1]);
    return "0";
}

// dup S T [fcntl]
static std::string duplicate(const words &w)
{
    int sd = has(w, "fcntl") ? fcntl(sd_of(w), F_DUPFD_CLOEXEC, 100) : dup(sd_of(w));
    if (sd < 0)
        return result(-1);
    keep(w.at(2), sd);
    return "0";
}

// flags S: of fcntl
static std::string descriptor_flags(const words &w)
{
    int flags = fcntl(sd_of(w), F_GETFL);
    return ((flags & O_ACCMODE) == O_RDWR ? "rdwr" : "odd") + std::string((flags & O_NONBLOCK) != 0 ? " nonblock" : "");
}

static bool hand_over(int through, int sd)
{
    char byte = 0;
    char control[CMSG_SPACE(sizeof(sd))] = "";
    struct iovec piece = {&byte, 1};
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &piece;
    hdr.msg_iovlen = 1;
    hdr.msg_control = control;
    hdr.msg_controllen = sizeof(control);
    struct cmsghdr *c = CMSG_FIRSTHDR(&hdr);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(sd));
    memcpy(CMSG_DATA(c), &sd, sizeof(sd));
    return sendmsg(through, &hdr, 0) == 1;
}

static int take_over(int through)
{
    char byte = 0;
    char control[CMSG_SPACE(sizeof(int))] = "";
    struct iovec piece = {&byte, 1};
    struct msghdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.msg_iov = &piece;
    hdr.msg_iovlen = 1;
    hdr.msg_control = control;
    hdr.msg_controllen = sizeof(control);
    int sd = -1;
    if (recvmsg(through, &hdr, MSG_CMSG_CLOEXEC) == 1 && CMSG_FIRSTHDR(&hdr) != nullptr)
        memcpy(&sd, CMSG_DATA(CMSG_FIRSTHDR(&hdr)), sizeof(sd));
    return sd;
}

static int s_flight[2] = {-1, -1};

// launch S: closes it while a copy is on its way through a Unix socket. land T: the copy arrives.
static std::string launch(const words &w)
{
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, s_flight) != 0 || !hand_over(s_flight[0], sd_of(w)))
        return result(-1);
    int sd = sd_of(w);
    keep(w[1], -1);
    return result(close(sd));
}

static std::string land(const words &w)
{
    int sd = take_over(s_flight[1]);
    (void)close(s_flight[0]);
    (void)close(s_flight[1]);
    keep(w.at(1), sd);
    return sd >= 0 ? "0" : "none";
}

[[noreturn]] static void child_answer(int out, int sd)
{
    char data[1000];
    struct pollfd fd = {sd, POLLIN, 0};
    (void)poll(&fd, 1, 10000);
    ssize_t got = recv(sd, data, sizeof(data), MSG_DONTWAIT);
    std::string text = got < 0 ? result(-1) : str(got) + described((unsigned char *)data, (size_t)got, "");
    (void)!write(out, text.c_str(), text.size());
    _exit(0);
}

// child S fork|exec|rights: a child reads one message from its copy of the socket, which it inherits, keeps over exec
// as descriptor 0, or is sent. Answers what it read.
static std::string read_in_child(const words &w)
{
    int out[2];
    int through[2];
    if (pipe(out) != 0 || socketpair(AF_UNIX, SOCK_DGRAM, 0, through) != 0)
        return result(-1);
    int sd = sd_of(w);
    pid_t child = fork();
    if (child == 0) {
        if (w.at(2) == "rights") {
            (void)close(sd);
            sd = take_over(through[1]);
        }
        if (w[2] == "exec") {
            (void)dup2(sd, 0);
            (void)dup2(out[1], 3);
            (void)execl("/proc/self/exe", "tipc_probe", "read", nullptr);
            _exit(1);
        }
        child_answer(out[1], sd);
    }
    if (w.at(2) == "rights")
        (void)hand_over(through[0], sd);
    (void)close(out[1]);
    char text[200] = "";
    std::string answer;
    for (ssize_t got = read(out[0], text, sizeof(text)); got > 0; got = read(out[0], text, sizeof(text)))
        answer.append(text, (size_t)got);
    for (int fd : {out[0], through[0], through[1]})
        (void)close(fd);
    (void)waitpid(child, nullptr, 0);
    return answer;
}

void read_after_exec()
{
    child_answer(3, 0);
}

verb_table descriptor_verbs()
{
    return {{"release", release},        {"socket", try_socket}, {"pair", make_pair_of}, {"dup", duplicate},
            {"flags", descriptor_flags}, {"launch", launch},     {"land", land},         {"child", read_in_child}};
}
