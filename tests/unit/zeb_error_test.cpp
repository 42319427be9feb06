// Texts of results, and why a call failed.
#include "lib_test.h"

#include "zeb_error.h"
#include "zeb_flow_ctrl.h"

#include <set>
#include <thread>

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
    const int results[] = {0, -1, -ENOENT, -EAGAIN, -EEXIST, -EINVAL, -ENOBUFS, -EDEADLK, ETIMEDOUT};
    for (int result : results)
        texts.insert(zeb_strerror(result));
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
