// The fault scripts, the in-process TIPC, and the interposed calls of sockets, streams and threads.
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "fake_tipc.h"
#include "fault.h"

namespace
{
struct script_t {
    int err;
    int times;
    int skip;
    std::function<void()> run;
};

// What tests know of one condition.
struct cond_t {
    int waits = 0;
    int signals = 0;
    int broadcasts = 0;
    int result = 0; // of the next `times` waits
    int times = 0;
    bool late = false;
    int broadcast_err = 0; // of the next broadcast
};

struct state_t {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, std::deque<script_t>> scripts;
    std::map<std::string, int> counts;
    std::map<std::string, int> failed;
    std::vector<std::string> log;
    std::map<std::string, std::string> files;
    std::map<int, fake_tipc::socket_t> sockets;
    std::map<int, std::deque<fake_tipc::item_t>> queues;
    std::vector<fake_tipc::sent_t> sent;
    std::vector<fake_tipc::bytes_t> subscriptions;
};

// Under a mutex of its own: the state's mutex is held where its condition is used.
struct conds_t {
    std::mutex mutex;
    std::map<const pthread_cond_t *, cond_t> conds;
};

conds_t &conds()
{
    static conds_t *s = new conds_t; // never destroyed either
    return *s;
}

state_t &state()
{
    static state_t *s = new state_t; // never destroyed: library threads outlive main
    return *s;
}

template <typename Fun>
Fun next(const char *name)
{
    return reinterpret_cast<Fun>(dlsym(RTLD_NEXT, name));
}

// Conditions have two versions in libc; without one, dlsym finds the older. The thread sanitizer has one of its own.
template <typename Fun>
Fun next_cond(const char *name)
{
#if !defined(__SANITIZE_THREAD__)
    void *found = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
    if (found != nullptr)
        return reinterpret_cast<Fun>(found);
#endif
    return next<Fun>(name);
}

bool is_fake(int sd)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.sockets.count(sd) != 0;
}

int fail(int err)
{
    errno = err;
    return -1;
}

// The next queued item of a fake socket; false with errno EAGAIN when there is none.
bool pop(int sd, fake_tipc::item_t *item)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::deque<fake_tipc::item_t> &queue = s.queues[sd];
    if (queue.empty()) {
        errno = EAGAIN;
        return false;
    }
    *item = queue.front();
    queue.pop_front();
    uint64_t one = 0;
    (void)!read(sd, &one, sizeof(one));
    s.changed.notify_all();
    return true;
}
} // namespace

namespace fault
{
void fail_next(const std::string &call, int err, int times, int skip)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.scripts[call].push_back({err, times, skip, nullptr});
}

void run_next(const std::string &call, const std::function<void()> &fun, int skip, int err)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.scripts[call].push_back({err, 1, skip, fun});
}

int waits(const pthread_cond_t *cond)
{
    std::lock_guard<std::mutex> lock(conds().mutex);
    return conds().conds[cond].waits;
}

int signals(const pthread_cond_t *cond)
{
    std::lock_guard<std::mutex> lock(conds().mutex);
    return conds().conds[cond].signals;
}

int broadcasts(const pthread_cond_t *cond)
{
    std::lock_guard<std::mutex> lock(conds().mutex);
    return conds().conds[cond].broadcasts;
}

void end_waits(const pthread_cond_t *cond, int result, int times, bool late)
{
    std::lock_guard<std::mutex> lock(conds().mutex);
    cond_t &known = conds().conds[cond];
    known.result = result;
    known.times = times;
    known.late = late;
}

void fail_broadcast(const pthread_cond_t *cond, int err)
{
    std::lock_guard<std::mutex> lock(conds().mutex);
    conds().conds[cond].broadcast_err = err;
}

int count(const std::string &call)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.counts[call];
}

int failed(const std::string &call)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.failed[call];
}

std::vector<std::string> log()
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.log;
}

void reset()
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.scripts.clear();
    s.counts.clear();
    s.failed.clear();
    s.log.clear();
    std::lock_guard<std::mutex> conds_lock(conds().mutex);
    conds().conds.clear();
}

void redirect_file(const std::string &path, const std::string &instead)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.files[path] = instead;
}

static std::atomic<bool> s_armed{false};

void arm(bool on)
{
    // At exit the leak check stops all threads and calls some of what is in here, which then must not allocate.
    static const int s_disarmed_at_exit = atexit([] { s_armed = false; });
    // The library's own handler calls some of it in a child, which must not find the mutex taken.
    static const int s_whole_at_fork =
        pthread_atfork([] { state().mutex.lock(); }, [] { state().mutex.unlock(); }, [] { state().mutex.unlock(); });
    s_armed = on && s_disarmed_at_exit == 0 && s_whole_at_fork == 0;
}

int take(const char *call)
{
    if (!s_armed)
        return 0;
    state_t &s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.counts[call]++;
    s.log.emplace_back(call);
    std::deque<script_t> &scripts = s.scripts[call];
    if (scripts.empty())
        return 0;
    script_t &script = scripts.front();
    if (script.skip > 0) {
        script.skip--;
        return 0;
    }
    int err = script.err;
    s.failed[call] += err != 0 ? 1 : 0;
    std::function<void()> run = script.run;
    if (--script.times == 0)
        scripts.pop_front();
    lock.unlock();
    if (run)
        run();
    return err;
}

const char *redirected(const char *path, bool *missing)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto found = s.files.find(path);
    *missing = found != s.files.end() && found->second.empty();
    return found == s.files.end() ? path : found->second.c_str();
}
} // namespace fault

namespace fake_tipc
{
std::vector<sent_t> take_sent()
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<sent_t> sent;
    sent.swap(s.sent);
    return sent;
}

std::vector<bytes_t> take_subscriptions()
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<bytes_t> taken;
    taken.swap(s.subscriptions);
    return taken;
}

std::map<int, socket_t> sockets()
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.sockets;
}

int topology_sd()
{
    for (const auto &entry : sockets()) {
        if (entry.second.type == SOCK_SEQPACKET && entry.second.connected)
            return entry.first;
    }
    return -1;
}

void queue_item(int sd, const item_t &item)
{
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.queues[sd].push_back(item);
    uint64_t one = 1;
    (void)!write(sd, &one, sizeof(one));
}

void queue_data(int sd, const bytes_t &data)
{
    queue_item(sd, {data, {}});
}

void queue_event(const struct tipc_event &event)
{
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&event);
    queue_data(topology_sd(), bytes_t(bytes, bytes + sizeof(event)));
}

void lose_topology()
{
    queue_data(topology_sd(), {});
}

void wait_read(int sd)
{
    state_t &s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.changed.wait(lock, [&] { return s.queues[sd].empty(); });
}

struct tipc_event timer_event(uint32_t type, uint32_t seq)
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = TIPC_SUBSCR_TIMEOUT;
    memcpy(event.s.usr_handle, &type, sizeof(type));
    memcpy(event.s.usr_handle + sizeof(type), &seq, sizeof(seq));
    return event;
}

struct tipc_event range_event(uint32_t kind, uint32_t lower, uint32_t upper)
{
    struct tipc_event event;
    memset(&event, 0, sizeof(event));
    event.event = kind;
    event.found_lower = lower;
    event.found_upper = upper;
    return event;
}
} // namespace fake_tipc

extern "C" {

int socket(int domain, int type, int protocol)
{
    if (domain != AF_TIPC)
        return next<int (*)(int, int, int)>("socket")(domain, type, protocol);
    int err = fault::take("socket");
    if (err != 0)
        return fail(err);
    int sd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK);
    if (sd < 0)
        return -1;
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sockets[sd] = {type, false, {}, {}};
    s.queues[sd].clear();
    return sd;
}

int connect(int sd, const struct sockaddr *addr, socklen_t len)
{
    if (!is_fake(sd))
        return next<int (*)(int, const struct sockaddr *, socklen_t)>("connect")(sd, addr, len);
    int err = fault::take("connect");
    if (err != 0)
        return fail(err);
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sockets[sd].connected = true;
    s.sockets[sd].bound.push_back(*reinterpret_cast<const struct sockaddr_tipc *>(addr));
    return 0;
}

int bind(int sd, const struct sockaddr *addr, socklen_t len)
{
    if (!is_fake(sd))
        return next<int (*)(int, const struct sockaddr *, socklen_t)>("bind")(sd, addr, len);
    int err = fault::take("bind");
    if (err != 0)
        return fail(err);
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sockets[sd].bound.push_back(*reinterpret_cast<const struct sockaddr_tipc *>(addr));
    return 0;
}

int setsockopt(int sd, int level, int name, const void *value, socklen_t len)
{
    if (!is_fake(sd))
        return next<int (*)(int, int, int, const void *, socklen_t)>("setsockopt")(sd, level, name, value, len);
    int err = fault::take("setsockopt");
    if (err != 0)
        return fail(err);
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sockets[sd].options.push_back({level, name, *static_cast<const int *>(value)});
    return 0;
}

int getsockopt(int sd, int level, int name, void *value, socklen_t *len)
{
    if (!is_fake(sd))
        return next<int (*)(int, int, int, void *, socklen_t *)>("getsockopt")(sd, level, name, value, len);
    int err = fault::take("getsockopt");
    if (err != 0)
        return fail(err);
    *static_cast<int *>(value) = fake_tipc::sockets()[sd].type;
    return 0;
}

// Every socket has the id of the events that range_event() makes.
int getsockname(int sd, struct sockaddr *addr, socklen_t *len) noexcept
{
    if (!is_fake(sd))
        return next<int (*)(int, struct sockaddr *, socklen_t *)>("getsockname")(sd, addr, len);
    struct sockaddr_tipc own = {};
    own.family = AF_TIPC;
    own.addrtype = TIPC_SOCKET_ADDR;
    memcpy(addr, &own, *len < sizeof(own) ? *len : sizeof(own));
    *len = sizeof(own);
    return 0;
}

int shutdown(int sd, int how)
{
    if (!is_fake(sd))
        return next<int (*)(int, int)>("shutdown")(sd, how);
    (void)fault::take("shutdown");
    return 0;
}

int close(int fd)
{
    if (is_fake(fd)) {
        (void)fault::take("close");
        state_t &s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.sockets.erase(fd);
        s.queues.erase(fd);
    }
    return next<int (*)(int)>("close")(fd);
}

ssize_t send(int sd, const void *data, size_t len, int flags)
{
    if (!is_fake(sd))
        return next<ssize_t (*)(int, const void *, size_t, int)>("send")(sd, data, len, flags);
    int err = fault::take("send");
    if (err == fault::SHORT)
        return static_cast<ssize_t>(len) - 1;
    if (err != 0)
        return fail(err);
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.subscriptions.emplace_back(bytes, bytes + len);
    return static_cast<ssize_t>(len);
}

ssize_t sendto(int sd, const void *data, size_t len, int flags, const struct sockaddr *addr, socklen_t addr_len)
{
    if (!is_fake(sd))
        return next<ssize_t (*)(int, const void *, size_t, int, const struct sockaddr *, socklen_t)>("sendto")(
            sd, data, len, flags, addr, addr_len);
    int err = fault::take("sendto");
    if (err == fault::SHORT) {
        errno = EIO;
        return static_cast<ssize_t>(len) - 1;
    }
    if (err != 0)
        return fail(err);
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    state_t &s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sent.push_back(
        {sd, *reinterpret_cast<const struct sockaddr_tipc *>(addr), flags, fake_tipc::bytes_t(bytes, bytes + len)});
    return static_cast<ssize_t>(len);
}

ssize_t recv(int sd, void *data, size_t len, int flags)
{
    if (!is_fake(sd))
        return next<ssize_t (*)(int, void *, size_t, int)>("recv")(sd, data, len, flags);
    int err = fault::take("recv");
    if (err != 0)
        return fail(err);
    fake_tipc::item_t item;
    if (!pop(sd, &item))
        return -1;
    size_t num = item.data.size() < len ? item.data.size() : len;
    if (num != 0)
        memcpy(data, item.data.data(), num);
    return static_cast<ssize_t>(num);
}

ssize_t recvmsg(int sd, struct msghdr *msg, int flags)
{
    if (!is_fake(sd))
        return next<ssize_t (*)(int, struct msghdr *, int)>("recvmsg")(sd, msg, flags);
    int err = fault::take("recvmsg");
    if (err != 0)
        return fail(err);
    fake_tipc::item_t item;
    if (!pop(sd, &item))
        return -1;
    size_t num = item.data.size() < msg->msg_iov[0].iov_len ? item.data.size() : msg->msg_iov[0].iov_len;
    if (num != 0)
        memcpy(msg->msg_iov[0].iov_base, item.data.data(), num);
    size_t used = 0;
    for (const fake_tipc::anc_t &anc : item.anc) {
        size_t space = CMSG_SPACE(anc.bytes.size());
        if (used + space > msg->msg_controllen)
            break;
        struct cmsghdr *head = reinterpret_cast<struct cmsghdr *>(static_cast<uint8_t *>(msg->msg_control) + used);
        head->cmsg_len = anc.len != 0 ? anc.len : CMSG_LEN(anc.bytes.size());
        head->cmsg_level = SOL_TIPC;
        head->cmsg_type = anc.type;
        if (!anc.bytes.empty())
            memcpy(CMSG_DATA(head), anc.bytes.data(), anc.bytes.size());
        used += space;
    }
    msg->msg_controllen = used;
    return static_cast<ssize_t>(num);
}

int poll(struct pollfd *fds, nfds_t num, int timeout)
{
    fault::note_poll(timeout);
    int err = fault::take("poll");
    if (err != 0)
        return fail(err);
    return next<int (*)(struct pollfd *, nfds_t, int)>("poll")(fds, num, timeout);
}

int fcntl(int fd, int cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    long arg = va_arg(args, long);
    va_end(args);
    int err = cmd == F_GETFD ? fault::take("fcntl(F_GETFD)") : (cmd == F_SETFD ? fault::take("fcntl(F_SETFD)") : 0);
    if (err != 0)
        return fail(err);
    return next<int (*)(int, int, ...)>("fcntl")(fd, cmd, arg);
}

FILE *fopen(const char *path, const char *mode)
{
    int err = fault::take("fopen");
    if (err != 0) {
        errno = err;
        return nullptr;
    }
    bool missing = false;
    const char *instead = fault::redirected(path, &missing);
    if (missing) {
        errno = ENOENT;
        return nullptr;
    }
    return next<FILE *(*)(const char *, const char *)>("fopen")(instead, mode);
}

int pthread_create(pthread_t *tid, const pthread_attr_t *attr, void *(*fun)(void *), void *arg)
{
    int err = fault::take("pthread_create");
    if (err != 0)
        return err;
    return next<int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)>("pthread_create")(tid, attr,
                                                                                                           fun, arg);
}

int pthread_cancel(pthread_t tid)
{
    (void)fault::take("pthread_cancel");
    return next<int (*)(pthread_t)>("pthread_cancel")(tid);
}

int pthread_join(pthread_t tid, void **result)
{
    (void)fault::take("pthread_join");
    return next<int (*)(pthread_t, void **)>("pthread_join")(tid, result);
}

int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr)
{
    int err = fault::take("pthread_mutex_init");
    if (err != 0)
        return err;
    return next<int (*)(pthread_mutex_t *, const pthread_mutexattr_t *)>("pthread_mutex_init")(mutex, attr);
}

int pthread_mutex_destroy(pthread_mutex_t *mutex)
{
    (void)fault::take("pthread_mutex_destroy");
    return next<int (*)(pthread_mutex_t *)>("pthread_mutex_destroy")(mutex);
}

int pthread_condattr_init(pthread_condattr_t *attr)
{
    int err = fault::take("pthread_condattr_init");
    if (err != 0)
        return err;
    return next<int (*)(pthread_condattr_t *)>("pthread_condattr_init")(attr);
}

int pthread_condattr_destroy(pthread_condattr_t *attr)
{
    (void)fault::take("pthread_condattr_destroy");
    return next<int (*)(pthread_condattr_t *)>("pthread_condattr_destroy")(attr);
}

int pthread_condattr_setclock(pthread_condattr_t *attr, clockid_t clock)
{
    int err = fault::take("pthread_condattr_setclock");
    if (err != 0)
        return err;
    return next<int (*)(pthread_condattr_t *, clockid_t)>("pthread_condattr_setclock")(attr, clock);
}

int pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr)
{
    int err = fault::take("pthread_cond_init");
    if (err != 0)
        return err;
    return next_cond<int (*)(pthread_cond_t *, const pthread_condattr_t *)>("pthread_cond_init")(cond, attr);
}

int pthread_cond_destroy(pthread_cond_t *cond)
{
    (void)fault::take("pthread_cond_destroy");
    return next_cond<int (*)(pthread_cond_t *)>("pthread_cond_destroy")(cond);
}

int pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const struct timespec *deadline)
{
    static auto s_wait =
        next_cond<int (*)(pthread_cond_t *, pthread_mutex_t *, const struct timespec *)>("pthread_cond_timedwait");
    if (!fault::s_armed)
        return s_wait(cond, mutex, deadline);
    auto scripted = [cond](bool late) {
        cond_t &known = conds().conds[cond];
        return known.times > 0 && known.late == late && known.times-- > 0;
    };
    {
        std::lock_guard<std::mutex> lock(conds().mutex);
        conds().conds[cond].waits++;
        if (scripted(false))
            return conds().conds[cond].result;
    }
    int ret = s_wait(cond, mutex, deadline);
    std::lock_guard<std::mutex> lock(conds().mutex);
    return scripted(true) ? conds().conds[cond].result : ret;
}

int pthread_cond_signal(pthread_cond_t *cond)
{
    static auto s_signal = next_cond<int (*)(pthread_cond_t *)>("pthread_cond_signal");
    if (fault::s_armed) {
        std::lock_guard<std::mutex> lock(conds().mutex);
        conds().conds[cond].signals++;
    }
    return s_signal(cond);
}

int pthread_cond_broadcast(pthread_cond_t *cond)
{
    static auto s_broadcast = next_cond<int (*)(pthread_cond_t *)>("pthread_cond_broadcast");
    if (fault::s_armed) {
        std::lock_guard<std::mutex> lock(conds().mutex);
        cond_t &known = conds().conds[cond];
        known.broadcasts++;
        if (known.broadcast_err != 0)
            return std::exchange(known.broadcast_err, 0);
    }
    return s_broadcast(cond);
}
}
