// The files of which each node has a copy of its own.
#include "tipcsim.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

// PATH=TEMPLATE of every file that each node has a copy of: from the caller's options, the cluster's, and the defaults.
static words_t node_files(const options_t &options)
{
    words_t files = options.files;
    std::ifstream in(in_cluster("files"));
    for (std::string line; std::getline(in, line);)
        files.push_back(line);
    auto has = [&files](const std::string &path) {
        return std::any_of(files.begin(), files.end(),
                           [&](const std::string &f) { return f.rfind(path + "=", 0) == 0; });
    };
    for (const char *path : {"/etc/zeb.conf", "/tmp/addr/.zeb_node_addr"}) {
        if (!has(path))
            files.push_back(std::string(path) + "=");
    }
    return files;
}

static std::string filled(const std::string &path, const std::string &from, const std::string &node)
{
    if (from.empty() && path != "/etc/zeb.conf")
        return node + "\n";
    std::ifstream in(from.empty() ? path : from);
    if (!in && !from.empty())
        die("cannot read " + from);
    std::stringstream all;
    all << in.rdbuf();
    std::string text = all.str();
    for (size_t at = 0; (at = text.find("@NODE@", at)) != std::string::npos; at += node.size())
        text.replace(at, 6, node);
    return text;
}

// Makes the node's files once, when the node is first used. What its processes change or remove stays changed or
// removed.
void make_node_files(const options_t &options, const std::string &node)
{
    std::string root = in_cluster("nodes/" + node);
    make_folders(in_cluster("nodes/"));
    if (mkdir(root.c_str(), 0700) != 0) {
        if (errno != EEXIST)
            die("cannot make " + root + ": " + strerror(errno));
        return;
    }
    for (const std::string &file : node_files(options)) {
        std::string path = file.substr(0, file.find('='));
        std::string from = file.substr(file.find('=') + 1);
        if (from.empty() && path == "/etc/zeb.conf" && access(path.c_str(), R_OK) != 0)
            continue;
        make_folders(root + path);
        std::ofstream out(root + path);
        out << filled(path, from, node);
        out.close();
        if (!out)
            die("cannot write " + root + path + ": " + strerror(errno));
    }
}

std::string node_file_list(const options_t &options)
{
    std::string list;
    for (const std::string &file : node_files(options))
        list += (list.empty() ? "" : ":") + file.substr(0, file.find('='));
    return list;
}

std::string file_option(const std::string &value)
{
    char *whole = realpath(value.substr(value.find('=') + 1).c_str(), nullptr);
    if (value[0] != '/' || value.find('=') == std::string::npos || whole == nullptr)
        die("--file takes PATH=TEMPLATE, PATH absolute and TEMPLATE readable, not '" + value + "'");
    std::string file = value.substr(0, value.find('=') + 1) + whole;
    free(whole);
    return file;
}
