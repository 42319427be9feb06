// The functions from the model to texts: metrics, JSON, and whom a request says that it is for.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "page_model.h"
#include "zebd_metrics.h"
#include "zebd_model.h"
#include "zebd_page.h"
#ifdef ZEBD_HTTP
#include "zebd_http_addr.h"
#endif

typedef nlohmann::json json_t;

constexpr int64_t AT = 1700000000000; // ms

// The rules of the text format, version 0.0.4, and the conventions for names.

typedef struct family_s {
    std::string name;
    std::string kind;
    std::set<std::string> series;
} family_t;

// The end of the labels that begin at `at`, or npos when they are wrong.
static size_t labels_end(const std::string &line, size_t at)
{
    for (at++; at < line.size();) {
        size_t name = line.find_first_not_of("abcdefghijklmnopqrstuvwxyz_", at);
        if (name == at || name == std::string::npos || line.compare(name, 2, "=\"") != 0)
            return std::string::npos;
        for (at = name + 2; at < line.size() && line[at] != '"'; at++) {
            if (line[at] == '\\' && (++at >= line.size() || strchr("\\\"n", line[at]) == nullptr))
                return std::string::npos;
        }
        if (++at < line.size() && line[at] == '}')
            return at + 1;
        if (at >= line.size() || line[at++] != ',')
            return std::string::npos;
    }
    return std::string::npos;
}

static std::string check_sample(const std::string &line, family_t *family)
{
    size_t name = line.find_first_not_of("abcdefghijklmnopqrstuvwxyz_");
    if (name == std::string::npos || line.substr(0, name) != family->name)
        return "not of the family: " + line;
    size_t end = line[name] == '{' ? labels_end(line, name) : name;
    if (end == std::string::npos || line[end] != ' ')
        return "labels: " + line;
    char *rest = nullptr;
    (void)strtod(line.c_str() + end + 1, &rest);
    if (*rest != '\0' || rest == line.c_str() + end + 1)
        return "number: " + line;
    return family->series.insert(line.substr(0, end)).second ? "" : "twice: " + line;
}

static std::string check_head(const std::string &line, family_t *family, std::set<std::string> *names)
{
    std::istringstream words(line);
    std::string mark;
    std::string what;
    std::string name;
    std::string kind;
    words >> mark >> what >> name >> kind;
    if (what == "HELP") {
        *family = {name, "", {}};
        return names->insert(name).second && !kind.empty() ? "" : "family: " + line;
    }
    bool total = name.size() > 6 && name.substr(name.size() - 6) == "_total";
    family->kind = kind;
    bool right = what == "TYPE" && name == family->name && (kind == "counter" ? total : kind == "gauge" && !total);
    return right ? "" : "type: " + line;
}

// Empty, or what is wrong.
static std::string check_format(const std::string &text)
{
    std::istringstream lines(text);
    std::set<std::string> names;
    family_t family = {};
    std::string wrong = text.empty() || text.back() != '\n' ? "the last line has no end" : "";
    for (std::string line; wrong.empty() && std::getline(lines, line);) {
        bool head = line.compare(0, 2, "# ") == 0;
        wrong = head ? check_head(line, &family, &names) : check_sample(line, &family);
        if (!head && family.kind.empty())
            wrong = "no type: " + line;
    }
    return wrong;
}

// The samples of a metric, one a line.
static std::string samples_of(const std::string &text, const std::string &name)
{
    std::istringstream lines(text);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size(), name) == 0 && (line[name.size()] == '{' || line[name.size()] == ' '))
            out += line.substr(name.size()) + "\n";
    }
    return out;
}

// Application 100 on node 1, which sends to application 100 on node 2.
static zebd_model_t two()
{
    zebd_model_t model = page_model(2, 1, 1);
    page_block(&model, {100, 1}, {100, 2}, false);
    model.events.clear();
    for (auto &[name, inst] : model.insts) {
        inst.stat.name = "alarmd";
        inst.samples = {{AT - 10000, 100, 40, 0, 0, 0, 5, 6}, {AT, 225, 40, 7, 1, 2, 3, 4}};
    }
    model.pairs.begin()->second.samples = {{AT - 10000, 100, 0, 5}, {AT, 225, 1, 3}};
    return model;
}

TEST(page_metrics, the_check_of_the_format_finds_what_is_wrong)
{
    std::string head = "# HELP a_total Words.\n# TYPE a_total counter\n";
    EXPECT_EQ(check_format(head + "a_total{b=\"c\\\"\\\\\\n\",d=\"\"} 1\na_total 2.5e+09\n"), "");
    for (const char *wrong :
         {"a_total 1", "a_total\n", "a_total{} 1\n", "a_total{b=\"c} 1\n", "a_total{b=\"\\x\"} 1\n",
          "a_total{b=\"c\" 1\n", "a_total 1x\n", "a_total 1\na_total 1\n", "b 1\n", "# HELP b Words.\nb 1\n",
          "# HELP b Words.\n# TYPE b counter\nb 1\n", "# HELP b_total Words.\n# TYPE b_total gauge\n",
          "# HELP a_total Words.\n", "# HELP b Words.\n# TYPE b table\n", "\n"})
        EXPECT_NE(check_format(head + wrong), "") << wrong;
}

TEST(page_metrics, the_text_is_in_the_format)
{
    zebd_model_t model = page_model(8, 5, 3);
    page_block(&model, {100, 3}, {110, 6}, true);
    page_quit(&model, {120, 2}, 0);
    EXPECT_EQ(check_format(zebd_metrics(model)), "");
    EXPECT_EQ(check_format(zebd_metrics({})), "") << "of nothing";
}

TEST(page_metrics, an_instance_and_its_counters)
{
    std::string text = zebd_metrics(two());
    std::string first = "{app=\"100\",node=\"1\",name=\"alarmd\"} ";
    std::string second = "{app=\"100\",node=\"2\",name=\"alarmd\"} ";
    EXPECT_EQ(samples_of(text, "zeb_instance_up"), first + "1\n" + second + "1\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_messages_sent_total"), first + "225\n" + second + "225\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_messages_received_total"), first + "40\n" + second + "40\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_queue_messages"), first + "7\n" + second + "7\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_sends_rejected_total"), first + "1\n" + second + "1\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_receive_exceptions_total"), first + "2\n" + second + "2\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_sent_unacknowledged_messages"), first + "3\n" + second + "3\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_received_unacknowledged_messages"), first + "4\n" + second + "4\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_info"),
              "{app=\"100\",node=\"1\",name=\"alarmd\",role=\"server\",pid=\"1101\",program=\"board\"} 1\n"
              "{app=\"100\",node=\"2\",name=\"alarmd\",role=\"server\",pid=\"1102\",program=\"board\"} 1\n");
}

TEST(page_metrics, a_counter_is_written_to_its_last_digit)
{
    zebd_model_t model = two();
    model.insts.begin()->second.samples.back().send = UINT32_MAX;
    model.asked = 123456789012345;
    std::string text = zebd_metrics(model);
    EXPECT_NE(samples_of(text, "zeb_instance_messages_sent_total").find(" 4294967295\n"), std::string::npos);
    EXPECT_EQ(samples_of(text, "zeb_zebd_requests_total"), " 123456789012345\n");
}

TEST(page_metrics, an_instance_that_is_silent_or_quit_is_down_and_has_no_counters)
{
    zebd_model_t model = two();
    model.insts[ops_name_of({100, 1})].outcome = OPS_SILENT;
    model.insts[ops_name_of({100, 2})].quit = AT;
    std::string text = zebd_metrics(model);
    EXPECT_EQ(samples_of(text, "zeb_instance_up"), "{app=\"100\",node=\"1\",name=\"alarmd\"} 0\n"
                                                   "{app=\"100\",node=\"2\",name=\"alarmd\"} 0\n");
    EXPECT_EQ(samples_of(text, "zeb_instance_messages_sent_total"), "");
    EXPECT_EQ(samples_of(text, "zeb_instance_info"), "");
}

TEST(page_metrics, a_zebd_is_no_instance_that_is_asked)
{
    zebd_model_t model = two();
    model.insts[ops_name_of({ZEBD_APP_ID, 2})].inst = {ZEBD_APP_ID, 2};
    EXPECT_EQ(samples_of(zebd_metrics(model), "zeb_instance_up").find("app=\"1\""), std::string::npos);
    json_t json = json_t::parse(zebd_page_model(model, AT), nullptr, false);
    EXPECT_EQ(json["instances"][0]["name"], "zebd");
}

TEST(page_metrics, a_pair_and_whether_it_is_blocked)
{
    zebd_model_t model = two();
    std::string labels =
        "{app=\"100\",node=\"1\",name=\"alarmd\",peer_app=\"100\",peer_node=\"2\",peer_name=\"alarmd\"} ";
    std::string text = zebd_metrics(model);
    EXPECT_EQ(samples_of(text, "zeb_pair_messages_sent_total"), labels + "225\n");
    EXPECT_EQ(samples_of(text, "zeb_pair_sends_rejected_total"), labels + "1\n");
    EXPECT_EQ(samples_of(text, "zeb_pair_unacknowledged_messages"), labels + "3\n");
    EXPECT_EQ(samples_of(text, "zeb_pair_blocked"), labels + "0\n");
    EXPECT_EQ(samples_of(text, "zeb_pair_blocked_since_timestamp_seconds"), "");
    model.pairs.begin()->second.blocked_since = AT + 500;
    text = zebd_metrics(model);
    EXPECT_EQ(samples_of(text, "zeb_pair_blocked"), labels + "1\n");
    EXPECT_EQ(samples_of(text, "zeb_pair_blocked_since_timestamp_seconds"), labels + "1700000000.5\n");
}

TEST(page_metrics, a_name_that_a_peer_chose_stays_within_its_label)
{
    zebd_model_t model = two();
    model.insts[ops_name_of({100, 1})].stat.name = "a\"} 1\nb\\\xff\x1b";
    std::string text = zebd_metrics(model);
    EXPECT_EQ(check_format(text), "");
    EXPECT_NE(samples_of(text, "zeb_instance_up").find("name=\"a\\\"} 1\\nb\\\\??\"} 1\n"), std::string::npos) << text;
    EXPECT_NE(samples_of(text, "zeb_pair_blocked").find(",name=\"a\\\"} 1\\nb\\\\??\","), std::string::npos);
}

TEST(page_json, the_cluster_has_each_instance_and_each_pair)
{
    zebd_model_t model = two();
    model.pairs.begin()->second.blocked_since = AT - 5000;
    page_event(&model, OPS_EVENT_BLOCKED, {100, 1}, {100, 2});
    json_t json = json_t::parse(zebd_page_model(model, AT), nullptr, false);
    ASSERT_TRUE(json.is_object());
    EXPECT_EQ(json["now"], AT);
    EXPECT_EQ(json["instances"].size(), 2U);
    EXPECT_EQ(json["instances"][1],
              json_t::parse(R"({"app": 100, "node": 2, "up": true, "name": "alarmd", "server": true,
        "queue_messages": 7, "sent_rate": 12.5, "received_rate": 0.0})"));
    EXPECT_EQ(json["pairs"],
              json_t::parse(R"([{"from": {"app": 100, "node": 1}, "to": {"app": 100, "node": 2}, "rate": 12.5,
        "sent_messages": 225, "rejected": 1, "unacknowledged": 3, "blocked_since": 1699999995000}])"));
    EXPECT_EQ(json["events"][0]["event"], "blocked");
    EXPECT_EQ(json["events"][0]["peer"]["node"], 2);
}

TEST(page_json, a_counter_that_fell_has_no_rate)
{
    zebd_model_t model = two();
    model.insts[ops_name_of({100, 1})].samples.back().send = 99;
    model.insts[ops_name_of({100, 2})].samples.pop_front();
    json_t json = json_t::parse(zebd_page_model(model, AT), nullptr, false);
    EXPECT_TRUE(json["instances"][0]["sent_rate"].is_null());
    EXPECT_EQ(json["instances"][0]["received_rate"], 0.0);
    EXPECT_TRUE(json["instances"][1]["sent_rate"].is_null()) << "of one sample";
}

TEST(page_json, the_samples_are_those_of_ten_minutes_however_often_they_come)
{
    for (int64_t pause : {1000, 10000, 10050}) {
        zebd_loop_t loop = {};
        zebd_model_t model = two();
        zebd_inst_t *inst = &model.insts[ops_name_of({100, 1})];
        inst->samples.clear();
        model.sample_step = 11000;
        for (int64_t at = AT; at <= AT + 700000; at += pause) {
            inst->stat.send = (uint32_t)(at - AT);
            zebd_model_stat(&model, &loop, inst, at);
            ASSERT_EQ(inst->samples.back().send, at - AT) << "the newest is there";
        }
        EXPECT_EQ(inst->samples.size(), ZEBD_SAMPLES);
        int64_t span = inst->samples.back().at - inst->samples.front().at;
        EXPECT_TRUE(span >= 580000 && span <= 600000) << span << " ms of samples each " << pause;
    }
}

TEST(page_json, an_instance_has_its_samples_its_pairs_and_its_levels)
{
    std::string text;
    zebd_model_t model = two();
    ASSERT_TRUE(zebd_page_instance(model, {100, 2}, AT, &text));
    json_t json = json_t::parse(text, nullptr, false);
    EXPECT_EQ(json["pid"], 1102);
    EXPECT_EQ(json["levels"], json_t::parse(R"(["warn", "error"])"));
    EXPECT_EQ(json["samples"]["rows"][1], json_t::parse("[1700000000000, 225, 40, 7, 1, 2, 3, 4]"));
    EXPECT_EQ(json["samples"]["columns"].size(), json["samples"]["rows"][1].size());
    EXPECT_EQ(json["pairs"].size(), 1U) << "of which it is the receiver";
    EXPECT_FALSE(zebd_page_instance(model, {100, 3}, AT, &text));
    model.insts[ops_name_of({100, 2})].info = {};
    ASSERT_TRUE(zebd_page_instance(model, {100, 2}, AT, &text));
    EXPECT_FALSE(json_t::parse(text, nullptr, false).contains("pid")) << "it has not said who it is";
}

TEST(page_json, what_a_peer_wrote_is_text)
{
    zebd_model_t model = two();
    std::string text;
    model.insts[ops_name_of({100, 1})].stat.name = "\"<script>\xff\x1b";
    model.insts[ops_name_of({100, 1})].why = "\xfe\n";
    json_t json = json_t::parse(zebd_page_model(model, AT), nullptr, false);
    EXPECT_EQ(json["instances"][0]["name"], "\"<script>??");
    EXPECT_EQ(json["instances"][0]["missing"], "?\n");
    ASSERT_TRUE(zebd_page_instance(model, {100, 1}, AT, &text));
    EXPECT_EQ(json_t::parse(text, nullptr, false)["name"], "\"<script>??");
}

TEST(page, it_asks_for_nothing_outside_and_its_script_and_style_have_the_number)
{
    std::string page(zebd_page());
    EXPECT_EQ(page.compare(0, 15, "<!DOCTYPE html>"), 0);
    EXPECT_EQ(page.substr(page.size() - 8), "</html>\n");
    for (const char *tag : {"<script", "<style"}) {
        for (size_t at = 0; (at = page.find(tag, at)) != std::string::npos; at++)
            EXPECT_EQ(page.compare(at + strlen(tag), 17, " nonce=\"@NONCE@\">"), 0) << page.substr(at, 40);
    }
    for (const char *wrong : {"https:", "src=", "@import", "url(h", "innerHTML", " style=", " onclick="})
        EXPECT_EQ(page.find(wrong), std::string::npos) << wrong;
}

#ifdef ZEBD_HTTP
TEST(page_address, a_request_names_the_loopback_device)
{
    for (const char *ours :
         {"localhost", "LOCALHOST:80", "127.0.0.1", "127.0.0.1:8080", "127.9.9.9:1", "[::1]", "[::1]:8080"})
        EXPECT_TRUE(zebd_http_host_is_ours(ours, false)) << ours;
    for (const char *other :
         {"", "evil.example", "evil.example:80", "localhost.evil.example", "127.0.0.1.evil.example", "10.0.0.1",
          "127.0.0.1:x", "127.0.0.1:99999", "[::2]:80", "::1", "0.0.0.0", "localhost:", "127.1"})
        EXPECT_FALSE(zebd_http_host_is_ours(other, false)) << other;
    EXPECT_FALSE(zebd_http_host_is_ours(nullptr, false));
    EXPECT_TRUE(zebd_http_host_is_ours("10.0.0.1:80", true));
    EXPECT_TRUE(zebd_http_host_is_ours("[fe80::1]", true));
    EXPECT_FALSE(zebd_http_host_is_ours("evil.example", true));
}

TEST(page_address, other_addresses_are_served_only_when_that_is_said)
{
    uint16_t port = 0;
    std::string why;
    EXPECT_EQ(zebd_http_listen("0.0.0.0:0", false, &port, &why), -EPERM);
    EXPECT_NE(why.find("--http-any"), std::string::npos);
    EXPECT_EQ(zebd_http_listen("[::]:0", false, &port, &why), -EPERM);
    for (const char *wrong : {"", "127.0.0.1", ":8080", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "::1:80",
                              "board:80", "[127.0.0.1]:80"})
        EXPECT_EQ(zebd_http_listen(wrong, true, &port, &why), -EINVAL) << wrong;
    for (const char *right : {"127.0.0.1:0", "localhost:0"}) {
        int sd = zebd_http_listen(right, false, &port, &why);
        EXPECT_GE(sd, 0) << why;
        EXPECT_NE(port, 0);
        (void)close(sd);
    }
    int sd = zebd_http_listen("0.0.0.0:0", true, &port, &why);
    EXPECT_GE(sd, 0) << why;
    std::string same = "127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(zebd_http_listen(same.c_str(), false, &port, &why), -EADDRINUSE);
    (void)close(sd);
}
#endif
