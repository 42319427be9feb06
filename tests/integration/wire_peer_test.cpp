// A peer without the library that sends byte by byte: old and new handshakes, and what a broken or hostile peer can
// send.
#include "cluster.h"
#include "wire.h"

using cluster::process;
using wire::operator+;

constexpr uint32_t PEER_PID = 4711;

class wire_peer : public testing::Test
{
  protected:
    void SetUp() override
    {
        cluster::reset();
    }

    static void start(process &agent, const std::string &app, const std::string &peer)
    {
        ASSERT_EQ(agent.ask("register " + app + " thread 1"), "0");
        ASSERT_EQ(agent.ask("comm " + app + " " + peer), "0");
        ASSERT_EQ(agent.ask("run"), "0");
        agent.wait("join " + app + " " + app + "/");
    }

    static wire::header_t header(uint32_t app, uint32_t to, uint8_t flag, uint8_t ver = 2)
    {
        wire::header_t out;
        out.ver = ver;
        out.flag = flag;
        out.src_app = app;
        out.src_node = 2;
        out.dst_app = to;
        out.dst_node = 1;
        return out;
    }

    static wire::bytes_t received(process &peer, int64_t *ms = nullptr)
    {
        std::string line = peer.wait("recv ");
        size_t at = line.rfind(' ');
        if (ms != nullptr)
            *ms = atol(line.c_str() + 5);
        wire::bytes_t bytes;
        for (size_t i = at + 1; i + 1 < line.size(); i += 2)
            bytes.push_back((uint8_t)strtoul(line.substr(i, 2).c_str(), nullptr, 16));
        return bytes;
    }

    static void send(process &peer, uint32_t app, const wire::bytes_t &bytes)
    {
        ASSERT_EQ(peer.ask("send " + std::to_string(app) + " 1 " + wire::hex(bytes)), "0");
    }
};

static uint32_t word(const wire::bytes_t &message, size_t index)
{
    return wire::get32(message, 36 + 4 + 4 * index);
}

TEST_F(wire_peer, an_old_and_a_new_peer_each_complete_the_handshake)
{
    process agent(1, "zeb_agent");
    start(agent, "410", "411");
    for (uint8_t ver : {1, 2}) {
        process peer(2, "raw_peer");
        ASSERT_EQ(peer.ask("bind 411 2"), "0");
        wire::bytes_t sync = received(peer); // the agent synchronises with what was published
        wire::header_t got = wire::header_of(sync);
        EXPECT_EQ(got.ver, 2);
        EXPECT_EQ(got.flag, wire::SYNC);
        EXPECT_EQ(got.len, 60u);
        EXPECT_EQ(got.src_app, 410u);
        EXPECT_EQ(got.src_node, 1u);
        EXPECT_EQ(got.dst_app, 411u);
        EXPECT_EQ(got.dst_node, 2u);
        EXPECT_EQ(wire::get32(sync, 36), 24u << 16 | 1u);
        EXPECT_EQ(word(sync, 2), 1u) << "a server";
        EXPECT_EQ(word(sync, 3), 0u);
        EXPECT_EQ(word(sync, 4), 600u);
        uint32_t seq = word(sync, 0);

        send(peer, 410, wire::message(header(411, 410, wire::SYNC, ver), wire::sync_inst(900, PEER_PID, 1, 0)));
        wire::bytes_t ack = received(peer);
        EXPECT_EQ(wire::header_of(ack).len, 88u);
        EXPECT_EQ(wire::get32(ack, 36), 24u << 16 | 2u);
        EXPECT_EQ(wire::get32(ack, 60), 28u << 16 | 9u);
        EXPECT_EQ(word(ack, 0), 900u);
        EXPECT_EQ(word(ack, 1), word(sync, 1)) << "one process";
        EXPECT_EQ(word(ack, 4), 600u);
        send(peer, 410,
             wire::message(header(411, 410, wire::SYNC, ver),
                           ver == 1 ? wire::sync_ack(seq, PEER_PID, 1)
                                    : wire::sync_ack(seq, PEER_PID, 1) + wire::sync_seq_ack(seq, PEER_PID, 1, 900)));
        agent.wait("join 410 411/2");
        EXPECT_EQ(agent.ask("send 410 411 all 5 1 0"), "0");
        wire::bytes_t message = received(peer);
        while (wire::header_of(message).flag != 0)
            message = received(peer);
        EXPECT_EQ(wire::hex(message), "02000000000000290000000100000002"
                                      "0000019a0000019b00000001"
                                      "0000000000000000"
                                      "0000000004");
        peer.kill();
        agent.wait("quit 410 411/2");
    }
}

TEST_F(wire_peer, garbage_neither_stops_nor_confuses_a_process)
{
    process agent(1, "zeb_agent");
    start(agent, "420", "421");
    process peer(2, "raw_peer");
    std::vector<wire::bytes_t> garbage;
    for (size_t size : {0u, 1u, 35u, 36u, 37u, 100u})
        garbage.push_back(wire::bytes_t(size, 0xFF));
    wire::header_t lying = header(421, 420, wire::SYNC);
    lying.len = 61476;
    garbage.push_back(wire::message(lying, wire::sync_inst(1, 2, 1, 0)));
    for (int len : {0, 1, 3, 25, 65535})
        garbage.push_back(wire::message(header(421, 420, wire::SYNC), wire::tlv(1, wire::bytes_t(20, 1), len)));
    garbage.push_back(wire::message(header(421, 420, wire::SYNC), wire::tlv(1, wire::bytes_t(16, 1))));
    garbage.push_back(wire::message(header(421, 420, wire::SYNC), {0, 5, 0, 1, 0}));
    wire::header_t far = header(421, 420, wire::SYNC);
    far.src_node = 0x10002;
    garbage.push_back(wire::message(far, wire::sync_inst(1, 2, 1, 1)));
    far.src_node = 2;
    far.src_app = 9000;
    garbage.push_back(wire::message(far, wire::sync_inst(1, 2, 1, 1)));
    far.src_app = 421;
    far.dst_app = 1;
    far.flag = wire::MNG;
    garbage.push_back(wire::message(far, wire::tlv(5, {})));
    for (uint8_t flag = 0; flag < 16; flag++)
        garbage.push_back(wire::message(header(1, 420, flag), wire::tlv(flag, {1, 2, 3, 4})));
    for (const wire::bytes_t &bytes : garbage)
        (void)peer.ask("send 420 1 " + wire::hex(bytes));
    EXPECT_EQ(agent.ask("send 420 420 local 8 1 0"), "0");
    agent.wait("msg 420 420/1 len 8 ver 1 intact");
    agent.wait("3: ZEB recv invalid TLV section for 420 from 421/2 .");
    agent.wait("3: ZEB recv invalid TLV section for 420 from 421/65538 .");
}

TEST_F(wire_peer, a_message_of_an_unknown_instance_is_dropped_and_a_request_answered_unavailable)
{
    process agent(1, "zeb_agent");
    start(agent, "430", "431");
    process peer(2, "raw_peer");
    ASSERT_EQ(peer.ask("bind 431 2"), "0");
    (void)received(peer); // its synchronisation
    wire::header_t request = header(431, 430, wire::REQUEST);
    request.seq = 31;
    send(peer, 430, wire::message(request, {1, 2, 3, 4}));
    wire::header_t answer = wire::header_of(received(peer));
    EXPECT_EQ(answer.flag, wire::REQUEST | wire::ACK);
    EXPECT_EQ(answer.stat, 2u);
    EXPECT_EQ(answer.seq, 31u);
    EXPECT_FALSE(agent.saw("msg 430 431"));
}

TEST_F(wire_peer, a_statistics_request_is_answered_with_the_text)
{
    process agent(1, "zeb_agent");
    start(agent, "440", "441");
    process peer(2, "raw_peer");
    ASSERT_EQ(peer.ask("bind 1 2"), "0"); // the management daemon's name
    wire::header_t request = header(1, 440, wire::MNG | wire::REQUEST);
    request.seq = 77;
    send(peer, 440, wire::message(request, wire::tlv(5, {})));
    wire::bytes_t answer = received(peer);
    EXPECT_EQ(wire::header_of(answer).flag, wire::MNG | wire::REQUEST | wire::ACK);
    EXPECT_EQ(wire::header_of(answer).seq, 77u);
    std::string text((const char *)answer.data() + 36);
    EXPECT_THAT(text, testing::StartsWith("Application 440/1 process's ZEB library information:\n"));
    EXPECT_THAT(text, testing::HasSubstr("Application 440 RPC waits:\n"));
}
