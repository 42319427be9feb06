/* Many sockets. `crowd PROCESSES SOCKETS` forks that many children, each with so many sockets of its own, one of which
 * has a name. When all are there each child asks the next one, which answers; then all say whether they got it. `crowd
 * alone SOCKETS` has them in one process, and sends to each. Prints what was counted. */
#include "../cases/case.h"

#include <sys/resource.h>

enum { MOST = 4096 };

static int fds[MOST];

static int open_all(int num)
{
    int made = 0;
    while (made < num && made < MOST && (fds[made] = socket(AF_TIPC, SOCK_RDM, 0)) >= 0)
        made++;
    return made;
}

static long address_space(void) /* KiB */
{
    char line[200];
    long size = 0;
    FILE *fp = fopen("/proc/self/status", "r");
    while (fp != NULL && fgets(line, sizeof(line), fp) != NULL)
        sscanf(line, "VmSize: %ld", &size);
    if (fp != NULL)
        fclose(fp);
    return size;
}

static int alone(int num)
{
    int first = client();
    long before = address_space();
    int made = open_all(num);
    int got = 0;
    for (int i = 0; i < made; i++) {
        struct sockaddr_tipc addr;
        socklen_t len = sizeof(addr);
        if (getsockname(fds[i], (struct sockaddr *)&addr, &len) == 0 &&
            sendto(first, "x", 1, 0, (struct sockaddr *)&addr, sizeof(addr)) == 1 && gets(fds[i], "x"))
            got++;
    }
    printf("%d sockets, %d messages, %ld KiB of address space more\n", made, got, address_space() - before);
    return made != num || got != num;
}

static int child(int number, int num, int sockets, int ready, int go)
{
    struct sockaddr_tipc name = name_of((unsigned)number);
    struct sockaddr_tipc from;
    socklen_t len = sizeof(from);
    char byte = 0;
    int asked = 0;
    int answered = 0;
    if (open_all(sockets) != sockets || bind(fds[0], (struct sockaddr *)&name, sizeof(name)) != 0)
        return 1;
    if (write(ready, "r", 1) != 1 || read(go, &byte, 1) != 0)
        return 1;
    if (send_to(fds[1], (unsigned)((number + 1) % num), "q") != 1)
        return 1;
    while (!asked || !answered) {
        struct pollfd both[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
        if (poll(both, 2, 30000) <= 0)
            return 1;
        if (both[0].revents != 0 && recvfrom(fds[0], &byte, 1, 0, (struct sockaddr *)&from, &len) == 1)
            asked = sendto(fds[0], "a", 1, 0, (struct sockaddr *)&from, len) == 1;
        if (both[1].revents != 0)
            answered = gets(fds[1], "a");
    }
    return 0;
}

static int crowd(int num, int sockets)
{
    int ready[2];
    int go[2];
    int good = 0;
    char byte = 0;
    long begin = ms_now();
    if (pipe(ready) != 0 || pipe(go) != 0)
        return 1;
    for (int i = 0; i < num; i++) {
        pid_t pid = fork();
        if (pid == 0) {
            close(go[1]);
            _exit(child(i, num, sockets, ready[1], go[0]));
        }
        if (pid < 0)
            return perror("fork"), 1;
    }
    close(ready[1]);
    int there = 0;
    while (there < num && read(ready[0], &byte, 1) == 1)
        there++;
    fprintf(stderr, "all there after %ld ms\n", ms_now() - begin);
    int looked = getenv("CROWD_LOOK") != NULL ? system(getenv("CROWD_LOOK")) : 0;
    close(go[1]);
    for (int status = 0; wait(&status) > 0;)
        good += WIFEXITED(status) && WEXITSTATUS(status) == 0;
    fprintf(stderr, "all done after %ld ms\n", ms_now() - begin);
    printf("%d processes with %d sockets, %d answered\n", there, sockets, good);
    if (looked != 0)
        printf("not so: %s\n", getenv("CROWD_LOOK"));
    return looked != 0 || there != num || good != num;
}

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "alone") == 0)
        return alone(atoi(argv[2]));
    if (argc == 3)
        return crowd(atoi(argv[1]), atoi(argv[2]));
    fprintf(stderr, "usage: %s PROCESSES SOCKETS | alone SOCKETS\n", argv[0]);
    return 2;
}
