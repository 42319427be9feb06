// The order below is the way of a request: it is checked, routed to what it asks for, and answered. A stream of events
// and a log that another node has are answered later: their connections are suspended meanwhile, and each turn resumes
// those for which there is something.
#include "zebd_http.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <microhttpd.h>
#include <sys/random.h>
#include <unistd.h>

#include <zeb/zeb_msg.h>

#include "zebd_http_addr.h"
#include "zebd_metrics.h"
#include "zebd_page.h"

constexpr size_t REQUEST_ROOM = 16 << 10; // bytes of a connection, for the head of a request and a part of the answer
constexpr size_t STREAM_CHUNK = 8 << 10;  // bytes of events that a stream takes from the model at once

// A stream of server-sent events. It has no queue: it remembers what it has told, and takes the rest from the model.
struct zebd_stream_s {
    zebd_http_t *http;
    struct MHD_Connection *connection;
    uint64_t event; // the newest that was told
    uint64_t round;
    int64_t told_at; // ms of CLOCK_MONOTONIC
    bool suspended;
    std::string text; // to be sent
};

// The bytes of an answer, counted while the library holds them.
typedef struct body_s {
    zebd_http_t *http;
    std::string text;
} body_t;

static void free_body(void *arg)
{
    body_t *body = (body_t *)arg;
    body->http->output -= body->text.size();
    delete body;
}

static void add_headers(struct MHD_Response *response, const char *type, const char *policy)
{
    (void)MHD_add_response_header(response, "Content-Type", type);
    (void)MHD_add_response_header(response, "Content-Security-Policy", policy);
    (void)MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    (void)MHD_add_response_header(response, "X-Frame-Options", "DENY");
    (void)MHD_add_response_header(response, "Cross-Origin-Resource-Policy", "same-origin");
    (void)MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
    (void)MHD_add_response_header(response, "Cache-Control", "no-store");
}

constexpr const char *NO_CONTENT = "default-src 'none'; frame-ancestors 'none'";

static enum MHD_Result queue(struct MHD_Connection *connection, unsigned status, struct MHD_Response *response)
{
    enum MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

static enum MHD_Result answer(zebd_http_t *http, struct MHD_Connection *connection, unsigned status, const char *type,
                              std::string text, const char *policy = NO_CONTENT)
{
    if (http->output + text.size() > ZEBD_HTTP_OUTPUT_MAX) {
        status = MHD_HTTP_SERVICE_UNAVAILABLE;
        type = "text/plain; charset=utf-8";
        text = "zebd has too many answers that nobody reads. Try again later.\n";
    }
    body_t *body = new body_t{http, std::move(text)};
    struct MHD_Response *response =
        MHD_create_response_from_buffer_with_free_callback_cls(body->text.size(), &body->text[0], free_body, body);
    if (response == nullptr) {
        delete body;
        return MHD_NO;
    }
    http->output += body->text.size();
    add_headers(response, type, policy);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        (void)MHD_add_response_header(response, "Allow", "GET, HEAD");
    return queue(connection, status, response);
}

static enum MHD_Result say(zebd_http_t *http, struct MHD_Connection *connection, unsigned status,
                           const std::string &words)
{
    return answer(http, connection, status, "text/plain; charset=utf-8", words + "\n");
}

// The page. Its script and its style have a number that nobody can know before: what a peer wrote never runs.
static enum MHD_Result answer_page(zebd_http_t *http, struct MHD_Connection *connection)
{
    uint8_t random[16];
    char nonce[2 * sizeof(random) + 1];
    if (getrandom(random, sizeof(random), 0) != (ssize_t)sizeof(random))
        return say(http, connection, MHD_HTTP_INTERNAL_SERVER_ERROR, "There are no random numbers.");
    for (size_t i = 0; i < sizeof(random); i++)
        (void)snprintf(nonce + 2 * i, 3, "%02x", random[i]);
    std::string page(zebd_page());
    for (size_t at = 0; (at = page.find(ZEBD_PAGE_NONCE, at)) != std::string::npos;)
        (void)page.replace(at, strlen(ZEBD_PAGE_NONCE), nonce);
    std::string policy = "default-src 'none'; connect-src 'self'; script-src 'nonce-" + std::string(nonce) +
                         "'; style-src 'nonce-" + nonce +
                         "'; img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
    return answer(http, connection, MHD_HTTP_OK, "text/html; charset=utf-8", std::move(page), policy.c_str());
}

// A decimal number up to `max`.
static bool take_number(struct MHD_Connection *connection, const char *name, uint32_t max, uint32_t *number)
{
    const char *text = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
    if (text == nullptr || *text == '\0' || strlen(text) > 5 || strspn(text, "0123456789") != strlen(text))
        return false;
    *number = (uint32_t)strtoul(text, nullptr, 10);
    return *number <= max;
}

static bool take_inst(struct MHD_Connection *connection, ops_inst_t *inst)
{
    return take_number(connection, "app", UINT16_MAX, &inst->app) && zeb_valid_app_id(inst->app) != 0 &&
           take_number(connection, "node", ZEB_NODE_NUM - 1, &inst->node);
}

static enum MHD_Result answer_instance(zebd_http_t *http, struct MHD_Connection *connection)
{
    ops_inst_t inst = {};
    std::string text;
    if (!take_inst(connection, &inst))
        return say(http, connection, MHD_HTTP_BAD_REQUEST, "Ask for an instance, as in: /instance.json?app=100&node=3");
    if (!zebd_page_instance(*http->model, inst, ops_wall(), &text))
        return say(http, connection, MHD_HTTP_NOT_FOUND, "There is no such instance.");
    return answer(http, connection, MHD_HTTP_OK, "application/json", std::move(text));
}

// Server-sent events.

static void put_events(zebd_stream_t *stream)
{
    const zebd_model_t *model = stream->http->model;
    uint64_t oldest = model->event_number - model->events.size() + 1;
    if (stream->event + 1 < oldest) { // it was slow, or comes back after a long time
        stream->text += "event: lost\ndata: {\"events\": " + std::to_string(oldest - 1 - stream->event) + "}\n\n";
        stream->event = oldest - 1;
    }
    while (stream->event < model->event_number && stream->text.size() < STREAM_CHUNK) {
        stream->event++;
        const ops_event_t &event = model->events[stream->event - oldest];
        stream->text += "id: " + std::to_string(stream->event) + "\nevent: " + zebd_page_event_name(event.kind) +
                        "\ndata: " + zebd_page_event(event) + "\n\n";
    }
    if (stream->round != model->round) {
        stream->round = model->round;
        stream->text += "event: round\ndata: {\"round\": " + std::to_string(model->round) + "}\n\n";
    }
}

static bool has_news(const zebd_stream_t *stream)
{
    const zebd_model_t *model = stream->http->model;
    return stream->event < model->event_number || stream->round != model->round;
}

// The library wants up to `max` bytes of a stream.
static ssize_t read_stream(void *arg, uint64_t pos, char *buf, size_t max)
{
    zebd_stream_t *stream = (zebd_stream_t *)arg;
    (void)pos;
    if (stream->http->stopping)
        return MHD_CONTENT_READER_END_OF_STREAM;
    if (stream->text.empty())
        put_events(stream);
    if (stream->text.empty() && ops_now() - stream->told_at >= ZEBD_HTTP_BEAT)
        stream->text = ": zebd is here\n\n";
    if (stream->text.empty()) {
        stream->suspended = true;
        MHD_suspend_connection(stream->connection);
        return 0;
    }
    size_t len = std::min(max, stream->text.size());
    memcpy(buf, stream->text.data(), len);
    stream->text.erase(0, len);
    stream->told_at = ops_now();
    return (ssize_t)len;
}

static void free_stream(void *arg)
{
    zebd_stream_t *stream = (zebd_stream_t *)arg;
    stream->http->streams.remove(stream);
    delete stream;
}

// A browser that comes back says which event it got last. A number that was never given is of an earlier zebd.
static uint64_t told_before(zebd_http_t *http, struct MHD_Connection *connection)
{
    const char *text = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Last-Event-ID");
    uint64_t number = text == nullptr ? UINT64_MAX : strtoull(text, nullptr, 10);
    return std::min(number, http->model->event_number);
}

static enum MHD_Result answer_events(zebd_http_t *http, struct MHD_Connection *connection)
{
    if (http->streams.size() >= ZEBD_HTTP_STREAMS)
        return say(http, connection, MHD_HTTP_SERVICE_UNAVAILABLE, "Too many follow the events already.");
    zebd_stream_t *stream = new zebd_stream_t{
        http, connection, told_before(http, connection), http->model->round, ops_now(), false, "retry: 1000\n\n"};
    struct MHD_Response *response =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, STREAM_CHUNK, read_stream, stream, free_stream);
    if (response == nullptr) {
        delete stream;
        return MHD_NO;
    }
    http->streams.push_back(stream);
    add_headers(response, "text/event-stream", NO_CONTENT);
    return queue(connection, MHD_HTTP_OK, response);
}

// Logs.

static enum MHD_Result answer_log(zebd_http_t *http, const zebd_http_log_t *log)
{
    if (log->error == 0)
        return answer(http, log->connection, MHD_HTTP_OK, "text/plain; charset=utf-8", ops_printable(log->text));
    unsigned status = log->error == -ENOENT ? MHD_HTTP_NOT_FOUND : MHD_HTTP_BAD_GATEWAY;
    return say(http, log->connection, status, "The log cannot be read: " + ops_printable(log->text) + ".");
}

void zebd_http_log_done(zebd_http_t *http, uint64_t number, int error, const std::string &text)
{
    for (zebd_http_log_t *log : http->logs) {
        if (log->number != number || log->done)
            continue;
        log->done = true;
        log->error = error;
        log->text = text;
        if (log->suspended)
            MHD_resume_connection(log->connection);
        log->suspended = false;
    }
}

static enum MHD_Result begin_log(zebd_http_t *http, struct MHD_Connection *connection, void **state)
{
    ops_inst_t inst = {};
    if (!take_inst(connection, &inst))
        return say(http, connection, MHD_HTTP_BAD_REQUEST, "Ask for an instance, as in: /log?app=100&node=3");
    auto it = http->model->insts.find(ops_name_of(inst));
    if (it == http->model->insts.end() || it->second.info.app != inst.app)
        return say(http, connection, MHD_HTTP_NOT_FOUND, "There is no such instance, or it has not answered yet.");
    if (http->ask_log == nullptr)
        return say(http, connection, MHD_HTTP_NOT_FOUND, "This zebd reads no logs.");
    zebd_http_log_t *log = new zebd_http_log_t{connection, ++http->log_number, false, false, 0, ""};
    http->logs.push_back(log);
    *state = log;
    http->ask_log(http->ask_log_arg, log->number, inst, it->second.info.pid);
    if (log->done)
        return answer_log(http, log);
    log->suspended = true;
    MHD_suspend_connection(connection);
    return MHD_YES;
}

// Requests.

static enum MHD_Result route(zebd_http_t *http, struct MHD_Connection *connection, const std::string &path,
                             void **state)
{
    if (path == "/")
        return answer_page(http, connection);
    if (path == "/model.json")
        return answer(http, connection, MHD_HTTP_OK, "application/json", zebd_page_model(*http->model, ops_wall()));
    if (path == "/instance.json")
        return answer_instance(http, connection);
    if (path == "/log")
        return begin_log(http, connection, state);
    if (path == "/events")
        return answer_events(http, connection);
    if (path == "/metrics")
        return answer(http, connection, MHD_HTTP_OK, ZEBD_METRICS_TYPE, zebd_metrics(*http->model));
    return say(http, connection, MHD_HTTP_NOT_FOUND,
               "There is nothing here. There are /, /model.json, /instance.json, /log, /events and /metrics.");
}

static char s_begun; // the state of a request whose head alone has come

// The library calls this with the head of a request, with its body, at its end, and when a suspended one is resumed.
static enum MHD_Result on_request(void *arg, struct MHD_Connection *connection, const char *path, const char *method,
                                  const char *version, const char *upload, size_t *upload_size, void **state)
{
    zebd_http_t *http = (zebd_http_t *)arg;
    (void)version;
    (void)upload;
    if (*upload_size != 0) // nobody needs to send us anything
        return MHD_NO;
    if (*state != nullptr && *state != &s_begun)
        return answer_log(http, (zebd_http_log_t *)*state);
    if (!zebd_http_host_is_ours(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Host"), http->any))
        return say(http, connection, MHD_HTTP_BAD_REQUEST,
                   "The Host header names something else than this machine's loopback address.");
    if (strcmp(method, "GET") != 0 && strcmp(method, "HEAD") != 0)
        return say(http, connection, MHD_HTTP_METHOD_NOT_ALLOWED, "This can only be read: GET and HEAD.");
    if (*state == nullptr) {
        *state = &s_begun;
        return MHD_YES;
    }
    return route(http, connection, path, state);
}

static void on_completed(void *arg, struct MHD_Connection *connection, void **state,
                         enum MHD_RequestTerminationCode code)
{
    zebd_http_t *http = (zebd_http_t *)arg;
    (void)connection;
    (void)code;
    if (*state != nullptr && *state != &s_begun) {
        zebd_http_log_t *log = (zebd_http_log_t *)*state;
        http->logs.remove(log);
        delete log;
    }
    *state = nullptr;
}

// The daemon.

int zebd_http_start(zebd_http_t *http, const char *addr, bool any, std::string *why)
{
    int sd = zebd_http_listen(addr, any, &http->port, why);
    if (sd < 0)
        return sd;
    http->any = any;
    http->daemon = MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, on_request, http,
                                    MHD_OPTION_LISTEN_SOCKET, sd, MHD_OPTION_CONNECTION_LIMIT, ZEBD_HTTP_CONNECTIONS,
                                    MHD_OPTION_CONNECTION_TIMEOUT, ZEBD_HTTP_TIME, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                                    REQUEST_ROOM, MHD_OPTION_NOTIFY_COMPLETED, on_completed, http,
                                    MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_END);
    if (http->daemon != nullptr)
        return 0;
    (void)close(sd);
    *why = "the HTTP library does not start";
    return -ENOMEM;
}

// The library must not end while connections are suspended.
void zebd_http_stop(zebd_http_t *http)
{
    if (http->daemon == nullptr)
        return;
    http->stopping = true;
    for (zebd_http_log_t *log : http->logs)
        zebd_http_log_done(http, log->number, -EHOSTUNREACH, "zebd ends");
    for (zebd_stream_t *stream : http->streams) {
        if (stream->suspended)
            MHD_resume_connection(stream->connection);
        stream->suspended = false;
    }
    (void)MHD_run(http->daemon);
    MHD_stop_daemon(http->daemon);
    http->daemon = nullptr;
}

int zebd_http_fd(const zebd_http_t *http)
{
    const union MHD_DaemonInfo *info = MHD_get_daemon_info(http->daemon, MHD_DAEMON_INFO_EPOLL_FD);
    return info == nullptr ? -1 : info->epoll_fd;
}

int64_t zebd_http_due(const zebd_http_t *http)
{
    MHD_UNSIGNED_LONG_LONG library = 0;
    int64_t due = MHD_get_timeout(http->daemon, &library) == MHD_YES ? (int64_t)library : -1;
    for (const zebd_stream_t *stream : http->streams) {
        int64_t left = std::max<int64_t>(0, stream->told_at + ZEBD_HTTP_BEAT - ops_now());
        if (stream->suspended)
            due = due == -1 ? left : std::min(due, left);
    }
    return due;
}

static unsigned connections_of(const zebd_http_t *http)
{
    const union MHD_DaemonInfo *info = MHD_get_daemon_info(http->daemon, MHD_DAEMON_INFO_CURRENT_CONNECTIONS);
    return info == nullptr ? 0 : info->num_connections;
}

void zebd_http_turn(zebd_http_t *http)
{
    for (zebd_stream_t *stream : http->streams) {
        if (!stream->suspended || (!has_news(stream) && ops_now() - stream->told_at < ZEBD_HTTP_BEAT))
            continue;
        stream->suspended = false;
        MHD_resume_connection(stream->connection);
    }
    unsigned before = connections_of(http);
    (void)MHD_run(http->daemon);
    // At the bound the library looks away from the listening socket, and back only in the run after one ended.
    if (before == ZEBD_HTTP_CONNECTIONS && connections_of(http) < before)
        (void)MHD_run(http->daemon);
}
