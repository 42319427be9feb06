// Asynchronous reads and writes, refused on a TIPC socket: the threads of the C library that do them make the system
// calls themselves.
#include "preload.h"
#include "preload_next.h"

#include <aio.h>

#define CALLS(X) X(aio_read) X(aio_read64) X(aio_write) X(aio_write64) X(lio_listio) X(lio_listio64)
CALLS(NEXT_POINTER)

__attribute__((constructor)) static void find_calls()
{
    CALLS(NEXT_FIND)
}

static bool is_socket(int fd)
{
    return preload_known(fd) && preload_socket_at(fd) != nullptr;
}

extern "C" {
int aio_read(struct aiocb *order)
{
    return is_socket(order->aio_fildes) ? preload_refuse("aio_read") : CALL_NEXT(aio_read)(order);
}

int aio_read64(struct aiocb64 *order)
{
    return is_socket(order->aio_fildes) ? preload_refuse("aio_read") : CALL_NEXT(aio_read64)(order);
}

int aio_write(struct aiocb *order)
{
    return is_socket(order->aio_fildes) ? preload_refuse("aio_write") : CALL_NEXT(aio_write)(order);
}

int aio_write64(struct aiocb64 *order)
{
    return is_socket(order->aio_fildes) ? preload_refuse("aio_write") : CALL_NEXT(aio_write64)(order);
}

int lio_listio(int mode, struct aiocb *const list[], int num, struct sigevent *event)
{
    for (int i = 0; i < num; i++) {
        if (list[i] != nullptr && is_socket(list[i]->aio_fildes))
            return preload_refuse("lio_listio");
    }
    return CALL_NEXT(lio_listio)(mode, list, num, event);
}

int lio_listio64(int mode, struct aiocb64 *const list[], int num, struct sigevent *event)
{
    for (int i = 0; i < num; i++) {
        if (list[i] != nullptr && is_socket(list[i]->aio_fildes))
            return preload_refuse("lio_listio");
    }
    return CALL_NEXT(lio_listio64)(mode, list, num, event);
}
}
