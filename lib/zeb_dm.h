// The log and statistics files of this process, under $VELK_DIR/dev/zeb.
// Log records come from any thread, without a lock: each is two writes, between which another thread's may fall. The
// statistics file is written on the receive thread.
#ifndef ZEB_DM_H
#define ZEB_DM_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "platform/list_head.h"

constexpr size_t ZEB_LOG_SIZE_DEFAULT = 100000; // bytes at which the log file wraps
constexpr int ZEB_DM_PATH_LEN = 128;
constexpr int ZEB_DM_DIR_LEN = 64;
constexpr int ZEB_DM_KEEP = 5;         // older files of each kind that stay
constexpr int ZEB_DM_RESERVE_RATE = 5; // times that many are looked at

// A file of an earlier process.
typedef struct zeb_dm_file_s {
    struct list_head list;
    char path[ZEB_DM_PATH_LEN];
    uint32_t last_change_time; // seconds
} zeb_dm_file_t;

extern "C" {
extern FILE *g_zeb_log_fp __attribute__((visibility("default")));
}

// Opens both files. On failure the library goes on without.
void zeb_dm_init();

void zeb_dm_record_log(const char *line);
void zeb_dm_record_stat(); // the print buffer's text
void zeb_dm_close_files(); // before an abort; the streams are not used afterwards
void zeb_set_log_size(size_t size);

// Makes the directory and writes its path to `buf`. 0 or -1.
int zeb_make_log_dir(char *buf, size_t len);

#endif
