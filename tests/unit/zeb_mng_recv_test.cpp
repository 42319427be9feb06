// The way of what is received: one datagram, returned messages, bad input, the topology connection.
#include "handshake_core.h"
#include "lib_test.h"

#include "zeb_flow_ctrl.h"
#include "zeb_mng_recv.h"
#include "zeb_slot.h"

#include <dirent.h>
#include <fstream>
#include <sched.h>
#include <unistd.h>

using wire::operator+;

class zeb_mng_recv : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    static std::string fc_text()
    {
        return listing(zeb_cli_print_fc_stat);
    }
};

TEST_F(zeb_mng_recv, a_datagram_shorter_than_a_header_is_logged_counted_and_discarded)
{
    for (size_t size : {(size_t)1, (size_t)8, wire::HEADER_LEN - 1}) {
        lines_t lines = logged(E, [&] { receive(wire::bytes_t(size, 0)); });
        EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg len " + std::to_string(size) + ", expectedly 0.");
        EXPECT_EQ(lines[1], "3 ZEB app 100 update recv exception msg.");
        EXPECT_EQ(lines[2], "=== ZEB message raw data len " + std::to_string(size) + " ===");
    }
    EXPECT_THAT(fc_text(), testing::HasSubstr("exception 3\n"));
    EXPECT_TRUE(take_seen().headers.empty());
}

TEST_F(zeb_mng_recv, a_datagram_whose_length_differs_is_discarded)
{
    peer_online();
    (void)take_seen();
    const uint32_t whole = wire::HEADER_LEN + 4;
    for (uint32_t len :
         {(uint32_t)wire::HEADER_LEN - 1, whole - 1, whole + 1, 1u, 0xFFFFFFFFu, (uint32_t)wire::MESSAGE_MAX + 1}) {
        wire::header_t header = from_peer();
        header.len = len;
        lines_t lines = logged(E, [&] { receive(wire::message(header, {1, 2, 3, 4})); });
        EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg len 40, expectedly " + std::to_string((int)header.len) + ".");
    }
    EXPECT_TRUE(take_seen().headers.empty());
}

TEST_F(zeb_mng_recv, a_datagram_larger_than_any_message_is_discarded)
{
    peer_online();
    (void)take_seen();
    lines_t lines = logged(E, [&] { receive(wire::message(from_peer(), wire::bytes_t(wire::BODY_MAX + 1, 'x'))); });
    EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg len 61477, expectedly 61477.");
    receive(wire::message(from_peer(), wire::bytes_t(wire::BODY_MAX, 'x')));
    EXPECT_EQ(take_seen().bodies.at(0).size(), wire::BODY_MAX);
}

TEST_F(zeb_mng_recv, a_datagram_larger_than_the_buffer_is_discarded)
{
    lines_t lines = logged(E, [&] { receive(wire::message(from_peer(), wire::bytes_t(65965, 'x'))); });
    EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg len 66000, expectedly 66001.");
    EXPECT_TRUE(take_seen().headers.empty());
}

TEST_F(zeb_mng_recv, a_mismatch_status_without_a_body_is_not_read_past_its_end)
{
    wire::header_t header = from_peer(wire::REQUEST | wire::ACK);
    header.stat = 1;
    header.len = 44; // lies: the body that would be swapped is not there
    lines_t lines = logged(E, [&] { receive(wire::message(header, {})); });
    EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg len 36, expectedly 44.");
}

TEST_F(zeb_mng_recv, a_failed_read_is_logged_and_counted)
{
    fault::fail_next("recvmsg", EIO);
    EXPECT_EQ(logged(E, [] { read_once(); }), lines_t({"3 ZEB recv app 100 msg failed: Input/output error.",
                                                       "3 ZEB app 100 update recv exception msg."}));
}

TEST_F(zeb_mng_recv, an_empty_datagram_does_not_hang_the_thread)
{
    // The kernel wakes the poll for one and discards it in the read, which then has nothing to give.
    EXPECT_EQ(logged(E, [] { read_once(); })[0], "3 ZEB recv app 100 msg failed: Resource temporarily unavailable.");
}

TEST_F(zeb_mng_recv, a_message_from_an_unknown_instance_is_dropped_and_counted)
{
    lines_t lines = logged(V, [&] { receive(wire::message(from_peer(), {1})); });
    EXPECT_THAT(lines, testing::IsSupersetOf({"0 ZEB app 100 recv msg from 200/9 had already quit.",
                                              "0 ZEB app 100 update recv drop num 1 from 200/9."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_TRUE(take_seen().headers.empty());
}

TEST_F(zeb_mng_recv, a_request_from_an_unknown_instance_is_answered_unavailable)
{
    wire::header_t header = from_peer(wire::REQUEST);
    header.seq = 77;
    receive(wire::message(header, {1}));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    wire::header_t answer = wire::header_of(sent[0].bytes);
    EXPECT_EQ(answer.flag, wire::REQUEST | wire::ACK);
    EXPECT_EQ(answer.stat, 2u);
    EXPECT_EQ(answer.seq, 77u);
    EXPECT_EQ(answer.len, wire::HEADER_LEN);
    EXPECT_EQ(answer.dst_app, PEER);
    EXPECT_EQ(answer.dst_node, PEER_NODE);
}

TEST_F(zeb_mng_recv, management_messages_and_replies_of_unknown_instances_are_dropped_and_not_counted)
{
    for (uint8_t flag : {wire::MNG, (uint8_t)(wire::REQUEST | wire::ACK)}) {
        lines_t lines = logged(V, [&] { receive(wire::message(from_peer(flag), wire::tlv(wire::PING, {}))); });
        EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 recv msg from 200/9 had already quit."));
        EXPECT_THAT(lines, testing::Not(testing::Contains(testing::HasSubstr("update recv drop"))));
    }
    EXPECT_TRUE(fake_tipc::take_sent().empty());
}

TEST_F(zeb_mng_recv, messages_from_application_1_are_never_dropped_as_unknown)
{
    receive(wire::message(from_peer(0, 5, 1), {1, 2}));
    EXPECT_EQ(take_seen().headers.size(), 1u);
}

TEST_F(zeb_mng_recv, messages_to_application_1_are_never_dropped_as_unknown)
{
    start_app(1);
    receive(wire::message(from_peer(0, 5, 300, 1), {1, 2}), 1);
    EXPECT_EQ(take_seen().headers.size(), 1u);
}

TEST_F(zeb_mng_recv, a_message_of_an_impossible_sender_is_refused_and_leaves_no_record)
{
    peer_online();
    (void)take_seen();
    const struct {
        uint32_t app;
        uint32_t node;
    } senders[] = {{PEER, PEER_NODE + 0x10000}, {PEER, 0xFFFFFFFF}, {1, 0x10000 + 5}, {0, 9}, {8192, 9}, {20480, 9}};
    std::string before = fc_text();
    for (const auto &sender : senders) {
        for (uint8_t flag : {(uint8_t)0, wire::REQUEST, wire::MNG, (uint8_t)(wire::REQUEST | wire::ACK)}) {
            lines_t lines = logged(E, [&] { receive(wire::message(from_peer(flag, sender.node, sender.app), {1})); });
            EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg from invalid " + std::to_string((int)sender.app) + "/" +
                                    std::to_string((int)sender.node) + ".");
        }
    }
    EXPECT_TRUE(take_seen().headers.empty());
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "nothing to answer to";
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
    std::string after = fc_text();
    EXPECT_EQ(after.substr(after.find("    Send")), before.substr(before.find("    Send")));
    EXPECT_THAT(after, testing::HasSubstr("exception 24\n"));
}

TEST_F(zeb_mng_recv, an_instance_not_yet_online_joins_before_its_message_is_seen)
{
    peer_published();
    zeb_set_app_server(PEER, PEER_NODE);
    peer_syncs();
    EXPECT_FALSE(zeb_app_online(PEER, PEER_NODE));
    (void)take_seen();
    receive(wire::message(from_peer(), {1, 2, 3}));
    seen_t seen = take_seen();
    ASSERT_EQ(seen.events.size(), 1u);
    EXPECT_EQ(seen.events[0].type, (uint32_t)ZEB_APP_JOIN);
    ASSERT_EQ(seen.headers.size(), 1u);
    EXPECT_EQ(seen.headers[0].src_node, PEER_NODE);
    EXPECT_TRUE(zeb_app_online(PEER, PEER_NODE));
}

TEST_F(zeb_mng_recv, flow_control_counts_one_way_messages_and_requests)
{
    zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0);
    const struct {
        uint8_t flag;
        bool counts;
    } rows[] = {{0, true},          {wire::REQUEST, true},
                {wire::ACK, true},  {wire::REQUEST | wire::ACK, false},
                {wire::MNG, false}, {wire::MNG | wire::REQUEST, false}};
    for (const auto &row : rows) {
        msg->hdr.flag = row.flag;
        EXPECT_EQ(zeb_user_app_msg(msg), row.counts) << (int)row.flag;
    }
    free(msg);
}

TEST_F(zeb_mng_recv, a_returned_message_is_verbose_for_codes_1_to_3_and_an_error_otherwise)
{
    wire::bytes_t message = wire::message(to_peer(), {1, 2, 3, 4});
    const char *texts[] = {"", "TIPC no name", "TIPC no port", "TIPC no node", "TIPC overload", "TIPC unknown"};
    for (uint32_t code = 1; code <= 5; code++) {
        std::string line = std::string("ZEB app 100 recv error info ") + texts[code] + ", data size 40 bytes.";
        EXPECT_THAT(returned(code <= 3 ? V : E, code, message), testing::Contains((code <= 3 ? "0 " : "3 ") + line));
    }
    EXPECT_THAT(fc_text(),
                testing::HasSubstr("Receive from application 200/9: receive 0, unack 0, drop 0, return 5\n"));
}

TEST_F(zeb_mng_recv, a_returned_message_leaves_the_read_at_0)
{
    for (uint32_t code : {1u, 4u}) {
        fake_tipc::queue_item(sd(), returned_item(wire::message(to_peer(), {}), code));
        uint8_t buf[64];
        EXPECT_EQ(zeb_recvfrom_anc(APP, sd(), buf, sizeof(buf), 0, nullptr, nullptr), 0) << code;
    }
    EXPECT_THAT(fc_text(), testing::HasSubstr("exception 0\n"));
}

TEST_F(zeb_mng_recv, a_returned_head_of_a_longer_message_is_counted)
{
    // The kernel returns the first 1024 bytes at most, and the header alone of an empty message.
    wire::bytes_t message = wire::message(to_peer(), wire::bytes_t(wire::BODY_MAX, 'x'));
    for (size_t size : {wire::HEADER_LEN, (size_t)1024})
        EXPECT_THAT(returned(E, TIPC_ERR_NO_PORT, wire::bytes_t(message.begin(), message.begin() + (long)size)),
                    lines_t({}))
            << size;
    EXPECT_THAT(fc_text(),
                testing::HasSubstr("Receive from application 200/9: receive 0, unack 0, drop 0, return 2\n"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("exception 0\n"));
}

TEST_F(zeb_mng_recv, a_returned_message_of_application_1_ends_its_calls_instead)
{
    start_app(1);
    wire::header_t header = to_peer(wire::REQUEST);
    header.src_app = 1;
    lines_t lines = returned(V, TIPC_ERR_NO_PORT, wire::message(header, {}), 1);
    EXPECT_THAT(lines, testing::Contains("0 ZEB try to terminate app 1 RPC to 200/9."));
    EXPECT_THAT(lines, testing::Not(testing::Contains(testing::HasSubstr("update recv retdata"))));
}

TEST_F(zeb_mng_recv, returned_data_shorter_than_a_header_is_refused)
{
    for (size_t size : {(size_t)0, (size_t)8, wire::HEADER_LEN - 1}) {
        EXPECT_THAT(returned(E, TIPC_ERR_NO_PORT, wire::bytes_t(size, 1)),
                    testing::IsSupersetOf(
                        {"3 ZEB app 100 recv incomplete reject data.", "3 ZEB app 100 update recv exception msg."}));
    }
}

TEST_F(zeb_mng_recv, a_returned_synchronisation_whose_length_lies_is_refused)
{
    for (uint32_t len : {0u, (uint32_t)wire::HEADER_LEN - 1, (uint32_t)wire::BOTH_ACKS_LEN + 1,
                         (uint32_t)wire::MESSAGE_MAX, 0xFFFFFFFFu}) {
        wire::header_t header = to_peer(wire::SYNC);
        header.len = len;
        wire::bytes_t message = wire::message(header, wire::both_acks(5, 6, 1, 0));
        wire::bytes_t lie = wire::words({len});
        std::copy(lie.begin(), lie.end(), message.begin() + wire::LEN_AT);
        EXPECT_THAT(returned(E, TIPC_ERR_NO_PORT, message),
                    testing::Contains("3 ZEB app 100 recv incomplete reject data."))
            << len;
        EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
    }
}

TEST_F(zeb_mng_recv, a_returned_synchronisation_cut_to_its_header_is_refused)
{
    wire::bytes_t message = wire::message(to_peer(wire::SYNC), wire::both_acks(5, 6, 1, 0));
    EXPECT_THAT(returned(E, TIPC_ERR_NO_PORT, wire::bytes_t(message.begin(), message.begin() + wire::HEADER_LEN)),
                lines_t({"3 ZEB app 100 recv incomplete reject data.", "3 ZEB app 100 update recv exception msg."}));
    EXPECT_EQ(returned(E, TIPC_ERR_NO_PORT, wire::message(to_peer(wire::SYNC), {})), lines_t({}))
        << "an empty one is whole";
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}

TEST_F(zeb_mng_recv, a_returned_message_to_an_impossible_node_is_survived)
{
    for (uint8_t flag : {(uint8_t)0, wire::SYNC, wire::REQUEST, wire::MNG}) {
        wire::header_t header = to_peer(flag);
        header.dst_node = 0xFFFFFFFF;
        header.dst_app = 0xFFFFFFFF;
        EXPECT_THAT(returned(V, TIPC_ERR_NO_PORT, wire::message(header, wire::sync_ack(5, 6, 1, 3))),
                    testing::Contains("0 ZEB app 100 recv TIPC reject data."));
    }
    peer_online();
}

TEST_F(zeb_mng_recv, other_ancillary_items_are_logged)
{
    uint32_t name[3] = {wire::NAME_TYPE, 0x640007, 0x640007};
    const uint8_t *bytes = (const uint8_t *)name;
    fake_tipc::item_t item;
    item.anc.push_back({TIPC_DESTNAME, wire::bytes_t(bytes, bytes + 12)});
    item.anc.push_back({77, {1, 2}});
    fake_tipc::queue_item(sd(), item);
    EXPECT_EQ(logged(V | W, [] { read_once(); }),
              lines_t({"0 ZEB app 100 recv new msg.", "0 ZEB app 100 recv dst name = {0x8ff, 0x640007, 0x640007}",
                       "2 ZEB app 100 recv unrecognized ancillary data type 77"}));
}

TEST_F(zeb_mng_recv, error_info_fails_the_read_of_a_connection_only)
{
    EXPECT_EQ(zeb_get_tipc_err_info(APP, sd(), 2, 0), 0);
    EXPECT_EQ(zeb_get_tipc_err_info(APP, fake_tipc::topology_sd(), 2, 0), -1);
    EXPECT_EQ(zeb_get_tipc_err_info(APP, fake_tipc::topology_sd(), 5, 0), 0);
    fault::fail_next("getsockopt", EBADF);
    int fd = sd();
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_get_tipc_err_info(APP, fd, 2, 0), -1); }),
              lines_t({"3 ZEB app 100 get socket " + std::to_string(fd) + " option failed: Bad file descriptor."}));
}

TEST_F(zeb_mng_recv, a_peek_leaves_the_ancillary_items)
{
    fake_tipc::item_t item;
    item.anc.push_back({77, {1}});
    fake_tipc::queue_item(sd(), item);
    uint8_t buf[64];
    EXPECT_EQ(
        logged(W, [&] { EXPECT_EQ(zeb_recvfrom_anc(APP, sd(), buf, sizeof(buf), MSG_PEEK, nullptr, nullptr), 0); }),
        lines_t({}));
}

TEST_F(zeb_mng_recv, an_ancillary_item_longer_than_what_was_read_is_cut)
{
    for (int type : {TIPC_ERRINFO, TIPC_RETDATA, TIPC_DESTNAME}) {
        fake_tipc::item_t item;
        item.anc.push_back({type, wire::bytes_t(12, 0), 4000});
        fake_tipc::queue_item(sd(), item);
        lines_t lines = logged(W, [] { read_once(); });
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], "2 ZEB app 100 recv ancillary data of 4000 bytes, 32 are there.");
    }
}

TEST_F(zeb_mng_recv, a_topology_event_of_another_size_is_an_error)
{
    fake_tipc::queue_data(fake_tipc::topology_sd(), wire::bytes_t(47, 0));
    lines_t lines = logged(E, [] { EXPECT_EQ(zeb_socket_recv_tipc_event(), -1); });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], testing::StartsWith("3 ZEB recv subscription event failed:ret:47, "));
}

// The thread itself.

TEST_F(zeb_mng_recv, the_thread_subscribes_binds_starts_the_monitor_and_reopens_a_lost_connection)
{
    (void)fake_tipc::take_subscriptions();
    zeb_run();
    fake_tipc::wait_read(sd()); // nothing queued: returns at once
    fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1}));
    fake_tipc::wait_read(sd()); // the thread is in its loop
    auto subscriptions = fake_tipc::take_subscriptions();
    ASSERT_EQ(subscriptions.size(), 3u) << "own application, peer, monitor timer";
    std::vector<uint32_t> monitor = subscription_words(subscriptions[2]);
    EXPECT_EQ(monitor[5], wire::MONITOR_TIMER);
    EXPECT_EQ(monitor[6], 1u);
    EXPECT_EQ(fake_tipc::sockets()[sd()].bound.size(), 1u);

    fault::fail_next("socket", EMFILE, 2); // reopening fails twice and is tried again
    fake_tipc::lose_topology();
    for (int i = 0; i < 4; i++) {
        fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1})); // traffic goes on meanwhile
        fake_tipc::wait_read(sd());
    }
    wait_until([&] { return fake_tipc::topology_sd() != -1; });
    fake_tipc::queue_event(fake_tipc::timer_event(77, 0));
    fake_tipc::wait_read(fake_tipc::topology_sd());
    subscriptions = fake_tipc::take_subscriptions();
    EXPECT_EQ(subscriptions.size(), 2u) << "every application again, but no timer";
    wait_until([&] { return !take_seen().headers.empty(); });
}

TEST_F(zeb_mng_recv, a_poll_error_is_logged_and_survived)
{
    fault::fail_next("poll", EINTR, 3);
    lines_t lines = logged(W | I, [&] {
        zeb_run();
        fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1}));
        fake_tipc::wait_read(sd());
    });
    EXPECT_THAT(lines, testing::Contains("1 ZEB socket msg distribute thread start."));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "2 ZEB polling error: 4:Interrupted system call."), 3);
    EXPECT_GE(fault::count("poll"), 4);
}

// The thread in its loop, and one more pass through it.
static void pass_once(int fd)
{
    fake_tipc::queue_data(fd, wire::message(from_peer(0, 5, 1), {1}));
    fake_tipc::wait_read(fd);
    wait_until([&] { return !take_seen().headers.empty(); });
}

TEST_F(zeb_mng_recv, a_topology_connection_that_cannot_be_reopened_says_why_each_time)
{
    const struct {
        const char *call;
        int err;
        const char *why;
    } rows[] = {{"socket", EMFILE, "24:Too many open files"}, {"connect", ECONNREFUSED, "111:Connection refused"}};
    zeb_run();
    pass_once(sd());
    for (const auto &row : rows) {
        fault::fail_next(row.call, row.err, 2);
        lines_t lines = logged(E, [&] {
            fake_tipc::lose_topology();
            do {
                pass_once(sd());
            } while (fake_tipc::topology_sd() == -1);
            pass_once(sd());
        });
        std::string failed = std::string("3 ZEB create subscription socket failed(ret:-1, err:") + row.why + ")";
        EXPECT_THAT(lines[0], testing::StartsWith("3 ZEB recv subscription event failed:ret:0, "));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), failed), 2);
    }
}

TEST_F(zeb_mng_recv, timers_and_events_are_served_again_on_a_reopened_connection)
{
    zeb_run();
    pass_once(sd());
    fake_tipc::lose_topology();
    do {
        pass_once(sd());
    } while (fake_tipc::topology_sd() == -1);
    pass_once(sd());
    (void)fake_tipc::take_sent();
    fake_tipc::queue_event(fake_tipc::range_event(TIPC_PUBLISHED, PEER << 16 | PEER_NODE, PEER << 16 | PEER_NODE));
    fake_tipc::wait_read(fake_tipc::topology_sd());
    pass_once(sd());
    EXPECT_EQ(fake_tipc::take_sent().size(), 1u) << "a synchronisation";
}

TEST_F(zeb_mng_recv, a_busy_socket_does_not_starve_another)
{
    start_app(101);
    for (int i = 0; i < 3; i++)
        fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1}));
    fake_tipc::queue_data(sd(101), wire::message(from_peer(0, 5, 1, 101), {1}));
    zeb_run();
    std::vector<uint32_t> order;
    while (order.size() < 4) {
        for (const zeb_msg_hdr_t &header : take_seen().headers)
            order.push_back(header.dst_app);
    }
    EXPECT_EQ(order, std::vector<uint32_t>({APP, 101, APP, APP})) << "one datagram per socket and pass, in slot order";
}

TEST_F(zeb_mng_recv, the_thread_is_named_after_the_process)
{
    zeb_run();
    pass_once(sd());
    std::string wanted = ("zeb_lib_" + std::to_string(getpid())).substr(0, 15);
    std::vector<std::string> names;
    DIR *stream = opendir("/proc/self/task");
    while (const struct dirent *entry = readdir(stream)) {
        std::string name;
        std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm") >> name;
        names.push_back(name);
    }
    (void)closedir(stream);
    EXPECT_THAT(names, testing::Contains(wanted));
}

TEST_F(zeb_mng_recv, an_application_that_cannot_take_its_name_ends_the_process)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe"; // there are threads, which a fork would leave half-way
    EXPECT_EXIT(
        {
            ASSERT_EQ(zeb_bind_app_socket(APP, sd()), 0);
            fault::fail_next("bind", EADDRINUSE);
            zeb_run();
            for (;;)
                (void)pause(); // the library's own thread ends the process
        },
        testing::ExitedWithCode(1), "");
}
