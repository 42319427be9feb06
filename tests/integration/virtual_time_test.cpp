// The long waits, in a machine whose clock jumps over idle time. The upper bounds are wide because the kernel's timers
// are coarse on long waits. Nothing may come early.
#include <ctime>

#include <unistd.h>

#include "cluster.h"
#include "wire.h"

using cluster::process;
using wire::operator+;

class virtual_time : public testing::Test
{
  protected:
    // Reads both programs from the host's disk once: a start that has to read waits for the host, and the clock jumps
    // meanwhile.
    static void SetUpTestSuite()
    {
        cluster::patience = 60;
        process agent(1, "zeb_agent");
        (void)agent.ask("memory");
        process peer(2, "raw_peer");
        (void)peer.ask("unbind");
    }

    static void TearDownTestSuite()
    {
        cluster::patience = 1;
    }

    void SetUp() override
    {
        cluster::reset();
    }
};

static double now()
{
    struct timespec time;
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

// The kernel rounds a timer up to its wheel's granularity, which grows eightfold with each level.
static void expect_about(double seconds, double expected)
{
    double slack = 0.25;
    for (double level = 16; expected >= level; level *= 8)
        slack *= 8;
    EXPECT_GE(seconds, expected * 0.98);
    EXPECT_LE(seconds, expected + slack + expected * 0.02 + 2);
}

static void start(process &agent, const std::string &app, const std::string &peer, const std::string &extra = "")
{
    ASSERT_EQ(agent.ask("register " + app + " thread 1"), "0");
    ASSERT_EQ(agent.ask("comm " + app + " " + peer), "0");
    if (!extra.empty()) {
        ASSERT_EQ(agent.ask(extra), "0");
    }
    ASSERT_EQ(agent.ask("run"), "0");
    agent.wait("join " + app + " " + app + "/", 300);
}

struct datagram_t {
    double seconds;
    wire::bytes_t bytes;
};

static datagram_t received(process &peer, int seconds = 300)
{
    std::string line = peer.wait("recv ", seconds);
    datagram_t out;
    out.seconds = atof(line.c_str() + 5) / 1000;
    for (size_t i = line.rfind(' ') + 1; i + 1 < line.size(); i += 2)
        out.bytes.push_back((uint8_t)strtoul(line.substr(i, 2).c_str(), nullptr, 16));
    return out;
}

static uint32_t word(const datagram_t &datagram, size_t index)
{
    return wire::get32(datagram.bytes, 36 + 4 + 4 * index);
}

static uint16_t type_of(const datagram_t &datagram)
{
    return wire::get16(datagram.bytes, 38);
}

static wire::header_t header(uint32_t app, uint32_t to)
{
    wire::header_t out;
    out.flag = wire::SYNC;
    out.src_app = app;
    out.src_node = 2;
    out.dst_app = to;
    out.dst_node = 1;
    return out;
}

static void send(process &peer, uint32_t app, const wire::bytes_t &bytes)
{
    ASSERT_EQ(peer.ask("send " + std::to_string(app) + " 1 " + wire::hex(bytes)), "0");
}

TEST_F(virtual_time, a_synchronisation_is_sent_again_every_2_s_until_acknowledged_and_not_after)
{
    process agent(1, "zeb_agent");
    start(agent, "510", "511");
    process peer(2, "raw_peer");
    ASSERT_EQ(peer.ask("bind 511 2"), "0");
    datagram_t sync = received(peer);
    ASSERT_EQ(type_of(sync), 1);
    send(peer, 510, wire::message(header(511, 510), wire::sync_inst(700, 42, 1, 0)));
    ASSERT_EQ(type_of(received(peer)), 2) << "the acknowledgement";
    double last = 0;
    for (int i = 0; i < 5; i++) {
        datagram_t again = received(peer);
        ASSERT_EQ(type_of(again), 1);
        EXPECT_EQ(word(again, 0), word(sync, 0)) << "the same one";
        if (i > 0)
            expect_about(again.seconds - last, 2);
        last = again.seconds;
    }
    send(peer, 510, wire::message(header(511, 510), wire::sync_seq_ack(word(sync, 0), 42, 1, 700)));
    agent.wait("join 510 511/2", 300);
    // The time is what is tested: no condition shows that nothing more is sent.
    (void)sleep(20);           // this time is what is tested
    (void)peer.saw("nothing"); // takes in what has arrived
    EXPECT_LE(peer.count("recv "), 1) << "at most one that was on its way";
}

TEST_F(virtual_time, a_synchronisation_that_nobody_answers_is_sent_again_once_in_its_second_minute)
{
    process agent(1, "zeb_agent");
    start(agent, "512", "513");
    process peer(2, "raw_peer");
    ASSERT_EQ(peer.ask("bind 513 2"), "0");
    datagram_t sync = received(peer);
    ASSERT_EQ(type_of(sync), 1);
    datagram_t again = received(peer);
    while (again.seconds - sync.seconds < 30) // a retry for the application's own instance sends all that is pending
        again = received(peer);
    EXPECT_EQ(again.bytes, sync.bytes);
    EXPECT_GE(again.seconds - sync.seconds, 59);
    EXPECT_LE(again.seconds - sync.seconds, 123);
    (void)sleep(300);          // this time is what is tested
    (void)peer.saw("nothing"); // takes in what has arrived
    EXPECT_EQ(peer.count("recv "), 0);
}

// The acknowledgement of `seq` lies unread in the queue of a socket that closes, and so is returned to its sender. True
// when it then arrives again, at another socket of the name, with its ttl one lower. That socket may be bound too late.
static bool acknowledged_again(uint32_t seq)
{
    process peer(2, "raw_peer");
    EXPECT_EQ(peer.ask("bind 521 2"), "0");
    (void)received(peer);
    process other(2, "raw_peer");
    (void)other.ask("unbind");
    peer.stop();
    send(other, 520, wire::message(header(521, 520), wire::sync_inst(seq, 42, 1, 0)));
    // Nothing shows that the acknowledgement has reached the stopped process. When this time is too short, the caller
    // tries again.
    double sent = now();
    while (now() < sent + 0.3)
        (void)other.saw("nothing");
    peer.kill();
    EXPECT_EQ(other.ask("bind 521 2"), "0");
    double bound = now();
    while (now() < bound + 20) {
        if (!other.saw("recv "))
            continue;
        datagram_t got = received(other);
        if (type_of(got) == 2 && word(got, 0) == seq) {
            EXPECT_EQ(word(got, 4), 599u);
            return true;
        }
    }
    return false;
}

TEST_F(virtual_time, a_returned_acknowledgement_is_sent_again_after_1_s_with_its_ttl_one_lower)
{
    process agent(1, "zeb_agent");
    start(agent, "520", "521");
    uint32_t seq = 800;
    while (seq < 820 && !acknowledged_again(seq))
        seq++;
    EXPECT_LT(seq, 820u) << "no acknowledgement came again";
}

TEST_F(virtual_time, a_peer_that_never_completes_is_resumed_after_60_s)
{
    process agent(1, "zeb_agent");
    start(agent, "530", "531");
    process peer(2, "raw_peer");
    // It synchronises without being published, so nothing of ours is pending.
    send(peer, 530, wire::message(header(531, 530), wire::sync_inst(900, 42, 1, 0)));
    double begin = now();
    agent.wait("3: ZEB resume communication to 531/2.", 600);
    expect_about(now() - begin, 60);
}

TEST_F(virtual_time, the_monitor_dumps_after_1800_3600_and_7200_s)
{
    cluster::write_file(1, "/etc/zeb.conf", "[MISC_CONF]\nzeb_dbg_cfg=0x9\n");
    process agent(1, "zeb_agent");
    start(agent, "540", "541");
    double last = now();
    for (double expected : {1800.0, 3600.0, 7200.0}) {
        agent.wait("ZEB monitor timer: ", 20000);
        expect_about(now() - last, expected);
        last = now();
    }
}

TEST_F(virtual_time, a_blocked_sender_pings_at_300_600_1200_s_and_asks_for_a_reload_at_900_s)
{
    for (bool both_switches : {false, true}) {
        std::string a = both_switches ? "551" : "553";
        std::string b = both_switches ? "552" : "554";
        cluster::write_file(2, "/etc/zeb.conf",
                            std::string(cluster::CONF) + (both_switches ? "zeb_blocked_resume_enabled=true\n" : ""));
        process receiver(2, "zeb_agent");
        start(receiver, a, b, "blocked on");
        ASSERT_EQ(receiver.ask("quiet"), "0");
        process sender(1, "zeb_agent");
        start(sender, b, a);
        sender.wait("join " + b + " " + a + "/2", 300);
        ASSERT_EQ(receiver.ask("slow 2000000000"), "0"); // its dispatcher hangs, its receive thread goes on
        EXPECT_EQ(sender.ask("send " + b + " " + a + " all 8 1025 0"), "0");
        double begin = now();
        sender.tell("send " + b + " " + a + " all 8 1 0");
        for (double expected : {300.0, 600.0}) {
            sender.wait("was blocked for too long.", 3000);
            expect_about(now() - begin, expected);
            sender.wait("recv ping echo from " + a + "/2.", 300);
            receiver.wait("recv ping request from " + b + "/1.", 300);
        }
        receiver.wait("unprocess num: ", 300);
        sender.wait("try to reload " + a + "/2 to resume communication.", 3000);
        expect_about(now() - begin, 900);
        if (both_switches) {
            receiver.wait("abort the process requested by " + b + "/1.", 300);
            EXPECT_TRUE(receiver.ended(300));
            sender.wait("quit " + b + " " + a + "/2", 300);
            sender.wait("done send", 300);
        } else {
            sender.wait("was blocked for too long.", 3000);
            expect_about(now() - begin, 1200);
            EXPECT_FALSE(receiver.saw("abort the process"));
            EXPECT_FALSE(receiver.ended(1));
        }
    }
}
