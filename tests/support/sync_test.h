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

    // The sequence of the one SYNC_INST that was sent since the last look.
    static uint32_t sent_seq()
    {
        auto sent = fake_tipc::take_sent();
        for (const fake_tipc::sent_t &message : sent) {
            if (wire::get16(message.bytes, 38) == 1)
                return sync_word(message.bytes, 0);
        }
        return 0;
    }

    void ack(uint32_t seq, uint32_t pseq, uint32_t id = PEER_PID, uint32_t server = 1)
    {
        receive(wire::message(from_peer(wire::SYNC), wire::operator+(wire::sync_ack(seq, id, server),
                                                                     wire::sync_seq_ack(seq, id, server, pseq))));
    }

    // pseq of the last acknowledgement that was sent; -1 when there is none.
    static int64_t sent_pseq()
    {
        int64_t pseq = -1;
        for (const fake_tipc::sent_t &message : fake_tipc::take_sent()) {
            if (message.bytes.size() == 88)
                pseq = wire::get32(message.bytes, 36 + 24 + 4 + 20);
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

// Started timers by type, each with its sequence and milliseconds.
typedef struct started_s {
    uint32_t type;
    uint32_t seq;
    uint32_t ms;
} started_t;

static inline std::vector<started_t> take_timers()
{
    std::vector<started_t> timers;
    for (const wire::bytes_t &bytes : fake_tipc::take_subscriptions()) {
        started_t timer;
        memcpy(&timer.ms, bytes.data() + 12, 4);
        memcpy(&timer.type, bytes.data() + 20, 4);
        memcpy(&timer.seq, bytes.data() + 24, 4);
        timers.push_back(timer);
    }
    return timers;
}

#endif
