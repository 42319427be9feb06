// The path of a sent message: from a name to a socket's queue, or to the broker when the link is slow or cut. Names
// that were looked up are cached until the cluster's generation changes, mapped queues until their socket is closed or
// another one needs the slot. Faults ordered with `tipcsim fail` are taken here.
#include "preload.h"
#include "sim_protocol.h"
#include "sim_sys.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

constexpr uint32_t MAX_TARGETS = 8; // sockets cached for one name
constexpr uint32_t NAME_SLOTS = 512;
constexpr uint32_t PEER_SLOTS = 1024;

typedef struct known_name_s {
    uint32_t generation;
    uint32_t type;
    uint32_t instance;
    uint32_t node; // index; the lookup was limited to this node, or SIM_ANY_NODE
    uint32_t num;
    preload_target_t targets[MAX_TARGETS];
} known_name_t;

// Guards s_names and s_turn. The state's mutex may be taken under it.
static pthread_mutex_t s_names_mutex = PTHREAD_MUTEX_INITIALIZER;
static known_name_t s_names[NAME_SLOTS];
static uint32_t s_turn; // sockets that share a name take turns

static pthread_mutex_t s_peers_mutex = PTHREAD_MUTEX_INITIALIZER; // guards s_peers and the references of its entries
static sim_queue_t *s_peers[PEER_SLOTS];

// Guards s_broker. It is held from a request to its reply.
static pthread_mutex_t s_broker_mutex = PTHREAD_MUTEX_INITIALIZER;
static int s_broker = -1;
static int s_notify_fd = -1; // made once, under a mutex in notify_fd

static void before_fork()
{
    (void)pthread_mutex_lock(&s_broker_mutex);
    (void)pthread_mutex_lock(&s_names_mutex);
    (void)pthread_mutex_lock(&s_peers_mutex);
}

static void after_fork()
{
    (void)pthread_mutex_unlock(&s_peers_mutex);
    (void)pthread_mutex_unlock(&s_names_mutex);
    (void)pthread_mutex_unlock(&s_broker_mutex);
}

static void after_fork_in_child()
{
    if (s_broker >= 0)
        (void)sys_close(s_broker); // the connection is the parent's
    s_broker = -1;
    after_fork();
}

__attribute__((constructor)) static void prepare_forks()
{
    (void)pthread_atfork(before_fork, after_fork, after_fork_in_child);
}

bool preload_hidden(int fd)
{
    return fd >= 0 && (fd == __atomic_load_n(&s_broker, __ATOMIC_RELAXED) ||
                       fd == __atomic_load_n(&s_notify_fd, __ATOMIC_RELAXED));
}

int preload_hide(int fd)
{
    int high = fcntl(fd, F_DUPFD_CLOEXEC, 512);
    if (high < 0)
        return fd;
    (void)sys_close(fd);
    return high;
}

int preload_ask_broker(uint32_t op, uint32_t a, uint32_t b, const struct iovec *more, size_t num)
{
    sim_cluster_t *cluster = preload_cluster();
    sim_request_t request = {SIM_MAGIC, op, cluster->state->nodes[preload_node()], a, b, 0};
    int ret = -ENOTCONN;
    (void)pthread_mutex_lock(&s_broker_mutex);
    for (int tries = 0; tries < 2 && ret == -ENOTCONN; tries++) {
        if (s_broker < 0) {
            int fd = sim_broker_connect(cluster, getenv("TIPCSIM_TOOL"));
            if (fd < 0)
                break;
            __atomic_store_n(&s_broker, preload_hide(fd), __ATOMIC_RELAXED);
        }
        ret = sim_broker_ask(s_broker, &request, more, num);
        if (ret == -ENOTCONN) {
            (void)sys_close(s_broker);
            __atomic_store_n(&s_broker, -1, __ATOMIC_RELAXED);
        }
    }
    (void)pthread_mutex_unlock(&s_broker_mutex);
    return ret;
}

static bool matches(const sim_state_t *state, const sim_name_t *name, uint32_t type, uint32_t instance, uint32_t node)
{
    uint32_t me = preload_node();
    if (name->type != type || instance < name->lower || instance > name->upper)
        return false;
    if (node != SIM_ANY_NODE && name->node != node)
        return false;
    if (name->node == me)
        return true;
    return name->scope != TIPC_NODE_SCOPE && sim_linked(state->down, me, name->node);
}

// Called with s_names_mutex held. Finds the sockets bound to a name, newest first. Of overlapping ranges the one with
// the lowest lower bound is used.
static void look_up(known_name_t *known, uint32_t type, uint32_t instance, uint32_t node)
{
    sim_state_t *state = preload_cluster()->state;
    sim_guard_s guard(&state->mutex);
    *known = {state->generation, type, instance, node, 0, {}};
    uint32_t lowest = UINT32_MAX;
    for (uint32_t i = state->name_num; i-- > 0;) {
        const sim_name_t *name = &state->names[i];
        if (!matches(state, name, type, instance, node) || name->lower > lowest)
            continue;
        if (name->lower < lowest)
            known->num = 0;
        lowest = name->lower;
        if (known->num < MAX_TARGETS)
            known->targets[known->num++] = {name->port, name->node};
    }
}

// The upper bits of the product are used, because every bit of the key affects them: instances often differ in their
// upper half only.
static uint32_t name_place(uint32_t type, uint32_t instance)
{
    return (type * 31 + instance) * 2654435761U / (UINT32_MAX / NAME_SLOTS + 1);
}

bool preload_lookup(uint32_t type, uint32_t instance, uint32_t node, preload_target_t *target)
{
    uint32_t generation = __atomic_load_n(&preload_cluster()->state->generation, __ATOMIC_ACQUIRE);
    (void)pthread_mutex_lock(&s_names_mutex);
    known_name_t *known = &s_names[name_place(type, instance)];
    if (known->num == 0 || known->generation != generation || known->type != type || known->instance != instance ||
        known->node != node)
        look_up(known, type, instance, node);
    bool found = known->num != 0;
    if (found)
        *target = known->targets[known->num == 1 ? 0 : s_turn++ % known->num];
    (void)pthread_mutex_unlock(&s_names_mutex);
    return found;
}

static void put_peer(sim_queue_t *peer)
{
    (void)pthread_mutex_lock(&s_peers_mutex);
    bool last = --peer->refs == 0;
    (void)pthread_mutex_unlock(&s_peers_mutex);
    if (!last)
        return;
    sim_queue_unmap(peer);
    free(peer);
}

// Called with s_peers_mutex held. The slot keeps one reference to its entry; the caller releases the returned one.
static sim_queue_t *replace_peer(sim_queue_t **slot, sim_queue_t *fresh)
{
    sim_queue_t *old = *slot;
    *slot = fresh;
    return old;
}

// The mapped queue of a socket, null when the socket is gone. Release it with put_peer.
static sim_queue_t *get_peer(uint32_t port)
{
    sim_queue_t **slot = &s_peers[port % PEER_SLOTS];
    (void)pthread_mutex_lock(&s_peers_mutex);
    sim_queue_t *peer = *slot;
    if (peer != nullptr && peer->port == port && __atomic_load_n(&peer->socket->closed, __ATOMIC_RELAXED) == 0) {
        peer->refs++;
        (void)pthread_mutex_unlock(&s_peers_mutex);
        return peer;
    }
    (void)pthread_mutex_unlock(&s_peers_mutex);
    peer = (sim_queue_t *)calloc(1, sizeof(*peer));
    if (peer == nullptr || sim_queue_open(peer, preload_cluster()->dir, port) != 0) {
        free(peer);
        return nullptr;
    }
    peer->refs = 2;
    (void)pthread_mutex_lock(&s_peers_mutex);
    sim_queue_t *old = replace_peer(slot, peer);
    (void)pthread_mutex_unlock(&s_peers_mutex);
    if (old != nullptr)
        put_peer(old);
    return peer;
}

static int notify_fd()
{
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; // guards the creation of s_notify_fd
    (void)pthread_mutex_lock(&mutex);
    if (s_notify_fd < 0)
        __atomic_store_n(&s_notify_fd, preload_hide((int)syscall(SYS_socket, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
                         __ATOMIC_RELAXED);
    (void)pthread_mutex_unlock(&mutex);
    return s_notify_fd;
}

// Hands a message to the broker, which keeps it while the link is slow or cut. False when the broker did not take it.
static bool delivered_later(const preload_target_t *target, sim_record_t *record, const struct iovec *data, size_t num)
{
    static thread_local uint8_t s_bytes[SIM_MAX_DATA];
    size_t len = 0;
    for (size_t i = 0; i < num; i++) {
        memcpy(s_bytes + len, data[i].iov_base, data[i].iov_len);
        len += data[i].iov_len;
    }
    struct iovec more[2] = {{record, sizeof(*record)}, {s_bytes, len}};
    return preload_ask_broker(SIM_DELIVER, target->port, target->node, more, 2) == 0;
}

uint32_t preload_deliver(const preload_target_t *target, sim_record_t *record, const struct iovec *data, size_t num)
{
    sim_cluster_t *cluster = preload_cluster();
    if (!sim_linked(cluster->state->cut, preload_node(), target->node)) {
        if (sim_linked(cluster->state->down, preload_node(), target->node))
            (void)delivered_later(target, record, data, num);
        return TIPC_OK; // the message is on the wire: lost with the link, or delivered when the link is healed in time
    }
    if (__atomic_load_n(&cluster->state->delay_num, __ATOMIC_RELAXED) != 0 &&
        delivered_later(target, record, data, num))
        return TIPC_OK;
    sim_queue_t *peer = get_peer(target->port);
    if (peer == nullptr)
        return TIPC_ERR_NO_PORT;
    uint32_t err = sim_queue_put(peer, cluster->dir, notify_fd(), record, data, num);
    put_peer(peer);
    return err;
}

void preload_return(const sim_record_t *record, const uint8_t *data, uint32_t err, uint32_t by_port, uint32_t by_node)
{
    sim_cluster_t *cluster = preload_cluster();
    if (record->err != TIPC_OK || !sim_linked(cluster->state->cut, preload_node(), record->src_index))
        return;
    sim_queue_t *sender = get_peer(record->src_port);
    if (sender == nullptr)
        return;
    sim_queue_return(sender, cluster->dir, notify_fd(), record, data, err, by_port, by_node);
    put_peer(sender);
}

bool preload_take_fault(sim_fault_kind_e kind, uint32_t *value)
{
    sim_state_t *state = preload_cluster()->state;
    if (__atomic_load_n(&state->fault_num, __ATOMIC_RELAXED) == 0)
        return false;
    sim_guard_s guard(&state->mutex);
    for (uint32_t i = 0; i < state->fault_num; i++) {
        sim_fault_t *fault = &state->faults[i];
        if (fault->kind != kind || fault->left <= 0)
            continue;
        if (fault->pid != 0 ? fault->pid != getpid() : fault->node != preload_node())
            continue;
        fault->left--;
        *value = fault->value;
        return true;
    }
    return false;
}

void preload_complain(const char *format, ...)
{
    char text[300];
    va_list args;
    va_start(args, format);
    int len = snprintf(text, sizeof(text), "tipcsim: ");
    len += vsnprintf(text + len, sizeof(text) - (size_t)len, format, args);
    va_end(args);
    len = len < (int)sizeof(text) - 1 ? len : (int)sizeof(text) - 2;
    text[len] = '\n';
    (void)!write(STDERR_FILENO, text, (size_t)len + 1);
}
