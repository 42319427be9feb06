/* A process that has dropped its privileges, or sees another root, sends and receives as before. */
#include "case.h"
#include <sys/stat.h>

static void without(int what)
{
    int ready[2];
    char text;
    int fd = server(SOCK_RDM, 1);
    int sender = client();
    char folder[] = "/tmp/case-XXXXXX";
    CHECK(pipe(ready) == 0);
    CHECK(mkdtemp(folder) != NULL);
    pid_t child = fork();
    if (child == 0) {
        struct sockaddr_tipc name = name_of(2);
        if (what == 0 && getuid() == 0)
            CHECK(setgid(65534) == 0 && setuid(65534) == 0);
        if (what == 1 && getuid() == 0)
            CHECK(chroot(folder) == 0 && chdir("/") == 0);
        IS(send_to(sender, 1, "hello"), 5); /* with what it had before */
        int fresh = client();
        IS(send_to(fresh, 1, "again"), 5);
        IS(bind(fresh, (struct sockaddr *)&name, sizeof(name)), 0);
        IS(write(ready[1], "x", 1), 1);
        IS(polled(fresh, POLLIN, 5000), POLLIN);
        CHECK(gets(fresh, "answer"));
        _exit(done());
    }
    IS(read(ready[0], &text, 1), 1);
    IS(send_to(fd, 2, "answer"), 6);
    CHECK(ended_well(child));
    CHECK(gets(fd, "hello"));
    CHECK(gets(fd, "again"));
    rmdir(folder);
    close(ready[0]);
    close(ready[1]);
    close(fd);
    close(sender);
}

int main(void)
{
    without(0);
    without(1);
    return done();
}
