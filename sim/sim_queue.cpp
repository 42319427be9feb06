// The files of a simulated socket and the queue in them.
#include "sim_queue.h"
#include "sim_sys.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/tipc.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

constexpr size_t HEAD_SIZE = 4096;
constexpr size_t BACKING_STEP = 65536;
static_assert(sizeof(sim_socket_t) <= HEAD_SIZE, "the head fits into its page");

static bool segment_path(const char *dir, uint32_t port, char *path, size_t size)
{
    char name[32];
    (void)snprintf(name, sizeof(name), "s.%u", port);
    return sim_cluster_path(dir, name, path, size);
}

bool sim_queue_wakeup_path(const char *dir, uint32_t port, char *path, size_t size)
{
    char name[32];
    (void)snprintf(name, sizeof(name), "d.%u", port);
    return sim_cluster_path(dir, name, path, size);
}

uint32_t sim_queue_charge(uint32_t len)
{
    uint32_t needed = len + 640; // headers, head- and tailroom, the kernel's own records
    uint32_t size = 1024;
    while (size < needed)
        size *= 2;
    return size + 256;
}

// Room for all that the highest importance admits, and for one message that does not fit before the end of the room.
static size_t room_for(uint32_t rmem)
{
    size_t room = ((size_t)rmem << 3) + 2 * sim_queue_charge(SIM_MAX_DATA);
    return (room + 4095) & ~(size_t)4095;
}

// Opens a descriptor of its own: a mapping keeps the lock of the descriptor that it was made with.
static int map_segment(sim_queue_t *queue, const char *path, size_t size)
{
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    int err = errno;
    (void)sys_close(fd);
    if (memory == MAP_FAILED)
        return -err;
    queue->socket = (sim_socket_t *)memory;
    queue->room = (uint8_t *)memory + HEAD_SIZE;
    queue->room_size = size - HEAD_SIZE;
    return 0;
}

int sim_queue_create(sim_queue_t *queue, const sim_cluster_t *cluster, uint32_t node)
{
    char path[SIM_PATH_LEN];
    memset(queue, 0, sizeof(*queue));
    queue->port = __atomic_fetch_add(&cluster->state->next_id, 1, __ATOMIC_RELAXED);
    if (!segment_path(cluster->dir, queue->port, path, sizeof(path)))
        return -ENAMETOOLONG;
    queue->fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (queue->fd < 0)
        return -errno;
    size_t size = HEAD_SIZE + room_for(cluster->state->rmem);
    int ret = flock(queue->fd, LOCK_EX) == 0 ? -posix_fallocate(queue->fd, 0, HEAD_SIZE) : -errno;
    if (ret == 0 && ftruncate(queue->fd, (off_t)size) != 0)
        ret = -errno;
    if (ret == 0)
        ret = map_segment(queue, path, size);
    if (ret != 0) {
        (void)unlink(path);
        (void)sys_close(queue->fd);
        return ret;
    }
    sim_socket_t *socket = queue->socket;
    socket->port = queue->port;
    socket->node = node;
    socket->pid = getpid();
    socket->rmem = cluster->state->rmem;
    socket->dest_droppable = 1;
    sim_mutex_init(&socket->mutex);
    __atomic_store_n(&socket->magic, SIM_MAGIC, __ATOMIC_RELEASE);
    return 0;
}

int sim_queue_open(sim_queue_t *queue, const char *dir, uint32_t port)
{
    char path[SIM_PATH_LEN];
    struct stat status;
    memset(queue, 0, sizeof(*queue));
    queue->port = port;
    if (!segment_path(dir, port, path, sizeof(path)))
        return -ENAMETOOLONG;
    queue->fd = open(path, O_RDWR | O_CLOEXEC);
    if (queue->fd < 0)
        return -errno;
    int ret = fstat(queue->fd, &status) != 0 ? -errno : 0;
    if (ret == 0 && status.st_size <= (off_t)HEAD_SIZE)
        ret = -EINVAL; // garbage, or a file that is still being made
    if (ret == 0)
        ret = map_segment(queue, path, (size_t)status.st_size);
    if (ret == 0 && __atomic_load_n(&queue->socket->magic, __ATOMIC_ACQUIRE) != SIM_MAGIC) {
        (void)munmap(queue->socket, HEAD_SIZE + queue->room_size);
        queue->socket = nullptr;
        ret = -EINVAL;
    }
    (void)sys_close(queue->fd); // only the owner keeps it
    queue->fd = -1;
    return ret;
}

void sim_queue_unmap(sim_queue_t *queue)
{
    if (queue->socket == nullptr)
        return;
    (void)munmap(queue->socket, HEAD_SIZE + queue->room_size);
    if (queue->fd >= 0)
        (void)sys_close(queue->fd);
    queue->socket = nullptr;
    queue->fd = -1;
}

void sim_queue_remove(const char *dir, uint32_t port)
{
    char path[SIM_PATH_LEN];
    if (segment_path(dir, port, path, sizeof(path)))
        (void)unlink(path);
    if (sim_queue_wakeup_path(dir, port, path, sizeof(path)))
        (void)unlink(path);
}

bool sim_queue_abandoned(const char *dir, uint32_t port)
{
    char path[SIM_PATH_LEN];
    if (!segment_path(dir, port, path, sizeof(path)))
        return true;
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT;
    bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    (void)sys_close(fd);
    return free;
}

static sim_record_t *record_at(sim_queue_t *queue, uint32_t offset)
{
    return (sim_record_t *)(queue->room + offset);
}

// The offset of the next record: `offset`, or 0 when that record is at the start of the room.
static uint32_t next_record(sim_queue_t *queue, uint32_t offset)
{
    if (offset + sizeof(sim_record_t) > queue->room_size || record_at(queue, offset)->size == 0)
        return 0;
    return offset;
}

// Counts the messages again from head and tail, after a process died with the mutex held.
static void recount(sim_queue_t *queue)
{
    sim_socket_t *socket = queue->socket;
    socket->num = 0;
    socket->charged = 0;
    for (uint32_t at = socket->head; at != socket->tail;) {
        at = next_record(queue, at);
        socket->num++;
        socket->charged += record_at(queue, at)->charge;
        at += record_at(queue, at)->size;
    }
    socket->notified = 0; // may be wrong, but an additional wake-up does no harm
}

struct queue_guard_s : sim_guard_s {
    explicit queue_guard_s(sim_queue_t *queue) : sim_guard_s(&queue->socket->mutex)
    {
        if (orphaned)
            recount(queue);
    }
};

// The offset for a new record of `size` bytes, or UINT32_MAX when there is no room.
static uint32_t find_room(sim_queue_t *queue, uint32_t size)
{
    sim_socket_t *socket = queue->socket;
    if (socket->num == 0)
        socket->head = socket->tail = 0;
    bool wrapped = socket->num != 0 && socket->tail <= socket->head;
    if (wrapped)
        return socket->tail + size < socket->head ? socket->tail : UINT32_MAX;
    if (socket->tail + size <= queue->room_size)
        return socket->tail;
    if (size >= socket->head)
        return UINT32_MAX;
    if (socket->tail + sizeof(sim_record_t) <= queue->room_size)
        record_at(queue, socket->tail)->size = 0;
    return 0;
}

static bool allocate(sim_queue_t *queue, const char *dir, uint64_t bytes)
{
    char path[SIM_PATH_LEN];
    if (!segment_path(dir, queue->port, path, sizeof(path)))
        return false;
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return false;
    int err = posix_fallocate(fd, (off_t)HEAD_SIZE, (off_t)bytes);
    (void)sys_close(fd);
    return err == 0;
}

// Allocates the room on the disk up to `end` before it is written to. On a full disk the write would raise SIGBUS.
static bool back(sim_queue_t *queue, const char *dir, uint64_t end)
{
    sim_socket_t *socket = queue->socket;
    if (end + sizeof(sim_record_t) <= socket->backed)
        return true;
    uint64_t wanted = (end + sizeof(sim_record_t) + BACKING_STEP - 1) / BACKING_STEP * BACKING_STEP;
    wanted = wanted > queue->room_size ? queue->room_size : wanted;
    if (!allocate(queue, dir, wanted)) {
        static const char TEXT[] = "tipcsim: no space left for a message in the cluster's folder\n";
        (void)!write(STDERR_FILENO, TEXT, sizeof(TEXT) - 1);
        return false;
    }
    socket->backed = wanted;
    return true;
}

// Writes the byte that wakes the receiver. False when nobody has the wake-up socket open any more.
static bool notify(sim_queue_t *queue, const char *dir, int notify_fd)
{
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (!sim_queue_wakeup_path(dir, queue->port, addr.sun_path, sizeof(addr.sun_path)))
        return false;
    for (;;) {
        if (sendto(notify_fd, "", 1, MSG_DONTWAIT | MSG_NOSIGNAL, (struct sockaddr *)&addr, sizeof(addr)) == 1)
            return true;
        if (errno != EINTR)
            return errno == EAGAIN;
    }
}

uint32_t sim_queue_put(sim_queue_t *queue, const char *dir, int notify_fd, sim_record_t *record,
                       const struct iovec *data, size_t num)
{
    sim_socket_t *socket = queue->socket;
    if (record->err == TIPC_OK)
        record->charge = sim_queue_charge(record->len);
    record->size = (uint32_t)((sizeof(*record) + record->len + 7) & ~(size_t)7);
    queue_guard_s guard(queue);
    if (socket->closed != 0)
        return TIPC_ERR_NO_PORT;
    if (socket->charged + record->charge >= (uint64_t)socket->rmem << record->importance)
        return TIPC_ERR_OVERLOAD;
    uint32_t at = find_room(queue, record->size);
    if (at == UINT32_MAX || !back(queue, dir, (uint64_t)at + record->size))
        return TIPC_ERR_OVERLOAD;
    *record_at(queue, at) = *record;
    uint8_t *to = queue->room + at + sizeof(*record);
    for (size_t i = 0; i < num; i++) {
        memcpy(to, data[i].iov_base, data[i].iov_len);
        to += data[i].iov_len;
    }
    if (socket->notified == 0 && !notify(queue, dir, notify_fd))
        return TIPC_ERR_NO_PORT;
    socket->notified = 1;
    socket->tail = at + record->size;
    socket->num++;
    socket->charged += record->charge;
    return TIPC_OK;
}

static void drain(sim_socket_t *socket, int wakeup_fd)
{
    char byte;
    while (sys_recv(wakeup_fd, &byte, 1, MSG_DONTWAIT) >= 0)
        continue;
    socket->notified = 0;
}

static void copy_out(const uint8_t *from, size_t len, const struct iovec *data, size_t num)
{
    for (size_t i = 0; i < num && len != 0; i++) {
        size_t part = data[i].iov_len < len ? data[i].iov_len : len;
        memcpy(data[i].iov_base, from, part);
        from += part;
        len -= part;
    }
}

int sim_queue_get(sim_queue_t *queue, int wakeup_fd, bool peek, sim_record_t *record, const struct iovec *data,
                  size_t num)
{
    sim_socket_t *socket = queue->socket;
    queue_guard_s guard(queue);
    if (socket->num == 0) {
        drain(socket, wakeup_fd);
        return -EAGAIN;
    }
    uint32_t at = next_record(queue, socket->head);
    *record = *record_at(queue, at);
    copy_out(queue->room + at + sizeof(*record), record->len, data, num);
    if (peek)
        return 0;
    socket->head = at + record->size;
    socket->num--;
    socket->charged -= record->charge;
    if (socket->num == 0)
        drain(socket, wakeup_fd);
    return 0;
}

void sim_queue_close(sim_queue_t *queue, sim_return_t return_message, void *arg)
{
    sim_socket_t *socket = queue->socket;
    {
        queue_guard_s guard(queue);
        socket->closed = 1; // no message is added from here on
    }
    for (; socket->num != 0; socket->num--) {
        uint32_t at = next_record(queue, socket->head);
        const sim_record_t *record = record_at(queue, at);
        return_message(arg, record, queue->room + at + sizeof(*record));
        socket->head = at + record->size;
    }
}

void sim_queue_return(sim_queue_t *to, const char *dir, int notify_fd, const sim_record_t *record, const uint8_t *data,
                      uint32_t err, uint32_t by_port, uint32_t by_node)
{
    if (record->err != TIPC_OK || record->droppable != 0)
        return;
    sim_record_t answer = *record;
    answer.len = record->len < SIM_MAX_RETURNED ? record->len : SIM_MAX_RETURNED;
    answer.err = err;
    answer.src_port = by_port;
    answer.src_node = by_node;
    answer.droppable = 1;
    answer.importance = TIPC_CRITICAL_IMPORTANCE; // the limit up to which the kernel admits returned messages
    answer.charge = answer.len + 128;
    struct iovec part = {const_cast<uint8_t *>(data), answer.len};
    (void)sim_queue_put(to, dir, notify_fd, &answer, &part, 1);
}
