// Receives: messages, streams of bytes, returned messages, and what the kernel tells with them.
#include "preload.h"

#include <cstring>
#include <pthread.h>

typedef struct incoming_s {
    const sim_self_t *self;
    sim_socket_t *socket;
    struct msghdr *msg;
    size_t room; // bytes of all parts
    int flags;
    int fd;
    int64_t until; // ms
} incoming_t;

static void put_control(struct msghdr *msg, size_t *used, int type, const void *data, size_t len)
{
    size_t room = msg->msg_controllen - *used;
    struct cmsghdr head = {CMSG_LEN(len), SOL_TIPC, type};
    if (msg->msg_control == nullptr || msg->msg_controllen == 0)
        return;
    if (room < sizeof(head)) {
        msg->msg_flags |= MSG_CTRUNC;
        return;
    }
    if (room < head.cmsg_len) {
        msg->msg_flags |= MSG_CTRUNC;
        head.cmsg_len = room;
    }
    uint8_t *to = (uint8_t *)msg->msg_control + *used;
    memcpy(to, &head, sizeof(head));
    memcpy(to + sizeof(head), data, head.cmsg_len - sizeof(head));
    *used += CMSG_SPACE(len) < room ? CMSG_SPACE(len) : room;
}

// The name that a message was sent to, or that its connection was made with.
static bool destination(const sim_socket_t *socket, const sim_record_t *record, uint32_t name[3])
{
    if (record->err != TIPC_OK && record->len == 0)
        return false;
    if (!sim_connectionless(socket) && socket->conn_named != 0) {
        name[0] = socket->conn_type;
        name[1] = name[2] = socket->conn_lower;
        return true;
    }
    name[0] = record->type;
    name[1] = record->lower;
    name[2] = record->upper;
    return record->named != 0;
}

static void describe(const incoming_t *in, const sim_record_t *record, const uint8_t *data)
{
    struct msghdr *msg = in->msg;
    size_t used = 0;
    uint32_t name[3];
    if (record->err != TIPC_OK) {
        uint32_t info[2] = {record->err, record->len};
        put_control(msg, &used, TIPC_ERRINFO, info, sizeof(info));
        if (record->len != 0)
            put_control(msg, &used, TIPC_RETDATA, data, record->len);
    }
    if (destination(in->socket, record, name))
        put_control(msg, &used, TIPC_DESTNAME, name, sizeof(name));
    msg->msg_controllen = used;
}

static void name_sender(const sim_record_t *record, struct msghdr *msg)
{
    struct sockaddr_tipc addr;
    preload_socket_address(record->src_port, record->src_node, &addr);
    if (msg->msg_name != nullptr)
        memcpy(msg->msg_name, &addr, msg->msg_namelen < sizeof(addr) ? msg->msg_namelen : sizeof(addr));
    msg->msg_namelen = sizeof(addr);
}

// Whether the application's memory takes `len` bytes of data from its byte `from` on, the address and control data.
static bool takes(const incoming_t *in, size_t from, size_t len)
{
    struct msghdr *msg = in->msg;
    if (msg->msg_name != nullptr && !preload_writable(msg->msg_name, msg->msg_namelen < 16 ? msg->msg_namelen : 16))
        return false;
    if (msg->msg_control != nullptr && msg->msg_controllen != 0 &&
        !preload_writable(msg->msg_control, msg->msg_controllen))
        return false;
    for (size_t i = 0; i < msg->msg_iovlen && len != 0; i++) {
        size_t skip = from < msg->msg_iov[i].iov_len ? from : msg->msg_iov[i].iov_len;
        size_t part = msg->msg_iov[i].iov_len - skip < len ? msg->msg_iov[i].iov_len - skip : len;
        if (!preload_writable((uint8_t *)msg->msg_iov[i].iov_base + skip, part))
            return false;
        from -= skip;
        len -= part;
    }
    return true;
}

static void copy_out(const struct msghdr *msg, size_t from, const uint8_t *data, size_t len)
{
    for (size_t i = 0; i < msg->msg_iovlen && len != 0; i++) {
        size_t skip = from < msg->msg_iov[i].iov_len ? from : msg->msg_iov[i].iov_len;
        size_t part = msg->msg_iov[i].iov_len - skip < len ? msg->msg_iov[i].iov_len - skip : len;
        sim_copy((uint8_t *)msg->msg_iov[i].iov_base + skip, data, part);
        data += part;
        from -= skip;
        len -= part;
    }
}

// The first message of the queue, after a wait if there is none. 0 or an errno.
static int wait_for_message(const incoming_t *in, sim_link_t *at, sim_block_t **block)
{
    sim_state_t *state = preload_state(in->self);
    for (;;) {
        uint32_t seen = sim_load(&in->socket->change);
        uint32_t err = __atomic_exchange_n(&in->socket->err, 0U, __ATOMIC_SEQ_CST);
        if (err != 0)
            return (int)err;
        *block = sim_queue_first(state, in->socket, at);
        if (*block != nullptr)
            return 0;
        sim_socket_quiet(in->self, in->socket, in->fd);
        if (!preload_blocks(in->fd, in->flags))
            return EAGAIN;
        if (sim_load(&in->socket->shut) != 0)
            return ENOTCONN;
        int waited = preload_wait_change(in->socket, seen, in->until);
        if (waited != 0 && sim_queue_empty(state, in->socket))
            return waited;
    }
}

// Bytes of the first message that were read already.
static uint32_t read_so_far(const sim_socket_t *socket, sim_link_t at)
{
    uint64_t read = sim_load(&socket->read_at);
    return (uint32_t)(read >> 32) == sim_link_count(at) ? (uint32_t)read : 0;
}

static void set_read(sim_socket_t *socket, sim_link_t at, uint32_t bytes)
{
    sim_store(&socket->read_at, (uint64_t)sim_link_count(at) << 32 | bytes);
}

// Takes the first message out. False when another reader has been quicker.
static bool take(const incoming_t *in, sim_link_t at, sim_block_t *block)
{
    sim_state_t *state = preload_state(in->self);
    uint32_t len = block->record.len;
    bool data = block->record.err == TIPC_OK;
    if (!sim_queue_pop(state, in->socket, at, block))
        return false;
    sim_block_release(state, block);
    if (data && !sim_connectionless(in->socket))
        sim_acknowledge(in->self, in->socket, len);
    if (sim_queue_empty(state, in->socket))
        sim_socket_quiet(in->self, in->socket, in->fd);
    return true;
}

enum step_e { AGAIN, DONE };

static step_e finish(ssize_t *result, ssize_t value)
{
    *result = value;
    return DONE;
}

// The end of a connection, or a message that came back. It stays in the queue when there is no room to tell why.
static step_e take_error(const incoming_t *in, sim_link_t at, sim_block_t *block, const sim_record_t *record,
                         ssize_t *result)
{
    uint8_t data[SIM_MAX_RETURNED];
    bool connected = !sim_connectionless(in->socket);
    uint32_t len = record->len < sizeof(data) ? record->len : (uint32_t)sizeof(data);
    sim_copy(data, block->data, len);
    if (!sim_queue_same(in->socket, at))
        return AGAIN;
    if (!takes(in, 0, 0))
        return finish(result, preload_fail(EFAULT));
    if (connected && record->err != TIPC_CONN_SHUTDOWN && in->msg->msg_control == nullptr)
        return finish(result, preload_fail(ECONNRESET));
    if ((in->flags & MSG_PEEK) == 0 && !take(in, at, block))
        return AGAIN;
    in->msg->msg_flags = 0;
    name_sender(record, in->msg);
    describe(in, record, data);
    return finish(result, 0);
}

// One message, or what is left of it. Its data is copied while it is still in the queue, so that a reader that dies
// here loses none; when another reader took it meanwhile, the copy is done again with the next one.
static step_e take_message(const incoming_t *in, sim_link_t at, sim_block_t *block, ssize_t *result)
{
    sim_record_t record = block->record;
    if (!sim_queue_same(in->socket, at))
        return AGAIN;
    if (record.err != TIPC_OK)
        return take_error(in, at, block, &record, result);
    if (record.len == 0) { // the kernel wakes the receiver for an empty message, too, and then skips it
        (void)take(in, at, block);
        return AGAIN;
    }
    uint32_t from = read_so_far(in->socket, at);
    size_t len = record.len - from < in->room ? record.len - from : in->room;
    if (!takes(in, 0, len))
        return finish(result, preload_fail(EFAULT));
    copy_out(in->msg, 0, block->data + from, len);
    if (!sim_queue_same(in->socket, at))
        return AGAIN;
    bool left = from + len < record.len;
    bool parts = (in->flags & MSG_EOR) != 0;
    int out_flags = left && !parts ? MSG_TRUNC : !left && parts ? MSG_EOR : 0;
    if ((in->flags & MSG_PEEK) == 0) {
        if (left && parts)
            set_read(in->socket, at, from + (uint32_t)len);
        else if (!take(in, at, block))
            return AGAIN;
    }
    in->msg->msg_flags = out_flags;
    name_sender(&record, in->msg);
    describe(in, &record, nullptr);
    return finish(result, (ssize_t)len);
}

static ssize_t receive_message(incoming_t *in)
{
    for (;;) {
        sim_link_t at;
        sim_block_t *block = nullptr;
        ssize_t result = 0;
        int err = wait_for_message(in, &at, &block);
        if (err != 0)
            return preload_fail(err);
        if (take_message(in, at, block, &result) == DONE)
            return result;
    }
}

// Bytes of one message for a stream. `copied` grows by them; DONE when the call is over.
static step_e take_bytes(const incoming_t *in, sim_link_t at, sim_block_t *block, size_t *copied, ssize_t *result)
{
    sim_record_t record = block->record;
    if (!sim_queue_same(in->socket, at))
        return AGAIN;
    if (record.err != TIPC_OK) {
        if (*copied != 0)
            return finish(result, (ssize_t)*copied);
        return take_error(in, at, block, &record, result);
    }
    if (record.len == 0) {
        (void)take(in, at, block);
        return AGAIN;
    }
    uint32_t from = read_so_far(in->socket, at);
    size_t left = in->room - *copied;
    size_t len = record.len - from < left ? record.len - from : left;
    if (!takes(in, *copied, len))
        return finish(result, *copied != 0 ? (ssize_t)*copied : preload_fail(EFAULT));
    copy_out(in->msg, *copied, block->data + from, len);
    if (!sim_queue_same(in->socket, at))
        return AGAIN;
    bool peek = (in->flags & MSG_PEEK) != 0;
    bool rest = from + len < record.len;
    if (!peek && rest)
        set_read(in->socket, at, from + (uint32_t)len);
    else if (!peek && !take(in, at, block))
        return AGAIN;
    if (*copied == 0) {
        in->msg->msg_flags = 0;
        name_sender(&record, in->msg);
        describe(in, &record, nullptr);
    }
    *copied += len;
    return peek || rest || *copied == in->room ? finish(result, (ssize_t)*copied) : AGAIN;
}

static ssize_t receive_bytes(incoming_t *in)
{
    sim_state_t *state = preload_state(in->self);
    size_t lowat = in->socket->lowat < in->room ? in->socket->lowat : in->room;
    size_t wanted = (in->flags & MSG_WAITALL) != 0 ? in->room : lowat;
    size_t copied = 0;
    for (;;) {
        sim_link_t at;
        sim_block_t *block = nullptr;
        ssize_t result = 0;
        if (copied != 0 && copied >= wanted && sim_queue_empty(state, in->socket))
            return (ssize_t)copied;
        int err = wait_for_message(in, &at, &block);
        if (err != 0)
            return copied != 0 ? (ssize_t)copied : preload_fail(err);
        if (take_bytes(in, at, block, &copied, &result) == DONE)
            return result;
    }
}

ssize_t preload_receive(int fd, sim_socket_t *socket, struct msghdr *msg, int flags)
{
    incoming_t in = {preload_self(), socket, msg, 0, flags, fd, INT64_MAX};
    pthread_testcancel();
    if (!preload_readable(msg, sizeof(*msg)))
        return preload_fail(EFAULT);
    if (msg->msg_iovlen > PRELOAD_MAX_PARTS)
        return preload_fail(EMSGSIZE);
    if (!preload_readable(msg->msg_iov, msg->msg_iovlen * sizeof(*msg->msg_iov)))
        return preload_fail(EFAULT);
    for (size_t i = 0; i < msg->msg_iovlen; i++)
        in.room += msg->msg_iov[i].iov_len;
    if (in.room == 0)
        return preload_fail(EINVAL);
    if (!sim_connectionless(socket) && sim_conn_state(socket) == SIM_CONN_OPEN)
        return preload_fail(ENOTCONN);
    if (socket->rcvtimeo != 0)
        in.until = sys_now() + socket->rcvtimeo / 1000;
    return socket->type == (uint32_t)SOCK_STREAM ? receive_bytes(&in) : receive_message(&in);
}
