// Listings of the manager's state, compared whole.
#include "handshake_core.h"
#include "lib_test.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_slot.h"

class zeb_mng_print : public lib_test
{
};

static std::string hex(unsigned value)
{
    char text[16];
    (void)snprintf(text, sizeof(text), "0x%x", value);
    return text;
}

TEST_F(zeb_mng_print, the_library_listing_is_this_text)
{
    start_app();
    peer_online(9);
    peer_online(70, false);
    peer_published(5);
    uint32_t seq = take_sync_seq();
    zeb_try_resume_comm(PEER, 77);
    uint32_t resume = 0;
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        resume = list_entry(g_zeb_handshake.resume_comm_list.next, zeb_resume_comm_t, list)->seq;
    }
    EXPECT_EQ(listing(zeb_cli_print_lib_info), "Application 100/7 process's ZEB library information:\n"
                                               "  ZEB library thread " +
                                                   hex((unsigned)g_zeb_mng.lib_tid) + ", subscription socket " +
                                                   std::to_string(g_zeb_mng.subscr_sd) +
                                                   "\n"
                                                   "  Applications in this process: 100\n"
                                                   "  Online application servers:\n"
                                                   "    Application 100 server on nodes:\n"
                                                   "    Application 200 server on nodes: 9\n"
                                                   "  Online application subscribers:\n"
                                                   "    Application 100 subscribed by applications: 100\n"
                                                   "    Application 200 subscribed by applications: 100\n"
                                                   "  Online application instances:\n"
                                                   "    Application 100 instance on nodes:\n"
                                                   "    Application 200 instance on nodes: 9 70\n"
                                                   "  Online application instances acked:\n"
                                                   "    Application 100 instance acked on nodes:\n"
                                                   "    Application 200 instance acked on nodes: 9 70\n"
                                                   "  Online application instances online:\n"
                                                   "    Application 100 instance online on nodes:\n"
                                                   "    Application 200 instance online on nodes: 9 70\n"
                                                   "  Unack instance sync(src_app/seq->dst_app/dst_node):\n"
                                                   "    100/" +
                                                   std::to_string((int)seq) +
                                                   "->200/5\n"
                                                   "  Communication resume info(src_app/seq->dst_app/dst_node):\n"
                                                   "    0/" +
                                                   std::to_string((int)resume) + "->200/77\n");
}

TEST_F(zeb_mng_print, the_application_listing_is_this_text)
{
    start_app(APP, {2});
    zeb_app_info_t *info = zeb_get_app_info(APP);
    char pointers[128];
    (void)snprintf(pointers, sizeof(pointers),
                   "  Callback functions: event %p, message dispatchers:\n    version 2 %p\n", (void *)info->event_fun,
                   (void *)info->dispatcher[0].fun);
    EXPECT_EQ(listing(zeb_cli_print_app_info), "Application 100/7 [test] information:\n"
                                               "  Proxy thread 0x0, socket " +
                                                   std::to_string(info->sd) + ", priority 0\n" + pointers +
                                                   "  Communication peer applications: 100 200\n"
                                                   "  Unprocessed message number 0\n\n"
                                                   "  Private application multicast number 0:\n"
                                                   "  Private node multicast number 0:\n");
    EXPECT_EQ(listing(zeb_cli_print_app_info, 999), "");
}

TEST_F(zeb_mng_print, the_listing_of_an_idle_library_has_no_lists)
{
    start_app();
    start_app(101);
    EXPECT_EQ(listing(zeb_cli_print_lib_info, 101), "Application 101/7 process's ZEB library information:\n"
                                                    "  ZEB library thread " +
                                                        hex((unsigned)g_zeb_mng.lib_tid) + ", subscription socket " +
                                                        std::to_string(g_zeb_mng.subscr_sd) +
                                                        "\n"
                                                        "  Applications in this process: 100 101\n"
                                                        "  Online application servers:\n"
                                                        "    Application 100 server on nodes:\n"
                                                        "    Application 200 server on nodes:\n"
                                                        "    Application 101 server on nodes:\n"
                                                        "  Online application subscribers:\n"
                                                        "    Application 100 subscribed by applications: 100\n"
                                                        "    Application 200 subscribed by applications: 100 101\n"
                                                        "    Application 101 subscribed by applications: 101\n"
                                                        "  Online application instances:\n"
                                                        "    Application 100 instance on nodes:\n"
                                                        "    Application 200 instance on nodes:\n"
                                                        "    Application 101 instance on nodes:\n"
                                                        "  Online application instances acked:\n"
                                                        "    Application 100 instance acked on nodes:\n"
                                                        "    Application 200 instance acked on nodes:\n"
                                                        "    Application 101 instance acked on nodes:\n"
                                                        "  Online application instances online:\n"
                                                        "    Application 100 instance online on nodes:\n"
                                                        "    Application 200 instance online on nodes:\n"
                                                        "    Application 101 instance online on nodes:\n");
}

TEST_F(zeb_mng_print, each_list_that_is_not_empty_has_its_section)
{
    start_app();
    peer_published(5);
    peer_published(6);
    auto sent = fake_tipc::take_sent();
    std::string first = std::to_string((int)sync_word(sent.at(0).bytes, wire::SEQ));
    std::string second = std::to_string((int)sync_word(sent.at(1).bytes, wire::SEQ));
    // An acknowledgement that comes back.
    receive_item(returned_item(wire::message(to_peer(wire::SYNC), wire::sync_ack(4711, 6, 1, 3))));

    std::string text = listing(zeb_cli_print_lib_info);
    EXPECT_EQ(text.substr(text.find("  Unack")), "  Unack instance sync(src_app/seq->dst_app/dst_node):\n"
                                                 "    100/" +
                                                     first + "->200/5 100/" + second +
                                                     "->200/6\n"
                                                     "  Resend instance sync ack(src_app->dst_app/dst_node/seq):\n"
                                                     "    100->200/9/4711\n");
}

TEST_F(zeb_mng_print, the_peers_of_an_application_are_those_it_talks_to)
{
    start_app();
    start_app(101);
    ASSERT_EQ(zeb_comm_with(101, 300), 0);
    const std::pair<uint32_t, const char *> rows[] = {{APP, " 100 200"}, {101, " 200 101 300"}, {999, ""}};
    for (const auto &row : rows) {
        EXPECT_EQ(listing(zeb_cli_print_app_comm, row.first),
                  std::string("  Communication peer applications:") + row.second + "\n");
    }
}

TEST_F(zeb_mng_print, before_any_registration_the_listings_are_empty)
{
    EXPECT_EQ(listing(zeb_cli_print_app_comm), "  Communication peer applications:\n");
    EXPECT_THAT(listing(zeb_cli_print_lib_info),
                testing::HasSubstr("  Applications in this process:\n  Online application servers:\n"
                                   "  Online application subscribers:\n"));
}
