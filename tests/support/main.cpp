// Runs the tests of a binary. The library's state is that of a process, so under ctest each test has a process of its
// own. Hundreds of short tests that share a name can have it for less: with --each-alone PART FILE every test whose
// name contains PART runs in a forked child, and FILE becomes the JUnit file. Under AddressSanitizer a process takes
// longer to start than such a test to run.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

static std::vector<std::string> tests_with(const char *part)
{
    std::vector<std::string> names;
    const testing::UnitTest *all = testing::UnitTest::GetInstance();
    for (int i = 0; i < all->total_test_suite_count(); i++) {
        const testing::TestSuite *suite = all->GetTestSuite(i);
        for (int j = 0; j < suite->total_test_count(); j++) {
            std::string name = std::string(suite->name()) + "." + suite->GetTestInfo(j)->name();
            if (name.find(part) != std::string::npos)
                names.push_back(name);
        }
    }
    return names;
}

// Whether the test passes. Its output is shown when it does not.
static bool passes_alone(const std::string &name)
{
    FILE *output = tmpfile();
    (void)fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        (void)dup2(fileno(output), STDOUT_FILENO);
        (void)dup2(fileno(output), STDERR_FILENO);
        testing::GTEST_FLAG(filter) = name;
        exit(RUN_ALL_TESTS());
    }
    int status = -1;
    (void)waitpid(pid, &status, 0);
    rewind(output);
    char line[1024];
    while (status != 0 && fgets(line, sizeof(line), output) != nullptr)
        (void)fputs(line, stdout);
    (void)fclose(output);
    return status == 0;
}

// In the folder for results, if there is one.
static std::string place_of(const char *file)
{
    const char *results = getenv("ZEB_TEST_RESULTS");
    return results != nullptr ? std::string(results) + "/" + file : file;
}

static int each_alone(const char *part, const char *file)
{
    int failed = 0;
    std::vector<std::string> names = tests_with(part);
    std::ofstream junit(place_of(file));
    junit << "<testsuites><testsuite name=\"alone\">\n";
    for (const std::string &name : names) {
        bool passed = passes_alone(name);
        failed += passed ? 0 : 1;
        junit << "<testcase classname=\"alone\" name=\"" << name << (passed ? "\"/>\n" : "\"><failure/></testcase>\n");
    }
    junit << "</testsuite></testsuites>\n";
    junit.close();
    printf("%zu tests, %d failed\n", names.size(), failed);
    return failed != 0 || names.empty() || !junit ? 1 : 0;
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc == 4 && strcmp(argv[1], "--each-alone") == 0)
        return each_alone(argv[2], argv[3]);
    return RUN_ALL_TESTS();
}
