// The wait table: what is stored for a call, when it ends, and the answers of the library's own.
#include <thread>

#include "by_number.h"
#include "rpc_test.h"

class zeb_rpc_table : public rpc_test
{
};

TEST_F(zeb_rpc_table, late_double_and_unasked_answers_are_refused)
{
    peer_online(3);
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, 55, &reply_, 1), 0);
    EXPECT_EQ(zeb_rpc_prepare_wait(APP, 55, &reply_, 1), -EEXIST);
    EXPECT_EQ(zeb_rpc_prepare_wait(999, 56, &reply_, 1), -ENOENT);
    ASSERT_EQ(zeb_rpc_set_wait(APP, 55, {PEER, 3}), 0);
    answer(3, 55);
    EXPECT_EQ(logged(E, [&] { answer(3, 55); }), lines_t({"3 ZEB app 100 seq 55 clear wait for app 200/3 not exist."}));
    EXPECT_THAT(logged(V, [&] { answer(3, 56); }),
                testing::Contains("0 ZEB app 100 seq 56 to 200/3 RPC wait not exist."));
    EXPECT_EQ(reply_.num, 1);
    EXPECT_EQ(zeb_rpc_wait_reply(APP, 55), 0);
    EXPECT_THAT(logged(V, [&] { answer(3, 55); }),
                testing::Contains("0 ZEB app 100 seq 55 to 200/3 RPC wait not exist."));
    EXPECT_EQ(zeb_rpc_add_error_reply(APP, 57, {PEER, 3}, ZEB_SYSTEM_ERR), -ENOENT);
    EXPECT_EQ(reply_.num, 1);
}

TEST_F(zeb_rpc_table, an_answer_for_an_application_that_is_not_here_is_refused)
{
    peer_online(3);
    wire::header_t header = from_peer(wire::REQUEST | wire::ACK, 3);
    header.dst_app = 555;
    EXPECT_EQ(logged(E, [&] { receive(wire::message(header, {})); }),
              lines_t({"3 ZEB get app 555 RPC wait not exist."}));
}

TEST_F(zeb_rpc_table, an_application_mismatch_answer_arrives_with_its_range_in_the_servers_byte_order)
{
    peer_online(3);
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    answer(3, wait_requests(1), ZEB_APP_MISMATCH, {1, 2, 3, 4, 5, 6, 7, 8});
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 3"}));
    EXPECT_EQ(memcmp(reply_.msg[0]->data, "\1\2\3\4\5\6\7\10", 8), 0);
}

TEST_F(zeb_rpc_table, a_quit_ends_its_part_of_every_call_and_wakes_even_when_there_is_none)
{
    zeb_reply_msg_t replies[3] = {};
    for (uint32_t i = 0; i < 3; i++) {
        ASSERT_EQ(zeb_rpc_prepare_wait(APP, 70 + i, &replies[i], 1), 0);
        ASSERT_EQ(zeb_rpc_set_wait(APP, 70 + i, {PEER, 3}), 0);
        ASSERT_EQ(zeb_rpc_set_wait(APP, 70 + i, {PEER, i == 1 ? 5u : 4u}), 0);
    }
    int woken = fault::broadcasts(cond());
    EXPECT_EQ(logged(V | W,
                     [] {
                         EXPECT_EQ(zeb_terminate_rpc(APP, {PEER, 4}), 0);
                     }),
              lines_t({"0 ZEB try to terminate app 100 RPC to 200/4.", "2 ZEB terminate app 100 seq 70 RPC to 200/4.",
                       "2 ZEB terminate app 100 seq 72 RPC to 200/4."}));
    EXPECT_EQ(fault::broadcasts(cond()), woken + 1);
    EXPECT_EQ(outcomes(replies[0]), lines_t({"200/4 4"}));
    EXPECT_EQ(outcomes(replies[1]), lines_t({}));
    EXPECT_EQ(outcomes(replies[2]), lines_t({"200/4 4"}));
    const zeb_msg_hdr_t &hdr = replies[2].msg[0]->hdr;
    EXPECT_EQ(hdr.flag, 0);
    EXPECT_EQ(hdr.len, wire::HEADER_LEN);
    EXPECT_EQ(hdr.seq, 72u);
    EXPECT_EQ(hdr.dst_app, APP);
    EXPECT_EQ(hdr.dst_node, NODE);
    EXPECT_EQ(hdr.app_ver, 1u);
    EXPECT_EQ(logged(W, [] { EXPECT_EQ(zeb_terminate_rpc(APP, {PEER, 4}), 0); }), lines_t({})) << "once";
    EXPECT_EQ(fault::broadcasts(cond()), woken + 2);
    for (uint32_t i = 0; i < 3; i++) {
        zeb_rpc_del_wait(APP, 70 + i);
        zeb_reply_msg_free(&replies[i]);
    }
}

TEST_F(zeb_rpc_table, a_substitute_is_filed_only_for_an_instance_that_is_waited_for)
{
    EXPECT_EQ(logged(V | W | E,
                     [] {
                         EXPECT_EQ(zeb_rpc_add_error_reply(APP, 57, {PEER, 3}, ZEB_TIMEOUT), -ENOENT);
                     }),
              lines_t({"2 ZEB add error reply for app 100 seq 57 from 200/3 status RPC timeout.",
                       "0 ZEB app 100 seq 57 RPC wait not exist."}));
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, 57, &reply_, 1), 0);
    ASSERT_EQ(zeb_rpc_set_wait(APP, 57, {PEER, 4}), 0);
    EXPECT_EQ(logged(E,
                     [] {
                         EXPECT_EQ(zeb_rpc_add_error_reply(APP, 57, {PEER, 3}, ZEB_TIMEOUT), -ENOENT);
                     }),
              lines_t({"3 ZEB app 100 seq 57 clear wait for app 200/3 not exist."}));
    EXPECT_EQ(reply_.num, 0);
    int woken = fault::broadcasts(cond());
    EXPECT_EQ(zeb_rpc_add_error_reply(APP, 57, {PEER, 4}, ZEB_TIMEOUT), 0);
    EXPECT_EQ(fault::broadcasts(cond()), woken + 1);
    EXPECT_EQ(outcomes(), lines_t({"200/4 5"}));
    zeb_rpc_del_wait(APP, 57);
}

TEST_F(zeb_rpc_table, the_limit_runs_from_the_last_wake_up)
{
    for (uint32_t node : {3u, 4u, 5u, 6u})
        peer_online(node);
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 2, &reply_), 0); });
    uint32_t seq = wait_requests(4);
    wait_until([] { return fault::waits(cond()) != 0; });
    // Quits wake the caller, although no call waits for them, until one limit has passed since its first wait began.
    struct timespec limit = zeb_deadline_in(2);
    while (!zeb_deadline_passed(&limit)) {
        int begun = fault::waits(cond());
        EXPECT_EQ(zeb_terminate_rpc(APP, {PEER, 99}), 0);
        wait_until([begun] { return fault::waits(cond()) != begun; });
    }
    for (uint32_t node : {3u, 4u, 5u, 6u})
        answer(node, seq);
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 0", "200/4 0", "200/5 0", "200/6 0"}));
}

TEST_F(zeb_rpc_table, time_out_0_waits_however_long)
{
    peer_online(3);
    fault::end_waits(cond(), ETIMEDOUT, 100000); // more than a day of its slices
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    uint32_t seq = wait_requests(1);
    wait_until([&] { return fault::waits(cond()) > 100000; });
    EXPECT_EQ(reply_.num, 0);
    answer(3, seq);
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 0"}));
}

TEST_F(zeb_rpc_table, a_slice_that_ends_as_the_last_answer_is_filed_fails_a_call_without_limit)
{
    peer_online(3);
    lines_t lines = logged(I | W | E, [&] {
        fault::end_waits(cond(), ETIMEDOUT, INT32_MAX, true);
        std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), ETIMEDOUT); });
        uint32_t seq = wait_requests(1);
        wait_until([&] { return fault::waits(cond()) != 0; });
        answer(3, seq);
        caller.join();
    });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], testing::MatchesRegex("3 ZEB app 100 seq -?[0-9]+ wait for RPC reply failed: "
                                                "Connection timed out."));
    EXPECT_EQ(reply_.num, 0) << "its answers are released";
    EXPECT_EQ(reply_.msg[0], nullptr);
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n");
}

TEST_F(zeb_rpc_table, the_librarys_own_answers_are_these_lines_and_bytes)
{
    zeb_msg_t *request = new_request();
    lines_t lines = logged(V, [&] { EXPECT_EQ(zeb_rpc_reply(request, nullptr, 5), 0); });
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0], testing::MatchesRegex("0 ZEB user rpc reply, src_msg 0x[0-9a-f]+, reply_msg .nil., "
                                                "flags 0x5."));
    EXPECT_EQ(lines[1], "0 ZEB app 100 reply to 200/9 seq 1234 status: systerm error.");
    wire::header_t header = wire::header_of(fake_tipc::take_sent().at(0).bytes);
    EXPECT_EQ(header.app_ver, 1u);
    EXPECT_EQ(header.src_node, NODE);
    const zeb_mismatch_info_t info = {4, 6};
    lines = logged(V, [&] { EXPECT_EQ(zeb_rpc_reply_app_mismatch(request, &info), 0); });
    EXPECT_EQ(lines[0], "0 ZEB app 100 reply to 200/9 seq 1234 app ver range [4, 6].");
    wire::bytes_t bytes = fake_tipc::take_sent().at(0).bytes;
    header = wire::header_of(bytes);
    EXPECT_EQ(header.flag, wire::REQUEST | wire::ACK);
    EXPECT_EQ(header.stat, 3u);
    EXPECT_EQ(header.app_ver, 1u);
    EXPECT_EQ(header.seq, 1234u);
    ASSERT_EQ(wire::body_of(bytes).size(), sizeof(info));
    EXPECT_EQ(memcmp(wire::body_of(bytes).data(), &info, sizeof(info)), 0) << "in this host's byte order";
    free(request);
}

TEST_F(zeb_rpc_table, the_listing_is_this_text)
{
    peer_online(3);
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, 55, &reply_, 6), 0);
    for (uint32_t node : {3u, 4u, 5u})
        ASSERT_EQ(zeb_rpc_set_wait(APP, 55, {PEER, node}), 0);
    answer(3, 55);
    ASSERT_EQ(zeb_rpc_add_error_reply(APP, 55, {PEER, 4}, ZEB_SYSTEM_ERR), 0);
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n"
                          "  sequence 55, timeout 6s\n"
                          "    waiting for 200/5\n"
                          "    RPC already replies:\n"
                          "      200/3, RPC success\n"
                          "      200/4, systerm error\n"
                          "\n");
    EXPECT_EQ(logged(V, [] { zeb_rpc_print_wait(APP, 55); }), lines_t({"ZEB app 100 seq 55 wait for: 200/5."}));
    EXPECT_EQ(logged(E, [] { zeb_rpc_print_wait(APP, 55); }), lines_t({}));
    EXPECT_EQ(listing(zeb_cli_print_rpc_stat, 999), "");
    zeb_rpc_del_wait(APP, 55);
}

// What the library cannot continue from ends the process with the failed condition.
TEST_F(zeb_rpc_table, a_call_that_is_not_there_ends_the_process)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(zeb_rpc_set_wait(APP, 55, {PEER, 3}), "wait != NULL");
    EXPECT_DEATH(zeb_rpc_del_wait(APP, 55), "wait != NULL");
    EXPECT_DEATH((void)zeb_rpc_wait_reply(APP, 55), "wait != NULL");
    EXPECT_DEATH((void)zeb_rpc_wait_reply(999, 55), "rpc != NULL");
    EXPECT_DEATH((void)zeb_terminate_rpc(999, {PEER, 3}), "rpc != NULL");
    EXPECT_DEATH((void)zeb_rpc_add_error_reply(999, 55, {PEER, 3}, ZEB_SYSTEM_ERR), "rpc != NULL");
    EXPECT_DEATH(
        {
            (void)zeb_rpc_prepare_wait(APP, 55, &reply_, 1);
            (void)zeb_rpc_set_wait(APP, 55, {PEER, 65536});
        },
        "zeb_valid_node_id\\(dst_node\\)");
}

TEST_F(zeb_rpc_table, a_condition_that_fails_ends_the_process)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, 55, &reply_, 1), 0);
    ASSERT_EQ(zeb_rpc_set_wait(APP, 55, {PEER, 3}), 0);
    EXPECT_DEATH(
        {
            fault::end_waits(cond(), EINVAL);
            (void)zeb_rpc_wait_reply(APP, 55);
        },
        "ret == 0");
    EXPECT_DEATH(
        {
            fault::fail_broadcast(cond(), EINVAL);
            (void)zeb_rpc_add_error_reply(APP, 55, {PEER, 3}, ZEB_SYSTEM_ERR);
        },
        "ret == 0");
    zeb_rpc_del_wait(APP, 55);
}
