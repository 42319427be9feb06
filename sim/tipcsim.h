// What the files of the launcher share. The launcher is one thread in a process of its own; a failure ends it.
#ifndef SIM_TIPCSIM_H
#define SIM_TIPCSIM_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "sim_cluster.h"
#include "tipcsim_record.h"

typedef std::vector<std::string> words_t;

typedef struct options_s {
    std::string cluster;
    std::string node;
    std::string identity;
    long nodes = 1;
    long rmem = SIM_DEFAULT_RMEM;
    long tolerance = SIM_DEFAULT_TOLERANCE;
    long timeout = 0;
    long sends = 1;
    long jitter = 0; // ms
    long after = 0;  // sends
    long seconds = 0;
    long data = RECORD_BYTES; // bytes
    std::string script;
    bool virtual_time = false;
    bool one_way = false;
    bool end = false;
    std::string pid;
    std::string err;
    std::string bytes;
    std::string code;
    words_t files;
    words_t preset_files; // --file comes before them
    words_t words;        // arguments that are not options
    bool force = false;
    char **command = nullptr;
} options_t;

extern sim_cluster_t g_cluster; // the one that this command is about

[[noreturn]] void die(const std::string &text);
long number(const std::string &text, const char *what, long lowest, long highest); // dies when it is none of the range
uint32_t node_number(const std::string &text, const char *what); // an address, also as Z.C.N; dies when it is none
std::string self();                                              // the path of this program
void make_folders(const std::string &path);                      // all folders above `path`
std::string in_cluster(const std::string &name);
uint32_t node_word(const options_t &options, size_t index);

// The cluster that the options or the environment name (tipcsim_run.cpp).
void open_cluster(const options_t &options);
int join_cluster(const options_t &options); // the cluster's lock: until it is closed, the folder is not removed

// The files of which each node has a copy (tipcsim_files.cpp).
std::string file_option(const std::string &value); // PATH=TEMPLATE with the whole path of TEMPLATE
words_t preset_files(const std::string &name);     // the same of every line of a preset
void keep_file_options(const options_t &options);  // for all nodes of this cluster
void make_node_files(const options_t &options, const std::string &node);
std::string node_file_list(const std::string &node); // the paths, with colons between them

// Programs on nodes (tipcsim_run.cpp).
int run(const options_t &options);
int exec_in(options_t options);
[[noreturn]] void become(char **command);
std::string preload_library();                // its path
void check_program(const options_t &options); // whether it can be simulated (tipcsim_elf.cpp)

// The state that the processes share, and the broker (tipcsim_state.cpp).
void begin_cluster(const options_t &options); // of `tipcsim cluster`: its settings and its first nodes
void end_cluster();                           // its last process has ended: the folder is removed
void look_at_end();                           // tells the broker that the launcher is through with the cluster
void add_node(const options_t &options);      // with its identity; dies when there are too many, or it has another one
void serve_cluster();                         // starts a broker when there is none
void lose_links(uint32_t node);               // all of a node that failed
// Does what `verb` asks of the cluster, and gives the status to exit with. False when it is no such verb.
bool state_command(const std::string &verb, const options_t &options, int *status);

int cluster(options_t options);           // makes a cluster for the length of a command (tipcsim_cluster.cpp)
int script_command(const words_t &words); // does a command of a script, in a process of its own

#endif
