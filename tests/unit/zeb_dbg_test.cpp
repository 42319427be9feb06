// Masks, the logging rule, the debug print, the texts of codes, the dumps and the print buffer.
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_mng_msg.h"

#include <fcntl.h>
#include <unistd.h>

class zeb_dbg : public lib_test
{
};

static std::string printed(const char *text)
{
    testing::internal::CaptureStdout();
    zeb_dbg_print_line(text);
    (void)fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST_F(zeb_dbg, with_both_masks_0_nothing_is_formatted)
{
    int evaluated = 0;
    lines_t lines = logged(0, [&] { ZEB_ERROR("ZEB %d\n", ++evaluated); });
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(evaluated, 0);
}

TEST_F(zeb_dbg, a_line_is_printed_only_when_its_level_is_in_the_mask)
{
    auto all = [] {
        ZEB_VERBOSE("ZEB v\n");
        ZEB_INFO("ZEB i\n");
        ZEB_WARN("ZEB w\n");
        ZEB_ERROR("ZEB e\n");
    };
    EXPECT_EQ(logged(V, all), lines_t({"0 ZEB v"}));
    EXPECT_EQ(logged(I, all), lines_t({"1 ZEB i"}));
    EXPECT_EQ(logged(W | E, all), lines_t({"2 ZEB w", "3 ZEB e"}));
    EXPECT_EQ(logged(15, all), lines_t({"0 ZEB v", "1 ZEB i", "2 ZEB w", "3 ZEB e"}));
}

TEST_F(zeb_dbg, a_line_starts_with_file_line_and_level)
{
    g_zeb_dbg_level = 8;
    testing::internal::CaptureStdout();
    ZEB_ERROR("ZEB text.\n");
    (void)fflush(stdout);
    std::string expected = "<zeb_dbg_test.cpp, " + std::to_string(__LINE__ - 2) + "> 3: ZEB text.\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_dbg, a_line_is_cut_at_255_characters)
{
    std::string text(400, 'x');
    g_zeb_dbg_level = 8;
    testing::internal::CaptureStdout();
    ZEB_ERROR("ZEB %s\n", text.c_str());
    (void)fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout().size(), 255u);
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_dbg, a_doubled_percent_sign_prints_as_one_and_other_conversions_as_they_stand)
{
    EXPECT_EQ(printed("100%% sure\n"), "100% sure\n");
    EXPECT_EQ(printed("%s %d %n %5$x %%%% %"), "%s %d %n %5$x %% %");
    EXPECT_EQ(printed("%%s"), "%s");
}

TEST_F(zeb_dbg, a_percent_sign_in_an_argument_is_harmless)
{
    EXPECT_EQ(logged(E, [] { ZEB_ERROR("ZEB name [%s]\n", "%s%s%n 50%% off"); }),
              lines_t({"3 ZEB name [%s%s%n 50% off]"}));
}

TEST_F(zeb_dbg, logging_keeps_errno)
{
    (void)logged(E, [] {
        errno = ENOBUFS;
        ZEB_ERROR("ZEB x\n");
        EXPECT_EQ(errno, ENOBUFS);
    });
}

// Standard output that fails, to the end of the scope.
struct full_output_t {
    int kept = dup(1);

    full_output_t()
    {
        (void)fflush(stdout);
        (void)setvbuf(stdout, nullptr, _IONBF, 0);
        int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        (void)dup2(full, 1);
        (void)close(full);
    }
    ~full_output_t()
    {
        (void)dup2(kept, 1);
        (void)close(kept);
        clearerr(stdout);
    }
    full_output_t(const full_output_t &) = delete;
    full_output_t &operator=(const full_output_t &) = delete;
};

TEST_F(zeb_dbg, a_line_that_cannot_be_printed_keeps_errno)
{
    g_zeb_dbg_level = 15;
    int after[4] = {};
    {
        full_output_t full;
        errno = 0;
        EXPECT_LT(printf("x"), 0);
        EXPECT_EQ(errno, ENOSPC) << "a write does change it";
        errno = EHOSTUNREACH;
        ZEB_VERBOSE("ZEB x\n");
        after[0] = errno;
        ZEB_INFO("ZEB x\n");
        after[1] = errno;
        ZEB_WARN("ZEB x\n");
        after[2] = errno;
        ZEB_ERROR("ZEB x\n");
        after[3] = errno;
    }
    g_zeb_dbg_level = 0;
    EXPECT_THAT(after, testing::Each(EHOSTUNREACH));
}

TEST_F(zeb_dbg, a_line_that_cannot_be_recorded_keeps_errno)
{
    write_conf("[MISC_CONF]\nzeb_log_cfg=15\nzeb_log_size=1\n");
    ASSERT_EQ(setenv("VELK_DIR", dir().c_str(), 1), 0);
    ASSERT_EQ(zeb_cfg_init(), 0);
    ASSERT_NE(g_zeb_log_fp, nullptr);
    ZEB_ERROR("ZEB the next one wraps\n");
    int wraps = fault::count("fseek");
    fault::fail_next("fseek", EIO);
    errno = EHOSTUNREACH;
    ZEB_ERROR("ZEB x\n");
    int after = errno;
    EXPECT_EQ(fault::count("fseek"), wraps + 1);
    EXPECT_EQ(after, EHOSTUNREACH);
    zeb_dm_close_files();
}

TEST_F(zeb_dbg, the_lowest_level_is_switched_like_the_others)
{
    testing::internal::CaptureStdout();
    zeb_dbg_update_level(true, 0);
    EXPECT_EQ(g_zeb_dbg_level, 1u);
    EXPECT_TRUE(zeb_dbg_verbose_on());
    zeb_dbg_update_level(true, 3);
    zeb_dbg_update_level(false, 0);
    EXPECT_EQ(g_zeb_dbg_level, 8u);
    EXPECT_FALSE(zeb_dbg_verbose_on());
    g_zeb_dbg_level = 0;
    (void)testing::internal::GetCapturedStdout();
}

TEST_F(zeb_dbg, the_debug_switch_sets_and_clears_levels)
{
    g_zeb_dbg_level = 8;
    zeb_dbg_update_level(true, 2);
    EXPECT_EQ(g_zeb_dbg_level, 0xCu);
    EXPECT_TRUE(zeb_dbg_warn_on() && zeb_dbg_error_on());
    EXPECT_FALSE(zeb_dbg_verbose_on() || zeb_dbg_info_on());
    zeb_dbg_update_level(true, 7);
    zeb_dbg_update_level(true, -1);
    EXPECT_EQ(g_zeb_dbg_level, 0xCu);
    zeb_dbg_update_level(false, 3);
    EXPECT_EQ(g_zeb_dbg_level, 0x4u);
    testing::internal::CaptureStdout();
    zeb_dbg_update_level(true, 4);
    (void)testing::internal::GetCapturedStdout();
    EXPECT_EQ(g_zeb_dbg_level, 15u);
    zeb_dbg_update_level(false, 4);
    EXPECT_EQ(g_zeb_dbg_level, 0u);
}

TEST_F(zeb_dbg, switching_verbose_on_reports_the_status)
{
    EXPECT_EQ(logged(V | E, [] { zeb_dbg_update_level(true, 1); }),
              lines_t({"0 ZEB process " + std::to_string(getpid()) + " current debug status: verbose info error."}));
}

TEST_F(zeb_dbg, the_status_text_names_the_levels)
{
    char buf[ZEB_DBG_STATUS_LEN];
    EXPECT_STREQ(zeb_get_dbg_status_str(0, buf), "none");
    g_zeb_dbg_level = 15;
    EXPECT_STREQ(zeb_get_dbg_status_str(15, buf), "verbose info warn error");
    g_zeb_dbg_level = 10;
    EXPECT_STREQ(zeb_get_dbg_status_str(1, buf), "info error") << "the names are those of the current mask";
    g_zeb_dbg_level = 0;
}

TEST_F(zeb_dbg, the_flag_text_names_the_bits)
{
    char buf[ZEB_MSG_FLAGS_LEN];
    EXPECT_STREQ(zeb_get_msg_flags_str(0, buf), "none");
    EXPECT_STREQ(zeb_get_msg_flags_str(0x06, buf), "REQUEST ACK");
    EXPECT_STREQ(zeb_get_msg_flags_str(0x0F, buf), "SYNC REQUEST ACK ZEB_MNG");
    EXPECT_STREQ(zeb_get_msg_flags_str(0xF8, buf), "ZEB_MNG");
}

TEST_F(zeb_dbg, codes_have_texts)
{
    EXPECT_STREQ(zeb_tipc_err_string(1), "TIPC no name");
    EXPECT_STREQ(zeb_tipc_err_string(2), "TIPC no port");
    EXPECT_STREQ(zeb_tipc_err_string(3), "TIPC no node");
    EXPECT_STREQ(zeb_tipc_err_string(4), "TIPC overload");
    EXPECT_STREQ(zeb_tipc_err_string(0), "TIPC unknown");
    EXPECT_STREQ(zeb_tipc_err_string(5), "TIPC unknown");
    const char *stats[] = {"RPC success",
                           "ZEB version mismatch",
                           "application service unavailable",
                           "application service version mismatch",
                           "systerm error",
                           "RPC timeout"};
    for (int i = 0; i < 6; i++)
        EXPECT_STREQ(zeb_reply_stat_string(i), stats[i]);
    EXPECT_STREQ(zeb_reply_stat_string(6), "");
    EXPECT_STREQ(zeb_reply_stat_string(-1), "");
    const char *types[] = {"processed message num ack", "sync instance",           "sync instance ack",
                           "debug switch command",      "application information", "application statistics",
                           "application ping",          "application ping echo",   "reload application",
                           "sync instance seq ack"};
    for (int i = 0; i < 10; i++)
        EXPECT_STREQ(zeb_msg_type_string(i), types[i]);
    EXPECT_STREQ(zeb_msg_type_string(10), "");
    EXPECT_STREQ(zeb_msg_type_string(-1), "");
    EXPECT_STREQ(zeb_event_type_string(ZEB_APP_JOIN), "application join");
    EXPECT_STREQ(zeb_event_type_string(ZEB_APP_QUIT), "application quit");
    EXPECT_STREQ(zeb_event_type_string(2), "");
}

TEST_F(zeb_dbg, the_header_dump_prints_every_field)
{
    zeb_msg_t *msg = zeb_msg_alloc(4, 3, 0);
    zeb_encode_msg_hdr(msg, 0x06, 100, 1, 200, 2, 77, ZEB_TIMEOUT);
    msg->hdr.qos = 5;
    EXPECT_EQ(logged(V, [&] { zeb_dump_msg_hdr_info(msg); }),
              lines_t({"===== ZEB message header information =====", "ZEB version 2, flag: REQUEST ACK, qos 5",
                       "message length 40, app version 3", "src app/node 100/1, dst app/node 200/2",
                       "seq 77, RPC status RPC timeout", "=========================================="}));
    EXPECT_TRUE(logged(E, [&] { zeb_dump_msg_hdr_info(msg); }).empty());
    free(msg);
}

TEST_F(zeb_dbg, the_raw_dump_takes_bytes_as_signed)
{
    uint8_t bytes[18] = {0x01, 0x9c};
    EXPECT_EQ(logged(E, [&] { zeb_dump_msg_raw(bytes, 18); }),
              lines_t({"=== ZEB message raw data len 18 ===", " 01 ffffff9c 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
                       " 00 00"}));
    EXPECT_EQ(logged(E, [&] { zeb_dump_msg_raw(bytes + 2, 16); }),
              lines_t({"=== ZEB message raw data len 16 ===", " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00", ""}));
    EXPECT_TRUE(logged(V, [&] { zeb_dump_msg_raw(bytes, 18); }).empty());
}

TEST_F(zeb_dbg, the_raw_dump_is_cut_after_256_bytes_and_says_so)
{
    std::vector<uint8_t> bytes(257, 1);
    std::string row;
    for (int i = 0; i < 16; i++)
        row += " 01";
    lines_t whole({"=== ZEB message raw data len 256 ==="});
    whole.insert(whole.end(), 16, row);
    whole.emplace_back("");
    EXPECT_EQ(logged(E, [&] { zeb_dump_msg_raw(bytes.data(), 256); }), whole);
    lines_t cut = whole;
    cut[0] = "=== ZEB message raw data len 257 ===";
    cut.emplace_back("=== cut after 256 bytes ===");
    EXPECT_EQ(logged(E, [&] { zeb_dump_msg_raw(bytes.data(), 257); }), cut);
}

TEST_F(zeb_dbg, the_print_buffer_is_a_message_of_its_text)
{
    zeb_buf_printf_reset();
    EXPECT_EQ(g_print_msg->hdr.len, 37u);
    EXPECT_EQ(buffer_text(), "");
    zeb_buf_printf("a %d", 1);
    zeb_buf_printf("b\n");
    EXPECT_EQ(buffer_text(), "a 1b\n");
    EXPECT_EQ(g_print_msg->hdr.len, 42u);
    zeb_buf_printf_reset();
    EXPECT_EQ(buffer_text(), "");
}

TEST_F(zeb_dbg, two_hundred_pieces_of_100_characters_stop_at_16368_with_the_overflow_line)
{
    std::string piece(100, 'x');
    zeb_buf_printf_reset();
    for (int i = 0; i < 200; i++)
        zeb_buf_printf("%s", piece.c_str());
    EXPECT_EQ(g_print_msg->hdr.len, 16368u);
    EXPECT_EQ(buffer_text(), "*** PRINT BUFFER STRING OVERFLOW ***\n");
    zeb_buf_printf("more");
    EXPECT_EQ(g_print_msg->hdr.len, 16368u);
    EXPECT_EQ(g_print_msg->data[16368 - wire::HEADER_LEN - 1], 0);
    EXPECT_EQ(g_print_msg->data[16368 - wire::HEADER_LEN - 2], 'x');
}

TEST_F(zeb_dbg, the_piece_that_overflows_is_cut_to_the_room)
{
    std::string piece(254, 'x');
    zeb_buf_printf_reset();
    while (g_print_msg->hdr.len + 254 <= 16368)
        zeb_buf_printf("%s", piece.c_str());
    uint32_t room = 16368 - g_print_msg->hdr.len;
    ASSERT_GT(room, 1u);
    piece.assign(room, 'y');
    zeb_buf_printf("%s", piece.c_str());
    EXPECT_EQ(g_print_msg->hdr.len, 16368u);
    EXPECT_EQ(buffer_text().size(), 16331u) << "a piece that just fits is no overflow";
    zeb_buf_printf("%s", "");
    EXPECT_EQ(buffer_text()[0], 'x');
    zeb_buf_printf("z");
    EXPECT_EQ(buffer_text(), "*** PRINT BUFFER STRING OVERFLOW ***\n");
    EXPECT_EQ(g_print_msg->data[16330], 'y') << "the end stays";
}

TEST_F(zeb_dbg, a_piece_is_cut_at_255_characters)
{
    std::string piece(300, 'y');
    zeb_buf_printf_reset();
    zeb_buf_printf("%s", piece.c_str());
    EXPECT_EQ(buffer_text().size(), 255u);
}
