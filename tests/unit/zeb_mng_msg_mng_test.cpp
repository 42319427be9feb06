// The management messages that the library sends of its own accord.
#include "lib_test.h"

#include "zeb_mng_msg_mng.h"

class zeb_mng_msg_mng : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
        peer_online();
    }
};

static int ack_512(uint32_t app, zeb_inst_t dst)
{
    return zeb_send_fc_ack(app, dst, 512);
}

TEST_F(zeb_mng_msg_mng, the_four_senders_write_one_element)
{
    const struct {
        int (*send)(uint32_t app, zeb_inst_t dst);
        const char *body;
        const char *line;
    } rows[] = {
        {ack_512, "0008000000000200", "0 ZEB app 100 send msg ack num 512 to 200/9."},
        {zeb_send_fc_ping, "00040006", "0 ZEB app 100 ping to 200/9."},
        {zeb_send_fc_ping_echo, "00040007", "0 ZEB app 100 ping echo to 200/9."},
        {zeb_send_fc_reload, "00040008", "0 ZEB app 100 try to reload 200/9."},
    };
    const zeb_inst_t peer = {PEER, PEER_NODE};
    for (const auto &row : rows) {
        EXPECT_EQ(logged(V, [&] { EXPECT_EQ(row.send(APP, peer), 0); })[0], row.line);
        wire::bytes_t bytes = fake_tipc::take_sent().at(0).bytes;
        EXPECT_EQ(wire::hex(bytes), "02000800000000" + std::string(strlen(row.body) == 8 ? "28" : "2c") +
                                        "00000007"
                                        "00000009"
                                        "00000064"
                                        "000000c8"
                                        "00000001"
                                        "00000000"
                                        "00000000" +
                                        row.body);
        fault::fail_next("sendto", EHOSTUNREACH);
        EXPECT_EQ(row.send(APP, peer), -1);
    }
}
