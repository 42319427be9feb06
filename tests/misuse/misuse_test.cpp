// The words that a user sees who uses the library wrongly: results with zeb_last_error, and what the library says on
// standard error. docs/guarantees.md lists them.
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class misuse : public testing::Test
{
  protected:
    void SetUp() override
    {
        char folder[] = "/tmp/misuse-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        folder_ = folder;
        ASSERT_EQ(setenv("TIPCSIM_DIR", folder, 1), 0);
        (void)unsetenv("TIPCSIM_CLUSTER");
    }

    void TearDown() override
    {
        EXPECT_EQ(system(("rm -rf " + folder_).c_str()), 0);
    }

    // All that a run of the program prints, in the order in which it is written. `options` are those of tipcsim.
    std::string run(const std::string &name, const std::string &options = "")
    {
        return output(TIPCSIM " cluster --node-files zeb " + options +
                      " -- " TIPCSIM " exec 1 -- stdbuf -oL " MISUSE " " + name);
    }

    static std::string output(const std::string &command)
    {
        FILE *stream = popen((command + " 2>&1").c_str(), "r");
        std::string text;
        for (char part[256]; fgets(part, sizeof(part), stream) != nullptr;)
            text += part;
        (void)pclose(stream);
        return text;
    }

    std::string folder_;
};

static const std::string REGISTERED = "zeb_register_without_thread: 0 \n";

TEST_F(misuse, a_call_that_would_wait_for_itself_in_a_callback)
{
    EXPECT_EQ(run("call_in_a_callback"), REGISTERED +
                                             "zeb_stop: -35 ZEB zeb_stop called in a callback.\n"
                                             "zeb_wait_online: -35 ZEB app 100 waits for 101 on the receive thread.\n");
}

TEST_F(misuse, use_in_a_forked_child)
{
    EXPECT_EQ(run("use_in_a_child"),
              REGISTERED +
                  "zeb_send in the child: -1 ZEB zeb_send called in a child of the process that runs the library.\n"
                  "zeb: application 101 is not registered: ZEB zeb_register_without_thread called in a child of the "
                  "process that runs the library. Let the child exec, or fork before the first registration.\n"
                  "zeb_register_without_thread in the child: -1 ZEB zeb_register_without_thread called in a child of "
                  "the process that runs the library.\n");
}

TEST_F(misuse, a_send_before_the_registration_or_the_start)
{
    EXPECT_EQ(run("send_too_early"),
              "zeb_sendto without a registration: -2 ZEB app 100 is not registered in this process.\n" + REGISTERED +
                  "zeb_send before zeb_run: -2 ZEB app 100 to 100(0x64): no server is online on any node.\n"
                  "zeb_rpc before zeb_run: -2 ZEB app 100 to 100(0x64): no server is online on any node.\n");
}

TEST_F(misuse, a_registration_after_the_start)
{
    EXPECT_EQ(run("register_too_late"),
              REGISTERED + "zeb: application 101 is not registered: ZEB had already running, and app 101 can not be "
                           "registered. Register it before zeb_run.\n"
                           "zeb_register_without_thread after zeb_run: -1 ZEB had already running, and app 101 can not "
                           "be registered.\n");
}

TEST_F(misuse, a_peer_named_after_the_start)
{
    ASSERT_EQ(setenv("ZEB_DEBUG", "warn", 1), 0);
    std::string text = run("name_too_late");
    EXPECT_THAT(text,
                HasSubstr("ZEB app 100 named 101 after the start: not subscribed to until the topology connection "
                          "is next opened.\n"));
    EXPECT_THAT(text, EndsWith("zeb_comm_with after zeb_run: 0 \n"));
}

TEST_F(misuse, a_wrong_id)
{
    EXPECT_EQ(run("wrong_id"), "zeb: application 8192 is not registered: ZEB app registered with invalid ID 8192.\n"
                               "zeb_register_without_thread: -22 ZEB app registered with invalid ID 8192.\n" +
                                   REGISTERED +
                                   "zeb_comm_with: -22 ZEB app 100 comm with 0: invalid ID.\n"
                                   "zeb_sendto: -22 ZEB app 100 to dst node ID 65536 invalid.\n");
}

TEST_F(misuse, a_header_length_that_is_none)
{
    EXPECT_EQ(run("spoilt_length"), REGISTERED + "zeb_send: -22 ZEB app 100 msg len 0 invalid, not 36 to 61476.\n"
                                                 "zeb_rpc: -22 ZEB app 100 msg len 0 invalid, not 36 to 61476.\n");
}

TEST_F(misuse, a_node_without_an_id)
{
    std::ofstream(folder_ + "/empty").flush();
    EXPECT_THAT(run("register_alone", "--file /tmp/addr/.zeb_node_addr=" + folder_ + "/empty"),
                StartsWith("zeb: application 100 is not registered: ZEB get node address config failed. "));
}

TEST_F(misuse, an_id_that_is_registered_twice)
{
    EXPECT_EQ(run("same_id_twice"),
              REGISTERED + "zeb: application 100 is not registered: ZEB app 100 has already registered. This process "
                           "registers it twice: give each application an id of its own.\n"
                           "zeb_register_without_thread: -17 ZEB app 100 has already registered.\n");
}

TEST_F(misuse, a_kernel_without_tipc)
{
    EXPECT_EQ(
        run("no_tipc"),
        "zeb: application 100 is not registered: ZEB create subscription socket descriptor failed: Address family "
        "not supported by protocol. The kernel has no TIPC. Type: modprobe tipc\n"
        "zeb_register_without_thread: -1 ZEB create subscription socket descriptor failed: Address family not "
        "supported by protocol.\n");
}

#if !defined(__SANITIZE_THREAD__) // its heap does not look
#if defined(__SANITIZE_ADDRESS__)
constexpr char FREED_TWICE[] = "ERROR: AddressSanitizer: attempting double-free";
#else
constexpr char FREED_TWICE[] = "free(): double free detected";
#endif

TEST_F(misuse, a_message_that_is_freed_twice)
{
    EXPECT_THAT(output(MISUSE " free_twice"), HasSubstr(FREED_TWICE));
}
#endif
