// Listings of the manager's state, compared whole.
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_mng.h"
#include "zeb_mng_online.h"
#include "zeb_mng_sync.h"

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
    uint32_t seq = sync_word(fake_tipc::take_sent().at(0).bytes, 0);
    zeb_try_resume_comm(PEER, 77);
    uint32_t resume = 0;
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        resume = list_entry(g_zeb_mng.resume_comm_list.next, zeb_resume_comm_t, list)->seq;
    }
    zeb_buf_printf_reset();
    zeb_cli_print_lib_info(APP);
    EXPECT_EQ(buffer_text(), "Application 100/7 process's ZEB library information:\n"
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
    zeb_buf_printf_reset();
    zeb_cli_print_app_info(APP);
    EXPECT_EQ(buffer_text(), "Application 100/7 [test] information:\n"
                             "  Proxy thread 0x0, socket " +
                                 std::to_string(info->sd) + ", priority 0\n" + pointers +
                                 "  Communication peer applications: 100 200\n"
                                 "  Unprocessed message number 0\n\n"
                                 "  Private application multicast number 0:\n"
                                 "  Private node multicast number 0:\n");
    zeb_buf_printf_reset();
    zeb_cli_print_app_info(999);
    EXPECT_EQ(buffer_text(), "");
}
