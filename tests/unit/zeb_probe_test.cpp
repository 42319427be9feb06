// The static probes, as a tracer sees them: that each fires where docs/tracing.md says, with its arguments.
#ifdef ZEB_TRACED // this build has probes, and this machine is one whose notes the tracer reads

#include "flow_test.h"
#include "rpc_test.h"
#include "tracer.h"

#include <zeb/zeb_ext.h>

class zeb_probe : public flow_test
{
  protected:
    ~zeb_probe() override
    {
        free(msg_);
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 3, 0);
};

TEST_F(zeb_probe, a_send_tells_its_result)
{
    peer_online();
    tracer::watch({"send"});
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), 0);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), 0);
    EXPECT_EQ(tracer::take(), lines_t({"send 100 200 9 40 0 0", "send 100 200 9 40 0 0"}));
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), -1);
    fault::fail_next("sendto", fault::SHORT);
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), -1);
    EXPECT_EQ(tracer::take(), lines_t({"send 100 200 9 40 0 -113", "send 100 200 9 40 0 -5"}));
    EXPECT_EQ(zeb_sendto(APP, 5, PEER, msg_, 0), -ENOENT);
    EXPECT_EQ(zeb_send(APP, 201, msg_, 0), -ENOENT);
    EXPECT_EQ(tracer::take(), lines_t({"send 100 200 5 40 0 -2", "send 100 201 4294967295 40 0 -2"}));
}

TEST_F(zeb_probe, a_send_that_would_block_is_refused_by_its_name)
{
    peer_online();
    sent(1025);
    tracer::watch({"send", "block"});
    EXPECT_EQ(zeb_send(APP, PEER, msg_, ZEB_SEND_NOWAIT), -EAGAIN);
    EXPECT_EQ(tracer::take(), lines_t({"send 100 200 4294967295 40 0 -11"}));
}

TEST_F(zeb_probe, datagrams_of_all_kinds_have_their_flag)
{
    tracer::watch({"send", "receive"});
    peer_online();
    lines_t lines = tracer::take();
    EXPECT_THAT(lines, testing::Contains("send 100 200 9 60 1 0")) << "our synchronisation";
    EXPECT_THAT(lines, testing::Contains("receive 100 200 9 60 1")) << "the peer's";
    received(513);
    EXPECT_EQ(tracer::take(), lines_t({"send 100 200 9 44 8 0"})) << "an acknowledgement";
}

TEST_F(zeb_probe, a_window_that_fills_and_a_sender_that_waits)
{
    tracer::watch({"window", "block", "unblock"});
    sent(1024);
    EXPECT_TRUE(tracer::take().empty());
    sent(1);
    EXPECT_EQ(tracer::take(), lines_t({"window 100 200 9 1"}));
    std::thread sender = blocked_sender();
    EXPECT_EQ(tracer::take(), lines_t({"block 100 200"}));
    zeb_fc_update_sent_ack(APP, {PEER, PEER_NODE}, 512);
    sender.join();
    EXPECT_EQ(tracer::take(), lines_t({"window 100 200 9 0", "unblock 100 200 0"}));
}

TEST_F(zeb_probe, a_message_is_received_and_dispatched)
{
    peer_online();
    tracer::watch({"receive", "dispatch_start", "dispatch_end"});
    receive(wire::message(from_peer(), {1, 2, 3, 4}));
    EXPECT_EQ(tracer::take(),
              lines_t({"receive 100 200 9 40 0", "dispatch_start 100 1 200 9 0", "dispatch_end 100 1"}));
    receive(wire::message(from_peer(wire::REQUEST), {}));
    EXPECT_EQ(tracer::take(),
              lines_t({"receive 100 200 9 36 2", "dispatch_start 100 1 200 9 2", "dispatch_end 100 1"}));
    wire::header_t header = from_peer();
    header.app_ver = 2;
    receive(wire::message(header, {}));
    EXPECT_EQ(tracer::take(), lines_t({"receive 100 200 9 36 0"})) << "no dispatcher of that version";
}

TEST_F(zeb_probe, the_phases_of_a_pair_its_join_and_its_quit)
{
    tracer::watch({"pair", "join", "quit"});
    peer_published();
    EXPECT_EQ(tracer::take(), lines_t({"pair 100 200 9 1"})) << "waiting";
    uint32_t seq = take_sync_seq();
    peer_syncs();
    EXPECT_EQ(tracer::take(), lines_t({"pair 100 200 9 3"})) << "crossed";
    peer_acks(seq, PEER_SEQ);
    EXPECT_EQ(tracer::take(), lines_t({"pair 100 200 9 5", "join 100 200 9"})) << "online";
    peer_withdrawn();
    EXPECT_EQ(tracer::take(), lines_t({"pair 100 200 9 0", "quit 100 200 9"})) << "idle";
}

class zeb_probe_call : public rpc_test
{
  protected:
    void SetUp() override
    {
        rpc_test::SetUp();
        peer_online();
        (void)fake_tipc::take_sent();
        tracer::watch({"call_start", "call_outcome", "call_end"});
    }

    // What fired, with NUMBER in place of the number of the call.
    static lines_t fired(uint32_t number)
    {
        lines_t out;
        for (std::string line : tracer::take()) {
            std::string word = " " + std::to_string(number) + " ";
            size_t at = line.find(word);
            EXPECT_NE(at, std::string::npos) << line;
            out.push_back(at == std::string::npos ? line : line.replace(at, word.size(), " NUMBER "));
        }
        return out;
    }

    uint32_t call(uint32_t milliseconds)
    {
        uint32_t number = 0;
        EXPECT_EQ(zeb_rpc_async(
                      APP, ZEB_NODE_ALL, PEER, msg_, 0, milliseconds, [](uint32_t, zeb_reply_msg_t *, void *) {},
                      nullptr, &number),
                  0);
        return number;
    }
};

TEST_F(zeb_probe_call, a_call_begins_has_its_outcome_and_ends)
{
    std::thread caller([&] { EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 60, &reply_), 0); });
    uint32_t seq = wait_requests(1);
    answer(PEER_NODE, seq);
    caller.join();
    EXPECT_EQ(fired(seq), lines_t({"call_start 100 200 4294967295 NUMBER 60", "call_outcome 100 NUMBER 200 9 0",
                                   "call_end 100 NUMBER 0"}));
}

TEST_F(zeb_probe_call, a_substitute_is_an_outcome_too)
{
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_rpcto(APP, PEER_NODE, PEER, msg_, 0, 60, &reply_), 0);
    ASSERT_EQ(reply_.num, 1);
    EXPECT_EQ(fired(reply_.msg[0]->hdr.seq),
              lines_t({"call_start 100 200 9 NUMBER 60", "call_outcome 100 NUMBER 200 9 4", "call_end 100 NUMBER 0"}));
}

TEST_F(zeb_probe_call, a_call_without_a_server_ends_with_enoent)
{
    EXPECT_EQ(zeb_rpcto(APP, 5, PEER, msg_, 0, 60, &reply_), -ENOENT);
    lines_t lines = tracer::take();
    ASSERT_EQ(lines.size(), 2U);
    uint32_t number = 0;
    ASSERT_EQ(sscanf(lines[0].c_str(), "call_start 100 200 5 %u 60", &number), 1) << lines[0];
    EXPECT_EQ(lines[1], "call_end 100 " + std::to_string(number) + " -2");
    EXPECT_EQ(zeb_rpcto(999, 5, PEER, msg_, 0, 60, &reply_), -ENOENT);
    EXPECT_TRUE(tracer::take().empty()) << "not registered";
}

TEST_F(zeb_probe_call, a_call_that_no_thread_waits_for)
{
    uint32_t number = call(1500);
    answer(PEER_NODE, number);
    EXPECT_EQ(fired(number), lines_t({"call_start 100 200 4294967295 NUMBER 2", "call_outcome 100 NUMBER 200 9 0",
                                      "call_end 100 NUMBER 0"}));
    number = call(0);
    EXPECT_EQ(zeb_rpc_cancel(APP, number), 0);
    EXPECT_EQ(fired(number), lines_t({"call_start 100 200 4294967295 NUMBER 0", "call_end 100 NUMBER -125"}));
}

TEST_F(zeb_probe_call, a_stop_ends_it)
{
    uint32_t number = call(0);
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_EQ(fired(number), lines_t({"call_start 100 200 4294967295 NUMBER 0", "call_end 100 NUMBER -108"}));
}

#endif
