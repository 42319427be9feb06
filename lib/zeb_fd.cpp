#include "zeb_fd.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "zeb_dbg.h"
#include "zeb_error.h"

int zeb_set_fd_close_on_exec(int fd)
{
    int flags = fcntl(fd, F_GETFD);
    if (flags == -1) {
        ZEB_ERROR_WHY("ZEB get file %d flags error: %s.\n", fd, strerror(errno));
        return -1;
    }
    if (fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == -1) {
        ZEB_ERROR_WHY("ZEB set file %d flags error: %s.\n", fd, strerror(errno));
        return -1;
    }
    return 0;
}
