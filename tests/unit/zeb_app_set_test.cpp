// Sets of nodes.
#include "lib_test.h"
#include "node_sets.h"

class zeb_app_set : public lib_test
{
};

TEST_F(zeb_app_set, a_set_holds_nodes_0_to_65535)
{
    static zeb_app_set_t set;
    for (uint32_t node : {65535u, 0u, 63u, 64u, 4096u})
        EXPECT_TRUE(zeb_app_set_add(&set, node));
    EXPECT_FALSE(zeb_app_set_add(&set, 65536));
    EXPECT_FALSE(zeb_app_set_test(&set, 65536));
    EXPECT_FALSE(zeb_app_set_test(&set, 0xFFFFFFFF));
    EXPECT_EQ(nodes_of(&set), nodes_t({0, 63, 64, 4096, 65535}));
    EXPECT_EQ(set.bmp[0], 1ull | 1ull << 63);
    EXPECT_EQ(set.bmp[1023], 1ull << 63);
    zeb_app_set_del(&set, 64);
    zeb_app_set_del(&set, 64);
    zeb_app_set_del(&set, 65536);
    EXPECT_EQ(nodes_of(&set), nodes_t({0, 63, 4096, 65535}));
    EXPECT_TRUE(zeb_has_app_server(&set));
}
