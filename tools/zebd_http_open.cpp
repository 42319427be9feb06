#include "zebd_http_open.h"

#include <algorithm>
#include <cerrno>

constexpr int64_t ROUND_LOOK = 250;    // ms between two looks for a new round, while anyone follows
constexpr int64_t LOG_TAIL = 16 << 10; // bytes; with what JSON adds they fit a message between zebds
constexpr int64_t LOG_TIMEOUT = 2000;  // ms

static void turn(zebd_http_page_t *page);

static void plan(zebd_http_page_t *page, int64_t after)
{
    zebd_loop_remove(page->loop, page->timer);
    page->timer = zebd_loop_at(page->loop, after, [page] { turn(page); });
}

// The model is being changed when an event is told; so what follows from it is done in a turn of its own.
static void follow(zebd_http_page_t *page)
{
    bool followed = !page->http.streams.empty();
    if (followed == (page->follower != 0))
        return;
    if (!followed) {
        zebd_loop_remove(page->loop, page->follower);
        page->follower = 0;
        return;
    }
    page->follower = zebd_loop_follow(page->loop, [page](uint64_t, const ops_event_t &) { plan(page, 0); });
    zebd_sampler_hasten(page->peer->sampler);
}

static void turn(zebd_http_page_t *page)
{
    zebd_http_turn(&page->http);
    follow(page);
    int64_t due = zebd_http_due(&page->http);
    if (page->follower != 0)
        due = due == -1 ? ROUND_LOOK : std::min(due, ROUND_LOOK);
    if (due == -1)
        zebd_loop_remove(page->loop, page->timer);
    else
        plan(page, due);
}

static void log_done(zebd_http_page_t *page, uint64_t number, int err, const std::string &why, const ops_json_t &answer)
{
    std::string text;
    if (err == 0 && !ops_record_text(answer, "text", &text))
        zebd_http_log_done(&page->http, number, -EBADMSG, "the answer has none");
    else
        zebd_http_log_done(&page->http, number, -err, err == 0 ? ops_record_narrow(text) : why);
}

static void ask_log(void *arg, uint64_t number, ops_inst_t inst, int32_t pid)
{
    zebd_http_page_t *page = (zebd_http_page_t *)arg;
    zebd_request_t request = {};
    request.type = ZEBD_LOG;
    request.node = inst.node;
    request.pids = {pid};
    request.offset = -LOG_TAIL;
    request.timeout = LOG_TIMEOUT;
    if (inst.node == page->http.model->node) {
        ops_json_t answer;
        std::string why;
        int ret = zebd_peer_here(request, OPS_RECORD_MAX, &answer, &why);
        log_done(page, number, -ret, why, answer);
        return;
    }
    (void)zebd_peer_ask(page->peer, request, [=](int err, const std::string &why, const ops_json_t &answer) {
        log_done(page, number, err, why, answer);
        plan(page, 0);
    });
}

int zebd_http_open(zebd_http_page_t *page, const char *addr, bool any, std::string *text)
{
    page->http.ask_log = ask_log;
    page->http.ask_log_arg = page;
    int ret = zebd_http_start(&page->http, addr, any, text);
    if (ret != 0)
        return ret;
    std::string where = addr;
    *text = "http://" + where.substr(0, where.rfind(':')) + ":" + std::to_string(page->http.port) + "/";
    page->watch = zebd_loop_add(page->loop, zebd_http_fd(&page->http), POLLIN, [page](short) { turn(page); });
    return 0;
}

void zebd_http_close(zebd_http_page_t *page)
{
    if (page->http.daemon == nullptr)
        return;
    for (zebd_entry_t entry : {page->watch, page->timer, page->follower})
        zebd_loop_remove(page->loop, entry);
    zebd_http_stop(&page->http);
}
