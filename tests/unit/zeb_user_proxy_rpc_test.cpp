// The exported calls that ask and answer.
#include <set>
#include <thread>

#include "by_number.h"
#include "rpc_test.h"

#include "zeb_mng_msg.h"
#include "zeb_rpc.h"

class zeb_user_proxy_rpc : public rpc_test
{
};

TEST_F(zeb_user_proxy_rpc, garbage_in_the_buffer_is_cleared_before_anything_else)
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

TEST_F(zeb_user_proxy_rpc, bad_arguments_are_refused)
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

TEST_F(zeb_user_proxy_rpc, a_request_and_an_answer_with_a_spoilt_header_length_are_refused)
{
    peer_online();
    zeb_msg_t *request = new_request();
    (void)fake_tipc::take_sent();
    for (uint32_t len : {35u, 61477u}) {
        msg_->hdr.len = len;
        lines_t line({"3 ZEB app 100 msg len " + std::to_string(len) + " invalid, not 36 to 61476."});
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -EINVAL); }), line);
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpcto(APP, PEER_NODE, PEER, msg_, 0, 1, &reply_), -EINVAL); }), line);
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), -EINVAL); }), line);
    }
    EXPECT_TRUE(fake_tipc::take_sent().empty());
    free(request);
}

TEST_F(zeb_user_proxy_rpc, without_a_server_the_call_is_closed_with_enoent)
{
    lines_t lines = logged(V, [&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOENT); });
    EXPECT_THAT(lines, testing::IsSupersetOf(
                           {"0 ZEB app 100 to 200 has no server.", "0 ZEB app 100 rpc 200(0xc8) has no server."}));
    peer_online(3);
    lines = logged(V, [&] { EXPECT_EQ(zeb_rpcto(APP, 4, PEER, msg_, 0, 1, &reply_), -ENOENT); });
    EXPECT_THAT(lines, testing::Contains("0 ZEB app 100 rpcto 200/4(0xc8/0x4) has no server."));
    EXPECT_EQ(rpc_text(), "Application 100 RPC waits:\n");
    EXPECT_THAT(fc_text(), testing::HasSubstr("mcast reject 1,"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("Send to application 200/4: send 0, unack 0, reject 1,"));
}

TEST_F(zeb_user_proxy_rpc, a_caller_that_is_not_registered_cannot_open_a_call)
{
    EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_rpc(999, PEER, msg_, 0, 1, &reply_), -ENOENT); }),
              lines_t({"2 ZEB app 999 to 200 prepare RPC wait failed: No such file or directory."}));
    EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_rpcto(999, 3, PEER, msg_, 0, 1, &reply_), -ENOENT); }),
              lines_t({"2 ZEB app 999 to 200/3 prepare RPC wait failed: No such file or directory."}));
}

TEST_F(zeb_user_proxy_rpc, a_sequence_that_is_waited_for_already_fails_the_call)
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

TEST_F(zeb_user_proxy_rpc, a_call_gathers_one_answer_from_every_server)
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

TEST_F(zeb_user_proxy_rpc, a_request_carries_flag_sequence_and_version)
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

TEST_F(zeb_user_proxy_rpc, a_call_to_all_nodes_addresses_the_id_that_was_given)
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

TEST_F(zeb_user_proxy_rpc, rpcto_all_nodes_is_rpc)
{
    peer_online(3);
    lines_t lines = logged(V, [&] { (void)zeb_rpcto(APP, ZEB_NODE_ALL, PEER, msg_, 0, 1, &reply_); });
    EXPECT_THAT(lines[1], testing::StartsWith("0 ZEB user app 100 rpc 200(0xc8), msg "));
    EXPECT_EQ(outcomes(), lines_t({"200/3 5"}));
}

TEST_F(zeb_user_proxy_rpc, several_calls_at_once_each_get_their_own_answers)
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
    wait_until([&] {
        for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
            seqs.push_back(wire::header_of(sent.bytes).seq);
        return seqs.size() == 8;
    });
    for (uint32_t seq : seqs)
        answer(3, seq);
    for (std::thread &caller : callers)
        caller.join();
    for (zeb_reply_msg_t &reply : replies) {
        EXPECT_EQ(reply.num, 1);
        zeb_reply_msg_free(&reply);
    }
}

TEST_F(zeb_user_proxy_rpc, a_silent_server_times_out_behind_the_real_answers)
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
    EXPECT_EQ(reply_.msg[2]->hdr.len, wire::HEADER_LEN);
    EXPECT_EQ(reply_.msg[2]->hdr.dst_app, APP);
    EXPECT_EQ(reply_.msg[2]->hdr.dst_node, NODE);
    EXPECT_EQ(reply_.msg[2]->hdr.app_ver, 1u);
    EXPECT_EQ(reply_.msg[2]->hdr.seq, reply_.msg[0]->hdr.seq);
    std::string seq = std::to_string((int)reply_.msg[2]->hdr.seq);
    EXPECT_EQ(lines, lines_t({"1 ZEB app 100 seq " + seq + " wait for RPC reply timeout.",
                              "1 ZEB app 100 seq " + seq + " wait for 200/4 timeout."}));
}

TEST_F(zeb_user_proxy_rpc, missing_instances_time_out_in_waiting_order)
{
    for (uint32_t node : {9u, 4u, 7u})
        peer_online(node);
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), 0);
    EXPECT_EQ(outcomes(), lines_t({"200/4 5", "200/7 5", "200/9 5"}));
}

TEST_F(zeb_user_proxy_rpc, an_instance_that_quits_ends_its_part_and_the_call_goes_on)
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

TEST_F(zeb_user_proxy_rpc, an_instance_that_cannot_be_written_to_gets_a_substitute)
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

TEST_F(zeb_user_proxy_rpc, an_instance_that_quits_before_its_request_is_written_is_passed_over)
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

TEST_F(zeb_user_proxy_rpc, a_substitute_that_cannot_be_filed_fails_the_call_and_releases_its_answers)
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

TEST_F(zeb_user_proxy_rpc, the_lines_of_a_call_are_these)
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

TEST_F(zeb_user_proxy_rpc, the_lines_of_a_call_to_one_node_that_waits_are_these)
{
    peer_online(3);
    uint32_t seq = 0;
    lines_t lines = logged(15, [&] {
        std::thread caller([&] { EXPECT_EQ(zeb_rpcto(APP, 3, PEER, msg_, 0, 60, &reply_), 0); });
        seq = wait_requests(1);
        wait_until([&] { return fault::waits(cond()) != 0; });
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

// Calls as large as a reply buffer.

TEST_F(zeb_user_proxy_rpc, a_call_to_64_instances_gathers_64_answers_and_refuses_a_65th)
{
    static_assert(ZEB_RPC_REPLY_NUM == 64, "as many as there are");
    for (uint32_t node = 1; node <= 64; node++)
        peer_online(node);
    struct {
        zeb_reply_msg_t reply;
        uint8_t behind[64];
    } place;
    memset(&place, 0xEE, sizeof(place));
    int result = 1;
    std::thread caller([&] { result = zeb_rpc(APP, PEER, msg_, 0, 0, &place.reply); });
    uint32_t seq = wait_requests(64);
    wait_until([&] { return fault::waits(cond()) != 0; });
    peer_online(65); // too late to be asked
    for (uint32_t node = 1; node <= 63; node++)
        answer(node, seq, 0, {(uint8_t)node});
    EXPECT_EQ(logged(E, [&] { answer(63, seq); }).size(), 1u) << "a second answer of one instance";
    EXPECT_EQ(logged(E, [&] { answer(65, seq); }).size(), 1u) << "an instance that was not asked";
    answer(64, seq, 0, {64});
    answer(65, seq); // the call may have ended or not
    caller.join();
    answer(65, seq);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(place.reply.num, 64);
    std::set<uint32_t> nodes;
    for (zeb_msg_t *msg : place.reply.msg) {
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->hdr.rpc_stat, ZEB_SUCCESS);
        EXPECT_EQ(msg->data[0], msg->hdr.src_node);
        nodes.insert(msg->hdr.src_node);
        free(msg);
    }
    EXPECT_EQ(nodes.size(), 64u);
    EXPECT_EQ(*nodes.rbegin(), 64u);
    EXPECT_THAT(place.behind, testing::Each(0xEE));
}

TEST_F(zeb_user_proxy_rpc, a_call_to_65_instances_is_refused_and_sends_nothing)
{
    for (uint32_t node = 1; node <= 65; node++)
        peer_online(node);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOBUFS);
        EXPECT_EQ(reply_.num, 0);
        EXPECT_TRUE(fake_tipc::take_sent().empty());
    }
}

TEST_F(zeb_user_proxy_rpc, the_65th_instance_fails_the_call)
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

TEST_F(zeb_user_proxy_rpc, past_64_instances_on_chosen_nodes_the_call_is_closed)
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

// Answering.

TEST_F(zeb_user_proxy_rpc, an_answer_carries_the_requests_sequence)
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

TEST_F(zeb_user_proxy_rpc, an_empty_answer_is_a_system_error)
{
    zeb_msg_t *request = new_request();
    EXPECT_EQ(zeb_rpc_reply(request, nullptr, 0), 0);
    auto sent = fake_tipc::take_sent();
    EXPECT_EQ(wire::header_of(sent.at(0).bytes).stat, 4u);
    EXPECT_EQ(sent[0].bytes.size(), wire::HEADER_LEN);
    free(request);
}

TEST_F(zeb_user_proxy_rpc, only_requests_are_answered)
{
    for (uint8_t flag : {0, wire::REQUEST | wire::ACK, (int)wire::ACK}) {
        zeb_msg_t *request = new_request(flag);
        EXPECT_EQ(logged(W, [&] { EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), -EINVAL); }),
                  lines_t({"2 ZEB reply msg src is not RPC."}));
        free(request);
    }
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_rpc_reply(nullptr, msg_, 0), -EINVAL); }),
              lines_t({"3 ZEB RPC reply invalid argument."}));
}

TEST_F(zeb_user_proxy_rpc, a_failed_answer_is_counted)
{
    zeb_msg_t *request = new_request();
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), -1);
    free(request);
    EXPECT_THAT(fc_text(),
                testing::HasSubstr("Send to application 200/9: send 0, unack 0, reject 0, RPC reply reject 1\n"));
}

TEST_F(zeb_user_proxy_rpc, an_answer_that_is_sent_says_nothing)
{
    peer_online();
    zeb_msg_t *request = zeb_msg_alloc(4, 1, 0);
    zeb_encode_msg_hdr(request, ZEB_MSG_FLAG_REQUEST, PEER, PEER_NODE, APP, NODE, 77, 0);
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), 0); }), lines_t({}));
    EXPECT_EQ(logged(W | E, [&] { EXPECT_EQ(zeb_rpc_reply(request, nullptr, 0), 0); }), lines_t({}));
    EXPECT_EQ(fake_tipc::take_sent().size(), 2u);
    EXPECT_THAT(fc_text(), testing::HasSubstr("RPC reply exception 0\n"));
    EXPECT_THAT(fc_text(), testing::HasSubstr("RPC reply reject 0\n"));
    free(request);
}
