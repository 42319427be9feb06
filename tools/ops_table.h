// Tables for a terminal: aligned columns, numbers to the right, as wide as the terminal and no wider.
#ifndef OPS_TABLE_H
#define OPS_TABLE_H

#include <string>
#include <vector>

typedef std::vector<std::vector<std::string>> ops_table_t; // rows of equally many cells, the first the titles

// By column: 0 stays. Of the others the highest number goes first where the table is wider than the terminal. Columns
// beyond its end stay.
typedef std::vector<int> ops_importance_t;

// What a table is shown on.
typedef struct ops_terminal_s {
    size_t width; // npos: without a bound, as a file and a pipe
    bool colour;
} ops_terminal_t;

// Standard output. It has colour when it is a terminal that knows it and NO_COLOR is not set.
ops_terminal_t ops_terminal();

// The table as lines. Columns that were left out are named below it; a line that is too wide all the same ends with
// '>'. With colour the titles are bold, and the cells of a column without a title, which say what is wrong, are red.
std::string ops_format_table(const ops_table_t &table, const ops_importance_t &importance,
                             const ops_terminal_t &terminal);

// Prints it to standard output.
void ops_print_table(const ops_table_t &table, const ops_importance_t &importance = {});

#endif
