// Every descriptor of the library is closed on exec.
#ifndef ZEB_FD_H
#define ZEB_FD_H

int zeb_set_fd_close_on_exec(int fd); // 0 or -1

#endif
