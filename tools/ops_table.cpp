#include "ops_table.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

constexpr size_t SPACE = 2; // between two columns
static const char BOLD[] = "\033[1m";
static const char RED[] = "\033[31m";
static const char PLAIN[] = "\033[0m";

typedef struct column_s {
    size_t width;
    bool numbers; // numbers and "-" alone
    bool shown;
} column_t;

static bool is_number(const std::string &cell)
{
    return cell == "-" || (!cell.empty() && cell.find_first_not_of("+-.0123456789") == std::string::npos);
}

static std::vector<column_t> measure(const ops_table_t &table)
{
    std::vector<column_t> columns(table.front().size(), {0, true, true});
    for (size_t row = 0; row < table.size(); row++) {
        for (size_t i = 0; i < columns.size(); i++) {
            columns[i].width = std::max(columns[i].width, table[row][i].size());
            columns[i].numbers = columns[i].numbers && (row == 0 || is_number(table[row][i]));
        }
    }
    return columns;
}

static size_t width_of(const std::vector<column_t> &columns)
{
    size_t width = 0;
    for (const column_t &column : columns)
        width += column.shown && column.width != 0 ? column.width + (width == 0 ? 0 : SPACE) : 0;
    return width;
}

// Leaves columns out until the table fits. Returns their titles.
static std::string leave_out(std::vector<column_t> *columns, const ops_table_t &table,
                             const ops_importance_t &importance, size_t width)
{
    std::string titles;
    for (;;) {
        size_t last = columns->size();
        for (size_t i = 0; i < std::min(columns->size(), importance.size()); i++) {
            if ((*columns)[i].shown && importance[i] > (last == columns->size() ? 0 : importance[last]))
                last = i;
        }
        if (width_of(*columns) <= width || last == columns->size())
            return titles;
        (*columns)[last].shown = false;
        titles += (titles.empty() ? "" : ", ") + table.front()[last];
    }
}

// The line of a row. Stores where its last cell begins.
static std::string format_row(const std::vector<std::string> &row, const std::vector<column_t> &columns, size_t *last)
{
    std::string line;
    for (size_t i = 0; i < columns.size(); i++) {
        if (!columns[i].shown)
            continue;
        std::string space(columns[i].width - row[i].size(), ' ');
        line += line.empty() ? "" : std::string(SPACE, ' ');
        *last = line.size();
        line += columns[i].numbers ? space + row[i] : row[i] + space;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

static std::string paint(const std::string &line, bool titles, size_t last)
{
    if (titles)
        return BOLD + line + PLAIN;
    return last >= line.size() ? line : line.substr(0, last) + RED + line.substr(last) + PLAIN;
}

static std::string cut(const std::string &line, size_t width)
{
    return line.size() > width ? line.substr(0, width - 1) + ">" : line;
}

std::string ops_format_table(const ops_table_t &table, const ops_importance_t &importance,
                             const ops_terminal_t &terminal)
{
    std::vector<column_t> columns = measure(table);
    std::string left_out = leave_out(&columns, table, importance, terminal.width);
    std::string text;
    for (size_t row = 0; row < table.size(); row++) {
        size_t last = 0;
        std::string line = cut(format_row(table[row], columns, &last), terminal.width);
        if (!table.front().back().empty()) // what is wrong has a column without a title
            last = std::string::npos;
        text += (terminal.colour ? paint(line, row == 0, last) : line) + "\n";
    }
    if (!left_out.empty())
        text += cut("(no room for " + left_out + ")", terminal.width) + "\n";
    return text;
}

ops_terminal_t ops_terminal()
{
    struct winsize size = {};
    if (isatty(STDOUT_FILENO) == 0)
        return {std::string::npos, false};
    const char *no = getenv("NO_COLOR");
    const char *term = getenv("TERM");
    bool dumb = term == nullptr || strcmp(term, "dumb") == 0;
    bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return {known ? size.ws_col : std::string::npos, !dumb && (no == nullptr || *no == '\0')};
}

void ops_print_table(const ops_table_t &table, const ops_importance_t &importance)
{
    (void)fputs(ops_format_table(table, importance, ops_terminal()).c_str(), stdout);
}
