/* Clients that send, receive, connect, bind, fork and close at random, of which most are killed or stopped meanwhile,
 * and watchers that ask each other and are never killed. `kills client SEED`, `kills watcher NUMBER OF FILE`: a watcher
 * asks the others and answers them until the file is gone, and says how many answers it got. One that waits too long
 * for an answer exits with 1. */
#include "../cases/case.h"

enum { WATCHED = 100000, BOUND_MS = 10000, NAMES = 40 };

static unsigned random_state;

static unsigned any(unsigned limit)
{
    random_state = random_state * 1103515245 + 12345;
    return (random_state >> 8) % limit;
}

static int pick_type(void)
{
    static const int types[] = {SOCK_RDM, SOCK_DGRAM, SOCK_SEQPACKET, SOCK_STREAM};
    return types[any(4)] | SOCK_NONBLOCK;
}

static void act(int *fds, int num)
{
    static char data[66000];
    int *fd = &fds[any((unsigned)num)];
    int *other = &fds[any((unsigned)num)];
    struct sockaddr_tipc name = name_of(any(NAMES));
    if (*fd < 0)
        *fd = socket(AF_TIPC, pick_type(), 0);
    switch (any(12)) {
    case 0:
        close(*fd);
        *fd = -1;
        return;
    case 1:
        (void)bind(*fd, (struct sockaddr *)&name, sizeof(name));
        return;
    case 2:
        name.scope = -name.scope;
        (void)bind(*fd, (struct sockaddr *)&name, sizeof(name));
        return;
    case 3:
        (void)listen(*fd, 4);
        return;
    case 4:
        (void)connect(*fd, (struct sockaddr *)&name, sizeof(name));
        return;
    case 5:
        if (*other < 0)
            *other = accept4(*fd, NULL, NULL, SOCK_NONBLOCK);
        return;
    case 6:
        (void)shutdown(*fd, SHUT_RDWR);
        return;
    case 7:
        (void)send(*fd, data, any(3) != 0 ? any(2000) : any(sizeof(data)), MSG_DONTWAIT);
        return;
    case 8:
    case 9:
        (void)sendto(*fd, data, any(2000), MSG_DONTWAIT, (struct sockaddr *)&name, sizeof(name));
        return;
    default:
        (void)recv(*fd, data, sizeof(data), MSG_DONTWAIT);
        return;
    }
}

static int be_client(unsigned seed)
{
    int fds[6] = {-1, -1, -1, -1, -1, -1};
    random_state = seed;
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        act(fds, 6);
        if (any(300) == 0 && fork() == 0) { /* it has the same sockets, and ends like this one or by itself */
            random_state += 1;
            for (int i = any(100); i > 0; i--)
                act(fds, 6);
            _exit(0);
        }
        pause_ms((int)any(4));
    }
}

/* Sends until the other side's queue has room. */
static int answer(int fd)
{
    struct sockaddr_tipc from;
    socklen_t len = sizeof(from);
    int text[2];
    if (recvfrom(fd, text, sizeof(text), MSG_DONTWAIT, (struct sockaddr *)&from, &len) != sizeof(text))
        return 0;
    return sendto(fd, text, sizeof(text), 0, (struct sockaddr *)&from, len) == sizeof(text);
}

/* A question to another watcher, by its name. The time of its answer, or -1. */
static long ask(int server_fd, int fd, unsigned whom, int turn)
{
    struct sockaddr_tipc name = name_of(WATCHED + whom);
    int question[2] = {turn, (int)whom};
    int got[2] = {0, 0};
    long begin = ms_now();
    if (sendto(fd, question, sizeof(question), 0, (struct sockaddr *)&name, sizeof(name)) != sizeof(question))
        return -1;
    while (ms_now() - begin < BOUND_MS) {
        struct pollfd both[2] = {{fd, POLLIN, 0}, {server_fd, POLLIN, 0}};
        if (poll(both, 2, 100) > 0 && both[1].revents != 0)
            answer(server_fd);
        if (both[0].revents == 0)
            continue;
        if (recv(fd, got, sizeof(got), MSG_DONTWAIT) != sizeof(got) || got[0] != turn || got[1] != (int)whom)
            return -1;
        return ms_now() - begin;
    }
    return -1;
}

static int be_watcher(unsigned number, unsigned num, const char *file)
{
    int server_fd = server(SOCK_RDM, WATCHED + number);
    long longest = 0;
    int turns = 0;
    unsigned found = 0;
    for (; found < num && turns < 1000; turns++) { /* until all are there */
        int fd = client();
        for (found = 0; found < num; found++) {
            struct sockaddr_tipc name = name_of(WATCHED + found);
            if (sendto(fd, "", 0, 0, (struct sockaddr *)&name, sizeof(name)) < 0)
                break;
        }
        close(fd);
        pause_ms(10);
    }
    if (found < num)
        return printf("watcher %u: watcher %u is not there\n", number, found), 1;
    for (turns = 0; access(file, F_OK) == 0; turns++) {
        unsigned whom = (number + 1 + (unsigned)turns % (num - 1)) % num;
        int fd = client(); /* a new socket each time */
        long took = ask(server_fd, fd, whom, turns);
        close(fd);
        if (took < 0) /* at the end the others may be gone */
            return printf("watcher %u: no answer from %u in turn %d (errno %d)\n", number, whom, turns, errno), 1;
        longest = took > longest ? took : longest;
        while (answer(server_fd))
            continue;
    }
    printf("watcher %u: %d answers, the slowest after %ld ms\n", number, turns, longest);
    fflush(stdout);
    for (long begin = ms_now(); ms_now() - begin < 2000;) { /* the others may still ask */
        if (polled(server_fd, POLLIN, 100) != 0)
            answer(server_fd);
    }
    return turns == 0;
}

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "client") == 0)
        return be_client((unsigned)atoi(argv[2]));
    if (argc == 5 && strcmp(argv[1], "watcher") == 0)
        return be_watcher((unsigned)atoi(argv[2]), (unsigned)atoi(argv[3]), argv[4]);
    fprintf(stderr, "usage: %s client SEED | watcher NUMBER OF FILE\n", argv[0]);
    return 2;
}
