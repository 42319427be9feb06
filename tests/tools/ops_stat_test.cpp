// The parser of the statistics text against what the library prints: every listing, with all its lines, and texts that
// were cut or are none.
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "ops_stat.h"
#include "by_number.h"
#include "handshake_core.h"
#include "rpc_test.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_handshake_shell.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class ops_stat : public rpc_test
{
  protected:
    // What an instance answers to a statistics request, byte for byte.
    static std::string answered(uint32_t app = APP)
    {
        zeb_buf_printf_reset();
        for (auto print : {zeb_cli_print_lib_info, zeb_cli_print_app_info, zeb_cli_print_fc_stat,
                           zeb_cli_print_mng_stat, zeb_cli_print_rpc_stat})
            print(app);
        return {(const char *)g_print_msg->data, zeb_msg_data_len(g_print_msg)};
    }

    static ops_stat_t parsed(const std::string &text)
    {
        return ops_stat_parse(text.data(), text.size());
    }

    // Brings every kind of line about.
    void fill()
    {
        peer_online(PEER_NODE);
        peer_published(5);
        zeb_try_resume_comm(PEER, 77);
        receive_item(returned_item(wire::message(to_peer(wire::SYNC), wire::sync_ack(4711, 6, 1, 3))));
        group_ = zeb_create_app_mcast(APP);
        ASSERT_EQ(zeb_add_app_mcast(APP, (uint32_t)group_, PEER), 0);
        node_group_ = zeb_create_node_mcast(APP);
        ASSERT_EQ(zeb_add_node_mcast(APP, (uint32_t)node_group_, 9), 0);
        for (int i = 0; i < 3; i++)
            zeb_fc_update_sent_ok(APP, {PEER, PEER_NODE});
        zeb_fc_update_sent_reject(APP, {PEER, PEER_NODE});
        zeb_fc_update_recv_ok(APP, {PEER, 11});
        zeb_fc_update_recv_drop(APP, {PEER, 11}, 4);
        ASSERT_EQ(zeb_rpc_prepare_wait(APP, 0x80000055, &reply_, 6), 0);
        for (uint32_t node : {PEER_NODE, 4U})
            ASSERT_EQ(zeb_rpc_set_wait(APP, 0x80000055, {PEER, node}), 0);
        answer(PEER_NODE, 0x80000055);
    }

    int group_ = 0;
    int node_group_ = 0;
};

static std::vector<std::string> nodes_of(const std::vector<ops_flow_send_t> &sends)
{
    std::vector<std::string> out;
    for (const ops_flow_send_t &flow : sends)
        out.push_back(std::to_string(flow.dst.app) + "/" + std::to_string(flow.dst.node));
    return out;
}

TEST_F(ops_stat, every_listing_becomes_a_record)
{
    fill();
    std::string text = answered();
    RecordProperty("listing", text.c_str()); // for tests/fuzz/seeds
    ops_stat_t stat = parsed(text);
    EXPECT_EQ(stat.odd, 0U) << stat.first_odd;
    EXPECT_EQ(ops_stat_missing(stat), "");
    EXPECT_FALSE(stat.cut);
    EXPECT_EQ(stat.app, APP);
    EXPECT_EQ(stat.node, NODE);
    EXPECT_THAT(stat.process_apps, ElementsAre(APP));
    ASSERT_EQ(stat.peer_apps.size(), 2U);
    EXPECT_EQ(stat.peer_apps[1].app, PEER);
    EXPECT_THAT(stat.peer_apps[1].servers, ElementsAre(PEER_NODE));
    EXPECT_THAT(stat.peer_apps[1].subscribers, ElementsAre(APP));
    EXPECT_THAT(stat.peer_apps[1].instances, ElementsAre(PEER_NODE));
    EXPECT_THAT(stat.peer_apps[1].acked, ElementsAre(PEER_NODE));
    EXPECT_THAT(stat.peer_apps[1].online, ElementsAre(PEER_NODE));
    ASSERT_EQ(stat.unacked.size(), 1U);
    EXPECT_EQ(stat.unacked[0].src_app, APP);
    EXPECT_EQ(stat.unacked[0].dst.node, 5U);
    ASSERT_EQ(stat.resumes.size(), 1U);
    EXPECT_EQ(stat.resumes[0].dst.node, 77U);
    ASSERT_EQ(stat.resent.size(), 1U);
    EXPECT_EQ(stat.resent[0].seq, 4711U);
    EXPECT_EQ(stat.resent[0].dst.app, PEER);
}

TEST_F(ops_stat, the_application_and_its_groups)
{
    fill();
    ops_stat_t stat = parsed(answered());
    EXPECT_EQ(stat.name, "test");
    EXPECT_THAT(stat.versions, ElementsAre(1));
    EXPECT_THAT(stat.named, UnorderedElementsAre(APP, PEER));
    EXPECT_EQ(stat.queue, 0U);
    ASSERT_EQ(stat.app_groups.size(), 1U);
    EXPECT_EQ(stat.app_groups[0].id, (uint32_t)group_);
    EXPECT_THAT(stat.app_groups[0].members, ElementsAre(PEER));
    ASSERT_EQ(stat.node_groups.size(), 1U);
    EXPECT_EQ(stat.node_groups[0].id, (uint32_t)node_group_);
    EXPECT_THAT(stat.node_groups[0].members, ElementsAre(9));
}

TEST_F(ops_stat, the_counters_and_the_calls)
{
    fill();
    ops_stat_t stat = parsed(answered());
    EXPECT_EQ(stat.send, 3U);
    EXPECT_EQ(stat.send_unack, 3);
    EXPECT_EQ(stat.recv, 1U);
    ASSERT_THAT(nodes_of(stat.sends), testing::Contains("200/9"));
    const ops_flow_send_t *flow = stat.sends.data();
    while (flow->dst.node != PEER_NODE)
        flow++;
    EXPECT_EQ(flow->send, 3U);
    EXPECT_EQ(flow->reject, 1U);
    ASSERT_FALSE(stat.recvs.empty());
    EXPECT_EQ(stat.recvs.back().src.node, 11U);
    EXPECT_EQ(stat.recvs.back().drop, 4U);
    EXPECT_NE(stat.sync_send, 0U);
    ASSERT_FALSE(stat.sync_sends.empty());
    EXPECT_EQ(stat.sync_sends[0].peer.node, PEER_NODE);
    ASSERT_FALSE(stat.sync_recvs.empty());
    EXPECT_NE(stat.sync_recvs[0].inst, 0U);
    ASSERT_EQ(stat.calls.size(), 1U);
    EXPECT_EQ(stat.calls[0].seq, 0x80000055U) << "printed as a negative number";
    EXPECT_EQ(stat.calls[0].timeout, 6U);
    ASSERT_EQ(stat.calls[0].waiting.size(), 1U);
    EXPECT_EQ(stat.calls[0].waiting[0].node, 4U);
    ASSERT_EQ(stat.calls[0].replied.size(), 1U);
    EXPECT_EQ(stat.calls[0].replied[0].second, "RPC success");
}

// What one format of the library prints, as a regular expression.
static std::string expression_of(const std::string &format)
{
    static const std::pair<const char *, const char *> rules[] = {
        {R"re([.*+?^$()\[\]{}|])re", R"re(\$&)re"},
        {R"re(\\n)re", "\n"},
        {"%[du]", "-?[0-9]+"},
        {"0x%x", "0x[0-9a-f]+"},
        {"%p", "0x[0-9a-f]+"},
        {"%s", "[^\n]*"},
    };
    std::string text = format;
    for (const auto &rule : rules)
        text = std::regex_replace(text, std::regex(rule.first), rule.second);
    return text;
}

// All formats that the library's listings print, from its sources: what is added there must be in fill(), and so be
// parsed.
static std::vector<std::string> printed_formats()
{
    static const std::regex call(R"re(zeb_buf_printf\("([^"]{5,})")re");
    std::vector<std::string> formats;
    for (const auto &file : std::filesystem::directory_iterator(ZEB_LIB)) {
        std::stringstream source;
        source << std::ifstream(file.path()).rdbuf();
        std::string text = source.str();
        for (std::sregex_iterator it(text.begin(), text.end(), call); it != std::sregex_iterator(); ++it)
            formats.push_back((*it)[1]);
    }
    return formats;
}

TEST_F(ops_stat, the_listings_of_these_tests_have_every_text_of_the_library)
{
    fill();
    std::string text = answered();
    std::vector<std::string> formats = printed_formats();
    EXPECT_GT(formats.size(), 25U);
    for (const std::string &format : formats)
        EXPECT_TRUE(std::regex_search(text, std::regex(expression_of(format)))) << format;
}

TEST_F(ops_stat, a_text_that_was_cut_is_said_to_be)
{
    for (uint32_t node = 0; node < 400; node++)
        zeb_fc_update_sent_ok(APP, {PEER, node});
    std::string text = answered();
    ops_stat_t stat = parsed(text);
    EXPECT_TRUE(stat.cut);
    EXPECT_EQ(stat.odd, 0U) << stat.first_odd;
    EXPECT_EQ(ops_stat_missing(stat), "cut: the statistics are longer than the 16 KiB that an instance answers with");
    EXPECT_EQ(stat.name, "test");
    EXPECT_GT(stat.sends.size(), 100U);
    EXPECT_LT(stat.sends.size(), 400U);
    for (uint32_t node = 0; node < stat.sends.size(); node++)
        EXPECT_EQ(stat.sends[node].dst.node, node) << nodes_of(stat.sends)[node];
    EXPECT_EQ(stat.parts & OPS_STAT_CALLS, 0U);
}

TEST_F(ops_stat, with_seventy_peers_the_text_is_cut_and_what_is_left_is_theirs)
{
    for (uint32_t node = 1; node <= 70; node++) {
        peer_online(node);
        zeb_fc_update_sent_ok(APP, {PEER, node});
        zeb_fc_update_recv_ok(APP, {PEER, node});
        ops_stat_t stat = parsed(answered());
        EXPECT_EQ(stat.odd, 0U) << node << ": " << stat.first_odd;
        EXPECT_EQ(ops_stat_missing(stat).substr(0, 4), stat.cut ? "cut:" : "") << node;
        EXPECT_TRUE(node > 30 || !stat.cut) << node;
    }
    ops_stat_t stat = parsed(answered());
    EXPECT_TRUE(stat.cut);
    ASSERT_FALSE(stat.peer_apps.empty());
    EXPECT_EQ(stat.peer_apps.back().online.size(), 70U);
    EXPECT_EQ(stat.sends.size(), 70U);
    for (const ops_flow_send_t &flow : stat.sends)
        EXPECT_TRUE(flow.dst.app == PEER && flow.dst.node <= 70 && flow.send == 1) << flow.dst.node;
}

TEST_F(ops_stat, a_client_serves_no_version_and_an_application_may_have_any_name)
{
    static const char name[] = "a] information:\nb [";
    ASSERT_EQ(zeb_register_without_thread(101, name, NO_DISPATCHER, see_event), 0);
    EXPECT_THAT(parsed(answered(101)).versions, IsEmpty());
    EXPECT_EQ(ops_stat_missing(parsed(answered(101))), "lines of the statistics that are unknown: 1");
}

TEST_F(ops_stat, a_part_of_a_text_is_half_an_answer)
{
    fill();
    std::string text = answered();
    std::string half = text.substr(0, text.find("Application 100 overall"));
    EXPECT_EQ(ops_stat_missing(parsed(half)), "answered half: parts of the statistics are missing");
    for (size_t len = 0; len < text.size(); len++) // of whatever length
        (void)parsed(text.substr(0, len));
}

TEST_F(ops_stat, numbers_that_do_not_fit_and_lines_of_no_listing_are_counted)
{
    static const char *const odd[] = {
        "  total receive 4294967296, unack 0, exception 0\n",
        "  total receive -2147483649, unack 0, exception 0\n",
        "  total receive 1, unack 0, exception 0 \n",
        "  total receive , unack 0, exception 0\n",
        "    waiting for 1/2\n",                // without a call
        "*** PRINT BUFFER STRING OVERFLOW ***", // not alone at the beginning
        "\x1b[2J\n",
    };
    for (const char *line : odd) {
        ops_stat_t stat = parsed(std::string("\n") + line);
        EXPECT_EQ(stat.odd, 1U) << line;
        EXPECT_EQ(stat.recv, 0U) << line;
    }
    EXPECT_EQ(parsed("  total receive 4294967295, unack -5, exception 0\n").recv_unack, -5);
    EXPECT_EQ(parsed(std::string("\0\n\n", 3)).odd, 1U);
}

TEST_F(ops_stat, what_a_peer_wrote_cannot_control_a_terminal)
{
    EXPECT_EQ(ops_printable("a\033[2J\tb\x80\n"), "a?[2J?b?\n");
}
