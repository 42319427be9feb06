// System calls that the preload library interposes. The simulator's own code makes them directly, so that it does not
// enter the interposed ones.
#ifndef SIM_SYS_H
#define SIM_SYS_H

#include <cstddef>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

static inline int sys_close(int fd)
{
    return (int)syscall(SYS_close, fd);
}

static inline ssize_t sys_recv(int fd, void *buf, size_t size, int flags)
{
    return syscall(SYS_recvfrom, fd, buf, size, flags, nullptr, nullptr);
}

#endif
