// The receive road: one datagram, returned messages, bad input, the topology connection.
#include "handshake_core.h"
#include "lib_test.h"
#include "platform/list_algo.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_slot.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_recv.h"

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
        zeb_buf_printf_reset();
        zeb_cli_print_fc_stat(APP);
        return buffer_text();
    }

    // A message that comes back with `code`.
    lines_t returned(uint32_t mask, uint32_t code, const wire::bytes_t &message, uint32_t app = APP)
    {
        uint32_t info[2] = {code, (uint32_t)message.size()};
        const uint8_t *bytes = (const uint8_t *)info;
        fake_tipc::item_t item;
        item.anc.push_back({TIPC_ERRINFO, wire::bytes_t(bytes, bytes + 8)});
        item.anc.push_back({TIPC_RETDATA, message});
        fake_tipc::queue_item(sd(app), item);
        return logged(mask, [&] { zeb_socket_recv_app_msg(zeb_get_app_info(app)); });
    }

    // A message of ours as it left.
    static wire::header_t to_peer(uint8_t flag)
    {
        wire::header_t header;
        header.flag = flag;
        header.src_app = APP;
        header.src_node = NODE;
        header.dst_app = PEER;
        header.dst_node = PEER_NODE;
        return header;
    }
};

TEST_F(zeb_mng_recv, a_datagram_shorter_than_a_header_is_logged_counted_and_discarded)
{
    for (size_t size : {1u, 8u, 35u}) {
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
    for (uint32_t len : {35u, 39u, 41u, 0u, 0xFFFFFFFFu, 61477u}) {
        wire::header_t header = from_peer();
        header.len = len == 0 ? 1 : len;
        lines_t lines = logged(E, [&] { receive(wire::message(header, {1, 2, 3, 4})); });
        EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg len 40, expectedly " + std::to_string((int)header.len) + ".");
    }
    EXPECT_TRUE(take_seen().headers.empty());
}

TEST_F(zeb_mng_recv, a_datagram_larger_than_any_message_is_discarded)
{
    peer_online();
    (void)take_seen();
    lines_t lines = logged(E, [&] { receive(wire::message(from_peer(), wire::bytes_t(61441, 'x'))); });
    EXPECT_EQ(lines[0], "3 ZEB app 100 recv msg len 61477, expectedly 61477.");
    receive(wire::message(from_peer(), wire::bytes_t(61440, 'x')));
    EXPECT_EQ(take_seen().bodies.at(0).size(), 61440u);
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
    EXPECT_EQ(
        logged(E, [] { zeb_socket_recv_app_msg(zeb_get_app_info(APP)); }),
        lines_t({"3 ZEB recv app 100 msg failed: Input/output error.", "3 ZEB app 100 update recv exception msg."}));
}

TEST_F(zeb_mng_recv, an_empty_datagram_does_not_hang_the_thread)
{
    // The kernel wakes the poll for one and discards it in the read, which then has nothing to give.
    EXPECT_EQ(logged(E, [] { zeb_socket_recv_app_msg(zeb_get_app_info(APP)); })[0],
              "3 ZEB recv app 100 msg failed: Resource temporarily unavailable.");
}

TEST_F(zeb_mng_recv, a_message_from_an_unknown_instance_is_dropped_and_credited)
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
    EXPECT_EQ(answer.len, 36u);
    EXPECT_EQ(answer.dst_app, PEER);
    EXPECT_EQ(answer.dst_node, PEER_NODE);
}

TEST_F(zeb_mng_recv, management_messages_and_replies_of_unknown_instances_are_dropped_without_credit)
{
    for (uint8_t flag : {wire::MNG, (uint8_t)(wire::REQUEST | wire::ACK)}) {
        lines_t lines = logged(V, [&] { receive(wire::message(from_peer(flag), wire::tlv(6, {}))); });
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
    } rows[] = {{0, true}, {0x02, true}, {0x04, true}, {0x06, false}, {0x08, false}, {0x0A, false}};
    for (const auto &row : rows) {
        msg->hdr.flag = row.flag;
        EXPECT_EQ(zeb_user_app_msg(msg), row.counts) << (int)row.flag;
    }
    free(msg);
}

TEST_F(zeb_mng_recv, a_returned_message_is_verbose_for_codes_1_to_3_and_an_error_otherwise)
{
    wire::bytes_t message = wire::message(to_peer(0), {1, 2, 3, 4});
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
        uint32_t info[2] = {code, 36};
        const uint8_t *bytes = (const uint8_t *)info;
        fake_tipc::item_t item;
        item.anc.push_back({TIPC_ERRINFO, wire::bytes_t(bytes, bytes + 8)});
        item.anc.push_back({TIPC_RETDATA, wire::message(to_peer(0), {})});
        fake_tipc::queue_item(sd(), item);
        uint8_t buf[64];
        EXPECT_EQ(zeb_recvfrom_anc(APP, sd(), buf, sizeof(buf), 0, nullptr, nullptr), 0) << code;
    }
    EXPECT_THAT(fc_text(), testing::HasSubstr("exception 0\n"));
}

TEST_F(zeb_mng_recv, a_returned_head_of_a_longer_message_is_credited)
{
    // The kernel returns the first 1024 bytes at most, and the header alone of an empty message.
    wire::bytes_t message = wire::message(to_peer(0), wire::bytes_t(61440, 'x'));
    for (size_t size : {36u, 1024u})
        EXPECT_THAT(returned(E, 2, wire::bytes_t(message.begin(), message.begin() + (long)size)), lines_t({})) << size;
    EXPECT_THAT(fc_text(),
                testing::HasSubstr("Receive from application 200/9: receive 0, unack 0, drop 0, return 2\n"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("exception 0\n"));
}

TEST_F(zeb_mng_recv, a_returned_message_of_application_1_ends_its_calls_instead)
{
    start_app(1);
    wire::header_t header = to_peer(wire::REQUEST);
    header.src_app = 1;
    lines_t lines = returned(V, 2, wire::message(header, {}), 1);
    EXPECT_THAT(lines, testing::Contains("0 ZEB try to terminate app 1 RPC to 200/9."));
    EXPECT_THAT(lines, testing::Not(testing::Contains(testing::HasSubstr("update recv retdata"))));
}

TEST_F(zeb_mng_recv, returned_data_shorter_than_a_header_is_refused)
{
    for (size_t size : {0u, 8u, 35u}) {
        EXPECT_THAT(returned(E, 2, wire::bytes_t(size, 1)),
                    testing::IsSupersetOf(
                        {"3 ZEB app 100 recv incomplete reject data.", "3 ZEB app 100 update recv exception msg."}));
    }
}

TEST_F(zeb_mng_recv, a_returned_synchronisation_whose_length_lies_is_refused)
{
    for (uint32_t len : {0u, 35u, 89u, 61476u, 0xFFFFFFFFu}) {
        wire::header_t header = to_peer(wire::SYNC);
        header.len = len;
        wire::bytes_t message = wire::message(header, wire::sync_ack(5, 6, 1) + wire::sync_seq_ack(5, 6, 1, 0));
        message[4] = (uint8_t)(len >> 24);
        message[5] = (uint8_t)(len >> 16);
        message[6] = (uint8_t)(len >> 8);
        message[7] = (uint8_t)len;
        EXPECT_THAT(returned(E, 2, message), testing::Contains("3 ZEB app 100 recv incomplete reject data.")) << len;
        EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
    }
}

TEST_F(zeb_mng_recv, a_returned_synchronisation_cut_to_its_header_is_refused)
{
    wire::bytes_t message =
        wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1) + wire::sync_seq_ack(5, 6, 1, 0));
    EXPECT_THAT(returned(E, 2, wire::bytes_t(message.begin(), message.begin() + 36)),
                lines_t({"3 ZEB app 100 recv incomplete reject data.", "3 ZEB app 100 update recv exception msg."}));
    EXPECT_EQ(returned(E, 2, wire::message(to_peer(wire::SYNC), {})), lines_t({})) << "an empty one is whole";
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}

TEST_F(zeb_mng_recv, a_returned_synchronisation_with_a_bad_element_is_left_alone)
{
    (void)fake_tipc::take_subscriptions();
    for (int len : {0, 3, 4, 23, 25, 65532, 65533, 65535}) {
        (void)returned(V, 2, wire::message(to_peer(wire::SYNC), wire::tlv(2, wire::bytes_t(20, 1), len)));
        EXPECT_TRUE(fake_tipc::take_subscriptions().empty()) << len;
    }
}

static uint32_t timer_type(const wire::bytes_t &subscription)
{
    uint32_t type;
    memcpy(&type, subscription.data() + 20, sizeof(type));
    return type;
}

static uint32_t timer_seq(const wire::bytes_t &subscription)
{
    uint32_t seq;
    memcpy(&seq, subscription.data() + 24, sizeof(seq));
    return seq;
}

TEST_F(zeb_mng_recv, a_returned_acknowledgement_is_sent_again_after_a_second_with_its_ttl_one_lower)
{
    wire::bytes_t body = wire::sync_ack(5, 6, 1, 3) + wire::sync_seq_ack(5, 6, 1, 0, 3);
    (void)fake_tipc::take_subscriptions();
    lines_t lines = returned(V, 2, wire::message(to_peer(wire::SYNC), body));
    EXPECT_THAT(lines, testing::Contains("0 ZEB add sync inst ack resend to 200/9, seq 5."));
    auto timers = fake_tipc::take_subscriptions();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timer_type(timers[0]), 1u);
    uint32_t timeout;
    memcpy(&timeout, timers[0].data() + 12, sizeof(timeout));
    EXPECT_EQ(timeout, 1000u);
    EXPECT_TRUE(fake_tipc::take_sent().empty());

    zeb_process_tipc_subscr_event(fake_tipc::timer_event(1, timer_seq(timers[0]) + 1));
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "another occasion";
    zeb_process_tipc_subscr_event(fake_tipc::timer_event(1, timer_seq(timers[0])));
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sync_word(sent[0].bytes, 4), 2u);
    EXPECT_EQ(sync_word(sent[0].bytes, 0), 5u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).seq, timer_seq(timers[0]));
    zeb_process_tipc_subscr_event(fake_tipc::timer_event(1, timer_seq(timers[0])));
    EXPECT_TRUE(fake_tipc::take_sent().empty()) << "sent once";
}

TEST_F(zeb_mng_recv, a_returned_acknowledgement_with_ttl_0_is_not_sent_again)
{
    (void)fake_tipc::take_subscriptions();
    (void)returned(V, 2, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 0)));
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}

TEST_F(zeb_mng_recv, an_acknowledgement_is_returned_and_sent_again_at_most_600_times)
{
    wire::bytes_t message = wire::message(to_peer(wire::SYNC), wire::sync_seq_ack(5, 6, 1, 0));
    int resent = 0;
    for (;;) {
        (void)fake_tipc::take_subscriptions();
        (void)returned(0, 2, message);
        auto timers = fake_tipc::take_subscriptions();
        if (timers.empty())
            break;
        zeb_process_tipc_subscr_event(fake_tipc::timer_event(1, timer_seq(timers[0])));
        message = fake_tipc::take_sent().at(0).bytes;
        resent++;
    }
    EXPECT_EQ(resent, 600);
}

TEST_F(zeb_mng_recv, other_returned_synchronisations_are_left_alone)
{
    (void)fake_tipc::take_subscriptions();
    (void)returned(V, 2, wire::message(to_peer(wire::SYNC), wire::sync_inst(5, 6, 1, 0)));
    (void)returned(V, 2, wire::message(to_peer(wire::SYNC), {}));
    (void)returned(V, 2, wire::message(to_peer(wire::SYNC), wire::tlv(2, {1, 2, 3, 4})));
    EXPECT_TRUE(fake_tipc::take_subscriptions().empty());
}

TEST_F(zeb_mng_recv, a_resend_timer_that_does_not_start_drops_the_copy)
{
    fault::fail_next("send", EPIPE);
    (void)returned(V, 2, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
}

TEST_F(zeb_mng_recv, an_acknowledgement_that_fails_to_be_sent_again_stays_until_traffic_makes_it_needless)
{
    (void)fake_tipc::take_subscriptions();
    (void)returned(0, 2, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    uint32_t seq = timer_seq(fake_tipc::take_subscriptions().at(0));
    fault::fail_next("sendto", EHOSTUNREACH);
    zeb_process_tipc_subscr_event(fake_tipc::timer_event(1, seq));
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        EXPECT_FALSE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
    }
    zeb_del_reject_sync_inst_ack(APP, {PEER, PEER_NODE + 1});
    zeb_del_reject_sync_inst_ack(APP, {PEER, PEER_NODE});
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
}

TEST_F(zeb_mng_recv, a_returned_acknowledgement_of_the_older_version_is_not_made_needless_by_traffic)
{
    wire::header_t header = to_peer(wire::SYNC);
    header.ver = 1;
    (void)returned(0, 2, wire::message(header, wire::sync_ack(5, 6, 1, 3)));
    (void)returned(0, 2, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_EQ(list_length(&g_zeb_handshake.sync_inst_ack_list), 2);
    zeb_del_reject_sync_inst_ack(APP, {PEER, PEER_NODE});
    EXPECT_EQ(list_length(&g_zeb_handshake.sync_inst_ack_list), 1);
    EXPECT_EQ(list_record<zeb_returned_ack_t>(g_zeb_handshake.sync_inst_ack_list.next)->ver, 1);
}

TEST_F(zeb_mng_recv, traffic_of_an_instance_not_yet_online_drops_the_returned_acknowledgement)
{
    peer_syncs();
    (void)returned(0, 2, wire::message(to_peer(wire::SYNC), wire::sync_ack(5, 6, 1, 3)));
    receive(wire::message(from_peer(), {1}));
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.sync_inst_ack_list));
}

TEST_F(zeb_mng_recv, other_ancillary_items_are_logged)
{
    uint32_t name[3] = {0x8ff, 0x640007, 0x640007};
    const uint8_t *bytes = (const uint8_t *)name;
    fake_tipc::item_t item;
    item.anc.push_back({TIPC_DESTNAME, wire::bytes_t(bytes, bytes + 12)});
    item.anc.push_back({77, {1, 2}});
    fake_tipc::queue_item(sd(), item);
    EXPECT_EQ(logged(V | W, [] { zeb_socket_recv_app_msg(zeb_get_app_info(APP)); }),
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
        lines_t lines = logged(W, [] { zeb_socket_recv_app_msg(zeb_get_app_info(APP)); });
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
    EXPECT_EQ(timer_type(subscriptions[2]), (uint32_t)ZEB_TIMER_TYPE_MONITOR);
    EXPECT_EQ(timer_seq(subscriptions[2]), 1u);
    EXPECT_EQ(fake_tipc::sockets()[sd()].bound.size(), 1u);

    fault::fail_next("socket", EMFILE, 2); // reopening fails twice and is tried again
    fake_tipc::lose_topology();
    for (int i = 0; i < 4; i++) {
        fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1})); // traffic goes on meanwhile
        fake_tipc::wait_read(sd());
    }
    while (fake_tipc::topology_sd() == -1)
        (void)sched_yield();
    fake_tipc::queue_event(fake_tipc::timer_event(77, 0));
    fake_tipc::wait_read(fake_tipc::topology_sd());
    subscriptions = fake_tipc::take_subscriptions();
    EXPECT_EQ(subscriptions.size(), 2u) << "every application again, but no timer";
    while (take_seen().headers.empty())
        (void)sched_yield();
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

// The thread in its loop, and gone through one more turn of it.
static void turn(int fd)
{
    fake_tipc::queue_data(fd, wire::message(from_peer(0, 5, 1), {1}));
    fake_tipc::wait_read(fd);
    while (take_seen().headers.empty())
        (void)sched_yield();
}

TEST_F(zeb_mng_recv, a_topology_connection_that_cannot_be_reopened_says_why_each_time)
{
    const struct {
        const char *call;
        int err;
        const char *why;
    } rows[] = {{"socket", EMFILE, "24:Too many open files"}, {"connect", ECONNREFUSED, "111:Connection refused"}};
    zeb_run();
    turn(sd());
    for (const auto &row : rows) {
        fault::fail_next(row.call, row.err, 2);
        lines_t lines = logged(E, [&] {
            fake_tipc::lose_topology();
            do {
                turn(sd());
            } while (fake_tipc::topology_sd() == -1);
            turn(sd());
        });
        std::string failed = std::string("3 ZEB create subscription socket failed(ret:-1, err:") + row.why + ")";
        EXPECT_THAT(lines[0], testing::StartsWith("3 ZEB recv subscription event failed:ret:0, "));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), failed), 2);
    }
}

TEST_F(zeb_mng_recv, timers_and_events_are_served_again_on_a_reopened_connection)
{
    zeb_run();
    turn(sd());
    fake_tipc::lose_topology();
    do {
        turn(sd());
    } while (fake_tipc::topology_sd() == -1);
    turn(sd());
    (void)fake_tipc::take_sent();
    fake_tipc::queue_event(fake_tipc::range_event(TIPC_PUBLISHED, PEER << 16 | PEER_NODE, PEER << 16 | PEER_NODE));
    fake_tipc::wait_read(fake_tipc::topology_sd());
    turn(sd());
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
    EXPECT_EQ(order, std::vector<uint32_t>({APP, 101, APP, APP})) << "one datagram per socket and turn, in slot order";
}

TEST_F(zeb_mng_recv, the_thread_is_named_after_the_process)
{
    zeb_run();
    turn(sd());
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

// Synchronisation bodies that are no lists of elements.

TEST_F(zeb_mng_recv, a_bad_element_list_is_one_error_and_the_thread_serves_on)
{
    const std::string error = "3 ZEB recv invalid TLV section for 100 from 200/9 .";
    const wire::bytes_t bodies[] = {
        {0, 4},                                 // no room for a header
        wire::tlv(1, wire::bytes_t(20, 0), 0),  // would never end
        wire::tlv(1, wire::bytes_t(20, 0), 3),  // shorter than its header
        wire::tlv(1, wire::bytes_t(20, 0), 25), // longer than the body
        wire::tlv(1, wire::bytes_t(16, 0)),     // shorter than its record
        wire::tlv(9, wire::bytes_t(20, 0)),     // the same
        wire::sync_inst(1, 2, 1, 0) + wire::bytes_t{0, 0, 0, 1},
        wire::sync_inst(1, 2, 1, 0) + wire::bytes_t{0}, // less than a header is left
        wire::sync_inst(1, 2, 1, 0) + wire::bytes_t{0, 4, 0},
        wire::tlv(1, wire::bytes_t(20, 0), 65532), // the step would be 0 from 65533 on
        wire::tlv(1, wire::bytes_t(20, 0), 65533),
        wire::tlv(1, wire::bytes_t(20, 0), 65534),
        wire::tlv(1, wire::bytes_t(20, 0), 65535),
        wire::tlv(6, wire::bytes_t(61436, 0), 65535), // in the largest body
        wire::tlv(9, wire::bytes_t(23, 0)),           // one byte short of its record
    };
    for (const wire::bytes_t &body : bodies) {
        lines_t lines = logged(E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); });
        EXPECT_EQ(std::count(lines.begin(), lines.end(), error), 1) << wire::hex(body);
    }
    peer_online(PEER_NODE + 1);
}

TEST_F(zeb_mng_recv, an_element_shorter_than_its_record_is_refused_only_where_it_would_be_read)
{
    wire::header_t old = from_peer(wire::SYNC);
    old.ver = 1;
    const lines_t refused = {"3 ZEB recv invalid TLV section for 100 from 200/9 ."};
    wire::bytes_t body = wire::tlv(2, wire::bytes_t(16, 0));
    EXPECT_EQ(logged(E, [&] { receive(wire::message(old, body)); }), refused);
    EXPECT_EQ(logged(E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); }), lines_t({})) << "skipped";
    body = wire::tlv(9, wire::bytes_t(20, 0));
    EXPECT_EQ(logged(E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); }), refused);
    EXPECT_EQ(logged(E, [&] { receive(wire::message(old, body)); }), lines_t({})) << "skipped";
}

TEST_F(zeb_mng_recv, a_last_element_without_its_padding_is_whole)
{
    wire::bytes_t body = wire::tlv(1, wire::words({PEER_SEQ, PEER_PID, 1, 0, 600}) + wire::bytes_t{7});
    ASSERT_EQ(body.size(), 28u);
    body.resize(25);
    EXPECT_EQ(logged(E | W, [&] { receive(wire::message(from_peer(wire::SYNC), body)); }), lines_t({}));
    EXPECT_TRUE(zeb_app_instance(PEER, PEER_NODE));
}

TEST_F(zeb_mng_recv, an_empty_list_of_elements_is_no_error)
{
    EXPECT_EQ(logged(E | W, [&] { receive(wire::message(from_peer(wire::SYNC), {})); }), lines_t({}));
}

TEST_F(zeb_mng_recv, as_many_elements_as_fit_are_walked_to_the_end)
{
    wire::bytes_t body;
    for (int i = 0; i < 61440 / 4; i++)
        body = std::move(body) + wire::tlv(0x0606, {});
    lines_t lines = logged(W | E, [&] { receive(wire::message(from_peer(wire::SYNC), body)); });
    EXPECT_EQ(lines, lines_t(15360, "2 ZEB app 100 recv unexpected data type 1542 from 200/9."));
}

TEST_F(zeb_mng_recv, acknowledgements_of_an_impossible_sender_are_refused)
{
    peer_published();
    (void)fake_tipc::take_sent();
    for (uint32_t node : {PEER_NODE + 0x10000, 0x80009u, ZEB_NODE_LOCAL, ZEB_NODE_ALL}) {
        wire::header_t header = from_peer(wire::SYNC, node);
        EXPECT_EQ(logged(E, [&] { receive(wire::message(header, wire::sync_seq_ack(1, PEER_PID, 1, 0))); }),
                  lines_t({"3 ZEB recv invalid TLV section for 100 from 200/" + std::to_string((int)node) + " ."}));
    }
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_FALSE(zeb_app_set_test(&__zeb_get_ol_app(PEER)->srv_bmp, PEER_NODE)) << "its low 16 bits are no node";
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

TEST_F(zeb_mng_recv, a_returned_message_to_an_impossible_node_is_survived)
{
    for (uint8_t flag : {(uint8_t)0, wire::SYNC, wire::REQUEST, wire::MNG}) {
        wire::header_t header = to_peer(flag);
        header.dst_node = 0xFFFFFFFF;
        header.dst_app = 0xFFFFFFFF;
        EXPECT_THAT(returned(V, 2, wire::message(header, wire::sync_ack(5, 6, 1, 3))),
                    testing::Contains("0 ZEB app 100 recv TIPC reject data."));
    }
    peer_online();
}

TEST_F(zeb_mng_recv, a_synchronisation_of_an_impossible_sender_leaves_nothing_behind)
{
    struct {
        uint32_t app;
        uint32_t node;
        uint32_t my_app;
    } rows[] = {{PEER, 65536, APP}, {PEER, 0xFFFFFFFF, APP}, {0, 9, APP},    {8192, 9, APP}, {12288, 9, APP},
                {16383, 9, APP},    {20480, 9, APP},         {PEER, 9, 555}, {PEER, 9, 0},   {0xFFFFFFFF, 9, APP}};
    for (const auto &row : rows) {
        wire::header_t header = from_peer(wire::SYNC, row.node, row.app, row.my_app);
        lines_t lines = logged(E, [&] { receive(wire::message(header, wire::sync_inst(1, 2, 1, 1))); });
        EXPECT_EQ(lines, lines_t({"3 ZEB recv invalid TLV section for " + std::to_string(row.my_app) + " from " +
                                  std::to_string((int)row.app) + "/" + std::to_string((int)row.node) + " ."}));
    }
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    zeb_scoped_lock lock(&g_lib_mutex);
    EXPECT_TRUE(list_empty(&g_zeb_handshake.inst_id.list));
    EXPECT_TRUE(list_empty(&g_zeb_handshake.resume_comm_list));
}
