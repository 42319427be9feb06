#include "by_number.h"
#include "handshake_core.h"
#include "lib_test.h"

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <mutex>
#include <unistd.h>

#include "zeb_dbg.h"
#include "zeb_slot.h"
#include "zeb_mng_check.h"
#include "zeb_mng_recv.h"

static std::mutex s_seen_mutex;
static seen_t &s_seen = *new seen_t; // never destroyed: library threads outlive main

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
    size_t kept = fake_tipc::sockets().size();
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
    receive(wire::message(from_peer(wire::SYNC, node, peer, app), wire::sync_inst(seq, PEER_PID, 1, 0)), app);
}

void lib_test::peer_online(uint32_t node, bool server, uint32_t peer, uint32_t app)
{
    (void)fake_tipc::take_sent();
    peer_published(node, peer);
    uint32_t my_seq = 0;
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
        if (wire::header_of(sent.bytes).src_app == app)
            my_seq = sync_word(sent.bytes, 0);
    }
    peer_syncs(PEER_SEQ, node, peer, app);
    receive(wire::message(from_peer(wire::SYNC, node, peer, app),
                          wire::sync_seq_ack(my_seq, PEER_PID, server ? 1 : 0, PEER_SEQ)),
            app);
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

uint32_t sync_word(const wire::bytes_t &message, size_t index)
{
    return wire::get32(message, 36 + 4 + 4 * index);
}

std::string buffer_text()
{
    return std::string((const char *)g_print_msg->data);
}
