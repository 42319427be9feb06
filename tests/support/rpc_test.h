// The fixture of the tests of calls: one request, one reply buffer, and the answers to it.
#ifndef TESTS_SUPPORT_RPC_TEST_H
#define TESTS_SUPPORT_RPC_TEST_H

#include "internals.h"
#include "lib_test.h"
#include "zeb_rpc.h"

#include <zeb/zeb_diag.h>

class rpc_test : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    ~rpc_test() override
    {
        free(msg_);
        zeb_reply_msg_free(&reply_);
    }

    // An answer as it arrives.
    void answer(uint32_t node, uint32_t seq, uint32_t stat = 0, const wire::bytes_t &body = {})
    {
        wire::header_t header = from_peer(wire::REQUEST | wire::ACK, node);
        header.seq = seq;
        header.stat = stat;
        receive(wire::message(header, body));
    }

    // What the callers wait on.
    static const pthread_cond_t *cond()
    {
        return internals::answer_cond(APP);
    }

    static std::string fc_text()
    {
        return listing(zeb_cli_print_fc_stat);
    }

    static std::string rpc_text()
    {
        return listing(zeb_cli_print_rpc_stat);
    }

    lines_t outcomes() const
    {
        return outcomes(reply_);
    }

    static lines_t outcomes(const zeb_reply_msg_t &reply)
    {
        lines_t out;
        for (int i = 0; i < reply.num; i++) {
            const zeb_msg_hdr_t &hdr = reply.msg[i]->hdr;
            out.push_back(std::to_string(hdr.src_app) + "/" + std::to_string(hdr.src_node) + " " +
                          std::to_string(hdr.rpc_stat));
        }
        return out;
    }

    // A request to APP, which the test releases.
    static zeb_msg_t *new_request(uint8_t flag = ZEB_MSG_FLAG_REQUEST)
    {
        zeb_msg_t *request = zeb_msg_alloc(0, 3, 0);
        zeb_encode_msg_hdr(request, flag, PEER, PEER_NODE, APP, NODE, 1234, 0);
        return request;
    }

    zeb_msg_t *msg_ = zeb_msg_alloc(4, 3, 0);
    zeb_reply_msg_t reply_ = {};
};

#endif
