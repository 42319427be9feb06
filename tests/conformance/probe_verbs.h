// What the files of the probe share: its sockets, and the commands that each file adds.
#ifndef TESTS_CONFORMANCE_PROBE_VERBS_H
#define TESTS_CONFORMANCE_PROBE_VERBS_H

#include <functional>
#include <map>
#include <string>

#include "probe_text.h"

using verb_table = std::map<std::string, std::function<std::string(const words &)>>;

int sd_of(const words &w);                   // of the socket that w[1] names, or -1
int sd_named(const std::string &name);       // or -1
void keep(const std::string &name, int sd);  // the probe's `reset` closes it
int type_named(const std::string &name);     // SOCK_RDM for "rdm"
int wait_for(int sd, long ms, short events); // poll's result
std::string receive(const words &w);         // the command `recv`

verb_table connection_verbs(); // probe_connections.cpp
verb_table call_verbs();       // probe_calls.cpp
verb_table descriptor_verbs(); // probe_descriptors.cpp

[[noreturn]] void read_after_exec(); // what `child S exec` begins in the new program

#endif
