// Slots of sockets, and their queues.
#include "sim_socket.h"
#include "sim_sys.h"

#include <cstring>
#include <linux/tipc.h>

constexpr uint32_t DEFAULT_CONN_TIMEOUT = 8000; // ms
constexpr uint32_t FIRST_WINDOW = 128;          // blocks, of a connection
#ifndef SIM_MAX_TRIES
#define SIM_MAX_TRIES (1U << 20)
#endif
constexpr uint32_t MAX_TRIES = SIM_MAX_TRIES; // of a step that others come between: more are a queue that has no end

static sim_socket_t *free_slot(const sim_self_t *self, uint32_t *port)
{
    sim_state_t *state = self->cluster->state;
    for (;;) {
        uint32_t num = sim_load(&state->areas[SIM_AREA_SOCKETS].ready);
        uint32_t count = sim_add(&state->next_port, 1U);
        uint32_t first = count % num;
        for (uint32_t i = 0; i < num; i++) {
            uint32_t slot = (first + i) % num;
            sim_socket_t *socket = sim_socket_at(state, slot);
            if (sim_load(&socket->use) != SIM_SLOT_FREE ||
                !sim_swap(&socket->use, (uint32_t)SIM_SLOT_FREE, sim_use(SIM_SLOT_TAKEN, self->owner)))
                continue;
            *port = slot + SIM_MAX_SOCKETS * (1 + count % (UINT32_MAX / SIM_MAX_SOCKETS - 1));
            for (uint32_t used = sim_load(&state->socket_num); used <= slot; used = sim_load(&state->socket_num))
                (void)sim_swap(&state->socket_num, used, slot + 1);
            return socket;
        }
        if (self->grow(self->cluster, SIM_AREA_SOCKETS, num) != 0 &&
            sim_load(&state->areas[SIM_AREA_SOCKETS].ready) == num)
            return nullptr;
    }
}

static void reset_options(const sim_state_t *state, sim_socket_t *socket)
{
    bool connectionless = sim_connectionless(socket);
    socket->importance = TIPC_LOW_IMPORTANCE;
    socket->src_droppable = socket->type == (uint32_t)SOCK_DGRAM ? 1 : 0;
    socket->dest_droppable = connectionless ? 1 : 0;
    socket->rcvbuf = state->rmem;
    socket->sndbuf = 0;
    socket->conn_timeout = DEFAULT_CONN_TIMEOUT;
    socket->nodelay = 0;
    socket->lowat = 1;
    socket->inert = 0;
    socket->paired = 0;
    socket->rcvtimeo = 0;
    socket->sndtimeo = 0;
}

static void reset_connection(sim_socket_t *socket, uint32_t port)
{
    sim_store(&socket->conn, sim_conn(SIM_CONN_OPEN, 0));
    socket->err = 0;
    socket->shut = 0;
    socket->published = 0;
    socket->conn_named = 0;
    sim_store(&socket->flow, sim_flow(port, FIRST_WINDOW, 0));
    socket->rcv_unacked = 0;
    socket->rcv_window = FIRST_WINDOW;
    memset(socket->dest, 0, sizeof(socket->dest));
}

sim_socket_t *sim_socket_take(const sim_self_t *self, uint32_t type, uint32_t node, pid_t pid)
{
    sim_state_t *state = self->cluster->state;
    sim_block_t *first = sim_block_take(self, 0);
    uint32_t port = 0;
    sim_socket_t *socket = first != nullptr ? free_slot(self, &port) : nullptr;
    if (socket == nullptr) {
        if (first != nullptr)
            sim_block_free(state, first);
        return nullptr;
    }
    socket->pid = pid;
    socket->type = type;
    socket->node = node;
    socket->wake = -1;
    socket->served = 0;
    reset_options(state, socket);
    reset_connection(socket, port);
    socket->read_at = 0;
    socket->waiting = 0;
    socket->woken = 0;
    socket->edge = 0;
    first->holds = 1; // there is nothing in it to read
    first->charged = 0;
    first->counted = 0;
    sim_block_own(state, first, sim_owner_queue(sim_socket_slot(port)));
    sim_store(&first->next, sim_link(sim_link_count(sim_load(&first->next)) + 1, SIM_NONE));
    sim_store(&socket->head, sim_link(sim_link_count(sim_load(&socket->head)) + 1, first->number));
    sim_store(&socket->tail, sim_link(sim_link_count(sim_load(&socket->tail)) + 1, first->number));
    sim_store(&socket->port, port);
    return socket;
}

void sim_socket_open(sim_socket_t *socket)
{
    sim_store(&socket->use, (uint32_t)SIM_SLOT_OPEN);
}

sim_socket_t *sim_socket_of(sim_state_t *state, uint32_t port)
{
    uint32_t slot = sim_socket_slot(port);
    if (slot >= sim_load(&state->areas[SIM_AREA_SOCKETS].ready))
        return nullptr;
    sim_socket_t *socket = sim_socket_at(state, slot);
    return sim_load(&socket->port) == port && sim_load(&socket->use) == SIM_SLOT_OPEN ? socket : nullptr;
}

static struct flock range_of(const sim_state_t *state, uint32_t port)
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = (off_t)(state->lock_base + port);
    range.l_len = 1;
    return range;
}

int sim_socket_mark(const sim_state_t *state, int fd, uint32_t port)
{
    struct flock range = range_of(state, port);
    int ret = sys_lock(fd, F_OFD_SETLK, &range);
    return ret != 0 ? ret : sys_fcntl(fd, F_SETSIG, SIM_MARK);
}

bool sim_socket_held(const sim_state_t *state, int other, uint32_t port)
{
    struct flock range = range_of(state, port);
    return sys_lock(other, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

bool sim_socket_is(int fd)
{
    return sys_fcntl(fd, F_GETSIG, 0) == SIM_MARK;
}

uint32_t sim_queue_charge(uint32_t len)
{
    uint32_t needed = len + 640; // headers, head- and tailroom, the kernel's own records
    uint32_t size = 1024;
    while (size < needed)
        size *= 2;
    return size + 256;
}

// What lies between the first block and `last`. False when the first block has changed meanwhile.
static bool size_up_to(sim_state_t *state, const sim_socket_t *socket, const sim_block_t *last, uint32_t *num,
                       uint64_t *charged)
{
    sim_link_t head = sim_load(&socket->head);
    if (sim_link_number(head) == SIM_NONE)
        return false;
    const sim_block_t *first = sim_block_of(state, sim_link_number(head));
    *num = last->counted - sim_load(&first->counted);
    *charged = last->charged - sim_load(&first->charged);
    return head == sim_load(&socket->head);
}

static uint32_t append(sim_state_t *state, sim_socket_t *socket, uint32_t port, sim_block_t *block, uint64_t limit)
{
    for (uint32_t tries = 0; tries < MAX_TRIES; tries++) {
        sim_link_t tail = sim_load(&socket->tail);
        if (sim_link_number(tail) == SIM_NONE)
            return TIPC_ERR_NO_PORT; // the slot is free
        sim_block_t *last = sim_block_of(state, sim_link_number(tail));
        sim_link_t next = sim_load(&last->next);
        uint32_t num = 0;
        uint64_t charged = 0;
        block->charged = last->charged + block->record.charge;
        block->counted = last->counted + 1;
        if (tail != sim_load(&socket->tail))
            continue;
        if (sim_link_number(next) == SIM_CLOSED || sim_load(&socket->port) != port)
            return TIPC_ERR_NO_PORT; // closed, or the slot is that of another socket by now
        sim_link_t behind = sim_link(sim_link_count(tail) + 1, sim_link_number(next));
        if (sim_link_number(next) != SIM_NONE) {
            (void)sim_swap(&socket->tail, tail, behind); // another sender has not moved it yet
            continue;
        }
        if (!size_up_to(state, socket, last, &num, &charged))
            continue;
        if (charged + block->record.charge >= limit)
            return TIPC_ERR_OVERLOAD;
        if (!sim_swap(&last->next, next, sim_link(sim_link_count(next) + 1, block->number)))
            continue;
        (void)sim_swap(&socket->tail, tail, sim_link(sim_link_count(tail) + 1, block->number));
        return TIPC_OK;
    }
    return TIPC_ERR_OVERLOAD;
}

uint32_t sim_queue_put(const sim_self_t *self, sim_socket_t *socket, sim_block_t *block, uint64_t limit)
{
    sim_state_t *state = self->cluster->state;
    sim_store(&block->holds, 2U);
    sim_store(&block->next, sim_link(sim_link_count(sim_load(&block->next)) + 1, SIM_NONE));
    uint32_t wire = sim_load(&state->wire); // its messages are for others
    uint32_t port = sim_load(&socket->port) == wire ? wire : block->record.dst_port;
    // While it is neither ours alone nor certainly in the queue, nobody but the broker after our end may free it: the
    // socket may be closed, and its slot used again, between any two steps.
    uint32_t slot = sim_socket_slot(port);
    uint32_t number = block->number;
    sim_block_own(state, block, sim_owner_sending(slot, self->owner));
    uint32_t err = append(state, socket, port, block, limit);
    if (err != TIPC_OK) {
        sim_block_own(state, block, self->owner);
        return err;
    }
    sim_block_sent(state, number, slot, self->owner);
    sim_socket_notify(self, socket);
    return TIPC_OK;
}

void sim_queue_size(sim_state_t *state, sim_socket_t *socket, uint32_t *num, uint64_t *charged)
{
    *num = 0;
    *charged = 0;
    for (uint32_t tries = 0; tries < MAX_TRIES; tries++) {
        sim_link_t tail = sim_load(&socket->tail);
        if (sim_link_number(tail) == SIM_NONE)
            return;
        const sim_block_t *last = sim_block_of(state, sim_link_number(tail));
        uint32_t next = sim_link_number(sim_load(&last->next));
        if (next != SIM_NONE && next != SIM_CLOSED) { // its sender has not moved the tail yet, or was killed before
            (void)sim_swap(&socket->tail, tail, sim_link(sim_link_count(tail) + 1, next));
            continue;
        }
        if (size_up_to(state, socket, last, num, charged) && tail == sim_load(&socket->tail))
            return;
    }
}

sim_block_t *sim_queue_first(sim_state_t *state, sim_socket_t *socket, sim_link_t *at)
{
    for (uint32_t tries = 0; tries < MAX_TRIES; tries++) {
        sim_link_t head = sim_load(&socket->head);
        sim_link_t tail = sim_load(&socket->tail);
        if (sim_link_number(head) == SIM_NONE)
            return nullptr;
        sim_link_t next = sim_load(&sim_block_of(state, sim_link_number(head))->next);
        if (head != sim_load(&socket->head))
            continue;
        uint32_t number = sim_link_number(next);
        if (number == SIM_NONE || number == SIM_CLOSED)
            return nullptr;
        if (sim_link_number(head) == sim_link_number(tail)) {
            (void)sim_swap(&socket->tail, tail, sim_link(sim_link_count(tail) + 1, number));
            continue;
        }
        *at = head;
        sim_block_t *first = sim_block_of(state, number);
        if (first->record.len > sim_block_room(state, number))
            first->record.len = 0; // it is no message that anybody sent, or was taken away this moment
        return first;
    }
    return nullptr;
}

bool sim_queue_same(const sim_socket_t *socket, sim_link_t at)
{
    return sim_load(&socket->head) == at;
}

bool sim_queue_pop(sim_state_t *state, sim_socket_t *socket, sim_link_t at, sim_block_t *first)
{
    if (!sim_swap(&socket->head, at, sim_link(sim_link_count(at) + 1, first->number)))
        return false;
    sim_block_release(state, sim_block_of(state, sim_link_number(at)));
    return true;
}

bool sim_queue_empty(sim_state_t *state, sim_socket_t *socket)
{
    sim_link_t at;
    return sim_queue_first(state, socket, &at) == nullptr;
}

void sim_queue_close(sim_state_t *state, sim_socket_t *socket)
{
    for (uint32_t tries = 0; tries < MAX_TRIES; tries++) {
        sim_link_t tail = sim_load(&socket->tail);
        if (sim_link_number(tail) == SIM_NONE)
            return;
        sim_block_t *last = sim_block_of(state, sim_link_number(tail));
        sim_link_t next = sim_load(&last->next);
        if (tail != sim_load(&socket->tail))
            continue;
        if (sim_link_number(next) == SIM_CLOSED)
            return;
        if (sim_link_number(next) != SIM_NONE)
            (void)sim_swap(&socket->tail, tail, sim_link(sim_link_count(tail) + 1, sim_link_number(next)));
        else if (sim_swap(&last->next, next, sim_link(sim_link_count(next) + 1, SIM_CLOSED)))
            return;
    }
}

void sim_socket_rouse(sim_socket_t *socket)
{
    (void)sim_add(&socket->change, 1U);
    if (sim_load(&socket->waiting) != 0 && __atomic_exchange_n(&socket->waiting, 0U, __ATOMIC_SEQ_CST) != 0)
        sys_futex_wake(&socket->change);
}

void sim_socket_notify(const sim_self_t *self, sim_socket_t *socket)
{
    sim_socket_rouse(socket);
    if (sim_swap(&socket->woken, 0U, 1U) || sim_load(&socket->edge) != 0)
        self->wake(self->cluster, socket);
}

// The order of the steps counts. Who comes before `woken` is 0 writes nothing, but the last step sees his message,
// unless another reader has taken it. Who comes after it writes, and nobody takes that back.
void sim_socket_quiet(const sim_self_t *self, sim_socket_t *socket, int fd)
{
    struct epoll_event event;
    if (sim_load(&socket->woken) == 0)
        return;
    (void)sys_epoll_wait(fd, &event, 1, 0);
    sim_store(&socket->woken, 0U);
    if ((sim_socket_events(self->cluster->state, socket) & (POLLIN | POLLHUP)) == 0)
        return;
    sim_store(&socket->woken, 1U);
    self->wake(self->cluster, socket);
}

short sim_socket_events(sim_state_t *state, sim_socket_t *socket)
{
    short events = 0;
    uint32_t conn = sim_conn_state(socket);
    if (sim_load(&socket->shut) != 0)
        events |= POLLRDHUP | POLLIN | POLLRDNORM | POLLHUP;
    if (conn == SIM_CONN_DISCONNECTING)
        return POLLIN | POLLRDNORM | POLLHUP;
    if (conn == SIM_CONN_ESTABLISHED && !sim_flow_full(sim_load(&socket->flow)))
        events |= POLLOUT;
    if (conn == SIM_CONN_OPEN)
        events |= POLLOUT;
    if ((conn != SIM_CONN_OPEN || sim_connectionless(socket)) && !sim_queue_empty(state, socket))
        events |= POLLIN | POLLRDNORM;
    return events;
}
