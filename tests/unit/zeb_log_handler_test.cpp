// The application's own handler of log lines.
#include "lib_test.h"

#include "zeb_dbg.h"
#include "zeb_log_handler.h"

#include <atomic>
#include <ctime>
#include <thread>

// What the handler was given, in the order in which it was.
typedef struct given_s {
    int level;
    std::string file;
    int line;
    struct timespec time;
    std::string text;
} given_t;

static void keep(void *context, int level, const char *file, int line, const struct timespec *time, const char *text)
{
    ((std::vector<given_t> *)context)->push_back({level, file, line, *time, text});
}

class zeb_log_handler : public lib_test
{
  protected:
    void TearDown() override
    {
        g_zeb_dbg_level = g_zeb_log_level = 0;
        EXPECT_EQ(zeb_set_log_handler(nullptr, nullptr), 0);
        lib_test::TearDown();
    }

    lines_t texts() const
    {
        lines_t out;
        for (const given_t &one : given_)
            out.push_back(std::to_string(one.level) + " " + one.text);
        return out;
    }

    std::vector<given_t> given_;
};

static void log_each_level()
{
    ZEB_VERBOSE("ZEB v\n");
    ZEB_INFO("ZEB i\n");
    ZEB_WARN("ZEB w\n");
    ZEB_ERROR("ZEB e\r\n");
}

TEST_F(zeb_log_handler, is_given_level_place_time_and_text_and_the_line_is_printed_as_before)
{
    ASSERT_EQ(zeb_set_log_handler(keep, &given_), 0);
    struct timespec before;
    struct timespec after;
    (void)clock_gettime(CLOCK_REALTIME, &before);
    int line = 0;
    EXPECT_EQ(logged(E,
                     [&] {
                         line = __LINE__;
                         ZEB_ERROR("ZEB 50%% of %s\n", "it");
                     }),
              lines_t({"3 ZEB 50% of it"}));
    (void)clock_gettime(CLOCK_REALTIME, &after);
    ASSERT_EQ(given_.size(), 1u);
    EXPECT_EQ(given_[0].level, 3);
    EXPECT_EQ(given_[0].file, "zeb_log_handler_test.cpp");
    EXPECT_EQ(given_[0].line, line + 1);
    EXPECT_EQ(given_[0].text, "ZEB 50% of it");
    EXPECT_GE(given_[0].time.tv_sec, before.tv_sec);
    EXPECT_LE(given_[0].time.tv_sec, after.tv_sec);
}

TEST_F(zeb_log_handler, is_given_what_passes_either_mask_and_nothing_else)
{
    ASSERT_EQ(zeb_set_log_handler(keep, &given_), 0);
    (void)logged(W, log_each_level);
    EXPECT_EQ(texts(), lines_t({"2 ZEB w"}));
    g_zeb_log_level = V | E;
    EXPECT_EQ(logged(I, log_each_level), lines_t({"1 ZEB i"}));
    EXPECT_EQ(texts(), lines_t({"2 ZEB w", "0 ZEB v", "1 ZEB i", "3 ZEB e"}));
    g_zeb_log_level = 0;
    log_each_level();
    EXPECT_EQ(given_.size(), 4u);
}

TEST_F(zeb_log_handler, is_taken_away_by_null)
{
    EXPECT_FALSE(zeb_has_log_handler());
    ASSERT_EQ(zeb_set_log_handler(keep, &given_), 0);
    EXPECT_TRUE(zeb_has_log_handler());
    ASSERT_EQ(zeb_set_log_handler(nullptr, &given_), 0);
    EXPECT_FALSE(zeb_has_log_handler());
    EXPECT_EQ(logged(E, log_each_level), lines_t({"3 ZEB e\r"}));
    EXPECT_TRUE(given_.empty());
}

TEST_F(zeb_log_handler, that_logs_is_not_entered_again_and_cannot_change_itself)
{
    static int s_calls;
    static int s_result;
    auto handler = [](void *, int, const char *, int, const struct timespec *, const char *) {
        s_calls++;
        ZEB_ERROR("ZEB of the handler\n");
        s_result = zeb_set_log_handler(nullptr, nullptr);
    };
    ASSERT_EQ(zeb_set_log_handler(handler, nullptr), 0);
    EXPECT_EQ(logged(E, [] { ZEB_ERROR("ZEB first\n"); }), lines_t({"3 ZEB first", "3 ZEB of the handler"}));
    EXPECT_EQ(s_calls, 1);
    EXPECT_EQ(s_result, -EDEADLK);
    EXPECT_TRUE(zeb_has_log_handler());
    (void)logged(E, [] { ZEB_ERROR("ZEB second\n"); });
    EXPECT_EQ(s_calls, 2);
}

TEST_F(zeb_log_handler, that_changes_errno_does_no_harm)
{
    auto handler = [](void *, int, const char *, int, const struct timespec *, const char *) { errno = EIO; };
    ASSERT_EQ(zeb_set_log_handler(handler, nullptr), 0);
    g_zeb_log_level = E;
    errno = EHOSTUNREACH;
    ZEB_ERROR("ZEB x\n");
    EXPECT_EQ(errno, EHOSTUNREACH);
}

// A context that its owner gives up as soon as another one is set.
typedef struct counter_s {
    std::atomic<bool> given_up{true};
    std::atomic<int> lines{0};
    std::atomic<int> too_late{0};
} counter_t;

static void count_line(void *context, int, const char *, int, const struct timespec *, const char *)
{
    counter_t *counter = (counter_t *)context;
    std::this_thread::yield();
    counter->lines++;
    if (counter->given_up)
        counter->too_late++;
}

TEST_F(zeb_log_handler, may_change_while_lines_are_logged_and_none_is_lost_or_late)
{
    constexpr int threads = 4;
    constexpr int lines = 3000;
    counter_t counters[2];
    counters[0].given_up = false;
    ASSERT_EQ(zeb_set_log_handler(count_line, &counters[0]), 0);
    g_zeb_log_level = E; // there is no file: the lines go to the handler alone
    std::atomic<int> running{threads};
    std::vector<std::thread> loggers;
    for (int i = 0; i < threads; i++)
        loggers.emplace_back([&] {
            for (int j = 0; j < lines; j++)
                ZEB_ERROR("ZEB %d\n", j);
            running--;
        });
    int changes = 0;
    while (running != 0 || changes < 2) {
        changes++;
        counter_t *next = &counters[changes % 2];
        next->given_up = false;
        ASSERT_EQ(zeb_set_log_handler(count_line, next), 0);
        counters[1 - changes % 2].given_up = true;
    }
    for (std::thread &logger : loggers)
        logger.join();
    EXPECT_EQ(counters[0].lines + counters[1].lines, threads * lines);
    EXPECT_EQ(counters[0].too_late + counters[1].too_late, 0);
}
