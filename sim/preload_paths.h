// Which paths are the node's own. A file that TIPCSIM_FILES lists has a copy in the node's folder, and every call that
// takes a path goes to the copy. The copy has a place of its own beside it for the temporary files of those who write a
// new version and rename it over the old one, so the host's folder stays as it is.
//
// Any thread may enter these functions, a signal handler too: they take no lock, allocate nothing and leave errno
// alone. The environment is read once, when the library is loaded.
#ifndef SIM_PRELOAD_PATHS_H
#define SIM_PRELOAD_PATHS_H

#include <cstddef>
#include <fcntl.h>

constexpr size_t PRELOAD_PATH_LEN = 1024; // a longer path is the host's
constexpr size_t PRELOAD_ROOT_LEN = 128;
constexpr size_t PRELOAD_LIST_LEN = 16384; // of TIPCSIM_FILES
constexpr size_t PRELOAD_MAX_FILES = 128;

enum preload_use_e {
    PRELOAD_USE,     // of a file that is there
    PRELOAD_MAKE,    // makes the file when it is not there
    PRELOAD_TEMP,    // makes a file that must not be there yet, as mkstemp does
    PRELOAD_INSTEAD, // a node's own file is renamed to this one
    PRELOAD_FOLDER,  // the path names the folder in which a file without a name is made, or which is watched
};

struct preload_own_s { // the path to call with, for the length of one call
    explicit preload_own_s(const char *name, preload_use_e use = PRELOAD_USE, int dir = AT_FDCWD);
    preload_own_s(const preload_own_s &) = delete;
    preload_own_s &operator=(const preload_own_s &) = delete;
    bool own() const
    {
        return path == text;
    }
    const char *path; // what the caller gave, or `text` when it is the node's: then it begins with a slash
    char text[PRELOAD_ROOT_LEN + PRELOAD_PATH_LEN];
};

preload_use_e preload_use_of(const char *mode);      // of fopen
const char *preload_shown(const preload_own_s &own); // the path that the program knows, of one that is the node's

// Renames or links across file systems, by way of a copy: between a folder of the host and the node's. `flags` are
// those of renameat2, or of linkat when `keep` is set. As the calls, -1 and errno on failure.
int preload_carry(int from_dir, const char *from, int to_dir, const char *to, unsigned flags, bool keep);

#endif
