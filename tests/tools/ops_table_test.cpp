// Tables on terminals of several widths.
#include <gtest/gtest.h>

#include "ops_table.h"

static const ops_table_t TABLE = {{"APP", "NAME", "PID", "LEVELS", ""},
                                  {"100", "routed", "4711", "warn,error", ""},
                                  {"7", "shell", "-", "-", "no answer in 2000 ms"}};
static const ops_importance_t IMPORTANCE = {0, 0, 1, 2};

static std::string format(size_t width, bool colour = false)
{
    return ops_format_table(TABLE, IMPORTANCE, {width, colour});
}

TEST(ops_table, a_file_gets_all_columns_with_numbers_to_the_right)
{
    EXPECT_EQ(format(std::string::npos), "APP  NAME     PID  LEVELS\n"
                                         "100  routed  4711  warn,error\n"
                                         "  7  shell      -  -           no answer in 2000 ms\n");
}

TEST(ops_table, a_table_that_just_fits_is_whole)
{
    EXPECT_EQ(format(51), format(std::string::npos));
}

TEST(ops_table, a_narrow_terminal_loses_the_least_important_column_first_and_says_so)
{
    EXPECT_EQ(format(50), "APP  NAME     PID\n"
                          "100  routed  4711\n"
                          "  7  shell      -  no answer in 2000 ms\n"
                          "(no room for LEVELS)\n");
    EXPECT_EQ(format(38), "APP  NAME\n"
                          "100  routed\n"
                          "  7  shell   no answer in 2000 ms\n"
                          "(no room for LEVELS, PID)\n");
}

TEST(ops_table, the_number_decides_which_column_goes_first_and_not_its_place)
{
    EXPECT_EQ(ops_format_table(TABLE, {0, 0, 2, 1}, {45, false}), "APP  NAME    LEVELS\n"
                                                                  "100  routed  warn,error\n"
                                                                  "  7  shell   -           no answer in 2000 ms\n"
                                                                  "(no room for PID)\n");
}

TEST(ops_table, what_is_cut_all_the_same_is_marked)
{
    EXPECT_EQ(format(20), "APP  NAME\n"
                          "100  routed\n"
                          "  7  shell   no ans>\n"
                          "(no room for LEVELS>\n");
}

TEST(ops_table, with_colour_titles_are_bold_and_what_is_wrong_is_red)
{
    EXPECT_EQ(format(38, true), "\033[1mAPP  NAME\033[0m\n"
                                "100  routed\n"
                                "  7  shell   \033[31mno answer in 2000 ms\033[0m\n"
                                "(no room for LEVELS, PID)\n");
    EXPECT_NE(format(20, true).find("\033[31mno ans>\033[0m\n"), std::string::npos);
}
