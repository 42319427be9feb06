#include "zebd_serve.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "zebd_evidence.h"

constexpr size_t READ_SIZE = 64 << 10;
constexpr int BACKLOG = 64;
constexpr int64_t END_TIME = 2000;     // ms that a connection has to read why it ends
constexpr int64_t ACCEPT_PAUSE = 200;  // ms, when there is no descriptor for a connection
constexpr size_t INSTS_AT_ONCE = 8192; // of a view, in one record
constexpr size_t PAIRS_AT_ONCE = 128;  // of a history
constexpr size_t HERE_MAX = 512 << 10; // bytes of an answer about this node
static const char GROUP[] = "zeb";

static void end_connection(zebd_server_t *server, uint64_t number);
static void write_out(zebd_server_t *server, zebd_connection_t *connection);

// Who may ask.

static std::string user_name(uid_t user)
{
    const struct passwd *entry = getpwuid(user);
    return entry == nullptr ? "number " + std::to_string(user) : entry->pw_name;
}

static bool is_in_group(uid_t user, gid_t primary)
{
    const struct group *group = getgrnam(GROUP);
    if (group == nullptr)
        return false;
    gid_t wanted = group->gr_gid;
    const struct passwd *entry = getpwuid(user);
    if (primary == wanted || entry == nullptr)
        return primary == wanted;
    std::vector<gid_t> groups(256);
    int count = (int)groups.size();
    int ret = getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count);
    if (ret == -1 && count > 0 && count <= 65536) {
        groups.resize((size_t)count);
        ret = getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count);
    }
    groups.resize(ret < 0 ? 0 : (size_t)ret);
    return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

// Output.

static size_t unread(const zebd_connection_t *connection)
{
    return connection->out.size() - connection->out_sent;
}

static size_t unread_by_all(const zebd_server_t *server)
{
    size_t size = 0;
    for (const auto &entry : server->connections)
        size += unread(entry.second.get());
    return size;
}

// Ends it from the loop: whoever calls goes on with the connection for now.
static void end_soon(zebd_server_t *server, zebd_connection_t *connection, int64_t after)
{
    uint64_t number = connection->number;
    zebd_loop_remove(server->loop, connection->end);
    connection->end = zebd_loop_at(server->loop, after, [server, number] { end_connection(server, number); });
}

static void put(zebd_server_t *server, zebd_connection_t *connection, const ops_json_t &record)
{
    if (connection->ends)
        return;
    connection->out += ops_record_line(record);
    write_out(server, connection);
    if (unread(connection) <= ZEBD_OUTPUT_MAX && unread_by_all(server) <= ZEBD_TOTAL_MAX)
        return;
    connection->ends = true;
    connection->out.clear();
    connection->out_sent = 0;
    end_soon(server, connection, 0);
}

static const char *name_of(int err)
{
    switch (err) {
    case EACCES:
        return "EACCES";
    case ENOENT:
        return "ENOENT";
    case EHOSTUNREACH:
        return "EHOSTUNREACH";
    case EUSERS:
        return "EUSERS";
    case EADDRINUSE:
        return "EADDRINUSE";
    case EMSGSIZE:
        return "EMSGSIZE";
    case ENOSYS:
        return "ENOSYS";
    default:
        return "EINVAL";
    }
}

static void put_error(zebd_server_t *server, zebd_connection_t *connection, uint32_t id, int err,
                      const std::string &text)
{
    put(server, connection,
        {{"type", "zeb.error.1"}, {"id", id}, {"errno", name_of(err)}, {"text", ops_record_wide(text)}});
}

// An error after which nothing is read any more.
static void refuse(zebd_server_t *server, zebd_connection_t *connection, uint32_t id, int err, const std::string &text)
{
    put_error(server, connection, id, err, text);
    connection->ends = true;
    connection->in.clear();
    zebd_loop_want(server->loop, connection->watch, unread(connection) != 0 ? POLLOUT : 0);
    end_soon(server, connection, unread(connection) != 0 ? END_TIME : 0);
}

static void pause_jobs(zebd_server_t *server, zebd_connection_t *connection)
{
    bool slow = unread(connection) > ZEBD_SLOW;
    bool goes_on = false;
    for (auto &entry : connection->jobs) {
        goes_on = goes_on || (entry.second->batch.paused && !slow);
        entry.second->batch.paused = slow;
    }
    if (goes_on)
        zebd_sampler_wake(server->sampler);
}

static void tell_lost(zebd_server_t *server, zebd_connection_t *connection)
{
    connection->lost = false;
    ops_json_t record = ops_record_of_event({ops_wall(), OPS_EVENT_LOST, {}, {}, 0});
    record["id"] = connection->follow_id;
    put(server, connection, record);
}

static void write_out(zebd_server_t *server, zebd_connection_t *connection)
{
    while (unread(connection) != 0) {
        ssize_t len = send(connection->sd, connection->out.data() + connection->out_sent, unread(connection),
                           MSG_NOSIGNAL | MSG_DONTWAIT);
        if (len < 0 && errno != EINTR) {
            if (errno != EAGAIN) {
                connection->out.clear();
                connection->out_sent = 0;
                connection->ends = true;
                end_soon(server, connection, 0);
            }
            break;
        }
        connection->out_sent += len < 0 ? 0 : (size_t)len;
    }
    if (connection->out_sent > connection->out.size() / 2 || unread(connection) == 0) {
        connection->out.erase(0, connection->out_sent);
        connection->out_sent = 0;
    }
    short wanted = (short)((connection->ends ? 0 : POLLIN) | (unread(connection) != 0 ? POLLOUT : 0));
    zebd_loop_want(server->loop, connection->watch, wanted);
    pause_jobs(server, connection);
    if (connection->ends && unread(connection) == 0)
        end_soon(server, connection, 0);
}

// The requests.

static void on_hello(zebd_server_t *server, zebd_connection_t *connection, const zebd_request_t &request)
{
    put(server, connection,
        {{"id", request.id},
         {"type", "zebd.hello.1"},
         {"version", server->version},
         {"node", server->model->node},
         {"pid", getpid()},
         {"interval_ms", server->sampler->interval}});
}

// While the view is filled anew, what it had before counts.
static std::vector<ops_seen_t> all_seen(const zebd_server_t *server)
{
    const auto &known = server->model->insts;
    std::vector<ops_seen_t> all;
    if (!server->sampler->in_step) {
        for (const auto &entry : known) {
            if (entry.second.quit == 0)
                all.push_back({entry.second.inst, entry.second.sockets, entry.second.since});
        }
        return all;
    }
    for (const auto &[name, published] : server->sampler->view.insts) {
        auto found = known.find(name);
        all.push_back({ops_inst_of(name), published.sockets, found == known.end() ? 0 : found->second.since});
    }
    return all;
}

static void on_view(zebd_server_t *server, zebd_connection_t *connection, const zebd_request_t &request)
{
    const ops_view_t &view = server->sampler->view;
    std::vector<ops_seen_t> all = all_seen(server);
    size_t at = 0;
    do {
        ops_json_t list = ops_json_t::array();
        for (; at < all.size() && list.size() < INSTS_AT_ONCE; at++)
            list.push_back(ops_record_of_seen(all[at]));
        ops_json_t record = {{"id", request.id},
                             {"type", "zebd.view.1"},
                             {"instances", list},
                             {"left_out", view.left_out},
                             {"odd", view.odd}};
        if (at < all.size())
            record["more"] = true;
        put(server, connection, record);
    } while (at < all.size());
}

static void finish_job(zebd_server_t *server, zebd_connection_t *connection, uint32_t id)
{
    connection->jobs.erase(id);
    put(server, connection, {{"id", id}, {"done", true}});
}

static void on_reply(zebd_server_t *server, zebd_job_t *job, ops_request_t *reply)
{
    zebd_connection_t *connection = job->connection;
    ops_json_t record = {{"id", job->id}};
    record.update(ops_record_of_reply(*reply));
    std::string().swap(reply->text);
    server->waiting--;
    put(server, connection, record);
    if (job->batch.waiting == 0)
        finish_job(server, connection, job->id);
}

static void on_ask(zebd_server_t *server, zebd_connection_t *connection, const zebd_request_t &request)
{
    if (server->waiting + request.insts.size() > ZEBD_REQUESTS_MAX || connection->jobs.size() >= ZEBD_JOBS_MAX)
        return put_error(server, connection, request.id, EUSERS, "too many instances are being asked");
    if (connection->jobs.count(request.id) != 0)
        return refuse(server, connection, request.id, EINVAL, "a request with this id is not answered yet");
    auto owned = std::make_unique<zebd_job_t>();
    zebd_job_t *job = owned.get();
    job->connection = connection;
    job->id = request.id;
    for (ops_inst_t inst : request.insts) {
        ops_request_t question = ops_request(inst, request.ask);
        question.set = request.set;
        question.clear = request.clear;
        job->requests.push_back(question);
    }
    job->batch.requests = &job->requests;
    job->batch.timeout = request.timeout;
    job->batch.paused = unread(connection) > ZEBD_SLOW;
    job->batch.on_done = [server, job](ops_request_t *reply) { on_reply(server, job, reply); };
    connection->jobs[request.id] = std::move(owned);
    if (zebd_sampler_ask(server->sampler, &job->batch) != 0) {
        connection->jobs.erase(request.id);
        return put_error(server, connection, request.id, EADDRINUSE,
                         "another process of node " + std::to_string(server->model->node) +
                             " is application 1, and zebd waits for it");
    }
    server->waiting += job->requests.size();
    if (job->batch.waiting == 0)
        finish_job(server, connection, request.id);
}

static void on_event(zebd_server_t *server, uint64_t number, const ops_event_t &event)
{
    auto found = server->connections.find(number);
    if (found == server->connections.end())
        return;
    zebd_connection_t *connection = found->second.get();
    connection->lost = connection->lost || unread(connection) > ZEBD_SLOW;
    if (connection->lost)
        return;
    ops_json_t record = ops_record_of_event(event);
    record["id"] = connection->follow_id;
    put(server, connection, record);
}

static void on_events(zebd_server_t *server, zebd_connection_t *connection, const zebd_request_t &request)
{
    if (connection->follower != 0)
        return refuse(server, connection, request.id, EINVAL, "this connection follows events already");
    connection->follow_id = request.id;
    for (const ops_event_t &event : server->model->events) {
        if (event.at < request.since)
            continue;
        ops_json_t record = ops_record_of_event(event);
        record["id"] = request.id;
        put(server, connection, record);
    }
    if (!request.follow)
        return put(server, connection, {{"id", request.id}, {"done", true}});
    uint64_t number = connection->number;
    connection->follower = zebd_loop_follow(
        server->loop, [server, number](uint64_t, const ops_event_t &event) { on_event(server, number, event); });
    zebd_sampler_hasten(server->sampler);
}

static void on_history(zebd_server_t *server, zebd_connection_t *connection, const zebd_request_t &request)
{
    const zebd_model_t *model = server->model;
    uint32_t name = ops_name_of(request.inst);
    auto found = model->insts.find(name);
    if (found == model->insts.end())
        return put_error(server, connection, request.id, ENOENT, "nothing is known of this instance");
    ops_json_t record = {{"id", request.id}, {"type", "zebd.history.1"}, {"round", model->round}};
    record.update(zebd_record_of_inst(found->second));
    ops_json_t pairs = ops_json_t::array();
    for (const auto &[names, pair] : model->pairs) {
        if (names.first != name && names.second != name)
            continue;
        if (pairs.size() >= PAIRS_AT_ONCE) {
            put(server, connection, {{"id", request.id}, {"pairs", pairs}, {"more", true}});
            pairs.clear();
        }
        pairs.push_back(zebd_record_of_pair(pair));
    }
    record["pairs"] = pairs;
    put(server, connection, record);
}

static void put_answer(zebd_server_t *server, zebd_connection_t *connection, uint32_t id, int err,
                       const std::string &why, const ops_json_t &answer)
{
    if (err != 0)
        return put_error(server, connection, id, err, why);
    ops_json_t record = {{"id", id}};
    for (const char *member : {"processes", "text", "next"}) { // and nothing else that another node may have put in
        if (answer.contains(member))
            record[member] = answer[member];
    }
    put(server, connection, record);
}

// What lies on the disk of a node.
static void on_disk(zebd_server_t *server, zebd_connection_t *connection, const zebd_request_t &request)
{
    if (request.node == server->model->node) {
        ops_json_t answer;
        std::string why;
        int ret = zebd_peer_here(request, HERE_MAX, &answer, &why);
        return put_answer(server, connection, request.id, -ret, why, answer);
    }
    if (connection->asked_peers.size() >= ZEBD_JOBS_MAX)
        return put_error(server, connection, request.id, EUSERS, "too many requests to other nodes wait");
    uint64_t number = connection->number;
    uint32_t id = request.id;
    auto asked = std::make_shared<uint32_t>(0);
    *asked = zebd_peer_ask(server->peer, request,
                           [server, number, id, asked](int err, const std::string &why, const ops_json_t &answer) {
                               auto found = server->connections.find(number);
                               if (found == server->connections.end())
                                   return;
                               found->second->asked_peers.erase(*asked);
                               put_answer(server, found->second.get(), id, err, why, answer);
                           });
    connection->asked_peers.insert(*asked);
}

static void handle_line(zebd_server_t *server, zebd_connection_t *connection, const std::string &line)
{
    zebd_request_t request;
    std::string why;
    int ret = zebd_request_parse(line, &request, &why);
    if (ret != 0)
        return refuse(server, connection, request.id, -ret, why);
    switch (request.type) {
    case ZEBD_HELLO:
        return on_hello(server, connection, request);
    case ZEBD_VIEW:
        return on_view(server, connection, request);
    case ZEBD_ASK:
        return on_ask(server, connection, request);
    case ZEBD_EVENTS:
        return on_events(server, connection, request);
    case ZEBD_HISTORY:
        return on_history(server, connection, request);
    default:
        return on_disk(server, connection, request);
    }
}

// Connections.

static void end_connection(zebd_server_t *server, uint64_t number)
{
    auto found = server->connections.find(number);
    if (found == server->connections.end())
        return;
    zebd_connection_t *connection = found->second.get();
    for (zebd_entry_t entry : {connection->watch, connection->turn, connection->end, connection->follower})
        zebd_loop_remove(server->loop, entry);
    for (auto &entry : connection->jobs) {
        server->waiting -= entry.second->batch.waiting;
        zebd_sampler_cancel(server->sampler, &entry.second->batch);
    }
    for (uint32_t asked : connection->asked_peers)
        zebd_peer_cancel(server->peer, asked);
    (void)close(connection->sd);
    server->connections.erase(found);
}

// One line; what is left has its turn in the next round.
static void take_line(zebd_server_t *server, uint64_t number)
{
    auto found = server->connections.find(number);
    if (found == server->connections.end())
        return;
    zebd_connection_t *connection = found->second.get();
    std::string line;
    connection->turn = 0;
    if (connection->ends)
        return;
    if (!zebd_line_take(&connection->in, &connection->in_seen, &line)) {
        if (connection->in.size() > ZEBD_LINE_MAX)
            refuse(server, connection, 0, EMSGSIZE, "the line is too long");
        return;
    }
    if (line.size() > ZEBD_LINE_MAX)
        return refuse(server, connection, 0, EMSGSIZE, "the line is too long");
    handle_line(server, connection, line);
    if (!connection->in.empty())
        connection->turn = zebd_loop_at(server->loop, 0, [server, number] { take_line(server, number); });
}

static void read_in(zebd_server_t *server, zebd_connection_t *connection)
{
    if (connection->turn != 0) // a line waits for its turn
        return;
    char bytes[READ_SIZE];
    ssize_t len = recv(connection->sd, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (len < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (len <= 0)
        return end_connection(server, connection->number);
    connection->in.append(bytes, (size_t)len);
    take_line(server, connection->number);
}

static void on_ready(zebd_server_t *server, uint64_t number, short ready)
{
    auto found = server->connections.find(number);
    if (found == server->connections.end())
        return;
    zebd_connection_t *connection = found->second.get();
    if ((ready & POLLOUT) != 0) {
        write_out(server, connection);
        if (connection->lost && unread(connection) == 0)
            tell_lost(server, connection);
    }
    if ((ready & POLLIN) != 0 && !connection->ends)
        read_in(server, connection);
    else if ((ready & (POLLERR | POLLHUP)) != 0)
        end_connection(server, number);
}

static size_t connections_of(const zebd_server_t *server, uid_t user)
{
    return (size_t)std::count_if(server->connections.begin(), server->connections.end(),
                                 [user](const auto &entry) { return entry.second->user == user; });
}

static zebd_connection_t *add_connection(zebd_server_t *server, int sd, uid_t user)
{
    uint64_t number = ++server->last;
    auto owned = std::make_unique<zebd_connection_t>();
    zebd_connection_t *connection = owned.get();
    connection->number = number;
    connection->sd = sd;
    connection->user = user;
    connection->watch =
        zebd_loop_add(server->loop, sd, POLLIN, [server, number](short ready) { on_ready(server, number, ready); });
    server->connections[number] = std::move(owned);
    return connection;
}

static void admit(zebd_server_t *server, int sd)
{
    struct ucred who = {};
    socklen_t len = sizeof(who);
    if (getsockopt(sd, SOL_SOCKET, SO_PEERCRED, &who, &len) != 0) {
        (void)close(sd);
        return;
    }
    bool known = who.uid == 0 || who.uid == geteuid() || is_in_group(who.uid, who.gid);
    bool full = server->connections.size() >= ZEBD_CONNECTIONS_MAX ||
                (who.uid != 0 && connections_of(server, who.uid) >= ZEBD_USER_MAX);
    if (server->connections.size() >= 2 * ZEBD_CONNECTIONS_MAX) { // those that are being told to go are many
        (void)close(sd);
        return;
    }
    zebd_connection_t *connection = add_connection(server, sd, who.uid);
    std::string name = user_name(who.uid);
    if (!known)
        refuse(server, connection, 0, EACCES,
               "user " + name +
                   " is not in the group zeb: zebd answers root and that group. Type: sudo usermod -aG zeb " + name);
    else if (full)
        refuse(server, connection, 0, EUSERS, "zebd has too many connections");
}

static void accept_all(zebd_server_t *server)
{
    for (size_t i = 0; i < ZEBD_CONNECTIONS_MAX; i++) {
        int sd = accept4(server->sd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (sd != -1) {
            admit(server, sd);
            continue;
        }
        if (errno != EMFILE && errno != ENFILE && errno != ENOMEM && errno != ENOBUFS)
            return;
        zebd_loop_want(server->loop, server->watch, 0); // it stays readable, and would keep the loop busy
        (void)zebd_loop_at(server->loop, ACCEPT_PAUSE,
                           [server] { zebd_loop_want(server->loop, server->watch, POLLIN); });
        return;
    }
}

// The socket.

// The file beside the socket is locked as long as the process lives, so a socket without one is nobody's.
static int take_lock(zebd_server_t *server)
{
    std::string path = server->path + ".lock";
    server->lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (server->lock == -1)
        return -errno;
    if (flock(server->lock, LOCK_EX | LOCK_NB) == 0)
        return 0;
    int err = errno;
    (void)close(server->lock);
    server->lock = -1;
    return err == EWOULDBLOCK ? -EADDRINUSE : -err;
}

static int listen_at(zebd_server_t *server)
{
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (server->path.size() >= sizeof(addr.sun_path))
        return -ENAMETOOLONG;
    memcpy(addr.sun_path, server->path.c_str(), server->path.size());
    struct stat status = {};
    if (lstat(server->path.c_str(), &status) == 0 && (!S_ISSOCK(status.st_mode) || unlink(server->path.c_str()) != 0))
        return -EEXIST;
    server->sd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (server->sd == -1)
        return -errno;
    mode_t mask = umask(0177);
    int ret = bind(server->sd, (struct sockaddr *)&addr, sizeof(addr)) == 0 ? 0 : -errno;
    (void)umask(mask);
    if (ret != 0)
        return ret;
    const struct group *group = getgrnam(GROUP);
    if (group != nullptr)
        (void)chown(server->path.c_str(), (uid_t)-1, group->gr_gid); // who may not ends with its own group
    return chmod(server->path.c_str(), 0660) == 0 && listen(server->sd, BACKLOG) == 0 ? 0 : -errno;
}

int zebd_server_open(zebd_server_t *server)
{
    server->sd = -1;
    int ret = take_lock(server);
    if (ret != 0)
        return ret;
    ret = listen_at(server);
    if (ret != 0) {
        if (server->sd != -1)
            (void)close(server->sd);
        (void)close(server->lock);
        return ret;
    }
    return 0;
}

void zebd_server_begin(zebd_server_t *server)
{
    server->watch = zebd_loop_add(server->loop, server->sd, POLLIN, [server](short) { accept_all(server); });
}

void zebd_server_close(zebd_server_t *server)
{
    while (!server->connections.empty())
        end_connection(server, server->connections.begin()->first);
    zebd_loop_remove(server->loop, server->watch);
    (void)unlink(server->path.c_str());
    (void)close(server->sd);
    (void)close(server->lock);
}
