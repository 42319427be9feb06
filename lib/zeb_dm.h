// The log and statistics files of this process, under $VELK_DIR/dev/zeb.
// Both are opened at start-up, closed when the library stops, and the oldest files of earlier processes are deleted.
// The log wraps at its size; each dump rewrites the statistics. Any thread records log lines, without a lock: a record
// is two writes, and another thread's write may fall between them. Only the receive thread writes statistics.
#ifndef ZEB_DM_H
#define ZEB_DM_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "platform/list_head.h"

constexpr size_t ZEB_LOG_SIZE_DEFAULT = 100000; // bytes at which the log file wraps
constexpr int ZEB_DM_PATH_LEN = 128;
constexpr int ZEB_DM_DIR_LEN = 64;
constexpr int ZEB_DM_KEEP = 5;         // older files of each kind that are kept
constexpr int ZEB_DM_RESERVE_RATE = 5; // this many times ZEB_DM_KEEP files are examined

// A file of an earlier process.
typedef struct zeb_dm_file_s {
    struct list_head list;
    char path[ZEB_DM_PATH_LEN];
    uint32_t last_change_time; // seconds
} zeb_dm_file_t;

extern "C" {
extern FILE *g_zeb_log_fp __attribute__((visibility("default")));
}

// Opens both files. On failure the library runs without them.
void zeb_dm_init();

void zeb_dm_record_log(const char *line);
void zeb_dm_record_stat(); // records the text of the print buffer
void zeb_dm_close_files(); // called before an abort; no stream is used afterwards

// Closes the files that zeb_dm_init has opened, once no thread writes to them; and opens new ones, if there were any,
// when the library starts again. Called under g_lib_mutex.
void zeb_dm_stop();
void zeb_dm_start_again();
void zeb_set_log_size(size_t size);

// Creates the directory and writes its path to `buf`. Returns 0 or -1.
int zeb_make_log_dir(char *buf, size_t len);

#endif
