// The fixture of the handshake's tests by message: what a started application sends for each of a peer's.
#ifndef TESTS_SUPPORT_SYNC_TEST_H
#define TESTS_SUPPORT_SYNC_TEST_H

#include "handshake_core.h"
#include "lib_test.h"
#include "platform/list_algo.h"

class sync_test : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        (void)fake_tipc::take_sent();
        (void)fake_tipc::take_subscriptions();
    }

    // pseq of the last acknowledgement that was sent; -1 when there is none.
    static int64_t sent_pseq()
    {
        int64_t pseq = -1;
        for (const fake_tipc::sent_t &message : fake_tipc::take_sent()) {
            if (message.bytes.size() == wire::BOTH_ACKS_LEN)
                pseq = wire::get32(message.bytes, wire::PSEQ_AT);
        }
        return pseq;
    }
};

// The entries to be retried, as "src->dst/node".
static inline lines_t retries()
{
    lines_t out;
    zeb_scoped_lock lock(&g_lib_mutex);
    list_each<zeb_retry_inst_t>(&g_zeb_handshake.inst_retry.list, [&](const zeb_retry_inst_t *retry) {
        out.push_back(std::to_string(retry->src_app) + "->" + std::to_string(retry->dst.app) + "/" +
                      std::to_string(retry->dst.node));
    });
    return out;
}

#endif
