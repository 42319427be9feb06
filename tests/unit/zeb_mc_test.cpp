// Private multicast groups.
#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_mc.h"

class zeb_mc : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        start_app();
    }

    static std::vector<uint32_t> app_members(uint32_t group)
    {
        zeb_app_mc_t out;
        zeb_get_app_mc_mbr(APP, group, &out);
        return std::vector<uint32_t>(out.mbr, out.mbr + 16);
    }

    static std::vector<uint32_t> node_members(uint32_t group)
    {
        zeb_node_mc_t out;
        zeb_get_node_mc_mbr(APP, group, &out);
        return std::vector<uint32_t>(out.mbr, out.mbr + 64);
    }
};

TEST_F(zeb_mc, the_first_groups_are_12288_and_0x80000)
{
    EXPECT_EQ(logged(V, [] { EXPECT_EQ(zeb_create_app_mcast(APP), 12288); }),
              lines_t({"0 ZEB app 100 create app-private-mcast 0x3000."}));
    EXPECT_EQ(logged(V, [] { EXPECT_EQ(zeb_create_node_mcast(APP), 0x80000); }),
              lines_t({"0 ZEB app 100 create node-private-mcast 0x80000."}));
    EXPECT_EQ(zeb_create_app_mcast(APP), 12289);
}

TEST_F(zeb_mc, after_128_groups_creation_fails_until_one_is_destroyed)
{
    for (int i = 0; i < 128; i++) {
        ASSERT_EQ(zeb_create_app_mcast(APP), 12288 + i);
        ASSERT_EQ(zeb_create_node_mcast(APP), 0x80000 + i);
    }
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_create_app_mcast(APP), -ENOBUFS); }),
              lines_t({"3 ZEB app 100 app-private-mcast creation reach to 128."}));
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_create_node_mcast(APP), -ENOBUFS); }),
              lines_t({"3 ZEB app 100 node-private-mcast creation reach to 128."}));
    zeb_destroy_app_mcast(APP, 12290);
    EXPECT_EQ(zeb_create_app_mcast(APP), 12288 + 128) << "the next id, not the free one";
    zeb_destroy_node_mcast(APP, 0x80002);
    EXPECT_EQ(zeb_create_node_mcast(APP), 0x80000 + 128);
    EXPECT_EQ(zeb_create_node_mcast(APP), -ENOBUFS);
}

TEST_F(zeb_mc, ids_wrap_and_skip_those_in_use)
{
    ASSERT_EQ(zeb_create_app_mcast(APP), 12288);
    for (int i = 1; i < 4096; i++) {
        int id = zeb_create_app_mcast(APP);
        ASSERT_EQ(id, 12288 + i);
        zeb_destroy_app_mcast(APP, (uint32_t)id);
    }
    EXPECT_EQ(logged(W, [] { EXPECT_EQ(zeb_create_app_mcast(APP), 12289); }),
              lines_t({"2 ZEB app-private-mcast ID wrap-around to lower."}));
}

TEST_F(zeb_mc, node_ids_wrap_and_skip_those_in_use)
{
    ASSERT_EQ(zeb_create_node_mcast(APP), 0x80000);
    for (int i = 1; i < 0x10000; i++) {
        int id = zeb_create_node_mcast(APP);
        ASSERT_EQ(id, 0x80000 + i);
        zeb_destroy_node_mcast(APP, (uint32_t)id);
    }
    EXPECT_EQ(logged(W, [] { EXPECT_EQ(zeb_create_node_mcast(APP), 0x80001); }),
              lines_t({"2 ZEB node-private-mcast ID wrap-around to lower."}));
}

TEST_F(zeb_mc, the_last_id_in_use_is_skipped_around_the_end)
{
    int id = 0;
    while (id != 16383) {
        if (id != 0)
            zeb_destroy_app_mcast(APP, (uint32_t)id);
        id = zeb_create_app_mcast(APP);
    }
    while (id != 16382) {
        id = zeb_create_app_mcast(APP);
        zeb_destroy_app_mcast(APP, (uint32_t)id);
    }
    EXPECT_EQ(logged(W, [] { EXPECT_EQ(zeb_create_app_mcast(APP), 12288); }),
              lines_t({"2 ZEB app-private-mcast ID wrap-around to lower."}));
}

TEST_F(zeb_mc, a_member_that_is_added_again_moves_to_the_first_empty_place)
{
    uint32_t apps = (uint32_t)zeb_create_app_mcast(APP);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    for (uint32_t i : {5u, 6u, 7u}) {
        ASSERT_EQ(zeb_add_app_mcast(APP, apps, i), 0);
        ASSERT_EQ(zeb_add_node_mcast(APP, nodes, i), 0);
    }
    zeb_del_app_mcast(APP, apps, 5);
    zeb_del_node_mcast(APP, nodes, 5);
    ASSERT_EQ(zeb_add_app_mcast(APP, apps, 7), 0);
    ASSERT_EQ(zeb_add_node_mcast(APP, nodes, 7), 0);
    std::vector<uint32_t> app_mbr = {7, 6};
    app_mbr.resize(16, 0);
    EXPECT_EQ(app_members(apps), app_mbr);
    std::vector<uint32_t> node_mbr = {7, 6};
    node_mbr.resize(64, 0xFFFFFFFF);
    EXPECT_EQ(node_members(nodes), node_mbr);
}

TEST_F(zeb_mc, a_destroyed_group_is_gone)
{
    uint32_t apps = (uint32_t)zeb_create_app_mcast(APP);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    zeb_destroy_app_mcast(APP, apps);
    zeb_destroy_node_mcast(APP, nodes);
    EXPECT_EQ(zeb_add_app_mcast(APP, apps, 5), -ENOENT);
    EXPECT_EQ(zeb_add_node_mcast(APP, nodes, 5), -ENOENT);
    EXPECT_THAT(listing(zeb_cli_print_app_info), testing::EndsWith("  Private application multicast number 0:\n"
                                                                   "  Private node multicast number 0:\n"));
}

TEST_F(zeb_mc, adding_twice_leaves_one_place)
{
    uint32_t group = (uint32_t)zeb_create_app_mcast(APP);
    EXPECT_EQ(zeb_add_app_mcast(APP, group, 5), 0);
    EXPECT_EQ(zeb_add_app_mcast(APP, group, 6), 0);
    EXPECT_EQ(zeb_add_app_mcast(APP, group, 5), 0);
    std::vector<uint32_t> members = app_members(group);
    EXPECT_EQ(std::count(members.begin(), members.end(), 5u), 1);
    EXPECT_EQ(members[0], 5u);
    EXPECT_EQ(members[1], 6u);
}

TEST_F(zeb_mc, a_full_group_takes_only_a_member_it_has)
{
    uint32_t group = (uint32_t)zeb_create_app_mcast(APP);
    for (uint32_t i = 1; i <= 16; i++)
        ASSERT_EQ(zeb_add_app_mcast(APP, group, i), 0);
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_add_app_mcast(APP, group, 17), -ENOBUFS); }),
              lines_t({"3 ZEB app 100 app-private-mcast 0x3000 member reach to 16."}));
    EXPECT_EQ(zeb_add_app_mcast(APP, group, 9), 0);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    for (uint32_t i = 0; i < 64; i++)
        ASSERT_EQ(zeb_add_node_mcast(APP, nodes, i), 0);
    EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_add_node_mcast(APP, nodes, 64), -ENOBUFS); }),
              lines_t({"3 ZEB app 100 node-private-mcast 0x80000 member reach to 64."}));
    EXPECT_EQ(zeb_add_node_mcast(APP, nodes, 0), 0);
}

TEST_F(zeb_mc, node_0_is_a_member_and_an_unknown_group_has_none)
{
    uint32_t group = (uint32_t)zeb_create_node_mcast(APP);
    EXPECT_EQ(zeb_add_node_mcast(APP, group, 0), 0);
    zeb_node_mc_t out;
    zeb_get_node_mc_mbr(APP, group, &out);
    EXPECT_EQ(out.mbr[0], 0u);
    EXPECT_EQ(out.mbr[1], 0xFFFFFFFFu);
    EXPECT_EQ(logged(E, [&] { zeb_get_node_mc_mbr(APP, 0x80077, &out); }),
              lines_t({"3 ZEB app 100 does not create node-private-mcast 524407."}));
    for (uint32_t mbr : out.mbr)
        EXPECT_EQ(mbr, 0xFFFFFFFFu);
}

TEST_F(zeb_mc, deleting_clears_and_an_absent_member_is_no_error)
{
    uint32_t group = (uint32_t)zeb_create_app_mcast(APP);
    ASSERT_EQ(zeb_add_app_mcast(APP, group, 5), 0);
    ASSERT_EQ(zeb_add_app_mcast(APP, group, 6), 0);
    EXPECT_EQ(logged(15, [&] { zeb_del_app_mcast(APP, group, 77); }), lines_t({}));
    zeb_del_app_mcast(APP, group, 5);
    EXPECT_EQ(app_members(group)[0], 0u) << "a hole";
    EXPECT_EQ(app_members(group)[1], 6u);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    ASSERT_EQ(zeb_add_node_mcast(APP, nodes, 8), 0);
    EXPECT_EQ(logged(15, [&] { zeb_del_node_mcast(APP, nodes, 77); }), lines_t({}));
    zeb_del_node_mcast(APP, nodes, 8);
    zeb_node_mc_t out;
    zeb_get_node_mc_mbr(APP, nodes, &out);
    EXPECT_EQ(out.mbr[0], 0xFFFFFFFFu);
}

TEST_F(zeb_mc, members_are_checked_before_the_owner)
{
    for (uint32_t app : {0u, 8192u, 12288u, 16383u, 20480u})
        EXPECT_EQ(logged(E, [&] { EXPECT_EQ(zeb_add_app_mcast(999, 12288, app), -EINVAL); }),
                  lines_t({"3 ZEB app ID " + std::to_string(app) + " invalid."}));
    EXPECT_EQ(logged(E, [] { EXPECT_EQ(zeb_add_node_mcast(999, 0x80000, 65536), -EINVAL); }),
              lines_t({"3 ZEB node ID 65536 invalid."}));
    uint32_t apps = (uint32_t)zeb_create_app_mcast(APP);
    for (uint32_t app : {1u, 8191u, 16384u, 20479u})
        EXPECT_EQ(zeb_add_app_mcast(APP, apps, app), 0);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    EXPECT_EQ(zeb_add_node_mcast(APP, nodes, 65535), 0);
}

TEST_F(zeb_mc, unknown_owners_and_groups_are_reported)
{
    zeb_app_mc_t apps;
    zeb_node_mc_t nodes;
    const std::function<void()> strangers[] = {
        [] { EXPECT_EQ(zeb_create_app_mcast(999), -ENOENT); },
        [] { EXPECT_EQ(zeb_create_node_mcast(999), -ENOENT); },
        [] { EXPECT_EQ(zeb_add_app_mcast(999, 12288, 1), -ENOENT); },
        [] { EXPECT_EQ(zeb_add_node_mcast(999, 0x80000, 1), -ENOENT); },
        [] { zeb_del_app_mcast(999, 12288, 1); },
        [] { zeb_del_node_mcast(999, 0x80000, 1); },
        [] { zeb_destroy_app_mcast(999, 12288); },
        [] { zeb_destroy_node_mcast(999, 0x80000); },
        [&] { zeb_get_app_mc_mbr(999, 12288, &apps); },
        [&] { zeb_get_node_mc_mbr(999, 0x80000, &nodes); },
    };
    for (const auto &call : strangers)
        EXPECT_EQ(logged(E, call), lines_t({"3 ZEB app 999 does not registered."}));
    const std::function<void()> absent[] = {
        [] { EXPECT_EQ(zeb_add_app_mcast(APP, 12300, 1), -ENOENT); },
        [] { zeb_del_app_mcast(APP, 12300, 1); },
        [] { zeb_destroy_app_mcast(APP, 12300); },
    };
    for (const auto &call : absent)
        EXPECT_EQ(logged(E, call), lines_t({"3 ZEB app 100 does not create app-private-mcast 0x300c."}));
    EXPECT_EQ(logged(E, [&] { zeb_get_app_mc_mbr(APP, 12300, &apps); }),
              lines_t({"3 ZEB app 100 does not create app-private-mcast 12300."}));
    for (uint32_t mbr : apps.mbr)
        EXPECT_EQ(mbr, 0u);
    const std::function<void()> absent_nodes[] = {
        [] { EXPECT_EQ(zeb_add_node_mcast(APP, 7, 1), -ENOENT); },
        [] { zeb_del_node_mcast(APP, 7, 1); },
        [] { zeb_destroy_node_mcast(APP, 7); },
    };
    for (const auto &call : absent_nodes)
        EXPECT_EQ(logged(E, call), lines_t({"3 ZEB app 100 does not create node-private-mcast 0x7."}));
}

TEST_F(zeb_mc, the_listing_is_this_text)
{
    uint32_t group = (uint32_t)zeb_create_app_mcast(APP);
    for (uint32_t app : {5u, 6u, 7u})
        ASSERT_EQ(zeb_add_app_mcast(APP, group, app), 0);
    zeb_del_app_mcast(APP, group, 6);
    (void)zeb_create_app_mcast(APP);
    uint32_t nodes = (uint32_t)zeb_create_node_mcast(APP);
    ASSERT_EQ(zeb_add_node_mcast(APP, nodes, 0), 0);
    EXPECT_THAT(listing(zeb_cli_print_app_info), testing::EndsWith("  Unprocessed message number 0\n\n"
                                                                   "  Private application multicast number 2:\n"
                                                                   "    ID 0x3000, members: 5 7\n"
                                                                   "    ID 0x3001, members:\n"
                                                                   "  Private node multicast number 1:\n"
                                                                   "    ID 0x80000, members: 0\n"));
}
