#include "by_number.h"
#include "handshake_core.h"
#include "lib_test.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <mutex>
#include <sched.h>
#include <unistd.h>

#include "zeb_dbg.h"
#include "zeb_slot.h"
#include "zeb_mng_check.h"
#include "zeb_mng_recv.h"
#include "zeb_rpc_async.h"

const zeb_msg_dispatcher_t ONE_DISPATCHER[] = {{1, see_msg}, {0, nullptr}};
const zeb_msg_dispatcher_t NO_DISPATCHER[] = {{0, nullptr}};

static std::mutex s_seen_mutex;
static seen_t &s_seen = *new seen_t; // never destroyed: library threads outlive main

peer_t other_process(uint32_t id)
{
    peer_t peer;
    peer.id = id;
    return peer;
}

peer_t older_peer()
{
    peer_t peer;
    peer.ver = 1;
    return peer;
}

static std::vector<std::string> open_files()
{
    std::vector<std::string> names;
    DIR *stream = opendir("/proc/self/fd");
    while (const struct dirent *entry = readdir(stream)) {
        char target[256] = "";
        std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 && strstr(target, "/fd") == nullptr)
            names.push_back(std::string(entry->d_name) + " " + target);
    }
    (void)closedir(stream);
    return names;
}

static void write_file(const std::string &path, const std::string &text)
{
    FILE *fp = fopen(path.c_str(), "w");
    ASSERT_NE(fp, nullptr);
    (void)fputs(text.c_str(), fp);
    (void)fclose(fp);
}

void lib_test::SetUp()
{
    (void)alarm(60);
    char name[] = "/tmp/zeb_test.XXXXXX";
    dir_ = mkdtemp(name);
    write_node(std::to_string(NODE) + "\n");
    no_conf();
    fault::reset();
    fault::arm(true);
    fds_ = open_files();
}

void lib_test::TearDown()
{
#ifdef ZEB_INVARIANTS
    char broken[4096];
    EXPECT_EQ(zeb_check_invariants(broken, sizeof(broken)), 0) << broken;
#endif
    // What the library itself keeps open stays to the end of the process.
    size_t kept = fake_tipc::sockets().size() + (zeb_rpc_async_wake_fd() == -1 ? 0 : 1) +
                  (g_zeb_mng.starts != 0 && g_zeb_mng.wake_fd != -1 ? 1 : 0);
    EXPECT_LE(open_files().size(), fds_.size() + kept) << "a descriptor leaks";
    std::string command = "rm -rf " + dir_;
    EXPECT_EQ(system(command.c_str()), 0);
    fault::arm(false);
}

void lib_test::write_conf(const std::string &text)
{
    write_file(dir_ + "/zeb.conf", text);
    fault::redirect_file("/etc/zeb.conf", dir_ + "/zeb.conf");
}

void lib_test::no_conf()
{
    fault::redirect_file("/etc/zeb.conf", "");
}

void lib_test::write_node(const std::string &text)
{
    write_file(dir_ + "/node", text);
    fault::redirect_file("/tmp/addr/.zeb_node_addr", dir_ + "/node");
}

void lib_test::no_node()
{
    fault::redirect_file("/tmp/addr/.zeb_node_addr", "");
}

void lib_test::start_app(uint32_t app, const std::vector<uint32_t> &versions)
{
    std::vector<zeb_msg_dispatcher_t> table;
    for (uint32_t version : versions)
        table.push_back({version, see_msg});
    table.push_back({0, nullptr});
    ASSERT_EQ(zeb_register_without_thread(app, "test", table.data(), see_event), 0);
    ASSERT_EQ(zeb_comm_with(app, PEER), 0);
}

int lib_test::sd(uint32_t app)
{
    return zeb_get_app_sd(app);
}

void lib_test::receive(const wire::bytes_t &datagram, uint32_t app)
{
    receive_item({datagram, {}}, app);
}

void lib_test::receive_item(const fake_tipc::item_t &item, uint32_t app)
{
    fake_tipc::queue_item(sd(app), item);
    read_once(app);
}

void lib_test::read_once(uint32_t app)
{
    zeb_socket_recv_app_msg(zeb_get_app_info(app));
}

lines_t lib_test::returned(uint32_t mask, uint32_t code, const wire::bytes_t &message, uint32_t app)
{
    fake_tipc::queue_item(sd(app), returned_item(message, code));
    return logged(mask, [&] { read_once(app); });
}

void lib_test::timer_expires(uint32_t type, uint32_t seq)
{
    zeb_process_tipc_subscr_event(fake_tipc::timer_event(type, seq));
}

void lib_test::peer_published(uint32_t node, uint32_t peer)
{
    uint32_t instance = peer << 16 | node;
    zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_PUBLISHED, instance, instance));
}

void lib_test::peer_published_everywhere(uint32_t peer)
{
    zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_PUBLISHED, peer << 16, peer << 16 | 0xFFFF));
}

void lib_test::peer_withdrawn(uint32_t node, uint32_t peer)
{
    uint32_t instance = peer << 16 | node;
    zeb_process_tipc_subscr_event(fake_tipc::range_event(TIPC_WITHDRAWN, instance, instance));
}

void lib_test::peer_syncs(uint32_t seq, uint32_t node, uint32_t peer, uint32_t app)
{
    peer_t one;
    one.node = node;
    one.app = peer;
    one.my_app = app;
    peer_syncs(seq, one);
}

static wire::header_t sync_header(const peer_t &peer)
{
    wire::header_t header = from_peer(wire::SYNC, peer.node, peer.app, peer.my_app);
    header.ver = peer.ver;
    return header;
}

void lib_test::peer_syncs(uint32_t seq, const peer_t &peer, uint32_t resume)
{
    wire::bytes_t body = wire::sync_inst(seq, peer.id, peer.server ? 1 : 0, resume);
    receive(wire::message(sync_header(peer), body), peer.my_app);
}

void lib_test::peer_acks(uint32_t seq, uint32_t pseq, const peer_t &peer)
{
    uint32_t server = peer.server ? 1 : 0;
    wire::bytes_t body =
        peer.ver == 1 ? wire::sync_ack(seq, peer.id, server) : wire::both_acks(seq, peer.id, server, pseq);
    receive(wire::message(sync_header(peer), body), peer.my_app);
}

void lib_test::peer_online(uint32_t node, bool server, uint32_t peer, uint32_t app)
{
    (void)fake_tipc::take_sent();
    peer_published(node, peer);
    uint32_t my_seq = take_sync_seq(app);
    peer_t one;
    one.node = node;
    one.app = peer;
    one.my_app = app;
    peer_syncs(PEER_SEQ, one);
    one.server = server;
    peer_acks(my_seq, PEER_SEQ, one);
    (void)fake_tipc::take_sent();
    ASSERT_TRUE(zeb_app_online(peer, node));
}

lines_t logged(uint32_t mask, const std::function<void()> &run)
{
    uint32_t before = zeb_load_relaxed(&g_zeb_dbg_level);
    zeb_store_relaxed(&g_zeb_dbg_level, mask);
    testing::internal::CaptureStdout();
    run();
    (void)fflush(stdout);
    std::string text = testing::internal::GetCapturedStdout();
    zeb_store_relaxed(&g_zeb_dbg_level, before);

    lines_t lines;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end;
        std::string line = text.substr(at, end - at);
        size_t prefix = line.find("> ");
        if (line[0] == '<' && prefix != std::string::npos)
            line = line.substr(prefix + 2, 1) + line.substr(prefix + 4);
        lines.push_back(line);
        at = end + 1;
    }
    return lines;
}

seen_t take_seen()
{
    std::lock_guard<std::mutex> lock(s_seen_mutex);
    seen_t seen;
    std::swap(seen, s_seen);
    return seen;
}

void *see_event(zeb_event_t event)
{
    std::lock_guard<std::mutex> lock(s_seen_mutex);
    s_seen.events.push_back(event);
    return nullptr;
}

void *see_msg(zeb_msg_t *msg)
{
    std::lock_guard<std::mutex> lock(s_seen_mutex);
    s_seen.headers.push_back(msg->hdr);
    s_seen.bodies.emplace_back((const char *)msg->data, zeb_msg_data_len(msg));
    free(msg);
    return nullptr;
}

int add_app(uint32_t app)
{
    return zeb_register_without_thread(app, "test", ONE_DISPATCHER, see_event);
}

void wait_until(const std::function<bool()> &done)
{
    while (!done())
        (void)sched_yield();
}

uint32_t wait_requests(size_t num)
{
    size_t seen = 0;
    uint32_t seq = 0;
    wait_until([&] {
        for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
            seq = wire::header_of(sent.bytes).seq;
            seen++;
        }
        return seen >= num;
    });
    return seq;
}

wire::header_t from_peer(uint8_t flag, uint32_t node, uint32_t peer, uint32_t app)
{
    wire::header_t header;
    header.flag = flag;
    header.src_app = peer;
    header.src_node = node;
    header.dst_app = app;
    header.dst_node = NODE;
    return header;
}

wire::header_t to_peer(uint8_t flag, uint32_t node, uint32_t peer, uint32_t app)
{
    wire::header_t header;
    header.flag = flag;
    header.src_app = app;
    header.src_node = NODE;
    header.dst_app = peer;
    header.dst_node = node;
    return header;
}

fake_tipc::item_t returned_item(const wire::bytes_t &message, uint32_t code)
{
    const uint32_t info[2] = {code, (uint32_t)message.size()};
    const uint8_t *bytes = (const uint8_t *)info;
    fake_tipc::item_t item;
    item.anc.push_back({TIPC_ERRINFO, wire::bytes_t(bytes, bytes + sizeof(info))});
    item.anc.push_back({TIPC_RETDATA, message});
    return item;
}

uint32_t sync_word(const wire::bytes_t &message, size_t index)
{
    return wire::get32(message, wire::VALUE_AT + 4 * index);
}

uint32_t take_sync_seq(uint32_t app)
{
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
        if (wire::header_of(sent.bytes).src_app == app && wire::get16(sent.bytes, wire::TYPE_AT) == wire::SYNC_INST)
            return sync_word(sent.bytes, wire::SEQ);
    }
    return 0;
}

std::vector<uint32_t> subscription_words(const wire::bytes_t &subscription)
{
    EXPECT_EQ(subscription.size(), wire::SUBSCRIPTION_LEN);
    std::vector<uint32_t> words(wire::SUBSCRIPTION_LEN / 4);
    memcpy(words.data(), subscription.data(), std::min(subscription.size(), wire::SUBSCRIPTION_LEN));
    return words;
}

std::vector<started_t> take_timers()
{
    std::vector<started_t> timers;
    for (const wire::bytes_t &bytes : fake_tipc::take_subscriptions()) {
        std::vector<uint32_t> words = subscription_words(bytes);
        timers.push_back({words[5], words[6], words[3]});
    }
    return timers;
}

std::vector<started_t> take_timers(uint32_t type)
{
    std::vector<started_t> timers = take_timers();
    auto other = [type](const started_t &timer) { return timer.type != type; };
    timers.erase(std::remove_if(timers.begin(), timers.end(), other), timers.end());
    return timers;
}

std::string buffer_text()
{
    return std::string((const char *)g_print_msg->data);
}

std::string listing(void (*print)(uint32_t app), uint32_t app)
{
    zeb_buf_printf_reset();
    print(app);
    return buffer_text();
}

lines_t pick(const lines_t &lines, const lines_t &starts)
{
    lines_t picked;
    for (const std::string &line : lines) {
        for (const std::string &start : starts) {
            if (line.rfind(start, 0) == 0)
                picked.push_back(start);
        }
    }
    return picked;
}
