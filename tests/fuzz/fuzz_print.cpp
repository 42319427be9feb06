// The print buffer, log lines to standard output and to a file, the dumps and the texts of codes.
#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz_world.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"
#include "zeb_error.h"

static void require(bool holds)
{
    if (!holds)
        abort();
}

static void check_buffer()
{
    uint32_t len = zeb_msg_data_len(g_print_msg);
    require(len >= 1 && offsetof(zeb_msg_t, data) + len <= ZEB_PRINT_BUF_LEN);
    const char *text = (const char *)g_print_msg->data;
    require(text[len - 1] == '\0');
    // A text that did not fit ends with the line that says so.
    require(strlen(text) == len - 1 || strcmp(text, "*** PRINT BUFFER STRING OVERFLOW ***\n") == 0);
}

static void print_piece(FuzzedDataProvider *input)
{
    std::string text = input->ConsumeRandomLengthString(400);
    switch (input->ConsumeIntegralInRange(0, 4)) {
    case 0:
        zeb_buf_printf("%s", text.c_str());
        break;
    case 1:
        for (int i = input->ConsumeIntegralInRange(0, 80); i > 0; i--)
            zeb_buf_printf("%s %d 0x%x\n", text.c_str(), i, (unsigned)text.size());
        break;
    case 2:
        zeb_buf_printf("%*d%%", (int)text.size(), 5);
        break;
    case 3:
        zeb_buf_printf_reset();
        break;
    default:
        zeb_buf_printf("%.*s", (int)text.size(), text.data());
    }
    check_buffer();
}

static void log_piece(FuzzedDataProvider *input)
{
    std::string text = input->ConsumeRandomLengthString(400);
    auto level = (zeb_dbg_level_t)input->ConsumeIntegralInRange(0, 3);
    zeb_log_line(level, "file.cpp", input->ConsumeIntegral<int>(), "%s %d", text.c_str(), 7);
    zeb_dbg_print_line(text.c_str());
    zeb_dump_msg_raw(text.data(), (int)text.size());
}

static void name_codes(FuzzedDataProvider *input)
{
    char flags[ZEB_MSG_FLAGS_LEN];
    char status[ZEB_DBG_STATUS_LEN];
    int code = input->ConsumeIntegral<int>();
    require(strlen(zeb_get_msg_flags_str((uint8_t)code, flags)) < sizeof(flags));
    require(strlen(zeb_get_dbg_status_str((uint32_t)code, status)) < sizeof(status));
    require(zeb_tipc_err_string((uint32_t)code) != nullptr && zeb_reply_stat_string(code) != nullptr);
    require(zeb_strerror(code)[0] != '\0');
    require(zeb_msg_type_string(code) != nullptr && zeb_event_type_string(code) != nullptr);
    zeb_dbg_update_level((code & 1) != 0, code >> 1);
    zeb_msg_t msg;
    memset(&msg, code, sizeof(msg));
    zeb_dump_msg_hdr_info(&msg);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    world::start();
    static char s_log[4096];
    if (g_zeb_log_fp == nullptr)
        g_zeb_log_fp = fmemopen(s_log, sizeof(s_log), "w+");
    FuzzedDataProvider input(data, size);
    zeb_store_relaxed(&g_zeb_dbg_level, (uint32_t)input.ConsumeIntegralInRange(0, 15));
    zeb_store_relaxed(&g_zeb_log_level, (uint32_t)input.ConsumeIntegralInRange(0, 15));
    zeb_set_log_size(1 + (size_t)input.ConsumeIntegralInRange(0, 3000));
    zeb_buf_printf_reset();
    for (int steps = 0; input.remaining_bytes() > 0 && steps < 40; steps++) {
        switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0:
        case 1:
            print_piece(&input);
            break;
        case 2:
            log_piece(&input);
            break;
        default:
            name_codes(&input);
        }
    }
    zeb_store_relaxed(&g_zeb_dbg_level, 0u);
    zeb_store_relaxed(&g_zeb_log_level, 0u);
    return 0;
}
