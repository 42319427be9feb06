// The configuration file /etc/zeb.conf, read by the rules of the library: the names of applications, and what is wrong
// with the file, line by line.
//
// The library reads the file at each look-up, 127 characters at a time: a longer line is several. Of each section the
// first counts, and in it the first line that matches. No lock: one thread uses the names.
#ifndef OPS_CONF_H
#define OPS_CONF_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#define OPS_CONF_FILE "/etc/zeb.conf"

typedef enum ops_severity_e {
    OPS_NOTE = 0,    // works, and may surprise
    OPS_WARNING = 1, // may not do what was meant
    OPS_ERROR = 2    // does not do what is written
} ops_severity_t;

typedef struct ops_finding_s {
    uint32_t line; // counted from 1; 0: of the whole file
    ops_severity_t severity;
    std::string what;   // is wrong
    std::string should; // it be; what to write
} ops_finding_t;

typedef struct ops_conf_app_s {
    std::string name; // at most 31 characters
    int32_t priority;
} ops_conf_app_t;

typedef struct ops_conf_s {
    bool found;                              // the file could be read
    std::map<uint32_t, ops_conf_app_t> apps; // by id
    std::map<std::string, std::string> keys; // value of each key of [MISC_CONF] that the library knows and finds
} ops_conf_t;

ops_conf_t ops_conf_parse(const std::string &text);

// What is wrong with the text of a file, in the order of its lines.
std::vector<ops_finding_t> ops_conf_check(const std::string &text);

// The text of the file. False when it cannot be read; `errno` says why.
bool ops_conf_text(std::string *text);

// The file of this node as it is now. It is read again when it has changed, which is looked at once a second at most.
const ops_conf_t *ops_conf();

// The name of an application, empty when the file gives it none.
std::string ops_conf_name(uint32_t app);

// The applications of that name, ascending.
std::vector<uint32_t> ops_conf_apps(const std::string &name);

#endif
