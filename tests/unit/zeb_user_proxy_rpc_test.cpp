// The wait table and the exported RPC calls.
#include <thread>

#include "by_number.h"
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_slot.h"
#include "zeb_mng_msg.h"
#include "zeb_rpc.h"

class zeb_rpc_calls : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    ~zeb_rpc_calls() override
    {
        free(msg_);
        zeb_reply_msg_free(&reply_);
    }

    // An answer as it arrives.
    void answer(uint32_t node, uint32_t seq, uint32_t stat = 0, const wire::bytes_t &body = {})
    {
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK, node);
        header.seq = seq;
        header.stat = stat;
        receive(wire::message(header, body));
    }

    // Waits until `num` requests were written; returns their sequence number.
    static uint32_t wait_requests(size_t num)
    {
        size_t seen = 0;
        uint32_t seq = 0;
        while (seen < num) {
            for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
                seq = wire::header_of(sent.bytes).seq;
                seen++;
            }
            (void)sched_yield();
        }
        return seq;
    }

    static pthread_cond_t *cond()
    {
        return &zeb_get_app_rpc(APP)->wait_cond.impl;
    }

    static std::string fc_text()
    {
        zeb_buf_printf_reset();
        zeb_cli_print_fc_stat(APP);
        return buffer_text();
    }

    static std::string rpc_text()
    {
        zeb_buf_printf_reset();
        zeb_cli_print_rpc_stat(APP);
        return buffer_text();
    }

    lines_t outcomes() const
    {
        return outcomes(reply_);
    }

    static lines_t outcomes(const zeb_reply_msg_t &reply)
    {
        lines_t out;
        for (int i = 0; i < reply.num; i++) {
            const zeb_msg_hdr_t &hdr = reply.msg[i]->hdr;
            out.push_back(std::to_string(hdr.src_app) + "/" + std::to_string(hdr.src_node) + " " +
                          std::to_string(hdr.rpc_stat));
        }
        return out;
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 3, 0);
    zeb_reply_msg_t reply_ = {};
};

TEST_F(zeb_rpc_calls, garbage_in_the_buffer_is_cleared_before_anything_else)
{
    zeb_reply_msg_t garbage;
    memset(&garbage, 0xEE, sizeof(garbage));
    EXPECT_EQ(zeb_rpc(0, PEER, msg_, 0, 1, &garbage), -EINVAL);
    EXPECT_EQ(garbage.num, 0);
    EXPECT_EQ(garbage.msg[63], nullptr);
    memset(&garbage, 0xEE, sizeof(garbage));
    EXPECT_EQ(zeb_rpcto(APP, 3, PEER, nullptr, 0, 1, &garbage), -EINVAL);
    EXPECT_EQ(garbage.num, 0);
    EXPECT_EQ(garbage.msg[0], nullptr);
    memset(&garbage, 0xEE, sizeof(garbage));
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &garbage), -ENOENT);
    EXPECT_EQ(garbage.num, 0);
    EXPECT_EQ(garbage.msg[63], nullptr);
}

TEST_F(zeb_rpc_calls, bad_arguments_are_refused)
{
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc(8192, PEER, msg_, 0, 1, &reply_), -EINVAL); }),
              lines_t({"3 ZEB src app ID 8192 invalid."}));
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc(APP, PEER, nullptr, 0, 1, &reply_), -EINVAL); }),
              lines_t({"3 ZEB app 100 RPC msg or reply buffer NULL."}));
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpcto(APP, 1, PEER, msg_, 0, 1, nullptr), -EINVAL); }),
              lines_t({"3 ZEB app 100 RPC msg or reply buffer NULL."}));
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpc(APP, 8192, msg_, 0, 1, &reply_), -EINVAL); }),
              lines_t({"3 ZEB app 100 to dst app ID 8192 invalid."}));
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpcto(APP, 65536, PEER, msg_, 0, 1, &reply_), -EINVAL); }),
              lines_t({"3 ZEB app 100 to dst node ID 65536 invalid.",
                       "2 ZEB app 100 to 200/65536 prepare RPC wait failed: Invalid argument."}));
}

TEST_F(zeb_rpc_calls, without_a_server_the_call_is_closed_with_enoent)
{
    lines_t lines = logged(V, [&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOENT); });
    EXPECT_THAT(lines, testing::IsSupersetOf(
                           {"0 ZEB app 100 to 200 has no server.", "0 ZEB app 100 rpc 200(0xc8) has no server."}));
    peer_online(3);
    lines = logged(V, [&] { EXPECT_EQ(zeb_rpcto(APP, 4, PEER, msg_, 0, 1, &reply_), -ENOENT); });
    EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 rpcto 200/4(0xc8/0x4) has no server."));
    zeb_buf_printf_reset();
    zeb_cli_print_rpc_stat(APP);
    EXPECT_EQ(buffer_text(), "Application 100 RPC waits:\n");
    zeb_cli_print_fc_stat(APP);
    EXPECT_THAT(buffer_text(), testing::HasSubstr("mcast reject 1,"));
    EXPECT_THAT(buffer_text(), testing::HasSubstr("Send to application 200/4: send 0, unack 0, reject 1,"));
}

TEST_F(zeb_rpc_calls, a_call_gathers_one_answer_from_every_server)
{
    peer_online(3);
    peer_online(4);
    memcpy(msg_->data, "ask!", 4);
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    uint32_t seq = wait_requests(2);
    answer(4, seq, 0, {'f', 'o', 'u', 'r'});
    answer(3, seq);
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/4 0", "200/3 0"})) << "in the order of arrival";
    EXPECT_EQ(memcmp(reply_.msg[0]->data, "four", 4), 0);
}

TEST_F(zeb_rpc_calls, a_request_carries_flag_sequence_and_version)
{
    peer_online(3);
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), 0);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    wire::header_t header = wire::header_of(sent[0].bytes);
    EXPECT_EQ(header.flag, wire::REQUEST);
    EXPECT_NE(header.seq, 0u);
    EXPECT_EQ(header.app_ver, 3u);
    EXPECT_EQ(header.stat, 0u);
    EXPECT_EQ(sent[0].flags, MSG_NOSIGNAL) << "blocking, whatever the caller's flags";
}

TEST_F(zeb_rpc_calls, a_silent_server_times_out_behind_the_real_answers)
{
    for (uint32_t node : {3u, 4u, 5u})
        peer_online(node);
    lines_t lines = logged(I, [&] {
        std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), 0); });
        uint32_t seq = wait_requests(3);
        answer(5, seq);
        answer(3, seq);
        caller.join();
    });
    EXPECT_EQ(outcomes(), lines_t({"200/5 0", "200/3 0", "200/4 5"}));
    EXPECT_EQ(reply_.msg[2]->hdr.flag, 0);
    EXPECT_EQ(reply_.msg[2]->hdr.len, 36u);
    EXPECT_EQ(reply_.msg[2]->hdr.dst_app, APP);
    EXPECT_EQ(reply_.msg[2]->hdr.dst_node, NODE);
    EXPECT_EQ(reply_.msg[2]->hdr.app_ver, 1u);
    EXPECT_EQ(reply_.msg[2]->hdr.seq, reply_.msg[0]->hdr.seq);
    std::string seq = std::to_string((int)reply_.msg[2]->hdr.seq);
    EXPECT_EQ(lines, lines_t({"1 ZEB app 100 seq " + seq + " wait for RPC reply timeout.",
                              "1 ZEB app 100 seq " + seq + " wait for 200/4 timeout."}));
}

TEST_F(zeb_rpc_calls, missing_instances_time_out_in_waiting_order)
{
    for (uint32_t node : {9u, 4u, 7u})
        peer_online(node);
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), 0);
    EXPECT_EQ(outcomes(), lines_t({"200/4 5", "200/7 5", "200/9 5"}));
}

TEST_F(zeb_rpc_calls, an_instance_that_quits_ends_its_part_and_the_call_goes_on)
{
    peer_online(3);
    peer_online(4);
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    uint32_t seq = wait_requests(2);
    lines_t lines = logged(W, [&] { peer_withdrawn(3); });
    EXPECT_THAT(lines, testing::Contains("2 ZEB terminate app 100 seq " + std::to_string((int)seq) + " RPC to 200/3."));
    answer(4, seq);
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 4", "200/4 0"}));
}

TEST_F(zeb_rpc_calls, an_instance_that_cannot_be_written_to_gets_a_substitute)
{
    peer_online(3);
    peer_online(4);
    fault::fail_next("sendto", EHOSTUNREACH);
    lines_t lines = logged(W, [&] {
        std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
        answer(4, wait_requests(1));
        caller.join();
    });
    EXPECT_EQ(outcomes(), lines_t({"200/3 4", "200/4 0"}));
    EXPECT_THAT(lines,
                testing::Contains("2 ZEB add error reply for app 100 seq " +
                                  std::to_string((int)reply_.msg[0]->hdr.seq) + " from 200/3 status systerm error."));
}

TEST_F(zeb_rpc_calls, late_double_and_unasked_answers_are_refused)
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

TEST_F(zeb_rpc_calls, an_answer_for_an_application_that_is_not_here_is_refused)
{
    peer_online(3);
    wire::header_t header = from_peer(wire::REQUEST | wire::ACK, 3);
    header.dst_app = 555;
    EXPECT_EQ(logged(E, [&] { receive(wire::message(header, {})); }),
              lines_t({"3 ZEB get app 555 RPC wait not exist."}));
}

TEST_F(zeb_rpc_calls, the_65th_instance_fails_the_call)
{
    for (uint32_t node = 1; node <= 65; node++)
        peer_online(1000 + node);
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOBUFS); }),
              lines_t({"3 ZEB RPC wait reply num exceeds limit 64."}));
    EXPECT_EQ(reply_.num, 0);
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n") << "the call is closed";
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 1,"));
    peer_withdrawn(1001);
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), 0);
    EXPECT_EQ(reply_.num, 64);
}

TEST_F(zeb_rpc_calls, the_limit_runs_from_the_last_wake_up)
{
    for (uint32_t node : {3u, 4u, 5u, 6u})
        peer_online(node);
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 2, &reply_), 0); });
    uint32_t seq = wait_requests(4);
    struct timespec pause = {1, 0}; // each answer within the limit of the one before, all of them beyond one limit
    for (uint32_t node : {3u, 4u, 5u, 6u}) {
        (void)nanosleep(&pause, nullptr);
        answer(node, seq);
    }
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 0", "200/4 0", "200/5 0", "200/6 0"}));
}

TEST_F(zeb_rpc_calls, time_out_0_waits_however_long)
{
    peer_online(3);
    fault::end_waits(cond(), ETIMEDOUT, 100000); // more than a day of its slices
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    uint32_t seq = wait_requests(1);
    while (fault::waits(cond()) <= 100000)
        (void)sched_yield();
    EXPECT_EQ(reply_.num, 0);
    answer(3, seq);
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 0"}));
}

TEST_F(zeb_rpc_calls, several_calls_at_once_each_get_their_own_answers)
{
    peer_online(3);
    zeb_reply_msg_t replies[8];
    std::vector<std::thread> callers;
    for (zeb_reply_msg_t &reply : replies) {
        callers.emplace_back([&reply] {
            zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0);
            EXPECT_EQ(zeb_rpc(APP, PEER, msg, 0, 0, &reply), 0);
            free(msg);
        });
    }
    std::vector<uint32_t> seqs;
    while (seqs.size() < 8) {
        for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
            seqs.push_back(wire::header_of(sent.bytes).seq);
        (void)sched_yield();
    }
    for (uint32_t seq : seqs)
        answer(3, seq);
    for (std::thread &caller : callers)
        caller.join();
    for (zeb_reply_msg_t &reply : replies) {
        EXPECT_EQ(reply.num, 1);
        zeb_reply_msg_free(&reply);
    }
}

TEST_F(zeb_rpc_calls, a_call_to_all_nodes_addresses_the_id_that_was_given)
{
    peer_online(NODE, true, APP, APP);
    peer_online(3, true, APP, APP);
    (void)zeb_rpc(APP, 0, msg_, ZEB_SEND_EXCLUDE_SELF, 1, &reply_);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).dst_app, 0u);
    zeb_reply_msg_free(&reply_);
    (void)zeb_rpcto(APP, 3, 0, msg_, 0, 1, &reply_);
    sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).dst_app, APP) << "to chosen nodes, the member";
}

TEST_F(zeb_rpc_calls, rpcto_all_nodes_is_rpc)
{
    peer_online(3);
    lines_t lines = logged(V, [&] { (void)zeb_rpcto(APP, ZEB_NODE_ALL, PEER, msg_, 0, 1, &reply_); });
    EXPECT_THAT(lines[1], testing::StartsWith("0 ZEB user app 100 rpc 200(0xc8), msg "));
    EXPECT_EQ(outcomes(), lines_t({"200/3 5"}));
}

TEST_F(zeb_rpc_calls, past_64_instances_on_chosen_nodes_the_call_is_closed)
{
    ASSERT_EQ(zeb_comm_with(APP, PEER + 1), 0);
    uint32_t apps = (uint32_t)zeb_create_app_mcast(APP);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    for (uint32_t peer : {PEER, PEER + 1})
        ASSERT_EQ(zeb_add_app_mcast(APP, apps, peer), 0);
    for (uint32_t node = 1; node <= 33; node++) {
        ASSERT_EQ(zeb_add_node_mcast(APP, nodes, node), 0);
        peer_online(node, true, PEER);
        peer_online(node, true, PEER + 1);
    }
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpcto(APP, nodes, apps, msg_, 0, 1, &reply_), -ENOBUFS); }),
              lines_t({"3 ZEB RPC wait reply num exceeds limit 64."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n");
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 1,"));
    zeb_del_node_mcast(APP, nodes, 33);
    EXPECT_EQ(zeb_rpcto(APP, nodes, apps, msg_, 0, 1, &reply_), 0);
    EXPECT_EQ(reply_.num, 64);
}

TEST_F(zeb_rpc_calls, a_sequence_that_is_waited_for_already_fails_the_call)
{
    peer_online(3);
    zeb_reply_msg_t other = {};
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, zeb_get_seq() + 1, &other, 9), 0);
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -EEXIST); }),
              lines_t({"2 ZEB app 100 to 200 prepare RPC wait failed: File exists."}));
    uint32_t seq = zeb_get_seq() + 1;
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, seq, &other, 8), 0);
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpcto(APP, 3, PEER, msg_, 0, 1, &reply_), -EEXIST); }),
              lines_t({"2 ZEB app 100 to 200/3 prepare RPC wait failed: File exists."}));
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    EXPECT_THAT(rpc_text(), testing::HasSubstr(", timeout 9s\n")) << "the other call goes on";
    EXPECT_THAT(rpc_text(), testing::HasSubstr(", timeout 8s\n"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 1,"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/3: send 0, unack 0, reject 1,"));
}

TEST_F(zeb_rpc_calls, a_caller_that_is_not_registered_cannot_open_a_call)
{
    EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_rpc(999, PEER, msg_, 0, 1, &reply_), -ENOENT); }),
              lines_t({"2 ZEB app 999 to 200 prepare RPC wait failed: No such file or directory."}));
    EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_rpcto(999, 3, PEER, msg_, 0, 1, &reply_), -ENOENT); }),
              lines_t({"2 ZEB app 999 to 200/3 prepare RPC wait failed: No such file or directory."}));
}

TEST_F(zeb_rpc_calls, an_instance_that_quits_before_its_request_is_written_is_passed_over)
{
    peer_online(3);
    peer_online(4);
    fault::run_next("sendto", [&] { peer_withdrawn(4); });
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    answer(3, wait_requests(1));
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/4 4", "200/3 0"}));
    EXPECT_THAT(fc_text(), testing::HasSubstr("total send 1,"));
}

TEST_F(zeb_rpc_calls, a_substitute_that_cannot_be_filed_fails_the_call_and_releases_its_answers)
{
    peer_online(3);
    peer_online(4);
    fault::run_next(
        "sendto", [&] { peer_withdrawn(4); }, 1, EHOSTUNREACH);
    lines_t lines = logged(E, [&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), -ENOENT); });
    EXPECT_THAT(lines, testing::Contains(testing::EndsWith(" clear wait for app 200/4 not exist.")));
    EXPECT_EQ(reply_.num, 0);
    EXPECT_EQ(reply_.msg[0], nullptr);
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n") << "the call is closed";
}

TEST_F(zeb_rpc_calls, the_lines_of_a_call_are_these)
{
    peer_online(3);
    uint32_t seq = zeb_get_seq() + 1;
    lines_t lines = logged(15, [&] {
        fault::run_next("sendto", [&] { answer(3, seq); });
        EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 6, &reply_), 0);
    });
    ASSERT_FALSE(lines.empty());
    EXPECT_THAT(lines[0], testing::MatchesRegex("0 ZEB user app 100 rpc 200.0xc8., msg 0x[0-9a-f]+, flags 0x0, "
                                                "timeout 6, ret_buf 0x[0-9a-f]+."));
    lines.erase(lines.begin());
    const std::string call = "0 ZEB app 100 seq " + std::to_string((int)seq);
    EXPECT_EQ(
        lines,
        lines_t({call + " RPC prepare wait.", "0 ZEB add new app 100 seq " + std::to_string((int)seq) + " RPC wait.",
                 call.substr(2) + " wait for: 200/3.", "0 ZEB app 100 sent to 200/3, msg len 40.",
                 "0 ZEB app 100 recv new msg.",
                 "0 ZEB add RPC reply for app 100 seq " + std::to_string((int)seq) + " from 200/3 status RPC success.",
                 call + " to 200/3 RPC replied.", "0 ZEB app 100 update send OK to 200/3.",
                 call + " RPC all replied."}));
}

TEST_F(zeb_rpc_calls, the_lines_of_a_call_to_one_node_that_waits_are_these)
{
    peer_online(3);
    uint32_t seq = 0;
    lines_t lines = logged(15, [&] {
        std::thread caller([&] { EXPECT_EQ(zeb_rpcto(APP, 3, PEER, msg_, 0, 60, &reply_), 0); });
        seq = wait_requests(1);
        while (fault::waits(cond()) == 0)
            (void)sched_yield();
        answer(3, seq);
        caller.join();
    });
    ASSERT_FALSE(lines.empty());
    EXPECT_THAT(lines[0], testing::MatchesRegex("0 ZEB user app 100 rpcto 200/3.0xc8/0x3., msg 0x[0-9a-f]+, flags "
                                                "0x0, timeout 60, ret_buf 0x[0-9a-f]+."));
    EXPECT_THAT(lines,
                testing::Contains("0 ZEB app 100 seq " + std::to_string((int)seq) + " wait for RPC reply in 60s."));
    EXPECT_EQ(logged(V,
                     [] {
                         (void)zeb_rpc_prepare_wait(APP, 55, nullptr, 1);
                         zeb_rpc_del_wait(APP, 55);
                     }),
              lines_t({"0 ZEB app 100 seq 55 RPC prepare wait.", "0 ZEB add new app 100 seq 55 RPC wait.",
                       "0 ZEB delete app 100 seq 55 RPC wait."}));
}

TEST_F(zeb_rpc_calls, a_slice_that_ends_as_the_last_answer_is_filed_fails_a_call_without_limit)
{
    peer_online(3);
    lines_t lines = logged(I | W | E, [&] {
        fault::end_waits(cond(), ETIMEDOUT, INT32_MAX, true);
        std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), ETIMEDOUT); });
        uint32_t seq = wait_requests(1);
        while (fault::waits(cond()) == 0)
            (void)sched_yield();
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

TEST_F(zeb_rpc_calls, a_quit_ends_its_part_of_every_call_and_wakes_even_when_there_is_none)
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
    EXPECT_EQ(hdr.len, 36u);
    EXPECT_EQ(hdr.seq, 72u);
    EXPECT_EQ(hdr.dst_app, APP);
    EXPECT_EQ(hdr.dst_node, NODE);
    EXPECT_EQ(hdr.app_ver, 1u);
    EXPECT_EQ(logged(W, [] { EXPECT_EQ(zeb_terminate_rpc(APP, {PEER, 4}), 0); }), lines_t({})) << "settled once";
    EXPECT_EQ(fault::broadcasts(cond()), woken + 2);
    for (uint32_t i = 0; i < 3; i++) {
        zeb_rpc_del_wait(APP, 70 + i);
        zeb_reply_msg_free(&replies[i]);
    }
}

TEST_F(zeb_rpc_calls, a_substitute_is_filed_only_for_an_instance_that_is_waited_for)
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

TEST_F(zeb_rpc_calls, an_application_mismatch_answer_arrives_with_its_range_in_the_servers_byte_order)
{
    peer_online(3);
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 0, &reply_), 0); });
    answer(3, wait_requests(1), ZEB_APP_MISMATCH, {1, 2, 3, 4, 5, 6, 7, 8});
    caller.join();
    EXPECT_EQ(outcomes(), lines_t({"200/3 3"}));
    EXPECT_EQ(memcmp(reply_.msg[0]->data, "\1\2\3\4\5\6\7\10", 8), 0);
}

// What the library cannot continue from ends the process with the failed condition.
TEST_F(zeb_rpc_calls, a_call_that_is_not_there_ends_the_process)
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

TEST_F(zeb_rpc_calls, a_condition_that_fails_ends_the_process)
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

// Answering.

static zeb_msg_t *new_request(uint8_t flag = ZEB_MSG_FLAG_REQUEST)
{
    zeb_msg_t *request = zeb_msg_alloc(0, 3, 0);
    zeb_encode_msg_hdr(request, flag, PEER, 9, APP, NODE, 1234, 0);
    return request;
}

TEST_F(zeb_rpc_calls, an_answer_carries_the_requests_sequence)
{
    zeb_msg_t *request = new_request();
    EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), 0);
    wire::header_t header = wire::header_of(fake_tipc::take_sent().at(0).bytes);
    EXPECT_EQ(header.flag, wire::REQUEST | wire::ACK);
    EXPECT_EQ(header.seq, 1234u);
    EXPECT_EQ(header.stat, 0u);
    EXPECT_EQ(header.src_app, APP);
    EXPECT_EQ(header.dst_app, PEER);
    EXPECT_EQ(header.dst_node, 9u);
    EXPECT_EQ(header.app_ver, 3u);
    free(request);
}

TEST_F(zeb_rpc_calls, an_empty_answer_is_a_system_error)
{
    zeb_msg_t *request = new_request();
    EXPECT_EQ(zeb_rpc_reply(request, nullptr, 0), 0);
    auto sent = fake_tipc::take_sent();
    EXPECT_EQ(wire::header_of(sent.at(0).bytes).stat, 4u);
    EXPECT_EQ(sent[0].bytes.size(), 36u);
    free(request);
}

TEST_F(zeb_rpc_calls, only_requests_are_answered)
{
    for (uint8_t flag : {0x00, 0x06, 0x04}) {
        zeb_msg_t *request = new_request(flag);
        EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), -EINVAL); }),
                  lines_t({"2 ZEB reply msg src is not RPC."}));
        free(request);
    }
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc_reply(nullptr, msg_, 0), -EINVAL); }),
              lines_t({"3 ZEB RPC reply invalid argument."}));
}

TEST_F(zeb_rpc_calls, the_librarys_own_answers_are_these_lines_and_bytes)
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

TEST_F(zeb_rpc_calls, a_failed_answer_is_counted)
{
    zeb_msg_t *request = new_request();
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), -1);
    free(request);
    zeb_buf_printf_reset();
    zeb_cli_print_fc_stat(APP);
    EXPECT_THAT(buffer_text(),
                testing::HasSubstr("Send to application 200/9: send 0, unack 0, reject 0, RPC reply reject 1\n"));
}

TEST_F(zeb_rpc_calls, the_listing_is_this_text)
{
    peer_online(3);
    ASSERT_EQ(zeb_rpc_prepare_wait(APP, 55, &reply_, 6), 0);
    for (uint32_t node : {3u, 4u, 5u})
        ASSERT_EQ(zeb_rpc_set_wait(APP, 55, {PEER, node}), 0);
    answer(3, 55);
    ASSERT_EQ(zeb_rpc_add_error_reply(APP, 55, {PEER, 4}, ZEB_SYSTEM_ERR), 0);
    zeb_buf_printf_reset();
    zeb_cli_print_rpc_stat(APP);
    EXPECT_EQ(buffer_text(), "Application 100 RPC waits:\n"
                             "  sequence 55, timeout 6s\n"
                             "    waiting for 200/5\n"
                             "    RPC already replies:\n"
                             "      200/3, RPC success\n"
                             "      200/4, systerm error\n"
                             "\n");
    EXPECT_EQ(logged(V, [] { zeb_rpc_print_wait(APP, 55); }), lines_t({"ZEB app 100 seq 55 wait for: 200/5."}));
    EXPECT_EQ(logged(E, [] { zeb_rpc_print_wait(APP, 55); }), lines_t({}));
    zeb_buf_printf_reset();
    zeb_cli_print_rpc_stat(999);
    EXPECT_EQ(buffer_text(), "");
    zeb_rpc_del_wait(APP, 55);
}
