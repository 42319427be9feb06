// The fixture of the tests of flow control: what was sent and received, counted without a message, and a sender that is
// held back.
#ifndef TESTS_SUPPORT_FLOW_TEST_H
#define TESTS_SUPPORT_FLOW_TEST_H

#include <thread>

#include "by_number.h"
#include "lib_test.h"
#include "zeb_slot.h"

#include <zeb/zeb_diag.h>

class flow_test : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    static std::string text()
    {
        return listing(zeb_cli_print_fc_stat);
    }

    static void sent(int num, uint32_t node = PEER_NODE)
    {
        for (int i = 0; i < num; i++)
            zeb_fc_update_sent_ok(APP, {PEER, node});
    }

    static void received(int num, uint32_t node = PEER_NODE)
    {
        for (int i = 0; i < num; i++)
            zeb_fc_update_recv_ok(APP, {PEER, node});
    }

    static pthread_cond_t *cond()
    {
        return &zeb_get_app_fc(APP)->cond.impl;
    }

    // A sender that is held back, waiting when this returns.
    static std::thread blocked_sender()
    {
        int before = fault::waits(cond());
        std::thread sender([] { EXPECT_EQ(zeb_fc_check(APP, PEER, 0), 0); });
        wait_until([before] { return fault::waits(cond()) != before; });
        return sender;
    }

    static bool accepts()
    {
        return zeb_fc_check(APP, PEER, ZEB_SEND_NOWAIT) == 0;
    }
};

#endif
