// The launcher's commands about messages that were recorded, and scripts of faults. Each gives the status to exit with,
// and says on standard error what is wrong.
#ifndef SIM_TIPCSIM_RECORD_H
#define SIM_TIPCSIM_RECORD_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "sim_cluster.h"

constexpr long RECORD_BYTES = 128; // of a message's data, when nobody says more

typedef struct recording_s {
    std::string file;          // "-": standard output
    bool text = false;         // lines of text on standard output instead
    long bytes = RECORD_BYTES; // of each message's data
    long seconds = 0;          // 0: until a signal
} recording_t;

// Records what passes in a cluster, until a signal that ends processes, the time, or the cluster's end. `tool`: this
// program, with which a broker is started.
int record_messages(sim_cluster_t *cluster, const std::string &tool, const recording_t &what);
// Ends the recording, if there is one: returns when its file is whole, or after 5 seconds.
void record_end(sim_cluster_t *cluster);
int show_file(const std::string &file); // prints a line for each message of a file; "-": standard input

// Runs the commands of a file at their times. `command` does one of them, in a process of its own, and gives its exit
// status.
typedef int (*script_command_t)(const std::vector<std::string> &words);
int script_run(const std::string &file, script_command_t command);
// The same in a process beside this one, with standard error for what it prints. -1 when the file is none of a script.
pid_t script_begin(const std::string &file, script_command_t command);

#endif
