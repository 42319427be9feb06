// The files of which each node has a copy of its own: PATH=TEMPLATE, from --file, from a preset, and from the cluster.
#include "preload_paths.h"
#include "tipcsim.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

// Without "." and "..", and with one slash between two names, as the preload library makes the paths that it meets.
static std::string normal(const std::string &path)
{
    std::vector<std::string> names;
    std::stringstream in(path);
    for (std::string name; std::getline(in, name, '/');) {
        if (name == ".." && !names.empty())
            names.pop_back();
        else if (name != ".." && name != "." && !name.empty())
            names.push_back(name);
    }
    std::string text;
    for (const std::string &name : names)
        text += "/" + name;
    return text;
}

static std::string real_path(const std::string &path)
{
    char real[PATH_MAX];
    return realpath(path.c_str(), real) == nullptr ? "" : real;
}

static std::string folder_of(const std::string &path)
{
    return path.substr(0, path.rfind('/'));
}

// The same file by a path without symbolic links: a program that works in the folder sees that one.
static std::string other_path(const std::string &path)
{
    std::string folder = real_path(folder_of(path) + "/");
    std::string other = (folder == "/" ? "" : folder) + path.substr(path.rfind('/'));
    return folder.empty() || other == path ? "" : other;
}

// A line of a preset, or a value of --file. A template's path begins in `folder`.
static std::string node_file(const std::string &value, const std::string &folder, const std::string &where)
{
    size_t at = value.find('=');
    std::string path = at == std::string::npos ? "" : normal(value.substr(0, at));
    std::string from = at == std::string::npos ? "" : value.substr(at + 1);
    if (value[0] != '/' || path.empty() || path.size() >= PRELOAD_PATH_LEN || path.find(':') != std::string::npos)
        die(where + " takes PATH=TEMPLATE, PATH absolute and TEMPLATE readable, not '" + value + "'");
    if (from.empty())
        return path + "=";
    std::string whole = real_path(from[0] == '/' ? from : folder + "/" + from);
    if (whole.empty() || access(whole.c_str(), R_OK) != 0)
        die(where + " takes PATH=TEMPLATE, PATH absolute and TEMPLATE readable, not '" + value + "'");
    return path + "=" + whole;
}

std::string file_option(const std::string &value)
{
    return node_file(value, ".", "--file");
}

// A preset without a slash in its name is one that is installed with this program.
static std::string preset_path(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return name;
    std::string dir = folder_of(self());
    for (const char *place : {"/node-files/", "/" TIPCSIM_DATA_DIR "/", "/../share/tipcsim/"}) {
        if (access((dir + place + name).c_str(), R_OK) == 0)
            return dir + place + name;
    }
    die("there is no preset " + name + "; one of your own is named with a slash, as in ./" + name);
}

words_t preset_files(const std::string &name)
{
    std::string path = preset_path(name);
    std::ifstream in(path);
    words_t files;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != '#')
            files.push_back(node_file(line, folder_of(real_path(path)), path));
    }
    if (!in.eof())
        die("cannot read " + path);
    return files;
}

static void add_lines(words_t *words, const std::string &path)
{
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        words->push_back(line);
}

// The first of a path counts.
static words_t chosen(const options_t &options)
{
    const char *preset = getenv("TIPCSIM_NODE_FILES");
    words_t more = options.preset_files;
    if (more.empty() && preset != nullptr && *preset != '\0')
        more = preset_files(preset);
    words_t words = options.files;
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

static std::string path_of(const std::string &word)
{
    return word.substr(0, word.find('='));
}

static bool has(const words_t &words, const std::string &path)
{
    return std::any_of(words.begin(), words.end(), [&path](const std::string &word) {
        return path_of(word) == path || other_path(path_of(word)) == path;
    });
}

static std::string filled(const std::string &from, const std::string &node)
{
    std::ifstream in(from);
    if (!in)
        die("cannot read " + from);
    std::stringstream all;
    all << in.rdbuf();
    std::string text = all.str();
    for (size_t at = 0; (at = text.find("@NODE@", at)) != std::string::npos; at += node.size())
        text.replace(at, 6, node);
    return text;
}

// Makes both folders one for the node too.
static void join_folders(const std::string &folder, const std::string &other)
{
    if (rmdir(folder.c_str()) == 0 && symlink(other.c_str(), folder.c_str()) != 0)
        die("cannot make " + folder + ": " + strerror(errno));
}

static void make_file(const std::string &root, const std::string &word, const std::string &node)
{
    std::string path = path_of(word);
    std::string other = other_path(path);
    make_folders(root + path);
    if (!other.empty()) {
        make_folders(root + other);
        join_folders(folder_of(root + path), folder_of(root + other));
    }
    std::string from = word.substr(path.size() + 1);
    if (from.empty() && access(path.c_str(), R_OK) != 0)
        return; // the host has none either
    std::ofstream out(root + path);
    out << (from.empty() ? filled(path, "@NODE@") : filled(from, node));
    out.close();
    if (!out)
        die("cannot write " + root + path + ": " + strerror(errno));
}

void keep_file_options(const options_t &options)
{
    std::ofstream list(in_cluster("files"));
    for (const std::string &word : chosen(options))
        list << word << "\n";
    list.close();
    if (!list)
        die("cannot write " + in_cluster("files"));
}

// Makes each file once, when it is first named for the node, and notes it. What the node's processes change or remove
// stays changed or removed.
void make_node_files(const options_t &options, const std::string &node)
{
    std::string root = in_cluster("nodes/" + node);
    make_folders(root + "/");
    words_t had;
    add_lines(&had, root + ".files");
    words_t words = options.files;
    add_lines(&words, in_cluster("files"));
    words_t more = chosen(options);
    words.insert(words.end(), more.begin(), more.end());
    std::ofstream list(root + ".files", std::ios::app);
    for (const std::string &word : words) {
        if (has(had, path_of(word)))
            continue;
        make_file(root, word, node);
        had.push_back(word);
        list << word << "\n";
    }
    list.close();
    if (!list)
        die("cannot write " + root + ".files");
}

std::string node_file_list(const std::string &node)
{
    words_t words;
    add_lines(&words, in_cluster("nodes/" + node + ".files"));
    std::string list;
    for (const std::string &word : words) {
        std::string other = other_path(path_of(word));
        list += (list.empty() ? "" : ":") + path_of(word);
        list += other.empty() ? "" : ":" + other;
    }
    if (list.size() >= PRELOAD_LIST_LEN || (size_t)std::count(list.begin(), list.end(), ':') >= PRELOAD_MAX_FILES)
        die("a node has at most " + std::to_string(PRELOAD_MAX_FILES) + " files");
    return list;
}
