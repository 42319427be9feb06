// Descriptors that a program which a child becomes does not inherit.
#include <fcntl.h>

#include "lib_test.h"

#include "zeb_tipc.h"

class zeb_fd : public lib_test
{
};

TEST_F(zeb_fd, every_descriptor_is_close_on_exec)
{
    ASSERT_EQ(add_app(APP), 0);
    for (const auto &entry : fake_tipc::sockets())
        EXPECT_EQ(fcntl(entry.first, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(zeb_fd, a_descriptor_whose_flags_fail_is_closed)
{
    fault::fail_next("fcntl(F_GETFD)", EBADF);
    lines_t lines = logged(E, [] { EXPECT_EQ(zeb_create_subscription_socket(), -1); });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], testing::MatchesRegex("3 ZEB get file [0-9]+ flags error: Bad file descriptor\\."));
    fault::fail_next("fcntl(F_SETFD)", EBADF);
    lines = logged(E, [] { EXPECT_EQ(zeb_create_app_socket(APP, 0), -1); });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], testing::MatchesRegex("3 ZEB set file [0-9]+ flags error: Bad file descriptor\\."));
    EXPECT_TRUE(fake_tipc::sockets().empty());
}
