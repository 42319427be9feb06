#include "ops_table.h"

#include <algorithm>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

typedef struct column_s {
    size_t width;
    bool numbers; // numbers and "-" alone
} column_t;

static bool is_number(const std::string &cell)
{
    return cell == "-" || (!cell.empty() && cell.find_first_not_of("-0123456789") == std::string::npos);
}

static std::vector<column_t> measure(const ops_table_t &table)
{
    std::vector<column_t> columns(table.front().size(), {0, true});
    for (size_t row = 0; row < table.size(); row++) {
        for (size_t i = 0; i < columns.size(); i++) {
            columns[i].width = std::max(columns[i].width, table[row][i].size());
            columns[i].numbers = columns[i].numbers && (row == 0 || is_number(table[row][i]));
        }
    }
    return columns;
}

static size_t terminal_width()
{
    struct winsize size = {};
    if (isatty(STDOUT_FILENO) == 0 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return std::string::npos;
    return size.ws_col;
}

void ops_print_table(const ops_table_t &table)
{
    std::vector<column_t> columns = measure(table);
    size_t width = terminal_width();
    for (const auto &row : table) {
        std::string line;
        for (size_t i = 0; i < columns.size(); i++) {
            std::string space(columns[i].width - row[i].size(), ' ');
            line += (i == 0 ? "" : "  ") + (columns[i].numbers ? space + row[i] : row[i] + space);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        printf("%s\n", line.substr(0, width).c_str());
    }
}
