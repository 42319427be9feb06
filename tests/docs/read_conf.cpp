// What the library's reader finds in /etc/zeb.conf, for the check of the configurations that the documentation shows.
// Usage: zeb_read_conf (app ID | group HEX-ID | key KEY)…; prints a line for each: its fields with commas between,
// blank when there is no such entry.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zeb_cfg.h"

static void print_app(const char *id)
{
    zeb_app_cfg_t cfg;
    if (zeb_get_app_cfg((uint32_t)strtoul(id, nullptr, 10), &cfg) != 0)
        return;
    printf("%u,%s,%d,%s", cfg.id, cfg.name, cfg.priority, cfg.developer);
    if (cfg.comment[0] != '\0')
        printf(",%s", cfg.comment);
}

static void print_group(const char *id)
{
    zeb_app_mc_cfg_t cfg;
    if (zeb_get_app_mc_cfg((uint32_t)strtoul(id, nullptr, 16), &cfg) != 0)
        return;
    printf("%x,%s,", cfg.id, cfg.name);
    for (int i = 0; i < cfg.mbr_num; i++)
        printf("%s%u", i == 0 ? "" : " ", cfg.member[i]);
    if (cfg.comment[0] != '\0')
        printf(",%s", cfg.comment);
}

static void print_key(const char *key)
{
    char value[ZEB_CFG_VALUE_LEN];
    if (zeb_get_misc_cfg(key, value, sizeof(value)) == 0)
        printf("%s,%s", key, value + strspn(value, " "));
}

int main(int argc, char **argv)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "app") == 0)
            print_app(argv[i + 1]);
        else if (strcmp(argv[i], "group") == 0)
            print_group(argv[i + 1]);
        else
            print_key(argv[i + 1]);
        printf("\n");
    }
    return 0;
}
