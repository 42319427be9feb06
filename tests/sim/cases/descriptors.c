/* A socket's descriptor, however it came: by dup, fcntl, a Unix socket, fork, vfork, exec and posix_spawn. And what a
 * socket answers to calls for files. */
#include "case.h"
#include <spawn.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>

extern char **environ;

/* The message is there, is read through `fd`, and was the only one. */
static void works(int sender, unsigned instance, int fd)
{
    IS(send_to(sender, instance, "hello"), 5);
    IS(polled(fd, POLLIN, -1), POLLIN);
    CHECK(gets(fd, "hello"));
    IS(polled(fd, POLLIN, 0), 0);
}

static void duplicates(int sender)
{
    int fd = server(SOCK_RDM, 1);
    int copies[6] = {
        dup(fd),     dup2(fd, 40), dup3(fd, 41, O_CLOEXEC), fcntl(fd, F_DUPFD, 42), fcntl(fd, F_DUPFD_CLOEXEC, 43),
        dup2(fd, fd)};
    IS(copies[5], fd);
    IS(fcntl(copies[2], F_GETFD), FD_CLOEXEC);
    IS(fcntl(copies[3], F_GETFD), 0);
    IS(fcntl(copies[4], F_GETFD), FD_CLOEXEC);
    FAILS(dup3(fd, fd, 0), EINVAL);
    FAILS(dup2(-1, copies[0]), EBADF);
    for (int i = 0; i < 5; i++) {
        CHECK(copies[i] >= 0);
        works(sender, 1, copies[i]);
    }
    close(fd);
    for (int i = 0; i < 5; i++) {
        works(sender, 1, copies[i]);
        close(copies[i]);
    }
    FAILS(send_to(sender, 1, "nobody"), EHOSTUNREACH);
    FAILS(recv(copies[0], &fd, sizeof(fd), 0), EBADF);
}

static void flags(void)
{
    int fd = socket(AF_TIPC, SOCK_RDM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    char data[4];
    IS(fcntl(fd, F_GETFD), FD_CLOEXEC);
    IS(fcntl(fd, F_GETFL), O_RDWR | O_NONBLOCK);
    IS(fcntl(fd, F_GETSIG), 0);
    FAILS(recv(fd, data, sizeof(data), 0), EAGAIN);
    IS(fcntl(fd, F_SETFL, 0), 0);
    IS(fcntl(fd, F_GETFL), O_RDWR);
    FAILS(recv(fd, data, sizeof(data), MSG_DONTWAIT), EAGAIN);
    IS(fcntl(dup(fd), F_SETFL, O_NONBLOCK), 0);
    FAILS(recv(fd, data, sizeof(data), 0), EAGAIN);
    close(fd);
}

static int pass(int over, int fd)
{
    char text = 'x';
    char control[CMSG_SPACE(2 * sizeof(int))] __attribute__((aligned(8))) = {0};
    struct iovec part = {&text, 1};
    struct msghdr msg = {.msg_iov = &part, .msg_iovlen = 1, .msg_control = control, .msg_controllen = sizeof(control)};
    struct cmsghdr *head = CMSG_FIRSTHDR(&msg);
    int fds[2] = {STDOUT_FILENO, fd};
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(fds));
    memcpy(CMSG_DATA(head), fds, sizeof(fds));
    return sendmsg(over, &msg, 0) == 1 ? 0 : -1;
}

static int taken(int over, int many)
{
    char text;
    char control[CMSG_SPACE(2 * sizeof(int))] __attribute__((aligned(8)));
    struct iovec part = {&text, 1};
    struct mmsghdr msg = {
        .msg_hdr = {.msg_iov = &part, .msg_iovlen = 1, .msg_control = control, .msg_controllen = sizeof(control)}};
    int fds[2] = {-1, -1};
    if (many)
        IS(recvmmsg(over, &msg, 1, 0, NULL), 1);
    else
        IS(recvmsg(over, &msg.msg_hdr, 0), 1);
    memcpy(fds, CMSG_DATA(CMSG_FIRSTHDR(&msg.msg_hdr)), sizeof(fds));
    close(fds[0]);
    return fds[1];
}

static void over_a_unix_socket(int sender)
{
    int ends[2];
    CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) == 0);
    for (int many = 0; many < 2; many++) {
        int fd = server(SOCK_RDM, 2);
        IS(pass(ends[0], fd), 0);
        close(fd);
        IS(send_to(sender, 2, "early"), 5); /* the only reference is on its way */
        pid_t child = fork();
        if (child == 0) {
            int came = taken(ends[1], many);
            CHECK(gets(came, "early"));
            works(sender, 2, came);
            _exit(done());
        }
        CHECK(ended_well(child));
        CHECK(withdrawn(sender, 2));
    }
    close(ends[0]);
    close(ends[1]);
}

static void forks(int sender)
{
    int fd = server(SOCK_RDM, 3);
    pid_t child = fork();
    if (child == 0) {
        works(sender, 3, fd);
        close(fd);
        FAILS(recv(fd, &child, 1, 0), EBADF);
        _exit(done());
    }
    CHECK(ended_well(child));
    works(sender, 3, fd);
    child = vfork();
    if (child == 0) {
        close(fd);
        _exit(0);
    }
    CHECK(ended_well(child));
    works(sender, 3, fd);
    child = vfork();
    if (child == 0) {
        dup2(STDOUT_FILENO, fd);
        _exit(0);
    }
    CHECK(ended_well(child));
    works(sender, 3, fd);
    close(fd);
    FAILS(send_to(sender, 3, "nobody"), EHOSTUNREACH);
}

/* The program again, with the socket as descriptor 0, as inetd starts it, and nothing else but the standard ones. */
static int started_again(void)
{
    int sender = client();
    CHECK(gets(0, "early"));
    works(sender, 4, 0);
    close(0);
    FAILS(send_to(sender, 4, "nobody"), EHOSTUNREACH);
    return done();
}

static void executes(int sender, const char *program)
{
    char *arguments[] = {(char *)program, (char *)"again", NULL};
    int fd = server(SOCK_RDM, 4);
    IS(send_to(sender, 4, "early"), 5);
    pid_t child = fork();
    if (child == 0) {
        dup2(fd, 0);
        close(fd);
        execv(program, arguments);
        _exit(1);
    }
    close(fd);
    CHECK(ended_well(child));
    CHECK(withdrawn(sender, 4));

    posix_spawn_file_actions_t actions;
    fd = server(SOCK_RDM, 4);
    IS(send_to(sender, 4, "early"), 5);
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fd, 0);
    posix_spawn_file_actions_addclose(&actions, fd);
    IS(posix_spawn(&child, program, &actions, NULL, arguments, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(fd);
    CHECK(ended_well(child));
    CHECK(withdrawn(sender, 4));

    fd = server(SOCK_RDM, 4);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    child = fork();
    if (child == 0) {
        execlp("sleep", "sleep", "100", (char *)NULL);
        _exit(1);
    }
    close(fd);
    CHECK(withdrawn(sender, 4));
    kill(child, SIGKILL);
    waitpid(child, NULL, 0);
}

/* A worker closes all descriptors but its socket; its parent ends. */
static void closes_the_others(int sender)
{
    int fd = server(SOCK_RDM, 5);
    int start[2];
    int answer[2];
    char text = 'x';
    CHECK(pipe(start) == 0 && pipe(answer) == 0);
    pid_t parent = fork();
    if (parent == 0) {
        if (fork() != 0)
            _exit(0);
        dup2(fd, 3);
        dup2(start[0], 60);
        dup2(answer[1], 61);
        for (int i = 4; i < 60; i++)
            close(i);
        close_range(62, ~0U, 0);
        if (read(60, &text, 1) != 1 || !gets(3, "work"))
            text = '-';
        if (write(61, &text, 1) != 1)
            _exit(1);
        _exit(0);
    }
    CHECK(ended_well(parent));
    close(fd);
    close(answer[1]);
    pause_ms(300); /* as long as whoever looks for ended processes may take */
    IS(send_to(sender, 5, "work"), 4);
    IS(write(start[1], "x", 1), 1);
    IS(read(answer[0], &text, 1), 1);
    IS(text, 'x');
    close(start[0]);
    close(start[1]);
    close(answer[0]);
}

static void as_a_file(void)
{
    int fd = server(SOCK_RDM, 6);
    int other = client();
    int copy = dup(fd);
    struct stat one, two;
    struct statx long_one;
    char data[4] = "";
    struct iovec part = {data, sizeof(data)};
    IS(fstat(fd, &one), 0);
    IS(fstat(copy, &two), 0);
    CHECK(S_ISSOCK(one.st_mode));
    CHECK(one.st_ino == two.st_ino);
    IS(fstatat(fd, "", &two, AT_EMPTY_PATH), 0);
    CHECK(S_ISSOCK(two.st_mode) && one.st_ino == two.st_ino);
    IS(statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &long_one), 0);
    CHECK(S_ISSOCK(long_one.stx_mode) && long_one.stx_ino == one.st_ino);
    IS(fstat(other, &two), 0);
    CHECK(one.st_ino != two.st_ino);
    IS(isatty(fd), 0);
    FAILS(lseek(fd, 0, SEEK_CUR), ESPIPE);
    FAILS(pread(fd, data, 1, 0), ESPIPE);
    FAILS(pwrite(fd, data, 1, 0), ESPIPE);
    FAILS(preadv(fd, &part, 1, 0), ESPIPE);
    FAILS(pwritev(fd, &part, 1, 0), ESPIPE);
    FAILS(preadv2(fd, &part, 1, 0, 0), ESPIPE);
    FAILS(pwritev2(fd, &part, 1, 0, 0), ESPIPE);
    FAILS(ftruncate(fd, 0), EINVAL);
    FAILS(fsync(fd), EINVAL);
    close(copy);
    close(other);
    close(fd);
}

int main(int argc, char **argv)
{
    char program[300] = "";
    if (argc > 1)
        return started_again();
    CHECK(readlink("/proc/self/exe", program, sizeof(program) - 1) > 0 && argv[0] != NULL);
    int sender = client();
    duplicates(sender);
    flags();
    over_a_unix_socket(sender);
    forks(sender);
    executes(sender, program);
    closes_the_others(sender);
    as_a_file();
    return done();
}
