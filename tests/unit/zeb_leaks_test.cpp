// Every way that ends early leaves nothing behind: no memory, no mutex, no condition, no descriptor. Cuts across the
// sources, call by call as an application and a peer make them.
#include "leaks.h"
#include "lib_test.h"

#include "zeb_dm.h"
#include "zeb_rpc_async.h"

#include <zeb/zeb_diag.h>
#include <zeb/zeb_ext.h>

static const zeb_msg_dispatcher_t s_table[] = {{1, see_msg}, {2, see_msg}, {0, nullptr}};

#if defined(__SANITIZE_ADDRESS__)
static void __attribute__((noinline)) lose_memory()
{
    for (int i = 0; i < 100; i++) {
        char *volatile lost = (char *)malloc(77);
        lost[0] = 1;
        lost = nullptr;
    }
}

TEST(leak_check, runs_at_the_end_of_every_test)
{
    EXPECT_EXIT(
        {
            lose_memory();
            exit(0);
        },
        [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) != 0; },
        "LeakSanitizer: detected memory leaks");
}
#endif

struct step_t {
    const char *call;
    int err;
    int skip;
};

static void PrintTo(const step_t &step, std::ostream *out)
{
    *out << step.call << " " << step.skip;
}

static std::string step_name(const testing::TestParamInfo<step_t> &step)
{
    std::string name = std::string(step.param.call) + "_" + std::to_string(step.param.skip);
    for (char &letter : name)
        letter = isalnum((unsigned char)letter) != 0 ? letter : '_';
    return name;
}

// A step of a registration fails, after the library has started.
class zeb_leaks_registration : public lib_test, public testing::WithParamInterface<step_t>
{
};

TEST_P(zeb_leaks_registration, leaves_nothing)
{
    start_app();
    expect_nothing_left([] {
        const step_t &step = GetParam();
        fault::fail_next(step.call, step.err, 1, step.skip);
        EXPECT_EQ(zeb_register(APP + 1, "test", s_table, see_event), -EAGAIN);
        EXPECT_EQ(fault::failed(step.call), 1);
    });
    EXPECT_EQ(fake_tipc::sockets().size(), 2u);
    EXPECT_EQ(zeb_register(APP + 1, "test", s_table, see_event), 0);
}

INSTANTIATE_TEST_SUITE_P(
    step, zeb_leaks_registration,
    testing::Values(step_t{"pthread_mutex_init", ENOMEM, 0}, step_t{"pthread_mutex_init", ENOMEM, 1},
                    step_t{"pthread_mutex_init", ENOMEM, 2}, step_t{"pthread_mutex_init", ENOMEM, 3},
                    step_t{"pthread_condattr_init", ENOMEM, 0}, step_t{"pthread_condattr_init", ENOMEM, 1},
                    step_t{"pthread_condattr_init", ENOMEM, 2}, step_t{"pthread_condattr_setclock", EINVAL, 0},
                    step_t{"pthread_condattr_setclock", EINVAL, 1}, step_t{"pthread_condattr_setclock", EINVAL, 2},
                    step_t{"pthread_cond_init", ENOMEM, 0}, step_t{"pthread_cond_init", ENOMEM, 1},
                    step_t{"pthread_cond_init", ENOMEM, 2}, step_t{"socket", EMFILE, 0},
                    step_t{"fcntl(F_GETFD)", EBADF, 0}, step_t{"fcntl(F_SETFD)", EBADF, 0},
                    step_t{"setsockopt", EINVAL, 0}, step_t{"setsockopt", EINVAL, 1}, step_t{"setsockopt", EINVAL, 2},
                    step_t{"pthread_create", EAGAIN, 0}),
    step_name);

// A step of the library's start fails.
class zeb_leaks_start : public lib_test, public testing::WithParamInterface<step_t>
{
};

TEST_P(zeb_leaks_start, leaves_nothing)
{
    expect_nothing_left([] {
        const step_t &step = GetParam();
        fault::fail_next(step.call, step.err, 1, step.skip);
        EXPECT_LT(zeb_register(APP, "test", s_table, see_event), 0);
        EXPECT_EQ(fault::failed(step.call), 1);
        EXPECT_EQ(fault::count("pthread_create") - fault::failed("pthread_create"), fault::count("pthread_join"));
    });
    EXPECT_TRUE(fake_tipc::sockets().empty());
    start_app();
}

INSTANTIATE_TEST_SUITE_P(step, zeb_leaks_start,
                         testing::Values(step_t{"pthread_condattr_init", ENOMEM, 0},
                                         step_t{"pthread_condattr_setclock", EINVAL, 0},
                                         step_t{"pthread_cond_init", ENOMEM, 0}, step_t{"socket", EMFILE, 0},
                                         step_t{"fcntl(F_GETFD)", EBADF, 0}, step_t{"fcntl(F_SETFD)", EBADF, 0},
                                         step_t{"connect", ECONNREFUSED, 0}, step_t{"pthread_create", EAGAIN, 0},
                                         step_t{"atexit", 1, 0}, step_t{"pthread_atfork", ENOMEM, 0}),
                         step_name);

class zeb_leaks : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app(APP, {1, 2});
    }

    void TearDown() override
    {
        free(msg_);
        lib_test::TearDown();
    }

    // Our own message comes back.
    void come_back(uint8_t flag, const wire::bytes_t &body)
    {
        receive_item(returned_item(wire::message(to_peer(flag), body)));
    }

    static void no_send()
    {
        fault::fail_next("sendto", EHOSTUNREACH, 100);
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 1, 0);
    zeb_reply_msg_t reply_ = {};
};

TEST_F(zeb_leaks, files_that_cannot_be_opened)
{
    ASSERT_EQ(setenv("VELK_DIR", dir().c_str(), 1), 0);
    expect_nothing_left([] {
        fault::fail_next("fopen", EACCES, 2);
        zeb_dm_init();
    });
    expect_nothing_left([] {
        fault::fail_next("readlink", EACCES);
        zeb_dm_init();
    });
    ASSERT_EQ(setenv("VELK_DIR", "/proc/nowhere", 1), 0);
    expect_nothing_left([] { zeb_dm_init(); });
}

TEST_F(zeb_leaks, lookups_that_find_nothing)
{
    for (const char *text : {"", "[MISC_CONF]\n", "[APP_INFO_TBL]\n1 , a , 1 , x\nbad\n[APP_MCAST_TBL]\nbad\n"}) {
        write_conf(text);
        expect_nothing_left([] {
            zeb_enable_blocked_resume(); // read with every question
            (void)zeb_blocked_resume_enabled();
            fault::fail_next("pthread_mutex_init", ENOMEM, 1, 0);
            EXPECT_EQ(zeb_register(APP + 1, "test", s_table, see_event), -EAGAIN); // looks the priority up
        });
    }
}

TEST_F(zeb_leaks, a_node_address_that_cannot_be_read)
{
    no_node();
    expect_nothing_left([] { EXPECT_EQ(zeb_comm_with(APP, PEER), 0); });
}

TEST_F(zeb_leaks, one_way_sends_that_are_refused_or_fail)
{
    expect_nothing_left([&] {
        EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT);
        EXPECT_EQ(zeb_sendto(APP, 3, PEER, msg_, 0), -ENOENT);
        EXPECT_EQ(zeb_send(APP, 8192, msg_, 0), -EINVAL);
        EXPECT_EQ(zeb_sendto(APP, 65536, PEER, msg_, 0), -EINVAL);
    });
    peer_online();
    expect_nothing_left([&] {
        no_send();
        EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -1);
        EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), -1);
    });
}

TEST_F(zeb_leaks, synchronisations_that_cannot_be_sent)
{
    expect_nothing_left([&] {
        no_send();
        peer_published();
        EXPECT_EQ(fault::failed("sendto"), 1);
    });
    expect_nothing_left([&] {
        no_send();
        peer_syncs();
        EXPECT_EQ(fault::failed("sendto"), 1);
    });
    peer_published();
    expect_nothing_left([&] {
        no_send();
        timer_expires(wire::RETRY_TIMER, 0); // the retry
        EXPECT_EQ(fault::failed("sendto"), 1);
    });
}

TEST_F(zeb_leaks, timers_that_do_not_start)
{
    expect_nothing_left([&] {
        fault::fail_next("send", EPIPE, 100);
        peer_published(); // the instance was known: asks for a rejoin
        peer_withdrawn();
    });
    expect_nothing_left([&] {
        fault::fail_next("send", EPIPE, 100);
        peer_syncs(); // arms the resume
        EXPECT_GT(fault::failed("send"), 0);
        peer_withdrawn();
    });
    expect_nothing_left([&] {
        fault::fail_next("send", EPIPE, 100);
        fault::fail_next("sendto", EPERM);
        peer_published(); // could not be sent: is to be sent again later
        EXPECT_EQ(fault::failed("send"), 1);
        peer_withdrawn();
    });
}

TEST_F(zeb_leaks, instances_that_come_and_go)
{
    expect_nothing_left([&] {
        peer_published();
        peer_syncs();
        peer_withdrawn();
    });
    expect_nothing_left([&] {
        peer_online();
        peer_withdrawn();
    });
    expect_nothing_left([&] {
        peer_syncs();
        receive(wire::message(from_peer(), {1})); // online by its message
        peer_withdrawn();
    });
    expect_nothing_left([&] {
        no_send();
        peer_published(); // not sent: a rejoin is pending
        peer_withdrawn();
    });
}

TEST_F(zeb_leaks, events_that_nobody_takes)
{
    ASSERT_EQ(zeb_register_without_thread(APP + 1, "test", s_table, nullptr), 0);
    ASSERT_EQ(zeb_comm_with(APP + 1, PEER + 1), 0);
    expect_nothing_left([&] {
        peer_online(PEER_NODE, true, PEER + 1, APP + 1);
        peer_withdrawn(PEER_NODE, PEER + 1);
    });
    EXPECT_TRUE(take_seen().events.empty());
}

TEST_F(zeb_leaks, messages_that_are_queued_when_their_sender_quits)
{
    ASSERT_EQ(zeb_register(APP + 1, "test", s_table, nullptr), 0); // its thread waits for the process to run
    ASSERT_EQ(zeb_comm_with(APP + 1, PEER + 1), 0);
    expect_nothing_left([&] {
        peer_online(PEER_NODE, true, PEER + 1, APP + 1);
        for (size_t size : {1u, 5000u, 60000u})
            receive(wire::message(from_peer(0, PEER_NODE, PEER + 1, APP + 1), wire::bytes_t(size, 1)), APP + 1);
        peer_withdrawn(PEER_NODE, PEER + 1);
    });
}

TEST_F(zeb_leaks, datagrams_that_are_no_messages)
{
    peer_online();
    wire::header_t lies = from_peer();
    lies.len = 99;
    for (const wire::bytes_t &datagram : {wire::bytes_t{}, wire::bytes_t{1, 2, 3}, wire::message(lies, {1}),
                                          wire::message(from_peer(), wire::bytes_t(62000, 1))})
        expect_nothing_left([&] { receive(datagram); });
    expect_nothing_left([&] {
        fault::fail_next("recvmsg", ECONNRESET);
        read_once();
    });
}

TEST_F(zeb_leaks, messages_of_senders_that_are_refused)
{
    for (size_t size : {4u, 60000u}) { // copied, and handed on in the receive buffer
        wire::bytes_t body(size, 0);
        for (uint8_t flag : {0, (int)wire::REQUEST, (int)wire::MNG, wire::REQUEST | wire::ACK, (int)wire::SYNC}) {
            SCOPED_TRACE((int)flag);
            expect_nothing_left([&] { receive(wire::message(from_peer(flag, 77), body)); });      // unknown
            expect_nothing_left([&] { receive(wire::message(from_peer(flag, 70000), body)); });   // no such node
            expect_nothing_left([&] { receive(wire::message(from_peer(flag, 9, 9000), body)); }); // no such application
            expect_nothing_left([&] {
                no_send();
                receive(wire::message(from_peer(flag, 77), body));
            });
        }
    }
}

TEST_F(zeb_leaks, messages_that_nobody_takes)
{
    peer_online();
    for (uint8_t flag : {0, (int)wire::REQUEST}) {
        wire::header_t header = from_peer(flag);
        header.app_ver = 9;
        expect_nothing_left([&] { receive(wire::message(header, wire::bytes_t(20000, 1))); });
        expect_nothing_left([&] {
            no_send();
            receive(wire::message(header, {1}));
        });
    }
    wire::header_t answer = from_peer(wire::REQUEST | wire::ACK);
    answer.seq = 12345;
    expect_nothing_left([&] { receive(wire::message(answer, wire::bytes_t(20000, 1))); });
    answer.dst_app = 555;
    expect_nothing_left([&] { receive(wire::message(answer, {1})); });
}

TEST_F(zeb_leaks, synchronisations_that_are_refused)
{
    peer_online();
    wire::bytes_t short_value = wire::tlv(wire::SYNC_INST, {1, 2, 3, 4});
    for (const wire::bytes_t &body : {wire::bytes_t{}, wire::bytes_t{1}, short_value, wire::tlv(wire::SYNC_ACK, {1}),
                                      wire::tlv(wire::SYNC_SEQ_ACK, {1}), wire::tlv(77, {1}),
                                      wire::sync_seq_ack(1, 2, 1, 3), wire::sync_ack(1, 2, 1)}) {
        for (uint8_t ver : {1, 2}) {
            wire::header_t header = from_peer(wire::SYNC);
            header.ver = ver;
            expect_nothing_left([&] { receive(wire::message(header, body)); });
        }
    }
}

TEST_F(zeb_leaks, a_pair_too_many)
{
    fault::arm(false); // counting so many calls takes its time
    peer_published_everywhere();
    EXPECT_EQ(fake_tipc::take_sent().size(), 65536u);
    fault::arm(true);
    ASSERT_EQ(zeb_comm_with(APP, PEER + 1), 0);
    expect_nothing_left([&] {
        peer_syncs(PEER_SEQ, 5, PEER + 1);
        EXPECT_EQ(fault::count("sendto"), 0) << "not acknowledged";
    });
}

TEST_F(zeb_leaks, management_messages)
{
    peer_online();
    for (const wire::bytes_t &body :
         {wire::bytes_t{}, wire::bytes_t{1}, wire::tlv(wire::NUM_ACK, {1}), wire::tlv(wire::NUM_ACK, {0, 0, 0, 0}),
          wire::tlv(wire::DEBUG_SWITCH, {1}), wire::tlv(wire::APP_INFO, {}), wire::tlv(wire::APP_STAT, {}),
          wire::tlv(wire::PING, {}), wire::tlv(wire::PING_ECHO, {}), wire::tlv(wire::RELOAD, {}), wire::tlv(77, {})}) {
        for (uint8_t flag : {(int)wire::MNG, wire::MNG | wire::REQUEST}) {
            wire::bytes_t datagram = wire::message(from_peer(flag), body);
            expect_nothing_left([&] { receive(datagram); });
            expect_nothing_left([&] {
                no_send();
                receive(datagram);
            });
        }
    }
}

TEST_F(zeb_leaks, messages_to_the_daemon)
{
    wire::header_t header = from_peer(wire::MNG);
    header.dst_app = 1;
    peer_online();
    expect_nothing_left([&] { receive(wire::message(header, {1})); }); // in a process that is none
    start_app(1);
    for (uint8_t flag : {(int)wire::MNG, wire::MNG | wire::REQUEST, wire::MNG | wire::REQUEST | wire::ACK}) {
        header.flag = flag;
        header.app_ver = 9; // without a dispatcher
        expect_nothing_left([&] { receive(wire::message(header, {1}), 1); });
        expect_nothing_left([&] {
            no_send();
            receive(wire::message(header, {1}), 1);
        });
    }
}

TEST_F(zeb_leaks, messages_that_come_back)
{
    peer_online();
    for (const wire::bytes_t &body :
         {wire::bytes_t{}, wire::bytes_t{1}, wire::tlv(wire::SYNC_ACK, {1}), wire::sync_inst(1, 2, 1, 0),
          wire::sync_ack(1, 2, 1, 0), wire::sync_seq_ack(1, 2, 1, 3, 0)}) {
        for (uint8_t flag : {0, (int)wire::REQUEST, (int)wire::MNG, (int)wire::SYNC})
            expect_nothing_left([&] { come_back(flag, body); });
    }
    wire::bytes_t kept = wire::both_acks(1, 2, 1, 3);
    expect_nothing_left([&] {
        fault::fail_next("send", EPIPE);
        come_back(wire::SYNC, kept); // the resend timer does not start
    });
    expect_nothing_left([&] {
        come_back(wire::SYNC, kept);
        EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, ZEB_SEND_NOWAIT), 0); // makes it needless
        receive(wire::message(from_peer(wire::MNG), wire::tlv(wire::NUM_ACK, {0, 0, 0, 1})));
    });
    expect_nothing_left([&] {
        come_back(wire::SYNC, kept);
        started_t timer = take_timers().at(0);
        timer_expires(timer.type, timer.seq); // sent again
    });
    int num = 0;
    do
        come_back(wire::SYNC, kept);
    while (!fake_tipc::take_subscriptions().empty() && ++num < 20000); // kept, and a timer started
    ASSERT_LT(num, 20000) << "there is room for all";
    expect_nothing_left([&] { come_back(wire::SYNC, kept); });
}

TEST_F(zeb_leaks, calls_that_fail)
{
    expect_nothing_left([&] {
        EXPECT_EQ(zeb_rpc(APP, PEER, nullptr, 0, 1, &reply_), -EINVAL);
        EXPECT_EQ(zeb_rpc(APP, 8192, msg_, 0, 1, &reply_), -EINVAL);
        EXPECT_EQ(zeb_rpcto(APP, 65536, PEER, msg_, 0, 1, &reply_), -EINVAL);
        EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOENT);
        EXPECT_EQ(zeb_rpcto(APP, 3, PEER, msg_, 0, 1, &reply_), -ENOENT);
        EXPECT_EQ(zeb_rpc(555, PEER, msg_, 0, 1, &reply_), -ENOENT);
    });
    peer_online();
    auto release = [&] {
        for (int i = 0; i < reply_.num; i++)
            free(reply_.msg[i]);
    };
    expect_nothing_left([&] {
        no_send();
        EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), 0); // a substitute
        EXPECT_EQ(reply_.num, 1);
        release();
    });
    expect_nothing_left([&] {
        fault::run_next(
            "sendto", [&] { peer_withdrawn(); }, 0, EHOSTUNREACH); // its place is empty already
        EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOENT);
        EXPECT_EQ(reply_.num, 0);
        peer_online();
        (void)take_seen();
    });
    for (uint32_t node = 1000; node < 1064; node++)
        peer_online(node);
    expect_nothing_left([&] {
        EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOBUFS);
        EXPECT_EQ(reply_.num, 0);
    });
}

TEST_F(zeb_leaks, answers_that_fail)
{
    peer_online();
    zeb_msg_t *request = zeb_msg_alloc(4, 1, 0);
    zeb_encode_msg_hdr(request, ZEB_MSG_FLAG_REQUEST, PEER, PEER_NODE, APP, NODE, 77, 0);
    expect_nothing_left([&] {
        no_send();
        EXPECT_EQ(zeb_rpc_reply(request, msg_, 0), -1);
        EXPECT_EQ(zeb_rpc_reply(request, nullptr, 0), -1);
    });
    expect_nothing_left([&] { EXPECT_EQ(zeb_rpc_reply(request, nullptr, 0), 0); });
    expect_nothing_left([&] { EXPECT_EQ(zeb_rpc_reply(nullptr, msg_, 0), -EINVAL); });
    free(request);
}

TEST_F(zeb_leaks, groups)
{
    expect_nothing_left([] {
        zeb_destroy_app_mcast(APP, (uint32_t)zeb_create_app_mcast(APP));
        zeb_destroy_node_mcast(APP, (uint32_t)zeb_create_node_mcast(APP));
    });
    while (zeb_create_app_mcast(APP) > 0 && zeb_create_node_mcast(APP) > 0)
        continue;
    expect_nothing_left([] {
        EXPECT_EQ(zeb_create_app_mcast(APP), -ENOBUFS);
        EXPECT_EQ(zeb_comm_with(APP, PEER), 0); // known already
        EXPECT_EQ(zeb_register_without_thread(APP, "test", s_table, see_event), -EEXIST);
    });
}

// The calls of zeb_ext.h.

class zeb_leaks_ext : public zeb_leaks
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(zeb_stop(), 0);
        zeb_leaks::TearDown();
    }

    static constexpr uint32_t POLLED = APP + 1;

    static void start_polled()
    {
        static const zeb_app_dispatcher_t table[] = {{1, [](void *, zeb_msg_t *msg) { free(msg); }, nullptr},
                                                     {0, nullptr, nullptr}};
        zeb_app_options_t options = {};
        options.size = sizeof(options);
        options.app = POLLED;
        options.mode = ZEB_APP_POLLED;
        options.name = "polled";
        options.dispatchers = table;
        options.event = [](void *, const zeb_event_t *) {};
        options.every_subscriber = 1;
        ASSERT_EQ(zeb_register_app(&options), 0);
        ASSERT_EQ(zeb_comm_with(POLLED, PEER), 0);
    }

    // Begins a call; its number.
    uint32_t begin(int result = 0, uint32_t milliseconds = 3600000, uint32_t app = APP)
    {
        uint32_t number = 0;
        zeb_call_done_fun_t done = [](uint32_t, zeb_reply_msg_t *, void *) { s_done++; };
        EXPECT_EQ(zeb_rpc_async(app, ZEB_NODE_ALL, PEER, msg_, 0, milliseconds, done, nullptr, &number), result);
        return number;
    }

    void answer(uint32_t number, uint32_t app = APP)
    {
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK, PEER_NODE, PEER, app);
        header.seq = number;
        receive(wire::message(header, {1, 2, 3}), app);
    }

    static int s_done;
};

int zeb_leaks_ext::s_done;

TEST_F(zeb_leaks_ext, calls_that_no_thread_waits_for)
{
    (void)begin(-ENOENT); // the first call makes the descriptor
    expect_nothing_left([&] {
        (void)begin(-ENOENT);
        EXPECT_EQ(zeb_rpc_cancel(APP, 1), -EALREADY);
        EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, nullptr, 0, 0, nullptr, nullptr, nullptr), -EINVAL);
    });
    peer_online();
    expect_nothing_left([&] { EXPECT_EQ(zeb_rpc_cancel(APP, begin()), 0); });
    expect_nothing_left([&] {
        s_done = 0;
        answer(begin());
        EXPECT_EQ(s_done, 1);
    });
    expect_nothing_left([&] {
        no_send();
        (void)begin();
        s_done = 0;
        zeb_rpc_async_run_ready();
        EXPECT_EQ(s_done, 1);
    });
    expect_nothing_left([&] {
        (void)begin();
        peer_withdrawn();
        s_done = 0;
        zeb_rpc_async_run_ready();
        EXPECT_EQ(s_done, 1);
        peer_online();
    });
    for (uint32_t node = 1000; node < 1064; node++)
        peer_online(node);
    expect_nothing_left([&] { (void)begin(-ENOBUFS); });
}

TEST_F(zeb_leaks_ext, questions_about_peers)
{
    expect_nothing_left([] {
        zeb_peer_state_t state;
        EXPECT_EQ(zeb_peer_state(APP, PEER, PEER_NODE, &state), 0);
        EXPECT_EQ(zeb_online_nodes(APP, PEER, nullptr, 0), 0);
        EXPECT_EQ(zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 1, 1), -ETIMEDOUT);
    });
}

TEST_F(zeb_leaks_ext, polled_applications)
{
    start_polled();
    (void)begin(-ENOENT, 0, POLLED);
    expect_nothing_left([&] {
        peer_online(PEER_NODE, true, PEER, POLLED);
        receive(wire::message(from_peer(0, PEER_NODE, PEER, POLLED), {1}), POLLED);
        answer(begin(0, 0, POLLED), POLLED);
        EXPECT_EQ(zeb_dispatch(POLLED, 100), 3);
        receive(wire::message(from_peer(0, PEER_NODE, PEER, POLLED), {1}), POLLED);
        peer_withdrawn(); // drops it
        EXPECT_EQ(zeb_dispatch(POLLED, 100), 1);
    });
}

TEST_F(zeb_leaks_ext, a_stop_with_all_in_progress)
{
    EXPECT_EQ(zeb_stop(), 0);
    expect_nothing_left([&] {
        start_app();
        start_polled();
        peer_online();
        (void)begin();
        answer(begin(0, 0, POLLED), POLLED); // done, and its function is not called
        (void)zeb_create_app_mcast(APP);
        receive(wire::message(from_peer(0, PEER_NODE, PEER, POLLED), {1}), POLLED);
        EXPECT_EQ(zeb_stop(), 0);
    });
}
