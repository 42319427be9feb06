// The process's record: the running state, and whether a blocked sender may have its peer reloaded.
#include "internals.h"
#include "lib_test.h"

#include "zeb_slot.h"

class zeb_slot : public lib_test
{
};

TEST_F(zeb_slot, running_wakes_every_thread_that_waits_for_it)
{
    ASSERT_EQ(zeb_register(APP, "test", ONE_DISPATCHER, see_event), 0);
    const pthread_cond_t *cond = internals::running_cond();
    wait_until([&] { return fault::waits(cond) >= 2; }); // the receive thread and the application's
    EXPECT_EQ(fault::broadcasts(cond), 0);
    zeb_run();
    EXPECT_EQ(fault::broadcasts(cond), 1);
    EXPECT_EQ(fault::signals(cond), 0) << "a signal wakes one of them";
    wait_until([&] { return !fake_tipc::sockets()[sd()].bound.empty(); });
}

TEST_F(zeb_slot, blocked_resume_before_the_first_registration_is_lost)
{
    write_conf("[MISC_CONF]\nzeb_blocked_resume_enabled=true\n");
    zeb_enable_blocked_resume();
    EXPECT_TRUE(zeb_blocked_resume_enabled());
    ASSERT_EQ(add_app(APP), 0);
    EXPECT_FALSE(zeb_blocked_resume_enabled());
    zeb_enable_blocked_resume();
    EXPECT_TRUE(zeb_blocked_resume_enabled());
    no_conf();
    EXPECT_FALSE(zeb_blocked_resume_enabled()) << "both switches are needed";
    write_conf("[MISC_CONF]\nzeb_blocked_resume_enabled=true\n");
    zeb_disable_blocked_resume();
    EXPECT_FALSE(zeb_blocked_resume_enabled());
}
