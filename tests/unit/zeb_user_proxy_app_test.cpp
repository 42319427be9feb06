// Registration by a record of options: what it takes, callbacks with a context, and the notice of a long queue.
#include <atomic>
#include <cerrno>
#include <mutex>

#include <zeb/zeb_ext.h>

#include "by_number.h"
#include "lib_test.h"
#include "zeb_app_info.h"

// What the callbacks of one context saw, in order.
struct story_t {
    std::mutex mutex;
    lines_t lines;
    std::atomic<bool> hold{false}; // the callback does not return
    std::atomic<int> entered{0};
    std::atomic<int> told{0}; // notices of the queue

    void tell(const std::string &line)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(line);
        }
        entered++;
        wait_until([this] { return !hold; });
    }
    lines_t take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines_t taken;
        taken.swap(lines);
        return taken;
    }
};

static void on_message(void *context, zeb_msg_t *msg)
{
    ((story_t *)context)->tell("message " + std::to_string(msg->hdr.app_ver));
    free(msg);
}

static void on_call(void *context, zeb_msg_t *msg)
{
    ((story_t *)context)->tell("call " + std::to_string(msg->hdr.app_ver));
    (void)zeb_rpc_reply(msg, msg, 0);
    free(msg);
}

static void on_event(void *context, const zeb_event_t *event)
{
    ((story_t *)context)
        ->tell((event->type == ZEB_APP_JOIN ? "join " : "quit ") + std::to_string(event->event.app.app) + "/" +
               std::to_string(event->event.app.node));
}

static void on_queue(void *context, uint32_t app, uint32_t num)
{
    story_t *story = (story_t *)context;
    std::lock_guard<std::mutex> lock(story->mutex);
    story->lines.push_back("queue of " + std::to_string(app) + " has " + std::to_string(num));
    story->told++;
}

static const zeb_app_dispatcher_t TABLE[] = {
    {1, on_message, on_call}, {2, on_message, nullptr}, {3, nullptr, on_call}, {0, nullptr, nullptr}};

static zeb_app_options_t options_for(story_t *story, zeb_app_mode_t mode, uint32_t app = APP)
{
    zeb_app_options_t options = {};
    options.size = sizeof(options);
    options.app = app;
    options.mode = mode;
    options.name = "options";
    options.dispatchers = TABLE;
    options.event = on_event;
    options.context = story;
    return options;
}

class zeb_user_proxy_app : public lib_test
{
  protected:
    ~zeb_user_proxy_app() override
    {
        (void)zeb_stop(); // before the stories that the callbacks write to are gone
    }

    void message(uint32_t version, uint8_t flag = 0, uint32_t app = APP)
    {
        wire::header_t header = from_peer(flag, 5, 1, app); // a sender that needs no handshake
        header.app_ver = version;
        receive(wire::message(header, {1}), app);
    }

    void deliver(int num) // to the receive thread, when the library runs
    {
        for (int i = 0; i < num; i++)
            fake_tipc::queue_data(sd(), wire::message(from_peer(0, 5, 1), {1}));
    }

    story_t story_;
    story_t other_;
};

TEST_F(zeb_user_proxy_app, each_callback_gets_the_context_of_its_application)
{
    zeb_app_options_t options = options_for(&story_, ZEB_APP_NO_THREAD);
    ASSERT_EQ(zeb_register_app(&options), 0);
    options = options_for(&other_, ZEB_APP_NO_THREAD, APP + 1);
    ASSERT_EQ(zeb_register_app(&options), 0);
    ASSERT_EQ(zeb_comm_with(APP, PEER), 0);
    peer_online();
    message(1);
    message(1, wire::REQUEST);
    message(2, 0, APP + 1);
    peer_withdrawn();
    EXPECT_EQ(story_.take(), lines_t({"join 200/9", "message 1", "call 1", "quit 200/9"}));
    EXPECT_EQ(other_.take(), lines_t({"message 2"}));
}

TEST_F(zeb_user_proxy_app, a_row_without_one_function_serves_what_the_other_can)
{
    zeb_app_options_t options = options_for(&story_, ZEB_APP_NO_THREAD);
    ASSERT_EQ(zeb_register_app(&options), 0);
    message(2, wire::REQUEST);
    EXPECT_EQ(story_.take(), lines_t({"message 2"})) << "requests too";
    message(3);
    EXPECT_EQ(story_.take(), lines_t()) << "dropped";
    message(3, wire::REQUEST);
    EXPECT_EQ(story_.take(), lines_t({"call 3"}));
    EXPECT_NE(listing(zeb_cli_print_fc_stat).find("total receive 3,"), std::string::npos) << "all were processed";
    (void)fake_tipc::take_sent();
    message(4, wire::REQUEST);
    auto sent = fake_tipc::take_sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(wire::header_of(sent[0].bytes).stat, (uint32_t)ZEB_APP_MISMATCH) << "no such version";
}

TEST_F(zeb_user_proxy_app, with_a_thread_the_callbacks_run_on_it)
{
    zeb_app_options_t options = options_for(&story_, ZEB_APP_THREAD);
    ASSERT_EQ(zeb_register_app(&options), 0);
    message(1);
    EXPECT_EQ(story_.take(), lines_t()) << "before it runs";
    zeb_run();
    wait_until([this] { return story_.entered == 1; });
    EXPECT_EQ(story_.take(), lines_t({"message 1"}));
    EXPECT_EQ(zeb_register_app(&options), -1) << "already running";
}

TEST_F(zeb_user_proxy_app, bad_options_are_refused)
{
    struct longer_t {
        zeb_app_options_t options;
        uint64_t unknown;
    } longer = {options_for(&story_, ZEB_APP_NO_THREAD), 0};
    auto refused = [](const zeb_app_options_t *options, const std::string &line) {
        EXPECT_EQ(logged(E, [options] { EXPECT_EQ(zeb_register_app(options), -EINVAL); }), lines_t({line}));
    };
    ASSERT_EQ(zeb_cfg_init(), 0); // a first registration would set the masks
    refused(nullptr, "3 ZEB app registered with options of 0 bytes.");
    for (size_t size : {(size_t)0, offsetof(zeb_app_options_t, event) - 1, (size_t)4097}) {
        longer.options.size = size;
        refused(&longer.options, "3 ZEB app registered with options of " + std::to_string(size) + " bytes.");
    }
    longer.options.size = sizeof(longer);
    longer.unknown = 1;
    refused(&longer.options, "3 ZEB app 100 registered with unknown options.");
    longer.unknown = 0;
    longer.options.mode = 77;
    refused(&longer.options, "3 ZEB app 100 registered with unknown options.");
    longer.options.mode = ZEB_APP_NO_THREAD;
    longer.options.every_subscriber = 2;
    refused(&longer.options, "3 ZEB app 100 registered with unknown options.");
    longer.options.every_subscriber = 0;
    longer.options.app = 8192;
    refused(&longer.options, "3 ZEB app registered with invalid ID 8192.");
    longer.options.app = APP;
    longer.options.name = nullptr;
    refused(&longer.options, "3 ZEB app 100 registered name NULL.");
    longer.options.name = "options";
    longer.options.dispatchers = nullptr;
    refused(&longer.options, "3 ZEB app 100 registered dispatcher NULL.");
}

TEST_F(zeb_user_proxy_app, older_and_newer_records_are_taken)
{
    struct longer_t {
        zeb_app_options_t options;
        uint64_t unknown;
    } longer = {options_for(&story_, ZEB_APP_NO_THREAD), 0};
    longer.options.size = sizeof(longer); // of a program that knows more, and asks for nothing of it
    EXPECT_EQ(zeb_register_app(&longer.options), 0);
    longer.options.app = APP + 1;
    longer.options.size = offsetof(zeb_app_options_t, event); // of a program that knows less
    EXPECT_EQ(zeb_register_app(&longer.options), 0);
    EXPECT_EQ(zeb_get_app_info(APP)->options.event, on_event);
    EXPECT_EQ(zeb_get_app_info(APP + 1)->options.event, nullptr) << "what lies behind is not read";
    EXPECT_EQ(zeb_get_app_info(APP + 1)->options.context, nullptr);
}

TEST_F(zeb_user_proxy_app, a_long_queue_is_told_once_until_it_was_empty)
{
    zeb_app_options_t options = options_for(&story_, ZEB_APP_THREAD);
    options.queue_notice = 3;
    options.queue_passed = on_queue;
    ASSERT_EQ(zeb_register_app(&options), 0);
    for (int i = 0; i < 6; i++)
        message(1);
    EXPECT_EQ(story_.take(), lines_t({"queue of 100 has 4"})) << "once, and nothing is dropped";
    zeb_run();
    wait_until([this] { return story_.entered == 6; });
    EXPECT_EQ(story_.take(), lines_t(6, "message 1"));
    story_.hold = true;
    deliver(1);
    wait_until([this] { return story_.entered == 7; });
    deliver(5);
    wait_until([this] { return story_.told == 2; });
    EXPECT_EQ(story_.take(), lines_t({"message 1", "queue of 100 has 4"})) << "it was empty meanwhile";
    story_.hold = false;
    wait_until([this] { return story_.entered == 12; });
}

TEST_F(zeb_user_proxy_app, a_long_queue_without_a_callback_is_a_warning)
{
    zeb_app_options_t options = options_for(&story_, ZEB_APP_THREAD);
    options.queue_notice = 2;
    ASSERT_EQ(zeb_register_app(&options), 0);
    EXPECT_EQ(logged(W,
                     [this] {
                         for (int i = 0; i < 5; i++)
                             message(1);
                     }),
              lines_t({"2 ZEB app 100 has 3 items queued, more than 2."}));
}

// Calls that a quit ends are queued under the library's lock, where no callback may run.
TEST_F(zeb_user_proxy_app, a_queue_that_ended_calls_make_long_is_told_with_the_next_event)
{
    zeb_app_options_t options = options_for(&story_, ZEB_APP_THREAD);
    options.queue_notice = 2;
    options.queue_passed = on_queue;
    ASSERT_EQ(zeb_register_app(&options), 0);
    ASSERT_EQ(zeb_comm_with(APP, PEER), 0);
    peer_online(); // the join is queued
    zeb_msg_t *msg = zeb_msg_alloc(4, 1, 0);
    zeb_call_done_fun_t done = [](uint32_t, zeb_reply_msg_t *, void *) {};
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(zeb_rpc_async(APP, ZEB_NODE_ALL, PEER, msg, 0, 0, done, nullptr, nullptr), 0);
    free(msg);
    peer_withdrawn(); // two ended calls, then the quit
    EXPECT_EQ(story_.take(), lines_t({"queue of 100 has 4"}));
}

TEST_F(zeb_user_proxy_app, the_management_daemon_may_have_a_context_too)
{
    zeb_app_options_t options = options_for(&story_, ZEB_APP_NO_THREAD, ZEBD_APP_ID);
    ASSERT_EQ(zeb_register_app(&options), 0);
    message(1, ZEB_MSG_FLAG_MNG, ZEBD_APP_ID);
    EXPECT_EQ(story_.take(), lines_t({"message 1"}));
}
