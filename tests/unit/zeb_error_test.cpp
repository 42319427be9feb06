// Texts of results, why a call failed, and what standard error says of it.
#include "lib_test.h"

#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_handshake_shell.h"
#include "zeb_mng_topology.h"

#include <algorithm>
#include <set>
#include <thread>
#include <unistd.h>

using testing::HasSubstr;

class zeb_error : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        ASSERT_EQ(zeb_cfg_init(), 0);
    }

    ~zeb_error() override
    {
        free(msg_);
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 1, 0);
    zeb_reply_msg_t reply_ = {};
};

TEST_F(zeb_error, every_documented_result_has_a_text_of_its_own)
{
    std::set<std::string> texts;
    const int results[] = {0,        -1,        -ENOENT,    -EAGAIN,   -EEXIST, -EINVAL,    -ENOBUFS,
                           -EDEADLK, ETIMEDOUT, -ETIMEDOUT, -EALREADY, -EBUSY,  -ESHUTDOWN, -EINPROGRESS};
    for (int result : results) {
        texts.insert(zeb_strerror(result));
        EXPECT_THAT(zeb_strerror(result), testing::Not(HasSubstr(std::to_string(result) + ": ")));
    }
    EXPECT_EQ(texts.size(), sizeof(results) / sizeof(results[0]));
    EXPECT_STREQ(zeb_strerror(0), "success");
    EXPECT_THAT(zeb_strerror(-2), HasSubstr("no online server"));
    EXPECT_THAT(zeb_strerror(-2), testing::Not(HasSubstr("No such file")));
    EXPECT_THAT(zeb_strerror(-1), HasSubstr("a socket or system call failed"));
    EXPECT_STREQ(zeb_strerror(-EPERM), zeb_strerror(-1));
    EXPECT_STREQ(zeb_strerror(-22), "a bad argument");
}

TEST_F(zeb_error, an_unknown_result_has_a_text_with_its_number)
{
    EXPECT_STREQ(zeb_strerror(-EMFILE), "-24: Too many open files");
    EXPECT_STREQ(zeb_strerror(12288), "12288: no error");
    EXPECT_THAT(zeb_strerror(-99999), HasSubstr("-99999: "));
    EXPECT_THAT(zeb_strerror(INT32_MIN), HasSubstr("-2147483648: "));
    EXPECT_THAT(zeb_strerror(INT32_MAX), HasSubstr("2147483647: "));
    errno = EHOSTUNREACH;
    (void)zeb_strerror(-99999);
    EXPECT_EQ(errno, EHOSTUNREACH);
}

TEST_F(zeb_error, each_thread_has_texts_of_its_own)
{
    const char *mine = zeb_strerror(-99999);
    EXPECT_EQ(zeb_comm_with(101, PEER), -ENOENT);
    std::thread([&] {
        EXPECT_STREQ(zeb_last_error(), "");
        EXPECT_NE(zeb_strerror(-88888), mine);
        EXPECT_EQ(zeb_comm_with(102, PEER), -ENOENT);
        EXPECT_STREQ(zeb_last_error(), "ZEB app 102 does not registered.");
    }).join();
    EXPECT_THAT(mine, HasSubstr("-99999"));
    EXPECT_STREQ(zeb_last_error(), "ZEB app 101 does not registered.");
}

TEST_F(zeb_error, before_any_failure_the_last_error_is_empty)
{
    EXPECT_STREQ(zeb_last_error(), "");
    start_app();
    EXPECT_STREQ(zeb_last_error(), "");
}

TEST_F(zeb_error, a_failed_registration_says_why)
{
    EXPECT_EQ(add_app(8192), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app registered with invalid ID 8192.");
    EXPECT_EQ(zeb_register(APP, nullptr, ONE_DISPATCHER, nullptr), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 registered name NULL.");
    EXPECT_EQ(zeb_register(APP, "test", nullptr, nullptr), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 registered dispatcher NULL.");
    fault::fail_next("socket", EAFNOSUPPORT);
    EXPECT_EQ(add_app(APP), -1);
    EXPECT_STREQ(zeb_last_error(), "ZEB create subscription socket descriptor failed: "
                                   "Address family not supported by protocol.");
    fault::fail_next("pthread_create", EAGAIN);
    EXPECT_EQ(add_app(APP), -EAGAIN);
    EXPECT_THAT(zeb_last_error(), HasSubstr("distribute thread failed: Resource temporarily unavailable."));
    EXPECT_EQ(add_app(APP), 0);
    EXPECT_STREQ(zeb_last_error(), "") << "a registration that succeeds empties it";
    EXPECT_EQ(add_app(APP), -EEXIST);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 has already registered.");
    fault::fail_next("setsockopt", EINVAL);
    EXPECT_EQ(add_app(101), -EAGAIN);
    EXPECT_STREQ(zeb_last_error(), "ZEB set app 101 socket priority 0 failed: Invalid argument.");
    fault::fail_next("pthread_mutex_init", ENOMEM);
    EXPECT_EQ(add_app(101), -EAGAIN);
    EXPECT_STREQ(zeb_last_error(), "ZEB init app 101 flow ctrl condition mutex failed: Cannot allocate memory.");
    zeb_run();
    EXPECT_STREQ(zeb_last_error(), "");
    EXPECT_EQ(add_app(101), -1);
    EXPECT_STREQ(zeb_last_error(), "ZEB had already running, and app 101 can not be registered.");
}

// Not of the suite above: its node id is known already.
class zeb_error_unknown_node : public lib_test
{
};

TEST_F(zeb_error_unknown_node, says_which_file_is_missing)
{
    no_node();
    EXPECT_EQ(zeb_cfg_init(), -1);
    EXPECT_STREQ(zeb_last_error(),
                 "ZEB open node address config file /tmp/addr/.zeb_node_addr failed: No such file or directory.");
    write_node("65536");
    EXPECT_EQ(add_app(APP), -1);
    EXPECT_STREQ(zeb_last_error(), "ZEB get node address 65536 invalid.");
    write_node("x");
    EXPECT_EQ(add_app(APP), -1);
    EXPECT_STREQ(zeb_last_error(), "ZEB get node address config failed.");
    write_node("7");
    EXPECT_EQ(zeb_cfg_init(), 0);
    EXPECT_STREQ(zeb_last_error(), "");
}

TEST_F(zeb_error, calls_that_name_partners_and_ends_say_why)
{
    EXPECT_EQ(zeb_unregister(8192), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app unregistered with invalid ID 8192.");
    EXPECT_EQ(zeb_comm_with(0, PEER), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 0 comm with 200: invalid ID.");
    EXPECT_EQ(zeb_unregister(APP), 0);
    EXPECT_STREQ(zeb_last_error(), "");
    EXPECT_EQ(zeb_comm_with(0, PEER), -EINVAL);
    EXPECT_EQ(add_app(APP), 0);
    EXPECT_EQ(zeb_comm_with(0, PEER), -EINVAL);
    EXPECT_EQ(zeb_comm_with(APP, PEER), 0);
    EXPECT_STREQ(zeb_last_error(), "");
}

TEST_F(zeb_error, a_refused_send_says_why)
{
    EXPECT_EQ(zeb_send(0, PEER, msg_, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB src app ID 0 invalid.");
    start_app();
    EXPECT_EQ(zeb_send(APP, PEER, nullptr, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 send msg NULL.");
    EXPECT_EQ(zeb_send(APP, 8192, msg_, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to dst app ID 8192 invalid.");
    EXPECT_EQ(zeb_sendto(APP, 65536, PEER, msg_, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to dst node ID 65536 invalid.");
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200(0xc8): no server is online on any node.");
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200(0xc8): no server is online on any node.") << "asked again";
    EXPECT_EQ(zeb_sendto(APP, PEER_NODE, PEER, msg_, 0), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200(0xc8) on node 0x9: no server is online there.");
    EXPECT_EQ(zeb_send(APP, 12288, msg_, 0), -ENOENT);
    EXPECT_THAT(zeb_last_error(), HasSubstr("a group is unknown or empty, or no server is online."));
    EXPECT_EQ(zeb_sendto(APP, 0x80000, PEER, msg_, 0), -ENOENT);
    EXPECT_THAT(zeb_last_error(), HasSubstr("on node 0x80000: a group is unknown or empty"));
    peer_online();
    EXPECT_EQ(zeb_send(101, PEER, msg_, 0), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 101 is not registered in this process.");
}

TEST_F(zeb_error, a_send_that_would_block_or_is_not_written_says_why)
{
    start_app();
    peer_online();
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -1);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 sent to 200/9 failed: No route to host, msg len 40, sent -1.");
    for (int i = 0; i <= ZEB_FC_SEND_WINDOW; i++)
        ASSERT_EQ(zeb_send(APP, PEER, msg_, ZEB_SEND_NOWAIT), 0);
    EXPECT_EQ(zeb_send(APP, PEER, msg_, ZEB_SEND_NOWAIT), -EAGAIN);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200: an instance has not acknowledged more than 1024 messages.");
}

TEST_F(zeb_error, a_refused_call_says_why)
{
    start_app();
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, nullptr), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 RPC msg or reply buffer NULL.");
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200(0xc8): no server is online on any node.");
    EXPECT_EQ(zeb_rpcto(APP, PEER_NODE, PEER, msg_, 0, 1, &reply_), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200(0xc8) on node 0x9: no server is online there.");
    EXPECT_EQ(zeb_rpc(101, PEER, msg_, 0, 1, &reply_), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 101 is not registered in this process.");
    for (uint32_t node = 1000; node < 1065; node++)
        peer_online(node);
    EXPECT_EQ(zeb_rpc(APP, PEER, msg_, 0, 1, &reply_), -ENOBUFS);
    EXPECT_STREQ(zeb_last_error(), "ZEB RPC wait reply num exceeds limit 64.");
}

TEST_F(zeb_error, a_refused_question_about_peers_says_why)
{
    start_app();
    EXPECT_EQ(zeb_peer_state(APP, PEER, PEER_NODE, nullptr), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 asks about 200: bad node, number or buffer.");
    EXPECT_EQ(zeb_online_nodes(APP, 8192, nullptr, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 asks about 8192: invalid ID.");
    EXPECT_EQ(zeb_online_nodes(101, PEER, nullptr, 0), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 101 is not registered in this process.");
    EXPECT_EQ(zeb_wait_online(APP, PEER, ZEB_NODE_ALL, 2, 1), -ETIMEDOUT);
    EXPECT_STREQ(zeb_last_error(), "ZEB wait for 2 servers of 200 timeout.");
}

TEST_F(zeb_error, a_refused_call_without_a_blocked_thread_says_why)
{
    start_app();
    auto call = [this](uint32_t app, zeb_call_done_fun_t done) {
        return zeb_rpc_async(app, ZEB_NODE_ALL, PEER, msg_, 0, 0, done, nullptr, nullptr);
    };
    zeb_call_done_fun_t done = [](uint32_t, zeb_reply_msg_t *, void *) {};
    EXPECT_EQ(call(APP, nullptr), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 RPC msg or function NULL.");
    EXPECT_EQ(call(101, done), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 101 is not registered in this process.");
    fault::fail_next("eventfd", EMFILE);
    EXPECT_EQ(call(APP, done), -1);
    EXPECT_STREQ(zeb_last_error(), "ZEB create descriptor for calls failed: Too many open files.");
    EXPECT_EQ(call(APP, done), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200(0xc8): no server is online on any node.");
    EXPECT_EQ(zeb_rpc_cancel(APP, 1), -EALREADY);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 seq 1: no such RPC call is in progress.");
    EXPECT_EQ(zeb_rpc_cancel(101, 1), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 101 is not registered in this process.");
    msg_->hdr.len = ZEB_MSG_HDR_LEN - 1;
    EXPECT_EQ(call(APP, done), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 msg len 35 invalid, not 36 to 61476.");
}

TEST_F(zeb_error, a_refused_registration_with_options_says_why)
{
    EXPECT_EQ(zeb_register_app(nullptr), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app registered with options of 0 bytes.");
    start_app();
    EXPECT_EQ(zeb_app_fd(101), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 101 is not registered in this process.");
    EXPECT_EQ(zeb_dispatch(APP, 1), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 is not polled.");
    EXPECT_EQ(zeb_stop(), 0);
    EXPECT_STREQ(zeb_last_error(), "");
}

TEST_F(zeb_error, a_refused_answer_says_why)
{
    start_app();
    EXPECT_EQ(zeb_rpc_reply(nullptr, msg_, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB RPC reply invalid argument.");
    EXPECT_EQ(zeb_rpc_reply(msg_, msg_, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB reply msg src is not RPC.");
    zeb_encode_msg_hdr(msg_, ZEB_MSG_FLAG_REQUEST, PEER, PEER_NODE, APP, NODE, 1, 0);
    fault::fail_next("sendto", EHOSTUNREACH);
    EXPECT_EQ(zeb_rpc_reply(msg_, nullptr, 0), -1);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 sent to 200/9 failed: No route to host, msg len 36, sent -1.");
}

TEST_F(zeb_error, group_calls_say_why_also_those_without_a_result)
{
    EXPECT_EQ(zeb_create_app_mcast(APP), -ENOENT);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 does not registered.");
    start_app();
    int group = zeb_create_node_mcast(APP);
    ASSERT_GT(group, 0);
    EXPECT_STREQ(zeb_last_error(), "");
    EXPECT_EQ(zeb_add_node_mcast(APP, (uint32_t)group, 65536), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB node ID 65536 invalid.");
    EXPECT_EQ(zeb_add_app_mcast(APP, 12288, 0), -EINVAL);
    EXPECT_STREQ(zeb_last_error(), "ZEB app ID 0 invalid.");
    for (uint32_t node = 0; node < 64; node++)
        ASSERT_EQ(zeb_add_node_mcast(APP, (uint32_t)group, node), 0);
    EXPECT_EQ(zeb_add_node_mcast(APP, (uint32_t)group, 64), -ENOBUFS);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 node-private-mcast 0x80000 member reach to 64.");
    zeb_del_app_mcast(APP, 12300, PEER);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 does not create app-private-mcast 0x300c.");
    zeb_destroy_node_mcast(APP, (uint32_t)group);
    EXPECT_STREQ(zeb_last_error(), "");
}

TEST_F(zeb_error, a_send_that_succeeds_leaves_the_last_error_alone)
{
    start_app();
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), -ENOENT);
    peer_online();
    EXPECT_EQ(zeb_send(APP, PEER, msg_, 0), 0);
    EXPECT_STREQ(zeb_last_error(), "ZEB app 100 to 200(0xc8): no server is online on any node.");
}

TEST_F(zeb_error, the_reason_is_kept_with_both_masks_0_and_the_line_is_logged_as_before)
{
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(add_app(0), -EINVAL); }), lines_t({"3 ZEB app registered with invalid ID 0."}));
    EXPECT_TRUE(logged(0, [] { EXPECT_EQ(add_app(8192), -EINVAL); }).empty());
    EXPECT_STREQ(zeb_last_error(), "ZEB app registered with invalid ID 8192.");
}

TEST_F(zeb_error, a_text_is_cut_at_255_characters_and_keeps_errno)
{
    errno = EHOSTUNREACH;
    zeb_set_last_error("%s\n", std::string(400, 'x').c_str());
    EXPECT_EQ(errno, EHOSTUNREACH);
    EXPECT_EQ(std::string(zeb_last_error()), std::string(255, 'x'));
}

// What `run` has the library write to standard error.
static std::string said(const std::function<void()> &run)
{
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}

class zeb_error_said : public lib_test
{
};

TEST_F(zeb_error_said, a_kernel_without_tipc_is_one_line_that_names_modprobe)
{
    fault::fail_next("socket", EAFNOSUPPORT);
    EXPECT_EQ(
        said([] { EXPECT_EQ(add_app(APP), -1); }),
        "zeb: application 100 is not registered: ZEB create subscription socket descriptor failed: Address family "
        "not supported by protocol. The kernel has no TIPC. Type: modprobe tipc\n");
    fault::fail_next("socket", EAFNOSUPPORT, 1, 1);
    EXPECT_THAT(said([] { EXPECT_EQ(add_app(APP), -EAGAIN); }),
                testing::AllOf(HasSubstr("ZEB create app 100 socket failed"), HasSubstr("Type: modprobe tipc\n")));
    fault::fail_next("socket", EMFILE);
    EXPECT_THAT(said([] { EXPECT_EQ(add_app(APP), -EAGAIN); }), HasSubstr("ulimit -n"));
    fault::fail_next("setsockopt", EINVAL);
    EXPECT_EQ(said([] { EXPECT_EQ(add_app(APP), -EAGAIN); }),
              "zeb: application 100 is not registered: ZEB set app 100 socket priority 0 failed: Invalid argument.\n")
        << "the advice is not that of an earlier failure";
    EXPECT_EQ(said([] { EXPECT_EQ(add_app(APP), 0); }), "") << "a registration that succeeds says nothing";
}

TEST_F(zeb_error_said, a_missing_node_id_is_one_line_with_its_path)
{
    no_node();
    EXPECT_EQ(
        said([] { EXPECT_EQ(zeb_register(APP, "test", NO_DISPATCHER, nullptr), -1); }),
        "zeb: application 100 is not registered: ZEB open node address config file /tmp/addr/.zeb_node_addr failed: "
        "No such file or directory. Type: mkdir -p /tmp/addr && echo 1 >/tmp/addr/.zeb_node_addr, with this node's "
        "number 0 to 65535 for 1\n");
    write_node("70000");
    EXPECT_THAT(said([] { EXPECT_EQ(add_app(APP), -1); }),
                testing::AllOf(HasSubstr("ZEB get node address 70000 invalid. Type: "), testing::EndsWith(" for 1\n")));
    EXPECT_EQ(said([] { EXPECT_EQ(zeb_cfg_init(), -1); }), "") << "only a registration says so";
}

TEST_F(zeb_error_said, a_registration_that_is_refused_is_one_line)
{
    EXPECT_EQ(said([] { EXPECT_EQ(add_app(8192), -EINVAL); }),
              "zeb: application 8192 is not registered: ZEB app registered with invalid ID 8192.\n");
    ASSERT_EQ(add_app(APP), 0);
    EXPECT_EQ(said([] { EXPECT_EQ(add_app(APP), -EEXIST); }),
              "zeb: application 100 is not registered: ZEB app 100 has already registered. This process registers it "
              "twice: give each application an id of its own.\n");
    zeb_run();
    EXPECT_EQ(said([] { EXPECT_EQ(add_app(101), -1); }),
              "zeb: application 101 is not registered: ZEB had already running, and app 101 can not be registered. "
              "Register it before zeb_run.\n");
}

TEST_F(zeb_error_said, a_log_handler_keeps_standard_error_silent)
{
    auto handler = [](void *, int, const char *, int, const struct timespec *, const char *) {};
    ASSERT_EQ(zeb_set_log_handler(handler, nullptr), 0);
    EXPECT_EQ(said([] { EXPECT_EQ(add_app(8192), -EINVAL); }), "");
    ASSERT_EQ(zeb_set_log_handler(nullptr, nullptr), 0);
    EXPECT_NE(said([] { EXPECT_EQ(add_app(8192), -EINVAL); }), "");
}

TEST_F(zeb_error_said, a_registration_that_is_tried_again_and_again_is_said_once)
{
    no_node();
    std::string once = said([] {
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(add_app(APP), -1);
    });
    EXPECT_EQ(std::count(once.begin(), once.end(), '\n'), 1) << once;
    EXPECT_NE(said([] { EXPECT_EQ(add_app(101), -1); }), "") << "another one is news";
}

TEST_F(zeb_error_said, a_name_that_cannot_be_taken_is_said_before_the_process_ends)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe"; // there are threads, which a fork would leave half-way
    EXPECT_EXIT(
        {
            start_app();
            fault::fail_next("bind", EACCES);
            zeb_run();
            for (;;)
                (void)pause(); // the library's own thread ends the process
        },
        testing::ExitedWithCode(1),
        "zeb: application 100 cannot take its name, and the process ends: ZEB app 100 bind socket [0-9]+ failed: "
        "Permission denied\\.");
}

TEST_F(zeb_error_said, two_processes_of_a_node_that_share_an_application_are_named_once)
{
    start_app();
    peer_published(NODE, APP);
    peer_t other = other_process(4711);
    other.node = NODE;
    other.app = APP;
    std::string pid = std::to_string(getpid());
    EXPECT_EQ(said([&] {
                  peer_syncs(1, other);
                  peer_syncs(2, other);
                  other.id = 4712;
                  peer_syncs(3, other);
              }),
              "zeb: processes " + pid +
                  " and 4711 of node 7 have both registered application 100: end one of them, or "
                  "give it another id. Type: ps -p " +
                  pid + ",4711\n");
}

TEST_F(zeb_error_said, a_second_process_that_shares_an_application_is_an_error)
{
    start_app();
    start_app(101);
    peer_published(NODE, APP);
    peer_t other = other_process(4711);
    other.node = NODE;
    other.app = APP;
    EXPECT_THAT(logged(E, [&] { peer_syncs(1, other); }),
                testing::Contains("3 ZEB app 100/7 is that of process 4711 too."));
    EXPECT_THAT(logged(E, [&] { peer_syncs(2, other); }), testing::Not(testing::Contains(HasSubstr("4711"))));
    peer_published(NODE, 101);
    other.app = other.my_app = 101;
    EXPECT_THAT(logged(E, [&] { peer_acks(1, 0, other); }),
                testing::Contains("3 ZEB app 101/7 is that of process 4711 too."))
        << "by an acknowledgement too";
}

// The topology service names the socket that has had a name of ours first.
static lines_t published_by(uint32_t app, uint32_t ref, uint32_t node)
{
    struct tipc_event event = fake_tipc::range_event(TIPC_PUBLISHED, app << 16 | NODE, app << 16 | NODE);
    event.port.ref = ref;
    event.port.node = node;
    return logged(E, [&] { zeb_process_tipc_subscr_event(event); });
}

TEST_F(zeb_error_said, a_name_that_another_socket_has_had_first_is_an_error_of_each_application_once)
{
    start_app();
    start_app(101);
    std::string text = said([] {
        EXPECT_EQ(published_by(APP, 0, 0), lines_t()) << "our own";
        EXPECT_EQ(published_by(APP, 5, 0), lines_t({"3 ZEB app 100/7 is published by another socket, <0x0:5>."}));
        EXPECT_EQ(published_by(APP, 6, 0), lines_t());
        EXPECT_EQ(published_by(PEER, 6, 0), lines_t()) << "none of ours";
        EXPECT_EQ(published_by(101, 0, 0x1001),
                  lines_t({"3 ZEB app 101/7 is published by another socket, <0x1001:0>."}));
    });
    EXPECT_EQ(text,
              "zeb: another process of node 7 has registered application 100 already: end one of them, or give it "
              "another id. Type: tipc socket list\n"
              "zeb: two nodes have the node id 7, and application 101 runs on both: give each node an id of its "
              "own in /tmp/addr/.zeb_node_addr\n");
}

TEST_F(zeb_error_said, nothing_is_said_of_a_second_start_in_this_process)
{
    start_app();
    EXPECT_EQ(zeb_stop(), 0);
    start_app();
    peer_published(NODE, APP);
    peer_t self = other_process((uint32_t)getpid() | 1u << 22); // the number of the start stands above the process id
    self.node = NODE;
    self.app = APP;
    EXPECT_EQ(said([&] { peer_syncs(1, self); }), "");
    EXPECT_EQ(zeb_stop(), 0);
}

TEST_F(zeb_error_said, a_pair_that_the_peer_has_not_named_is_said_once)
{
    start_app();
    EXPECT_EQ(said([this] {
                  peer_published();
                  peer_acks(take_sync_seq(), 0);
                  for (int i = 0; i < 5; i++)
                      zeb_handshake_look();
              }),
              "zeb: application 100 waits for application 200 on node 9, which has not named it: name it with "
              "zeb_comm_with there: zeb_comm_with(200, 100)\n");
}

TEST_F(zeb_error_said, nothing_is_said_of_peers_and_of_this_process_itself)
{
    start_app();
    peer_published(NODE, APP);
    peer_t self = other_process((uint32_t)getpid());
    self.node = NODE;
    self.app = APP;
    peer_t unnamed = self;
    unnamed.id = 0;
    peer_t elsewhere = other_process(4711);
    elsewhere.app = APP;
    peer_t neighbour = other_process(4711);
    neighbour.node = NODE;
    EXPECT_EQ(said([&] {
                  for (const peer_t &peer : {self, unnamed, elsewhere, neighbour})
                      peer_syncs(1, peer);
              }),
              "");
}

TEST_F(zeb_error_said, a_line_is_cut_and_ends_its_line)
{
    std::string line = said([] { zeb_say("%s\n", std::string(2000, 'x').c_str()); });
    EXPECT_EQ(line, std::string(639, 'x') + "\n");
    EXPECT_EQ(said([] {
                  errno = EHOSTUNREACH;
                  zeb_say("ZEB %d.\n", 5);
                  EXPECT_EQ(errno, EHOSTUNREACH);
              }),
              "ZEB 5.\n");
}
