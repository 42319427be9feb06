// Tables for a terminal: aligned columns, numbers to the right, cut to the terminal's width.
#ifndef OPS_TABLE_H
#define OPS_TABLE_H

#include <string>
#include <vector>

typedef std::vector<std::vector<std::string>> ops_table_t; // rows of equally many cells, the first the titles

// Prints to standard output. Lines are cut on a terminal alone: what goes into a file or a pipe is whole.
void ops_print_table(const ops_table_t &table);

#endif
