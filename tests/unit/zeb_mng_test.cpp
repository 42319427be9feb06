// The library's start, and the parts of an application that it makes.
#include "lib_test.h"

#include "zeb_mng.h"
#include "zeb_slot.h"
#include "zeb_tipc.h"

class zeb_mng : public lib_test
{
};

TEST_F(zeb_mng, a_first_registration_starts_the_library)
{
    ASSERT_EQ(zeb_cfg_init(), 0); // the first registration would set the masks
    lines_t lines = logged(I | W | E, [] { EXPECT_EQ(add_app(APP), 0); });
    EXPECT_EQ(lines, lines_t({"1 ZEB init lib on first app registeration.", "1 ZEB add new app 100 mgmt.",
                              "3 ZEB open config file /etc/zeb.conf failed: No such file or directory.",
                              "1 ZEB app 100 add comm with 100.", "1 ZEB app 100 add comm with 100 OK.",
                              "1 ZEB registeration for app 100 [test] OK."}));
    auto topology = fake_tipc::sockets()[fake_tipc::topology_sd()];
    ASSERT_EQ(topology.bound.size(), 1u);
    EXPECT_EQ(topology.bound[0].addr.name.name.type, 1u);
    EXPECT_EQ(topology.bound[0].addr.name.name.instance, 1u);
    EXPECT_EQ(topology.bound[0].addrtype, 2);
    EXPECT_EQ(topology.bound[0].scope, 0);
}

TEST_F(zeb_mng, registering_twice_yields_eexist_and_changes_nothing)
{
    ASSERT_EQ(add_app(APP), 0);
    int before = sd();
    EXPECT_EQ(logged(I | W | E, [] { EXPECT_EQ(add_app(APP), -EEXIST); }),
              lines_t({"3 ZEB app 100 has already registered.",
                       "1 ZEB registeration for app 100 [test] failed: File exists."}));
    EXPECT_EQ(sd(), before);
    EXPECT_EQ(zeb_get_app_mng(APP), &g_zeb_mng.app[0]);
    EXPECT_EQ(g_zeb_mng.app[1].app_id, 0u);
}

TEST_F(zeb_mng, only_31_applications_fit)
{
    for (uint32_t i = 0; i < 31; i++)
        ASSERT_EQ(add_app(1000 + i), 0) << i;
    EXPECT_EQ(logged(W, [] { EXPECT_EQ(add_app(2000), -ENOBUFS); }), lines_t({"2 ZEB lib's app registeration full."}));
    EXPECT_EQ(zeb_get_app_mng(2000), nullptr);
    EXPECT_EQ(g_zeb_mng.app[31].app_id, 0u);
}

TEST_F(zeb_mng, registering_after_run_is_refused)
{
    ASSERT_EQ(add_app(APP), 0);
    EXPECT_EQ(zeb_app_ready(5), 0);
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(add_app(101), -1); }),
              lines_t({"3 ZEB had already running, and app 101 can not be registered."}));
    zeb_run();
}

// Each step of the library's start fails in turn.
struct start_fault_t {
    const char *call;
    int err;
    int skip;
    int result;
    const char *line;
};

static void PrintTo(const start_fault_t &param, std::ostream *out)
{
    *out << param.call << " " << param.skip;
}

class zeb_mng_start : public lib_test, public testing::WithParamInterface<start_fault_t>
{
};

TEST_P(zeb_mng_start, is_undone_and_can_be_tried_again)
{
    ASSERT_EQ(zeb_cfg_init(), 0); // the first registration would set the masks
    const start_fault_t &param = GetParam();
    fault::fail_next(param.call, param.err, 1, param.skip);
    lines_t lines = logged(E, [&] { EXPECT_EQ(add_app(APP), param.result); });
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::string("3 ") + param.line);
    EXPECT_EQ(lines.back(), "3 ZEB init lib failed.");
    EXPECT_TRUE(fake_tipc::sockets().empty());
    EXPECT_EQ(add_app(APP), 0);
}

INSTANTIATE_TEST_SUITE_P(
    step, zeb_mng_start,
    testing::Values(
        start_fault_t{"pthread_condattr_init", ENOMEM, 0, -1,
                      "ZEB init running condition attribute failed: Cannot allocate memory."},
        start_fault_t{"pthread_condattr_setclock", EINVAL, 0, -1,
                      "ZEB set running condition clock attribute failed: Invalid argument."},
        start_fault_t{"pthread_cond_init", EAGAIN, 0, -1,
                      "ZEB init running condition failed: Resource temporarily unavailable."},
        start_fault_t{"socket", EAFNOSUPPORT, 0, -1,
                      "ZEB create subscription socket descriptor failed: Address family not supported by protocol."},
        start_fault_t{"connect", ECONNREFUSED, 0, -1,
                      "ZEB connect to TIPC topology server failed: Connection refused."},
        start_fault_t{"pthread_create", EAGAIN, 0, -EAGAIN,
                      "ZEB create socket msg distribute thread failed: Resource temporarily unavailable."},
        start_fault_t{"atexit", 1, 0, -1, "ZEB add exit callback failed."},
        start_fault_t{"pthread_atfork", ENOMEM, 0, -1, "ZEB add fork callback failed: Cannot allocate memory."}));

// Calls of `call` in `num` starts that `failing` lets fail.
static int calls_in_failed_starts(const std::string &call, const std::string &failing, int num)
{
    constexpr int round = 1000; // after which the record of the calls is forgotten
    int calls = 0;
    for (int i = 0; i < num; i++) {
        if (i % round == 0)
            fault::fail_next(failing, ENOMEM, round);
        EXPECT_LT(add_app(APP), 0);
        if (i % round != round - 1)
            continue;
        calls += fault::count(call) - (call == failing ? fault::failed(call) : 0);
        EXPECT_EQ(fault::failed(failing), round);
        fault::reset();
    }
    return calls;
}

TEST_F(zeb_mng, starts_that_fail_leave_no_handler_behind)
{
    EXPECT_EQ(calls_in_failed_starts("pthread_atfork", "socket", 100000), 0);
    EXPECT_EQ(calls_in_failed_starts("pthread_atfork", "atexit", 1000), 0);
    EXPECT_EQ(calls_in_failed_starts("atexit", "pthread_atfork", 2000), 1) << "the first stays, for the next start";
    EXPECT_EQ(calls_in_failed_starts("pthread_atfork", "pthread_atfork", 1000), 0);
    EXPECT_EQ(add_app(APP), 0);
    EXPECT_EQ(fault::count("pthread_atfork"), 1);
    EXPECT_EQ(fault::count("atexit"), 0);
}

TEST_F(zeb_mng, a_failed_exit_hook_cancels_and_joins_the_receive_thread)
{
    fault::fail_next("atexit", 1);
    EXPECT_EQ(add_app(APP), -1);
    EXPECT_THAT(fault::log(),
                testing::IsSupersetOf({"pthread_cancel", "pthread_join", "pthread_cond_destroy", "close"}));
}

// Each part of an application fails in turn, after the library has started.
class zeb_mng_slot : public lib_test, public testing::WithParamInterface<start_fault_t>
{
};

TEST_P(zeb_mng_slot, is_undone_in_order)
{
    ASSERT_EQ(add_app(101), 0);
    size_t sockets = fake_tipc::sockets().size();
    const start_fault_t &param = GetParam();
    fault::fail_next(param.call, param.err, 1, param.skip);
    lines_t lines = logged(E, [&] { EXPECT_EQ(zeb_register(APP, "test", ONE_DISPATCHER, see_event), -EAGAIN); });
    EXPECT_THAT(lines, testing::Contains(std::string("3 ") + param.line));
    EXPECT_EQ(fake_tipc::sockets().size(), sockets);
    EXPECT_EQ(zeb_get_app_mng(APP), nullptr);
    EXPECT_EQ(g_zeb_mng.app[1].app_id, 0u);
    EXPECT_EQ(zeb_register(APP, "test", ONE_DISPATCHER, see_event), 0);
}

INSTANTIATE_TEST_SUITE_P(
    part, zeb_mng_slot,
    testing::Values(start_fault_t{"pthread_mutex_init", ENOMEM, 0, 0,
                                  "ZEB init app 100 flow ctrl condition mutex failed: Cannot allocate memory."},
                    start_fault_t{"pthread_condattr_init", ENOMEM, 0, 0,
                                  "ZEB init app 100 flow ctrl condition attribute failed: Cannot allocate memory."},
                    start_fault_t{"pthread_condattr_setclock", EINVAL, 0, 0,
                                  "ZEB init app 100 flow ctrl condition clock attribute failed: Invalid argument."},
                    start_fault_t{"pthread_cond_init", ENOMEM, 0, 0,
                                  "ZEB init app 100 flow ctrl condition failed: Cannot allocate memory."},
                    start_fault_t{"pthread_mutex_init", ENOMEM, 1, 0,
                                  "ZEB init app 100 RPC wait mutex failed: Cannot allocate memory."},
                    start_fault_t{"pthread_condattr_init", ENOMEM, 1, 0,
                                  "ZEB init app 100 RPC wait condition attribute failed: Cannot allocate memory."},
                    start_fault_t{"pthread_condattr_setclock", EINVAL, 1, 0,
                                  "ZEB set app 100 RPC wait condition clock attribute failed: Invalid argument."},
                    start_fault_t{"pthread_cond_init", ENOMEM, 1, 0,
                                  "ZEB init app 100 RPC wait condition failed: Cannot allocate memory."},
                    start_fault_t{"socket", EMFILE, 0, 0, "ZEB create app 100 socket failed: Too many open files."},
                    start_fault_t{"setsockopt", EINVAL, 0, 0,
                                  "ZEB set app 100 socket priority 0 failed: Invalid argument."},
                    start_fault_t{"setsockopt", EINVAL, 1, 0,
                                  "ZEB set app 100 socket TIPC_SRC_DROPPABLE failed: Invalid argument."},
                    start_fault_t{"setsockopt", EINVAL, 2, 0,
                                  "ZEB set app 100 socket TIPC_DEST_DROPPABLE failed: Invalid argument."},
                    start_fault_t{"pthread_mutex_init", ENOMEM, 2, 0,
                                  "ZEB init app 100 info mutex failed: Cannot allocate memory."},
                    start_fault_t{"pthread_condattr_init", ENOMEM, 2, 0,
                                  "ZEB init app 100 condition attribute failed: Cannot allocate memory."},
                    start_fault_t{"pthread_condattr_setclock", EINVAL, 2, 0,
                                  "ZEB set app 100 condition clock attribute failed: Invalid argument."},
                    start_fault_t{"pthread_cond_init", ENOMEM, 2, 0,
                                  "ZEB init app 100 msg distribute condition failed: Cannot allocate memory."},
                    start_fault_t{"pthread_create", EAGAIN, 0, 0,
                                  "ZEB create app 100 proxy thread failed: Resource temporarily unavailable."},
                    start_fault_t{"pthread_mutex_init", ENOMEM, 3, 0,
                                  "ZEB init app 100 flow ctrl condition mutex failed: Cannot allocate memory."}));

TEST_F(zeb_mng, a_last_part_that_fails_has_the_others_undone_in_reverse)
{
    ASSERT_EQ(add_app(101), 0);
    fault::reset();
    fault::fail_next("pthread_mutex_init", ENOMEM, 1, 3); // the statistics come last, after the proxy thread
    lines_t lines = logged(V | I | E, [] { EXPECT_EQ(zeb_register(APP, "test", ONE_DISPATCHER, see_event), -EAGAIN); });
    lines_t undone;
    for (const std::string &line : lines) {
        if (line.find("delete") != std::string::npos || line.find("destroy") != std::string::npos ||
            line.find("cancel") != std::string::npos)
            undone.push_back(line);
    }
    EXPECT_EQ(undone, lines_t({"0 ZEB delete app 100 flow ctrl.", "0 ZEB delete app 100 RPC wait mgmt.",
                               "1 ZEB destroy app 100 info."}));
    EXPECT_EQ(fault::count("pthread_cancel"), 1);
    EXPECT_EQ(fault::count("pthread_join"), 1);
}

TEST_F(zeb_mng, a_proxy_thread_that_does_not_start_is_unwound_in_reverse)
{
    ASSERT_EQ(add_app(101), 0);
    fault::reset();
    fault::fail_next("pthread_create", EAGAIN);
    EXPECT_EQ(zeb_register(APP, "test", ONE_DISPATCHER, see_event), -EAGAIN);
    auto log = fault::log();
    auto failed = std::find(log.begin(), log.end(), "pthread_create");
    ASSERT_NE(failed, log.end());
    std::vector<std::string> after(failed + 1, log.end());
    ASSERT_GE(after.size(), 3u);
    EXPECT_EQ(after[0], "pthread_cond_destroy");
    EXPECT_EQ(after[1], "pthread_mutex_destroy");
    EXPECT_EQ(after[2], "close");
}
