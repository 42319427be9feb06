// Log and statistics files.
#include <fstream>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utime.h>

#include "lib_test.h"
#include "zeb_dbg.h"
#include "zeb_dm.h"

class zeb_dm : public lib_test
{
  protected:
    void SetUp() override
    {
        lib_test::SetUp();
        (void)setenv("VELK_DIR", dir().c_str(), 1);
    }

    void TearDown() override
    {
        if (g_zeb_log_fp != nullptr)
            zeb_dm_close_files();
        lib_test::TearDown();
    }

    std::string log_dir() const
    {
        return dir() + "/dev/zeb";
    }

    // Files of the directory whose name begins so, sorted.
    std::vector<std::string> files(const std::string &prefix) const
    {
        std::vector<std::string> names;
        std::string command = "cd " + log_dir() + " 2>/dev/null && ls -1 " + prefix + "* 2>/dev/null";
        FILE *pipe = popen(command.c_str(), "r");
        char line[256];
        while (fgets(line, sizeof(line), pipe) != nullptr)
            names.emplace_back(line, strlen(line) - 1);
        (void)pclose(pipe);
        return names;
    }

    static std::string content(const std::string &path)
    {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // The descriptor that this process has open on `path`, or -1.
    static int descriptor_of(const std::string &path)
    {
        for (int fd = 3; fd < 64; fd++) {
            char target[256] = "";
            if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target) - 1) > 0 &&
                path == target)
                return fd;
        }
        return -1;
    }

    // Records a dump while `call` fails; opens the files at the first use.
    lines_t record_with(const std::string &call)
    {
        if (g_zeb_log_fp == nullptr)
            open_files();
        zeb_buf_printf_reset();
        zeb_buf_printf("text\n");
        return logged(E, [&] {
            if (!call.empty())
                fault::fail_next(call, EIO);
            zeb_dm_record_stat();
        });
    }

    void open_files()
    {
        write_conf("[MISC_CONF]\nzeb_log_cfg=0xf\n");
        ASSERT_EQ(zeb_cfg_init(), 0);
    }
};

TEST_F(zeb_dm, without_a_log_mask_there_is_no_file)
{
    write_conf("[MISC_CONF]\nzeb_log_cfg=0x10\n");
    ASSERT_EQ(zeb_cfg_init(), 0);
    ZEB_ERROR("ZEB nothing.\n");
    EXPECT_EQ(g_zeb_log_fp, nullptr);
    EXPECT_TRUE(files("").empty());
}

TEST_F(zeb_dm, both_files_are_made_with_their_names_mode_and_close_on_exec)
{
    open_files();
    auto logs = files("log-");
    auto stats = files("stat-");
    ASSERT_EQ(logs.size(), 1u);
    ASSERT_EQ(stats.size(), 1u);
    std::string stem = "zeb_unit_test-" + std::to_string(getpid()) + "-[0-9]{8}-[0-9]{6}";
    EXPECT_THAT(logs[0], testing::MatchesRegex("log-" + stem));
    EXPECT_EQ(logs[0].substr(4), stats[0].substr(5));
    struct stat status;
    ASSERT_EQ(stat((log_dir() + "/" + logs[0]).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0777u);
    ASSERT_EQ(stat((log_dir() + "/" + stats[0]).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0777u);
    for (const std::string &path : {log_dir() + "/" + logs[0], log_dir() + "/" + stats[0]}) {
        int fd = descriptor_of(path);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
}

TEST_F(zeb_dm, a_name_ends_with_the_process_and_the_start_in_utc)
{
    ASSERT_EQ(setenv("TZ", "XYZ-14", 1), 0);
    tzset();
    fault::hold_time(1700000000);
    open_files();
    fault::hold_time(0);
    std::string end = "-zeb_unit_test-" + std::to_string(getpid()) + "-20231114-221320";
    EXPECT_EQ(files(""), lines_t({"log" + end, "stat" + end}));
}

TEST_F(zeb_dm, the_monitor_writes_the_statistics_anew_each_time)
{
    start_app(); // without a configuration: no files
    write_conf("[MISC_CONF]\nzeb_log_cfg=0xf\n");
    zeb_dm_init();
    std::string path = log_dir() + "/" + files("stat-").at(0);
    EXPECT_EQ(content(path), "");
    timer_expires(2, 1);
    std::string first = content(path);
    EXPECT_THAT(first, testing::HasSubstr("Application 100/7 process's ZEB library information:\n"));
    EXPECT_THAT(first, testing::HasSubstr("    Application 200 instance online on nodes:\n"));
    peer_online();
    timer_expires(2, 2);
    EXPECT_THAT(content(path), testing::HasSubstr("    Application 200 instance online on nodes: 9\n"));
}

TEST_F(zeb_dm, without_the_executables_path_there_is_no_file_and_nothing_said)
{
    fault::fail_next("readlink", EACCES);
    EXPECT_EQ(logged(15, [] { zeb_dm_init(); }), lines_t({}));
    EXPECT_EQ(g_zeb_log_fp, nullptr);
    EXPECT_TRUE(files("").empty());
}

TEST_F(zeb_dm, a_record_is_the_local_time_and_the_line)
{
    open_files();
    ZEB_ERROR("ZEB to the file 100%%.\n");
    std::string text = content(log_dir() + "/" + files("log-")[0]);
    std::string last = text.substr(text.rfind('\n', text.size() - 2) + 1);
    EXPECT_THAT(last, testing::MatchesRegex("[A-Z][a-z][a-z] [A-Z][a-z][a-z] [ 0-9][0-9] [0-9:]+ [0-9]+ "
                                            "<zeb_dm_test.cpp, [0-9]+> 3: ZEB to the file 100%\\.\n"));
}

TEST_F(zeb_dm, the_log_wraps_at_its_size_without_truncation)
{
    open_files();
    zeb_set_log_size(100);
    zeb_set_log_size(0);
    std::string path = log_dir() + "/" + files("log-")[0];
    while (content(path).size() < 100)
        zeb_dm_record_log("<f, 1> 3: ZEB first.\n");
    std::string before = content(path);
    zeb_dm_record_log("<f, 1> 3: ZEB again.\n");
    std::string after = content(path);
    EXPECT_EQ(after.size(), before.size());
    EXPECT_NE(after.find("ZEB again.\n"), std::string::npos);
    EXPECT_LT(after.find("ZEB again.\n"), 60u) << "at the start";
    EXPECT_EQ(after.substr(60), before.substr(60)) << "the rest stays";
}

TEST_F(zeb_dm, a_directory_with_8_old_files_keeps_the_5_newest_beside_the_new_one)
{
    ASSERT_EQ(system(("mkdir -p " + log_dir()).c_str()), 0);
    for (int i = 1; i <= 8; i++) {
        for (const char *kind : {"log", "stat"}) {
            std::string path = log_dir() + "/" + kind + "-zeb_unit_test-1-" + std::to_string(i);
            std::ofstream(path) << i;
            struct utimbuf times = {1000 * i, 1000 * i};
            ASSERT_EQ(utime(path.c_str(), &times), 0);
        }
    }
    std::ofstream(log_dir() + "/log-other-1-1") << "not ours";
    open_files();
    for (const char *kind : {"log", "stat"}) {
        auto names = files(std::string(kind) + "-zeb_unit_test-1-");
        EXPECT_EQ(names.size(), 5u) << kind;
        EXPECT_EQ(names[0], std::string(kind) + "-zeb_unit_test-1-4");
        EXPECT_EQ(files(std::string(kind) + "-zeb_unit_test-").size(), 6u);
    }
    EXPECT_EQ(files("log-other").size(), 1u);
}

TEST_F(zeb_dm, links_and_folders_are_left_alone)
{
    ASSERT_EQ(system(("mkdir -p " + log_dir() + "/log-zeb_unit_test-folder").c_str()), 0);
    for (int i = 0; i < 7; i++)
        ASSERT_EQ(symlink("/etc/passwd", (log_dir() + "/log-zeb_unit_test-l" + std::to_string(i)).c_str()), 0);
    open_files();
    EXPECT_EQ(files("-d log-zeb_unit_test-l").size(), 7u);
}

TEST_F(zeb_dm, the_statistics_file_holds_the_time_and_the_buffer_with_its_nul)
{
    open_files();
    for (const char *text : {"a first, longer dump\n", "second\n"}) {
        zeb_buf_printf_reset();
        zeb_buf_printf("%s", text);
        zeb_dm_record_stat();
        std::string all = content(log_dir() + "/" + files("stat-")[0]);
        size_t line = all.find('\n');
        EXPECT_EQ(all.substr(line + 1), std::string(text) + '\0');
        EXPECT_THAT(all.substr(0, line),
                    testing::MatchesRegex("[A-Z][a-z][a-z] [A-Z][a-z][a-z] [ 0-9][0-9] [0-9:]+ [0-9]+"));
    }
}

TEST_F(zeb_dm, without_a_directory_nothing_is_opened_and_nothing_said)
{
    std::ofstream(dir() + "/file") << "in the way";
    (void)setenv("VELK_DIR", (dir() + "/file").c_str(), 1);
    EXPECT_EQ(logged(15, [] { zeb_dm_init(); }), lines_t({}));
    EXPECT_EQ(g_zeb_log_fp, nullptr);
    zeb_dm_record_log("x");
    zeb_dm_record_stat();
    zeb_dm_close_files();
}

TEST_F(zeb_dm, a_file_that_cannot_be_made_is_an_error)
{
    fault::fail_next("fopen", EACCES, 2);
    lines_t lines = logged(E, [] { zeb_dm_init(); });
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0], testing::StartsWith("3 ZEB open debug log file " + log_dir() + "/log-zeb_unit_test-"));
    EXPECT_THAT(lines[0], testing::EndsWith(" failed: Permission denied."));
    EXPECT_THAT(lines[1], testing::StartsWith("3 ZEB open stat file " + log_dir() + "/stat-zeb_unit_test-"));
}

TEST_F(zeb_dm, the_directory_is_made_below_the_variable_or_velk)
{
    char buf[ZEB_DM_DIR_LEN];
    EXPECT_EQ(zeb_make_log_dir(buf, sizeof(buf)), 0);
    EXPECT_EQ(buf, log_dir());
    char small[40];
    std::string tight = dir() + "/";
    tight.append(sizeof(small) - 9 - tight.size(), 'd'); // leaves exactly 9 bytes
    (void)setenv("VELK_DIR", tight.c_str(), 1);
    EXPECT_EQ(zeb_make_log_dir(small, sizeof(small)), 0);
    (void)setenv("VELK_DIR", (tight + "d").c_str(), 1);
    EXPECT_EQ(zeb_make_log_dir(small, sizeof(small)), -1);
    (void)setenv("VELK_DIR", "/proc/nowhere", 1);
    EXPECT_EQ(zeb_make_log_dir(buf, sizeof(buf)), -1);
}

TEST_F(zeb_dm, a_directory_that_another_process_makes_at_the_same_moment_serves)
{
    char buf[ZEB_DM_DIR_LEN];
    std::string other = dir() + "/dev";
    fault::run_next("mkdir", [&other] { (void)syscall(SYS_mkdirat, AT_FDCWD, other.c_str(), 0777); });
    EXPECT_EQ(zeb_make_log_dir(buf, sizeof(buf)), 0);
    EXPECT_EQ(buf, log_dir());
    EXPECT_EQ(access(buf, F_OK), 0);
    EXPECT_EQ(fault::count("mkdir"), 2);
}

TEST_F(zeb_dm, a_full_disk_ends_the_statistics_with_one_error)
{
    ASSERT_EQ(system(("mkdir -p " + log_dir()).c_str()), 0);
    open_files();
    std::string path = log_dir() + "/" + files("stat-")[0];
    // The descriptor of the statistics file now leads to a device that is always full.
    int full = open("/dev/full", O_WRONLY);
    ASSERT_GE(dup2(full, descriptor_of(path)), 0);
    (void)close(full);
    zeb_buf_printf_reset();
    zeb_buf_printf("text\n");
    lines_t lines = logged(E, [] { zeb_dm_record_stat(); });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "3 ZEB truncate stat file failed: Invalid argument.");
    EXPECT_EQ(logged(E, [] { zeb_dm_record_stat(); }), lines_t({})) << "no further statistics";
}

TEST_F(zeb_dm, a_failed_seek_ends_the_statistics)
{
    EXPECT_EQ(record_with("fseek"), lines_t({"3 ZEB seek stat file failed: Input/output error."}));
    EXPECT_EQ(record_with(""), lines_t({}));
    EXPECT_EQ(content(log_dir() + "/" + files("stat-")[0]), "") << "no further statistics";
}

TEST_F(zeb_dm, statistics_that_cannot_be_forced_to_disk_end)
{
    EXPECT_EQ(record_with("fsync"), lines_t({"3 ZEB write stat file failed: Input/output error."}));
    EXPECT_EQ(descriptor_of(log_dir() + "/" + files("stat-")[0]), -1) << "the file is closed";
    int syncs = fault::count("fsync");
    EXPECT_EQ(record_with(""), lines_t({}));
    EXPECT_EQ(fault::count("fsync"), syncs);
}

TEST_F(zeb_dm, a_record_whose_wrap_fails_is_dropped)
{
    open_files();
    zeb_set_log_size(1);
    std::string path = log_dir() + "/" + files("log-")[0];
    zeb_dm_record_log("<f, 1> 3: ZEB first.\n");
    std::string before = content(path);
    fault::fail_next("fseek", EIO);
    zeb_dm_record_log("<f, 1> 3: ZEB lost.\n");
    EXPECT_EQ(content(path), before);
    zeb_dm_record_log("<f, 1> 3: ZEB again.\n");
    EXPECT_NE(content(path).find("ZEB again."), std::string::npos);
}

TEST_F(zeb_dm, a_percent_sign_in_an_argument_is_recorded_as_it_stands)
{
    open_files();
    ZEB_ERROR("ZEB name [%s]\n", "50%% %s");
    EXPECT_THAT(content(log_dir() + "/" + files("log-")[0]), testing::EndsWith("> 3: ZEB name [50%% %s]\n"));
}

TEST_F(zeb_dm, of_many_old_files_only_the_first_25_read_are_thinned_out)
{
    ASSERT_EQ(system(("mkdir -p " + log_dir()).c_str()), 0);
    for (int i = 1; i <= 30; i++)
        std::ofstream(log_dir() + "/log-zeb_unit_test-1-" + std::to_string(i)) << i;
    open_files();
    EXPECT_EQ(files("log-zeb_unit_test-1-").size(), 10u);
}

TEST_F(zeb_dm, an_old_file_whose_path_is_too_long_is_left_alone)
{
    ASSERT_EQ(system(("mkdir -p " + log_dir()).c_str()), 0);
    std::string old = log_dir() + "/log-zeb_unit_test-";
    old.append(128 - old.size(), 'x'); // one more than fits with its terminator
    std::ofstream(old) << "old";
    struct utimbuf times = {1, 1};
    ASSERT_EQ(utime(old.c_str(), &times), 0);
    old.pop_back();
    std::ofstream(old) << "old";
    ASSERT_EQ(utime(old.c_str(), &times), 0);
    for (int i = 1; i <= 5; i++)
        std::ofstream(log_dir() + "/log-zeb_unit_test-1-" + std::to_string(i)) << i;
    open_files();
    EXPECT_EQ(files("log-zeb_unit_test-1-").size(), 5u);
    EXPECT_NE(access(old.c_str(), F_OK), 0) << "the one that just fits is deleted";
    EXPECT_EQ(access((old + "x").c_str(), F_OK), 0);
}

TEST_F(zeb_dm, closed_files_are_neither_written_nor_closed_again)
{
    open_files();
    ZEB_ERROR("ZEB last.\n");
    zeb_buf_printf_reset();
    zeb_buf_printf("text\n");
    int syncs = fault::count("fsync");
    zeb_dm_close_files();
    EXPECT_EQ(fault::count("fsync"), syncs + 2) << "forced to disk";
    ZEB_ERROR("ZEB after.\n");
    zeb_dm_record_stat();
    zeb_dm_close_files(); // a second peer may ask for the abort
    EXPECT_THAT(content(log_dir() + "/" + files("log-")[0]), testing::EndsWith("ZEB last.\n"));
    EXPECT_EQ(content(log_dir() + "/" + files("stat-")[0]), "");
}
