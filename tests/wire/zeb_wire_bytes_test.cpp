// Every byte that leaves the process.
#include "handshake_core.h"
#include "wire_test.h"

#include <sys/socket.h>

#include "zeb_mng_msg.h" // for calls alone: no path of the library ends in these two

using wire::operator+;
using wire::bytes_t;

constexpr uint32_t OTHER_PID = 0x0BADCAFE;
constexpr uint32_t OTHER_SEQ = 0xA1B2C3D4;

class zeb_wire_bytes : public wire_test
{
  protected:
    // The header of a synchronisation message of `len` bytes: version 2, its flag, the two instances, application
    // version 1, neither sequence nor status.
    static std::string head(const std::string &len)
    {
        return "02000100" + len + "000012340000fedc" + "0000432100001abc" + "000000010000000000000000";
    }

    // A SYNC_INST of MY_APP to the other instance.
    std::string sync_inst_text(uint32_t seq, const std::string &server, const std::string &resume) const
    {
        return head("0000003c") + "00180001" + word(seq) + word(pid_) + server + resume + "00000258";
    }

    // An acknowledgement of OTHER_SEQ in both forms.
    std::string ack_text(const std::string &server, uint32_t pseq) const
    {
        std::string body = word(OTHER_SEQ) + word(pid_) + server +
                           "00000000"
                           "00000258";
        return head("00000058") + "00180002" + body + "001c0009" + body + word(pseq);
    }

    static std::string word(uint32_t value)
    {
        return wire::hex(wire::words({value}));
    }

    // The first word of the first element, where a SYNC_INST has its sequence.
    static uint32_t seq_of(const bytes_t &datagram)
    {
        return wire::get32(datagram, wire::VALUE_AT);
    }

    // The whole handshake with a peer of this version.
    void come_online()
    {
        publish();
        uint32_t seq = seq_of(take_datagrams().at(0));
        feed(wire::message(from_other(), wire::sync_inst(OTHER_SEQ, OTHER_PID, 1, 0)));
        feed(wire::message(from_other(), wire::sync_seq_ack(seq, OTHER_PID, 1, OTHER_SEQ)));
        ASSERT_EQ(events_.size(), 1u);
        (void)take_datagrams();
    }
};

TEST_F(zeb_wire_bytes, a_one_way_message)
{
    run();
    come_online();
    zeb_msg_t *msg = zeb_msg_alloc(5, 0x01020304, 0);
    memcpy(msg->data, "hello", 5);
    msg->hdr.qos = 0xEE; // carried as the application wrote it
    msg->hdr.flag = 0x0F;
    msg->hdr.seq = 99;
    msg->hdr.rpc_stat = 1;
    ASSERT_EQ(zeb_send(MY_APP, OTHER_APP, msg, 0), 0);
    ASSERT_EQ(zeb_sendto(MY_APP, OTHER_NODE, OTHER_APP, msg, 0), 0);
    free(msg);
    auto datagrams = take_datagrams();
    ASSERT_EQ(datagrams.size(), 2u);
    for (const bytes_t &datagram : datagrams)
        EXPECT_EQ(wire::hex(datagram), "020000ee"
                                       "00000029"
                                       "00001234"
                                       "0000fedc"
                                       "00004321"
                                       "00001abc"
                                       "01020304"
                                       "00000000"
                                       "00000000"
                                       "68656c6c6f");
}

TEST_F(zeb_wire_bytes, the_smallest_and_the_largest_message)
{
    run();
    come_online();
    for (int size : {0, (int)wire::BODY_MAX}) {
        zeb_msg_t *msg = zeb_msg_alloc(size, 7, 0);
        bytes_t body;
        for (int i = 0; i < size; i++) {
            body.push_back((uint8_t)(i * 7));
            msg->data[i] = body.back();
        }
        ASSERT_EQ(zeb_send(MY_APP, OTHER_APP, msg, 0), 0);
        free(msg);
        wire::header_t header = from_other(0);
        std::swap(header.src_app, header.dst_app);
        std::swap(header.src_node, header.dst_node);
        header.app_ver = 7;
        auto datagrams = take_datagrams();
        ASSERT_EQ(datagrams.size(), 1u);
        EXPECT_TRUE(datagrams[0] == wire::message(header, body)) << size;
        EXPECT_EQ(datagrams[0].size(), (size_t)size + wire::HEADER_LEN);
    }
}

TEST_F(zeb_wire_bytes, a_write_asks_for_no_signal_and_blocks_unless_told_otherwise)
{
    run();
    come_online();
    zeb_msg_t *msg = zeb_msg_alloc(0, 1, 0);
    for (int flags : {0, 1, 4, 5})
        ASSERT_EQ(zeb_send(MY_APP, OTHER_APP, msg, flags), 0);
    free(msg);
    std::vector<int> flags;
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent())
        flags.push_back(sent.flags);
    EXPECT_EQ(flags, std::vector<int>({0x4000, 0x4040, 0x4000, 0x4040}));
}

TEST_F(zeb_wire_bytes, a_synchronisation)
{
    run();
    publish();
    auto datagrams = take_datagrams();
    ASSERT_EQ(datagrams.size(), 1u);
    uint32_t seq = seq_of(datagrams[0]);
    EXPECT_NE(seq, 0u);
    EXPECT_EQ(wire::hex(datagrams[0]), sync_inst_text(seq, "00000001", "00000000"));

    publish();
    datagrams = take_datagrams();
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(wire::hex(datagrams[0]), sync_inst_text(seq + 1, "00000001", "00000000")) << "a fresh sequence";
}

TEST_F(zeb_wire_bytes, a_client_says_in_its_synchronisation_and_acknowledgement_that_it_is_no_server)
{
    // A client has no dispatcher to see a mark with: it is driven from here instead.
    const zeb_msg_dispatcher_t none[] = {{0, nullptr}};
    ASSERT_EQ(zeb_register_without_thread(MY_APP, "client", none, see_event), 0);
    ASSERT_EQ(zeb_comm_with(MY_APP, OTHER_APP), 0);
    peer_published(OTHER_NODE, OTHER_APP);
    receive(wire::message(from_other(), wire::sync_inst(OTHER_SEQ, OTHER_PID, 1, 0)), MY_APP);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(wire::hex(sent[0].bytes), sync_inst_text(seq_of(sent[0].bytes), "00000000", "00000000"));
    EXPECT_EQ(wire::hex(sent[1].bytes), ack_text("00000000", 0));
}

TEST_F(zeb_wire_bytes, both_acknowledgements_in_one_payload)
{
    run();
    publish();
    uint32_t seq = seq_of(take_datagrams().at(0));
    feed(wire::message(from_other(), wire::sync_inst(OTHER_SEQ, OTHER_PID, 1, 0)));
    auto datagrams = take_datagrams();
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(wire::hex(datagrams[0]), ack_text("00000001", 0)) << "the peer's identity is not confirmed yet";

    feed(wire::message(from_other(), wire::sync_seq_ack(seq, OTHER_PID, 1, 0)));
    EXPECT_TRUE(take_datagrams().empty());
    feed(wire::message(from_other(), wire::sync_inst(OTHER_SEQ, OTHER_PID, 1, 0)));
    datagrams = take_datagrams();
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(wire::hex(datagrams[0]), ack_text("00000001", seq)) << "now it is";
}

TEST_F(zeb_wire_bytes, the_acknowledgement_of_the_older_version_alone)
{
    run();
    ASSERT_EQ(zeb_sync_app_inst_ack(MY_APP, {OTHER_APP, OTHER_NODE}, OTHER_SEQ, true), 0);
    auto datagrams = take_datagrams();
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(wire::hex(datagrams[0]), head("0000003c") + "00180002" + word(OTHER_SEQ) + word(pid_) +
                                           "00000001"
                                           "00000000"
                                           "00000258");
}

TEST_F(zeb_wire_bytes, names_that_are_connected_and_bound_to)
{
    run();
    wait_handled();
    auto sockets = fake_tipc::sockets();
    ASSERT_EQ(sockets.size(), 2u);
    const fake_tipc::socket_t &topology = sockets[fake_tipc::topology_sd()];
    EXPECT_EQ(topology.type, SOCK_SEQPACKET);
    ASSERT_EQ(topology.bound.size(), 1u);
    EXPECT_EQ(wire::hex(bytes_of(topology.bound[0])), wire::hex(tipc_name(0, 1, 1)));
    const fake_tipc::socket_t &mine = sockets[sd(MY_APP)];
    EXPECT_EQ(mine.type, SOCK_RDM);
    ASSERT_EQ(mine.bound.size(), 1u);
    EXPECT_EQ(wire::hex(bytes_of(mine.bound[0])), wire::hex(tipc_name(2, wire::NAME_TYPE, 0x43211234)));
}

TEST_F(zeb_wire_bytes, subscriptions_at_the_start)
{
    run();
    auto subscriptions = take_subscriptions();
    ASSERT_EQ(subscriptions.size(), 3u);
    EXPECT_EQ(wire::hex(subscriptions[0]),
              wire::hex(native({wire::NAME_TYPE, 0x43210000, 0x4321FFFF, 0xFFFFFFFF, 2, 0, 0})))
        << "its own application";
    EXPECT_EQ(wire::hex(subscriptions[1]),
              wire::hex(native({wire::NAME_TYPE, 0x1ABC0000, 0x1ABCFFFF, 0xFFFFFFFF, 2, 0, 0})));
    EXPECT_EQ(wire::hex(subscriptions[2]), wire::hex(native({1, 0, 0, 1800000, 2, 2, 1}))) << "the monitor timer";
}

TEST_F(zeb_wire_bytes, a_lost_topology_connection_is_subscribed_to_with_the_same_bytes)
{
    run();
    auto first = take_subscriptions();
    fake_tipc::lose_topology();
    wait_handled();
    while (fake_tipc::topology_sd() == -1)
        wait_handled();
    wait_handled();
    auto second = take_subscriptions();
    first.pop_back(); // no timer is started again
    EXPECT_EQ(second, first);
}

TEST_F(zeb_wire_bytes, a_cancelled_subscription)
{
    const zeb_msg_dispatcher_t table[] = {{1, see_msg}, {0, nullptr}};
    ASSERT_EQ(zeb_register_without_thread(MY_APP, "wire", table, see_event), 0);
    ASSERT_EQ(zeb_comm_with(MY_APP, OTHER_APP), 0);
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        zeb_del_comm_app(MY_APP);
    }
    auto cancels = fake_tipc::take_subscriptions();
    ASSERT_EQ(cancels.size(), 2u);
    EXPECT_EQ(wire::hex(cancels[0]), wire::hex(native({wire::NAME_TYPE, 0x43210000, 0x4321FFFF, 0, 6, 0, 0})));
    EXPECT_EQ(wire::hex(cancels[1]), wire::hex(native({wire::NAME_TYPE, 0x1ABC0000, 0x1ABCFFFF, 0, 6, 0, 0})));
}

TEST_F(zeb_wire_bytes, a_retry_is_the_same_synchronisation_every_2_s)
{
    run();
    publish();
    bytes_t sync = take_datagrams().at(0);
    (void)take_subscriptions();
    feed(wire::message(from_other(), wire::sync_inst(OTHER_SEQ, OTHER_PID, 1, 0)));
    (void)take_datagrams();
    for (int i = 0; i < 3; i++) {
        bytes_t retry = timer(take_subscriptions(), wire::RETRY_TIMER);
        EXPECT_EQ(wire::hex(retry), wire::hex(native({1, 0, 0, 2000, 2, 3, 0})));
        expire(retry);
        EXPECT_EQ(take_datagrams(), std::vector<bytes_t>({sync}));
    }
}

TEST_F(zeb_wire_bytes, a_resumed_synchronisation_after_60_s)
{
    run();
    feed(wire::message(from_other(), wire::sync_inst(OTHER_SEQ, OTHER_PID, 1, 0)));
    (void)take_datagrams();
    bytes_t resume = timer(take_subscriptions(), wire::RESUME_TIMER);
    bytes_t handle = timer_handle(resume);
    EXPECT_EQ(wire::hex(resume), wire::hex(native({1, 0, 0, 60000, 2, 0}) + handle));
    EXPECT_NE(handle, native({0}));
    expire(resume);
    auto datagrams = take_datagrams();
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(wire::hex(datagrams[0]), sync_inst_text(seq_of(datagrams[0]), "00000001", "00000001"));
}

TEST_F(zeb_wire_bytes, a_returned_acknowledgement_leaves_again_with_its_ttl_one_lower_and_a_sequence)
{
    run();
    feed(wire::message(from_other(), wire::sync_inst(OTHER_SEQ, OTHER_PID, 1, 0)));
    bytes_t ack = take_datagrams().at(0);
    for (uint32_t ttl : {599u, 598u}) {
        (void)take_subscriptions();
        feed_returned(NO_PORT, ack);
        EXPECT_TRUE(take_datagrams().empty());
        bytes_t resend = timer(take_subscriptions(), wire::RESEND_TIMER);
        bytes_t handle = timer_handle(resend);
        EXPECT_EQ(wire::hex(resend), wire::hex(native({1, 0, 0, 1000, 2, 1}) + handle));
        expire(resend);
        auto datagrams = take_datagrams();
        ASSERT_EQ(datagrams.size(), 1u);
        bytes_t expected = ack;
        uint32_t seq = 0;
        memcpy(&seq, handle.data(), 4);
        bytes_t seq_bytes = wire::words({seq});
        bytes_t ttl_bytes = wire::words({ttl});
        std::copy(seq_bytes.begin(), seq_bytes.end(), expected.begin() + wire::SEQ_AT);
        std::copy(ttl_bytes.begin(), ttl_bytes.end(), expected.begin() + wire::VALUE_AT + 4 * wire::TTL);
        EXPECT_EQ(wire::hex(datagrams[0]), wire::hex(expected));
        ack = datagrams[0];
    }
}
