#include "wire_test.h"

#include <sched.h>
#include <unistd.h>

using wire::operator+;
using wire::bytes_t;

constexpr uint32_t DAEMON = 1; // messages of application 1 are taken from anybody

// The kernel's ancillary items of a returned message, and the size of an event of the topology service.
constexpr int ERROR_INFO = 1;
constexpr int RETURNED_DATA = 2;
constexpr size_t EVENT_LEN = 48;

bytes_t native(const std::vector<uint32_t> &words)
{
    const uint8_t *bytes = (const uint8_t *)words.data();
    return bytes_t(bytes, bytes + 4 * words.size());
}

bytes_t tipc_name(int8_t scope, uint32_t type, uint32_t instance)
{
    const uint16_t family = 30;
    const uint8_t *bytes = (const uint8_t *)&family;
    bytes_t head(bytes, bytes + 2);
    head.push_back(2); // by name
    head.push_back((uint8_t)scope);
    return head + native({type, instance, 0});
}

bytes_t bytes_of(const struct sockaddr_tipc &addr)
{
    const uint8_t *bytes = (const uint8_t *)&addr;
    return bytes_t(bytes, bytes + sizeof(addr));
}

void wire_test::SetUp()
{
    lib_test::SetUp();
    write_node(std::to_string(MY_NODE) + "\n");
    pid_ = (uint32_t)getpid();
}

void wire_test::run(const std::vector<uint32_t> &versions)
{
    std::vector<zeb_msg_dispatcher_t> table;
    for (uint32_t version : versions)
        table.push_back({version, see_msg});
    table.push_back({0, nullptr});
    ASSERT_EQ(zeb_register_without_thread(MY_APP, "wire", table.data(), see_event), 0);
    ASSERT_EQ(zeb_comm_with(MY_APP, OTHER_APP), 0);
    zeb_run();
}

void wire_test::collect()
{
    seen_t seen = take_seen();
    events_.insert(events_.end(), seen.events.begin(), seen.events.end());
    for (const std::string &body : seen.bodies) {
        if (body == "mark " + std::to_string(marks_))
            mark_seen_ = true;
        else
            bodies_.push_back(body);
    }
}

// A mark behind what was fed: the thread reads the topology connection before the sockets, and each in order. Needs a
// dispatcher of version 1.
void wire_test::wait_handled()
{
    if (fake_tipc::topology_sd() != -1)
        fake_tipc::wait_read(fake_tipc::topology_sd());
    marks_++;
    std::string text = "mark " + std::to_string(marks_);
    wire::header_t header = from_other(0);
    header.src_app = DAEMON;
    fake_tipc::queue_data(sd(MY_APP), wire::message(header, bytes_t(text.begin(), text.end())));
    mark_seen_ = false;
    for (collect(); !mark_seen_; collect())
        (void)sched_yield();
}

void wire_test::feed(const bytes_t &datagram)
{
    fake_tipc::queue_data(sd(MY_APP), datagram);
    wait_handled();
}

void wire_test::feed_returned(uint32_t code, const bytes_t &datagram)
{
    fake_tipc::item_t item;
    item.anc.push_back({ERROR_INFO, native({code, (uint32_t)datagram.size()})});
    item.anc.push_back({RETURNED_DATA, datagram});
    fake_tipc::queue_item(sd(MY_APP), item);
    wait_handled();
}

void wire_test::feed_event(const bytes_t &event)
{
    ASSERT_EQ(event.size(), EVENT_LEN);
    fake_tipc::queue_data(fake_tipc::topology_sd(), event);
    wait_handled();
}

static bytes_t instance_event(uint32_t event, uint32_t app, uint32_t node)
{
    uint32_t instance = app << 16 | node;
    return native({event, instance, instance, 0x11223344, 0x01001001, wire::NAME_TYPE, app << 16, app << 16 | 0xFFFF,
                   0xFFFFFFFF, 2, 0, 0});
}

void wire_test::publish()
{
    feed_event(instance_event(1, OTHER_APP, OTHER_NODE));
}

void wire_test::withdraw()
{
    feed_event(instance_event(2, OTHER_APP, OTHER_NODE));
}

// The topology service reports a time-out with a copy of the subscription.
void wire_test::expire(const bytes_t &subscription)
{
    feed_event(native({3, 0, 0, 0, 0}) + subscription);
}

wire::header_t wire_test::from_other(uint8_t flag, uint8_t ver)
{
    wire::header_t header;
    header.ver = ver;
    header.flag = flag;
    header.src_app = OTHER_APP;
    header.src_node = OTHER_NODE;
    header.dst_app = MY_APP;
    header.dst_node = MY_NODE;
    return header;
}

std::vector<bytes_t> wire_test::take_datagrams()
{
    wait_handled();
    std::vector<bytes_t> datagrams;
    for (const fake_tipc::sent_t &sent : fake_tipc::take_sent()) {
        EXPECT_EQ(sent.sd, sd(MY_APP));
        EXPECT_EQ(wire::hex(bytes_of(sent.dst)),
                  wire::hex(tipc_name(2, wire::NAME_TYPE, OTHER_APP << 16 | OTHER_NODE)));
        datagrams.push_back(sent.bytes);
    }
    return datagrams;
}

std::vector<bytes_t> wire_test::take_subscriptions()
{
    wait_handled();
    return fake_tipc::take_subscriptions();
}

bytes_t timer_handle(const bytes_t &subscription)
{
    return bytes_t(subscription.begin() + wire::TIMER_SEQ_AT, subscription.end());
}

bool is_timer(const bytes_t &subscription, uint32_t type)
{
    bytes_t handle_type(subscription.begin() + wire::TIMER_TYPE_AT, subscription.begin() + wire::TIMER_SEQ_AT);
    bytes_t name_type(subscription.begin(), subscription.begin() + 4);
    return name_type == native({1}) && handle_type == native({type});
}

bytes_t wire_test::timer(const std::vector<bytes_t> &subscriptions, uint32_t type)
{
    std::vector<bytes_t> found;
    for (const bytes_t &subscription : subscriptions) {
        if (is_timer(subscription, type))
            found.push_back(subscription);
    }
    EXPECT_EQ(found.size(), 1u) << "timers of type " << type;
    return found.empty() ? bytes_t(wire::SUBSCRIPTION_LEN, 0) : found[0];
}
