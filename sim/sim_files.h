// Lists the files of a folder, for the launcher and the broker.
#ifndef SIM_FILES_H
#define SIM_FILES_H

#include <cstring>
#include <dirent.h>
#include <string>
#include <vector>

// Calls take(name) for each file of `dir_name` whose name begins with `prefix`. The names are collected first, so
// `take` may remove files.
template <typename take_t>
static void sim_each_file(const char *dir_name, const char *prefix, take_t take)
{
    std::vector<std::string> names;
    DIR *dir = opendir(dir_name);
    for (struct dirent *entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
        if (strncmp(entry->d_name, prefix, strlen(prefix)) == 0)
            names.emplace_back(entry->d_name);
    }
    if (dir != nullptr)
        (void)closedir(dir);
    for (const std::string &name : names)
        take(name);
}

#endif
