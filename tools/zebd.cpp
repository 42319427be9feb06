// zebd: its command line, its signals, and what it tells the service manager.
#include "zebd.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

#include <zeb/zeb.h>

#ifdef ZEBD_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include "zebd_evidence.h"
#ifdef ZEBD_HTTP
#include "zebd_http_open.h"
#endif
#include "zebd_serve.h"

constexpr int64_t PREPARE_TIME = 3000; // ms

typedef struct options_s {
    std::string socket;
    double interval = 10; // seconds
    std::string http;
    bool http_any = false;
    std::string evidence;
    bool foreground = true;
} options_t;

typedef struct daemon_s {
    zebd_loop_t loop;
    zebd_model_t model;
    zebd_sampler_t sampler;
    zebd_peer_t peer;
    zebd_server_t server;
#ifdef ZEBD_HTTP
    zebd_http_page_t page;
#endif
} daemon_t;

// One line on standard error. Under the journal it begins with its priority.
__attribute__((format(printf, 2, 3))) static void say(int priority, const char *format, ...)
{
    static const bool journal = getenv("JOURNAL_STREAM") != nullptr;
    char line[1024];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (journal)
        fprintf(stderr, "<%d>%s\n", priority, line);
    else
        fprintf(stderr, "zebd: %s\n", line);
}

static void notify(const char *state)
{
#ifdef ZEBD_SYSTEMD
    (void)sd_notify(0, state);
#else
    (void)state;
#endif
}

static void feed_watchdog(zebd_loop_t *loop, int64_t pause)
{
    notify("WATCHDOG=1");
    (void)zebd_loop_at(loop, pause, [loop, pause] { feed_watchdog(loop, pause); });
}

static void begin_watchdog(zebd_loop_t *loop)
{
#ifdef ZEBD_SYSTEMD
    uint64_t limit = 0; // microseconds
    if (sd_watchdog_enabled(0, &limit) > 0)
        feed_watchdog(loop, (int64_t)(limit / 3000));
#else
    (void)loop;
#endif
}

static int catch_signals(zebd_loop_t *loop)
{
    sigset_t set;
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGTERM);
    (void)sigaddset(&set, SIGINT);
    (void)sigprocmask(SIG_BLOCK, &set, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);
    int fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd != -1)
        (void)zebd_loop_add(loop, fd, POLLIN, [loop](short) { loop->ends = true; });
    return fd;
}

static int open_page(daemon_t *daemon, const options_t &options)
{
    if (options.http.empty())
        return 0;
#ifdef ZEBD_HTTP
    std::string text;
    daemon->page.loop = &daemon->loop;
    daemon->page.peer = &daemon->peer;
    daemon->page.http.model = &daemon->model;
    int ret = zebd_http_open(&daemon->page, options.http.c_str(), options.http_any, &text);
    if (ret == 0)
        say(6, "the page is served at %s", text.c_str());
    else
        say(3, "the page cannot be served: %s", text.c_str());
    return ret;
#else
    (void)daemon;
    say(3, "this zebd was built without the page: libmicrohttpd was missing");
    return -ENOSYS;
#endif
}

static int open_all(daemon_t *daemon, const options_t &options)
{
    int ret = zebd_server_open(&daemon->server);
    if (ret == -EADDRINUSE) {
        say(3, "another zebd runs: it serves at %s", daemon->server.path.c_str());
        return ret;
    }
    if (ret != 0) {
        say(3, "%s cannot be served: %s", daemon->server.path.c_str(), strerror(-ret));
        return ret;
    }
    zebd_peer_open(&daemon->peer);
    ret = zebd_sampler_open(&daemon->sampler);
    if (ret != 0)
        say(3,
            ret == -EAFNOSUPPORT ? "the kernel has no TIPC. Type: modprobe tipc"
                                 : "the topology service does not answer: %s",
            strerror(-ret));
    if (ret == 0)
        ret = open_page(daemon, options);
    if (ret == 0 && !options.evidence.empty())
        zebd_evidence_open(&daemon->loop, &daemon->model, options.evidence);
    if (ret != 0)
        zebd_server_close(&daemon->server);
    return ret;
}

// Nobody is served before the view is whole and application 1 is taken, or known to be taken by another process.
static void prepare(daemon_t *daemon)
{
    for (int64_t deadline = ops_now() + PREPARE_TIME; ops_now() < deadline && !daemon->loop.ends;) {
        if (daemon->sampler.is_app1 || daemon->sampler.said_held)
            return;
        zebd_loop_round(&daemon->loop, deadline - ops_now());
    }
}

static int run(const options_t &options)
{
    static daemon_t daemon; // callbacks keep its address
    int node = zeb_get_my_node_id();
    if (node < 0) {
        say(3, "this node has no node id: /tmp/addr/.zeb_node_addr is missing or wrong");
        return EXIT_FAILURE;
    }
    daemon.model.node = (uint32_t)node;
    daemon.model.started = ops_wall();
    daemon.sampler.loop = daemon.peer.loop = daemon.server.loop = &daemon.loop;
    daemon.sampler.model = daemon.server.model = &daemon.model;
    daemon.peer.sampler = daemon.server.sampler = &daemon.sampler;
    daemon.server.peer = &daemon.peer;
    daemon.sampler.interval = (int64_t)(options.interval * 1000);
    daemon.sampler.say = say;
    daemon.model.sample_step = daemon.sampler.interval + daemon.sampler.interval / 10; // a round may come late
    daemon.server.version = ZEB_TOOLS_VERSION;
    daemon.server.path = options.socket.empty() ? ops_zebd_path() : options.socket;
    int signals = catch_signals(&daemon.loop);
    if (signals == -1 || open_all(&daemon, options) != 0)
        return EXIT_FAILURE;
    prepare(&daemon);
    zebd_server_begin(&daemon.server);
    say(6, "node %u is served at %s", daemon.model.node, daemon.server.path.c_str());
    notify("READY=1");
    begin_watchdog(&daemon.loop);
    zebd_loop_run(&daemon.loop);
    notify("STOPPING=1");
#ifdef ZEBD_HTTP
    zebd_http_close(&daemon.page);
#endif
    zebd_server_close(&daemon.server);
    zebd_sampler_close(&daemon.sampler);
    (void)close(signals);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv)
{
    options_t options;
    CLI::App zebd("The management daemon of a node: asks the ZEB applications of the cluster, and keeps what they say.",
                  "zebd");
    zebd.add_option("--socket", options.socket, "serve at this path ($RUNTIME_DIRECTORY or /run/zeb, zebd.sock)")
        ->type_name("PATH");
    zebd.add_option("--interval", options.interval, "seconds between two looks at all instances (10)")
        ->check(CLI::Range(0.1, 3600.0))
        ->type_name("S");
    zebd.add_option("--http", options.http, "serve a page and metrics there")->type_name("ADDR:PORT");
    zebd.add_flag("--http-any", options.http_any, "that address may be one that other machines reach");
    zebd.add_option("--evidence", options.evidence, "keep evidence of blocked instances that quit there")
        ->type_name("DIR");
    zebd.add_flag("--foreground", options.foreground, "do not go to the background: zebd never does");
    zebd.set_version_flag("--version", "zebd " ZEB_TOOLS_VERSION);
    try {
        zebd.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return zebd.exit(error) == 0 ? EXIT_SUCCESS : 2;
    }
    return run(options);
}
