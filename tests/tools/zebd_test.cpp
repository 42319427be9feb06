// The parts of zebd that have no descriptor: lines and records from outside, the model and its bounds, the loop, and
// the seam of a log file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "ops_log.h"
#include "ops_record.h"
#include "zebd_evidence.h"
#include "zebd_model.h"
#include "zebd_request.h"

using testing::ElementsAre;

constexpr ops_inst_t A = {100, 1};
constexpr ops_inst_t B = {100, 2};

// Lines and requests.

TEST(zebd_line, lines_are_taken_one_by_one_and_a_part_waits)
{
    std::string in = "one\n\ntw";
    std::string line;
    size_t seen = 0;
    EXPECT_TRUE(zebd_line_take(&in, &seen, &line));
    EXPECT_EQ(line, "one");
    EXPECT_TRUE(zebd_line_take(&in, &seen, &line));
    EXPECT_EQ(line, "");
    EXPECT_FALSE(zebd_line_take(&in, &seen, &line));
    EXPECT_EQ(seen, 2U);
    in += "o\nthree";
    EXPECT_TRUE(zebd_line_take(&in, &seen, &line));
    EXPECT_EQ(line, "two");
    EXPECT_EQ(in, "three");
}

static int parsed(const std::string &line, zebd_request_t *request)
{
    std::string why;
    return zebd_request_parse(line, request, &why);
}

TEST(zebd_request, every_type_has_its_members)
{
    zebd_request_t request;
    ASSERT_EQ(parsed(R"({"type":"zebd.hello.1","id":1,"more":[{}]})", &request), 0);
    EXPECT_EQ(request.type, ZEBD_HELLO);
    EXPECT_EQ(request.id, 1U);
    ASSERT_EQ(parsed(R"({"type":"zebd.ask.1","id":4294967295,"ask":"debug","set":8,"clear":3,"timeout_ms":50,
                         "insts":[[100,1],[8191,65535]]})",
                     &request),
              0);
    EXPECT_EQ(request.ask, OPS_ASK_DEBUG);
    EXPECT_EQ(request.set, 8U);
    EXPECT_EQ(request.clear, 3U);
    EXPECT_EQ(request.timeout, 50);
    ASSERT_EQ(request.insts.size(), 2U);
    EXPECT_EQ(request.insts[1].node, 65535U);
    ASSERT_EQ(parsed(R"({"type":"zebd.events.1","id":1,"since_ms":5,"follow":true})", &request), 0);
    EXPECT_TRUE(request.follow);
    EXPECT_EQ(request.since, 5);
    ASSERT_EQ(parsed(R"({"type":"zebd.processes.1","id":1,"node":3,"pids":[1,2],"timeout_ms":9})", &request), 0);
    EXPECT_THAT(request.pids, ElementsAre(1, 2));
    ASSERT_EQ(parsed(R"({"type":"zebd.log.1","id":1,"node":3,"pid":7,"offset":-9,"timeout_ms":9})", &request), 0);
    EXPECT_EQ(request.offset, -9);
}

TEST(zebd_request, what_is_missing_or_out_of_range_is_refused)
{
    static const char *const lines[] = {
        R"({"type":"zebd.hello.1","id":0})",
        R"({"type":"zebd.hello.1","id":4294967296})",
        R"({"type":"zebd.hello.1","id":"1"})",
        R"({"type":["zebd.hello.1"],"id":1})",
        R"({"type":"zebd.ask.1","id":1,"ask":"all","timeout_ms":50,"insts":[]})",
        R"({"type":"zebd.ask.1","id":1,"ask":"info","timeout_ms":0,"insts":[]})",
        R"({"type":"zebd.ask.1","id":1,"ask":"info","timeout_ms":18446744073709551615,"insts":[]})",
        R"({"type":"zebd.ask.1","id":1,"ask":"info","timeout_ms":5,"insts":[[8192,1]]})",
        R"({"type":"zebd.ask.1","id":1,"ask":"info","timeout_ms":5,"insts":[[1,65536]]})",
        R"({"type":"zebd.ask.1","id":1,"ask":"info","timeout_ms":5,"insts":[[1,1.5]]})",
        R"({"type":"zebd.ask.1","id":1,"ask":"debug","timeout_ms":5,"set":16,"clear":0,"insts":[]})",
        R"({"type":"zebd.log.1","id":1,"node":3,"pid":0,"offset":1,"timeout_ms":9})",
        R"({"type":"zebd.history.1","id":1,"app":0,"node":1})",
    };
    zebd_request_t request;
    for (const char *line : lines)
        EXPECT_EQ(parsed(line, &request), -EINVAL) << line;
    EXPECT_EQ(parsed(R"({"type":"zebd.hello.2","id":1})", &request), -ENOSYS);
    EXPECT_EQ(request.id, 1U);
    for (const std::string &line :
         {std::string(), std::string("[]"), std::string(100000, '['), std::string("{\"a\":\0}", 7)})
        EXPECT_EQ(parsed(line, &request), -EINVAL);
}

TEST(zebd_request, a_message_of_another_zebd_is_parsed_as_it_was_made)
{
    zebd_request_t request = zebd_request_t();
    zebd_request_t got;
    request.type = ZEBD_LOG;
    request.pids = {77};
    request.offset = -5;
    std::string body = zebd_request_peer(request);
    ASSERT_TRUE(zebd_request_parse_peer(body.data(), body.size(), &got));
    EXPECT_EQ(got.type, ZEBD_LOG);
    EXPECT_THAT(got.pids, ElementsAre(77));
    EXPECT_EQ(got.offset, -5);
    for (size_t len = 0; len < body.size(); len++)
        EXPECT_FALSE(zebd_request_parse_peer(body.data(), len, &got)) << len;
}

// Records.

TEST(ops_record, any_bytes_go_through_and_come_back)
{
    std::string bytes;
    for (int byte = 0; byte < 256; byte++)
        bytes += (char)byte;
    ops_json_t record = ops_record_parse(ops_record_line({{"text", ops_record_wide(bytes)}}));
    std::string text;
    ASSERT_TRUE(ops_record_text(record, "text", &text));
    EXPECT_EQ(ops_record_narrow(text), bytes);
    EXPECT_EQ(ops_record_narrow("\xE2\x82\xAC"), "?") << "a character that is no byte";
}

TEST(ops_record, a_reply_comes_back_as_it_was)
{
    ops_request_t request = ops_request(A, OPS_ASK_STAT);
    request.outcome = OPS_ANSWERED;
    request.text = std::string("a\0\xff\n", 4);
    request.took = 7;
    ops_request_t got = ops_request(A, OPS_ASK_STAT);
    ASSERT_TRUE(ops_record_to_reply(ops_record_of_reply(request), &got));
    EXPECT_EQ(got.text, request.text);
    EXPECT_EQ(got.took, 7);
    request.outcome = OPS_GONE;
    request.why = "came back";
    ASSERT_TRUE(ops_record_to_reply(ops_record_of_reply(request), &got));
    EXPECT_EQ(got.outcome, OPS_GONE);
    EXPECT_EQ(got.why, "came back");
    EXPECT_FALSE(ops_record_to_reply({{"outcome", "answered"}, {"took_ms", 1}}, &got)) << "no text";
}

TEST(ops_record, an_event_comes_back_as_it_was)
{
    for (ops_event_kind_t kind :
         {OPS_EVENT_JOINED, OPS_EVENT_QUIT, OPS_EVENT_BLOCKED, OPS_EVENT_UNBLOCKED, OPS_EVENT_LOST}) {
        ops_event_t got = {};
        ASSERT_TRUE(ops_record_to_event(ops_record_of_event({9, kind, A, B, 1025}), &got));
        EXPECT_EQ(got.kind, kind);
        EXPECT_EQ(got.at, 9);
        EXPECT_EQ(got.inst.node, kind == OPS_EVENT_LOST ? 0 : A.node);
        EXPECT_EQ(got.unack, kind == OPS_EVENT_BLOCKED || kind == OPS_EVENT_UNBLOCKED ? 1025 : 0);
    }
}

// The log file.

static std::string line_at(const char *time, const char *text)
{
    return std::string("Mon Jan  2 ") + time + " 2023 <a, 1> 3: " + text + "\n";
}

TEST(ops_log, the_seam_is_where_time_falls)
{
    std::string early = line_at("03:04:05", "early");
    std::string middle = line_at("03:04:06", "middle");
    std::string late = line_at("03:04:07", "late");
    std::string straight = early + middle + late;
    EXPECT_EQ(ops_log_seam(straight.data(), straight.size()), straight.size());
    for (const std::string &torn : {std::string(), early.substr(10)}) { // the rest of a line that was written over
        std::string wrapped = late + late + torn + early + middle;
        EXPECT_EQ(ops_log_seam(wrapped.data(), wrapped.size()), 2 * late.size()) << torn;
    }
    std::string second = late + late + late.substr(30) + late; // all of one second
    EXPECT_EQ(ops_log_seam(second.data(), second.size()), 2 * late.size());
    EXPECT_EQ(ops_log_seam("", 0), 0U);
    EXPECT_EQ(ops_log_seam("no time\n", 8), 8U);
}

TEST(ops_log, a_time_stamp_is_read_to_the_letter)
{
    std::string line = line_at("03:04:05", "x");
    EXPECT_EQ(ops_log_stamp(line.data(), line.size()), 20230102030405);
    EXPECT_EQ(ops_log_stamp(line.data(), 24), 0);
    for (size_t i = 4; i < 25; i++) { // the day of the week is not looked at
        std::string bad = line;
        bad[i] = '#';
        EXPECT_EQ(ops_log_stamp(bad.data(), bad.size()), 0) << i;
    }
}

// Reads a file of `size` bytes with its seam from `offset` on until nothing more comes.
static std::string read_all(int64_t size, int64_t seam, int64_t offset)
{
    std::string got;
    for (int i = 0; i < 20; i++) {
        ops_log_range_t range = ops_log_range(size, seam, offset, 40);
        if (range.len == 0)
            return got + "end " + std::to_string(range.next);
        got += std::to_string(range.begin) + "+" + std::to_string(range.len) + " ";
        offset = range.next;
    }
    return got + "without end";
}

TEST(ops_log, reading_goes_around_the_seam_and_ends_there)
{
    EXPECT_EQ(read_all(100, 100, 0), "0+40 40+40 80+20 end 100");
    EXPECT_EQ(read_all(100, 100, -30), "70+30 end 100");
    EXPECT_EQ(read_all(100, 100, -1000), "0+40 40+40 80+20 end 100");
    EXPECT_EQ(read_all(100, 30, -50), "80+20 0+30 end 30");
    EXPECT_EQ(read_all(100, 30, -10), "20+10 end 30");
    EXPECT_EQ(read_all(100, 30, -1000), "30+40 70+30 0+30 end 30");
    EXPECT_EQ(read_all(100, 30, 90), "90+10 0+30 end 30") << "it went on from its start since";
    EXPECT_EQ(read_all(100, 30, 100), "0+30 end 30");
    EXPECT_EQ(read_all(0, 0, -5), "end 0");
}

TEST(ops_log, the_program_is_in_the_name)
{
    EXPECT_EQ(ops_log_program("log-a-b-77-20230102-030405", 77), "a-b");
    EXPECT_EQ(ops_log_program("log-a-77-20230102-030405", 7), "");
    EXPECT_EQ(ops_log_program("stat-a-77-20230102-030405", 77), "");
    EXPECT_EQ(ops_log_program("log-a-77-20230102_030405", 77), "");
    EXPECT_EQ(ops_log_program("log--77-20230102-030405", 77), "");
}

// The model.

class zebd_model : public testing::Test
{
  protected:
    void SetUp() override
    {
        (void)zebd_loop_follow(&loop_, [this](uint64_t number, const ops_event_t &event) {
            EXPECT_EQ(number, model_.event_number);
            kinds_.push_back(event.kind);
        });
        zebd_model_join(&model_, &loop_, A, 1, 0);
    }

    void answer(std::vector<ops_flow_send_t> sends, bool cut = false)
    {
        zebd_inst_t *inst = &model_.insts[ops_name_of(A)];
        inst->stat = ops_stat_t();
        inst->stat.parts = OPS_STAT_FLOW;
        inst->stat.sends = std::move(sends);
        inst->stat.cut = cut;
        zebd_model_stat(&model_, &loop_, inst, ++time_);
    }

    zebd_loop_t loop_ = zebd_loop_t();
    zebd_model_t model_ = zebd_model_t();
    std::vector<ops_event_kind_t> kinds_;
    int64_t time_ = 1000;
};

TEST_F(zebd_model, a_pair_is_blocked_above_the_window_and_said_so_once)
{
    answer({{B, 5000, 1024, 0, 0}});
    EXPECT_TRUE(kinds_.empty());
    answer({{B, 5000, 1025, 0, 0}});
    answer({{B, 5000, 1026, 0, 0}});
    EXPECT_THAT(kinds_, ElementsAre(OPS_EVENT_BLOCKED));
    answer({{B, 5000, 3, 0, 0}});
    EXPECT_THAT(kinds_, ElementsAre(OPS_EVENT_BLOCKED, OPS_EVENT_UNBLOCKED));
}

TEST_F(zebd_model, a_pair_that_is_listed_no_more_is_not_blocked)
{
    answer({{B, 5000, 1025, 0, 0}});
    answer({}, true); // cut: it may be there
    EXPECT_THAT(kinds_, ElementsAre(OPS_EVENT_BLOCKED));
    answer({});
    EXPECT_THAT(kinds_, ElementsAre(OPS_EVENT_BLOCKED, OPS_EVENT_UNBLOCKED));
}

TEST_F(zebd_model, who_quits_is_blocked_no_more_and_is_known_for_a_while)
{
    answer({{B, 5000, 1025, 0, 0}});
    EXPECT_TRUE(zebd_evidence_is_due(model_, A));
    EXPECT_TRUE(zebd_evidence_is_due(model_, B));
    zebd_model_quit(&model_, &loop_, A);
    EXPECT_THAT(kinds_, ElementsAre(OPS_EVENT_BLOCKED, OPS_EVENT_QUIT, OPS_EVENT_UNBLOCKED));
    EXPECT_FALSE(zebd_evidence_is_due(model_, A));
    zebd_model_clean(&model_, ops_wall());
    EXPECT_EQ(model_.insts.size(), 1U);
    zebd_model_clean(&model_, ops_wall() + ZEBD_GONE_TIME + 1000);
    EXPECT_TRUE(model_.insts.empty());
    EXPECT_TRUE(model_.pairs.empty());
}

TEST_F(zebd_model, samples_and_events_are_rings)
{
    for (uint32_t i = 1; i <= 2 * ZEBD_EVENTS_MAX; i++)
        answer({{B, i, i % 2 == 0 ? 0 : 2000, 0, 0}});
    const zebd_pair_t &pair = model_.pairs.begin()->second;
    ASSERT_EQ(pair.samples.size(), ZEBD_SAMPLES);
    EXPECT_EQ(pair.samples.back().send, 2 * ZEBD_EVENTS_MAX);
    EXPECT_EQ(pair.samples.front().send, 2 * ZEBD_EVENTS_MAX - ZEBD_SAMPLES + 1);
    EXPECT_EQ(model_.insts.begin()->second.samples.size(), ZEBD_SAMPLES);
    EXPECT_EQ(model_.events.size(), ZEBD_EVENTS_MAX);
    EXPECT_EQ(model_.event_number, 2 * ZEBD_EVENTS_MAX);
}

TEST_F(zebd_model, instances_and_pairs_have_bounds)
{
    for (uint32_t node = 0; node < ZEBD_INSTS_MAX + 5; node++)
        zebd_model_join(&model_, &loop_, {200, node}, 1, 1);
    EXPECT_EQ(model_.insts.size(), ZEBD_INSTS_MAX);
    EXPECT_EQ(model_.left_out, 6U); // A is one of them
    for (uint32_t node = 0; node < ZEBD_GONE_MAX + 5; node++)
        zebd_model_quit(&model_, &loop_, {200, node});
    zebd_model_bound_gone(&model_);
    EXPECT_EQ(model_.insts.size(), ZEBD_INSTS_MAX - 5);
    std::vector<ops_flow_send_t> sends;
    for (uint32_t node = 0; node < ZEBD_PAIRS_MAX + 5; node++)
        sends.push_back({{300, node}, 1, 0, 0, 0});
    answer(sends);
    EXPECT_EQ(model_.pairs.size(), ZEBD_PAIRS_MAX);
    EXPECT_EQ(model_.pairs_left_out, 5U);
    answer({{B, 1, 0, 0, 0}, {{300, 0}, 2, 0, 0, 0}, {{300, 1}, 1, 0, 0, 0}});
    zebd_model_clean(&model_, ops_wall()); // a pair without traffic makes room
    EXPECT_EQ(model_.pairs.count({ops_name_of(A), ops_name_of({300, 0})}), 1U);
    EXPECT_EQ(model_.pairs.count({ops_name_of(A), ops_name_of({300, 1})}), 0U);
}

TEST_F(zebd_model, evidence_is_saved_and_the_last_of_it_kept)
{
    char dir[] = "/tmp/zebd_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    answer({{B, 5000, 1025, 0, 0}});
    for (uint32_t node = 1; node <= ZEBD_EVIDENCE_MAX + 3; node++)
        EXPECT_EQ(zebd_evidence_save(model_, {100, node}, dir), 0);
    size_t files = 0;
    for (const auto &file : std::filesystem::directory_iterator(dir)) {
        std::stringstream text;
        text << std::ifstream(file.path()).rdbuf();
        EXPECT_THAT(text.str(), testing::HasSubstr(R"("event":"blocked")"));
        files++;
    }
    EXPECT_EQ(files, ZEBD_EVIDENCE_MAX);
    EXPECT_EQ(zebd_evidence_save(model_, A, std::string(dir) + "/none"), -ENOENT);
    (void)std::filesystem::remove_all(dir);
}

// The loop.

TEST(zebd_loop, a_callback_may_remove_itself_and_others_that_are_ready)
{
    zebd_loop_t loop = zebd_loop_t();
    int called = 0;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    std::vector<zebd_entry_t> entries(2);
    for (zebd_entry_t &entry : entries) {
        entry = zebd_loop_add(&loop, ends[0], POLLIN, [&](short) {
            called++;
            zebd_loop_remove(&loop, entries[0]);
            zebd_loop_remove(&loop, entries[1]);
        });
    }
    zebd_loop_round(&loop, 1000);
    EXPECT_EQ(called, 1);
    EXPECT_TRUE(loop.watches.empty());
    (void)close(ends[0]);
    (void)close(ends[1]);
}

TEST(zebd_loop, timers_are_called_once_and_when_they_are_due)
{
    zebd_loop_t loop = zebd_loop_t();
    int called = 0;
    zebd_entry_t never = zebd_loop_at(&loop, 0, [&] { called += 100; });
    (void)zebd_loop_at(&loop, 60000, [&] { called += 100; });
    (void)zebd_loop_at(&loop, 0, [&] { called++; });
    zebd_loop_remove(&loop, never);
    zebd_loop_round(&loop, 0);
    zebd_loop_round(&loop, 0);
    EXPECT_EQ(called, 1);
    EXPECT_EQ(loop.timers.size(), 1U);
}

TEST(zebd_loop, a_follower_may_leave_when_it_is_told)
{
    zebd_loop_t loop = zebd_loop_t();
    std::vector<int> told;
    zebd_entry_t first = 0;
    zebd_entry_t second = 0;
    first = zebd_loop_follow(&loop, [&](uint64_t, const ops_event_t &) {
        told.push_back(1);
        zebd_loop_remove(&loop, first);
        zebd_loop_remove(&loop, second);
    });
    second = zebd_loop_follow(&loop, [&](uint64_t, const ops_event_t &) { told.push_back(2); });
    (void)zebd_loop_follow(&loop, [&](uint64_t, const ops_event_t &) { told.push_back(3); });
    zebd_loop_tell(&loop, 1, {});
    EXPECT_THAT(told, ElementsAre(1, 3));
}
