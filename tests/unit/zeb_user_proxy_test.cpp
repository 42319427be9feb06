// The exported calls of an application's life: registration, partners, and the end of its service.
#include "lib_test.h"

#include "zeb_app_info.h"
#include "zeb_slot.h"

class zeb_user_proxy : public lib_test
{
};

TEST_F(zeb_user_proxy, ids_and_names_are_checked)
{
    ASSERT_EQ(zeb_cfg_init(), 0); // the first registration would set the masks
    for (uint32_t app : {0u, 8192u, 12288u, 16383u, 20480u}) {
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(add_app(app), -EINVAL); }),
                  lines_t({"3 ZEB app registered with invalid ID " + std::to_string(app) + "."}));
    }
    for (uint32_t app : {8191u, 16384u, 20479u})
        EXPECT_EQ(add_app(app), 0) << app;
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_register(APP, nullptr, ONE_DISPATCHER, nullptr), -EINVAL); }),
              lines_t({"3 ZEB app 100 registered name NULL."}));
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_register(APP, "x", nullptr, nullptr), -EINVAL); }),
              lines_t({"3 ZEB app 100 registered dispatcher NULL."}));
}

TEST_F(zeb_user_proxy, without_a_node_id_registration_fails_and_later_succeeds)
{
    no_node();
    EXPECT_EQ(add_app(APP), -1);
    write_node("7");
    EXPECT_EQ(add_app(APP), 0);
}

TEST_F(zeb_user_proxy, a_table_ends_at_the_first_row_without_version_or_function)
{
    ASSERT_EQ(zeb_cfg_init(), 0); // the first registration would set the masks
    const zeb_msg_dispatcher_t holes[] = {{3, see_msg}, {5, nullptr}, {7, see_msg}, {0, nullptr}};
    lines_t lines = logged(V, [&] { EXPECT_EQ(zeb_register_without_thread(APP, "n", holes, nullptr), 0); });
    EXPECT_THAT(lines,
                testing::Contains(testing::HasSubstr("ZEB app 100 [n] registered: 1 dispatcher version, event")));
    EXPECT_NE(zeb_get_dispatch_fun(zeb_get_app_info(APP), 3), nullptr);
    EXPECT_EQ(zeb_get_dispatch_fun(zeb_get_app_info(APP), 7), nullptr);
    EXPECT_TRUE(zeb_is_app_server(APP));
    EXPECT_EQ(zeb_register_without_thread(101, "n", NO_DISPATCHER, nullptr), 0);
    EXPECT_FALSE(zeb_is_app_server(101));
}

TEST_F(zeb_user_proxy, comm_with_wants_valid_ids_and_a_registered_application)
{
    ASSERT_EQ(add_app(APP), 0);
    EXPECT_EQ(zeb_comm_with(0, PEER), -EINVAL);
    EXPECT_EQ(zeb_comm_with(APP, 8192), -EINVAL);
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_comm_with(101, PEER), -ENOENT); }),
              lines_t({"3 ZEB app 101 does not registered."}));
    EXPECT_EQ(zeb_comm_with(APP, PEER), 0);
}

TEST_F(zeb_user_proxy, unregistering_answers_0_and_keeps_the_application)
{
    ASSERT_EQ(add_app(APP), 0);
    EXPECT_EQ(logged(I | E, [] { EXPECT_EQ(zeb_unregister(APP), 0); }), lines_t({"1 ZEB app 100 unregister service."}));
    EXPECT_NE(zeb_get_app_mng(APP), nullptr);
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_unregister(8192), -EINVAL); }),
              lines_t({"3 ZEB app unregistered with invalid ID 8192."}));
}
