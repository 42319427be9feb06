"""Makes zeb._native, the part of the package that is compiled. setup.py takes `builder` from here.

Where the library is, from the first of these that is set:
  ZEB_BUILD                         a build folder of the source tree (build/release)
  ZEB_INCLUDE_DIR, ZEB_LIBRARY_DIR  the folder that has zeb/zeb_ext.h, and that of libzeb.so
  pkg-config zeb                    the installed library; PKG_CONFIG_PATH where it is not in the usual place
"""

import os
import pathlib
import shlex
import subprocess
from typing import Any

import cffi

HERE = pathlib.Path(__file__).resolve().parent

# The names and members that the package uses. The compiler takes layouts and values from the headers (`...`), and says
# where a type here is not that of the headers.
DECLARATIONS = """
#define ZEB_SEND_NOWAIT ...
#define ZEB_SEND_EXCLUDE_SELF ...
#define ZEB_NODE_ALL ...
#define ZEB_MSG_FLAG_REQUEST ...
#define ZEB_MSG_FLAG_ACK ...
#define ZEB_MSG_MAX_DATA ...
#define ZEBPY_MESSAGE ...
#define ZEBPY_EVENT ...
#define ZEBPY_DONE ...

typedef struct {
    uint8_t flag; uint32_t src_node; uint32_t src_app; uint32_t app_ver; int32_t rpc_stat; ...;
} zeb_msg_hdr_t;
typedef struct { zeb_msg_hdr_t hdr; ...; } zeb_msg_t;
typedef struct { int num; zeb_msg_t *msg[...]; ...; } zeb_reply_msg_t;
typedef struct { uint32_t phase; uint32_t server; uint64_t since; ...; } zeb_peer_state_t;

void zeb_run(void);
int zeb_stop(void);
int zeb_comm_with(uint32_t src_app, uint32_t dst_app);
int zeb_get_my_node_id(void);
const char *zeb_strerror(int result);
const char *zeb_last_error(void);
const char *zeb_reply_status_text(int status);
int zeb_app_fd(uint32_t app);
int zeb_rpc_cancel(uint32_t src_app, uint32_t call);
void zeb_msg_free(zeb_msg_t *msg);
void *zeb_msg_data(zeb_msg_t *msg);
uint32_t zeb_msg_size(const zeb_msg_t *msg);
void zeb_reply_free(zeb_reply_msg_t *reply);
int zeb_peer_state(uint32_t app, uint32_t peer, uint32_t node, zeb_peer_state_t *state);
int zeb_online_nodes(uint32_t app, uint32_t peer, uint32_t *nodes, int max);
int zeb_wait_online(uint32_t app, uint32_t peer, uint32_t node, uint32_t count, uint32_t milliseconds);
int zeb_create_app_mcast(uint32_t src_app);
int zeb_add_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t new_app);
void zeb_del_app_mcast(uint32_t src_app, uint32_t mc_app, uint32_t del_app);
void zeb_destroy_app_mcast(uint32_t src_app, uint32_t mc_app);
int zeb_create_node_mcast(uint32_t src_app);
int zeb_add_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t new_node);
void zeb_del_node_mcast(uint32_t src_app, uint32_t mc_node, uint32_t del_node);
void zeb_destroy_node_mcast(uint32_t src_app, uint32_t mc_node);

typedef struct {
    int kind; zeb_msg_t *msg; uint32_t event; uint32_t event_app; uint32_t event_node; uint64_t token;
    zeb_reply_msg_t replies; ...;
} zebpy_item_t;
int zebpy_register(uint32_t app, const char *name, const uint32_t *versions, int num, uint32_t queue_notice,
                   uint32_t every_subscriber);
int zebpy_take(uint32_t app, zebpy_item_t *items, int max);
int zebpy_send(uint32_t app, uint32_t node, uint32_t to, uint32_t version, const char *data, size_t size, int flags);
int zebpy_call(uint32_t app, uint32_t node, uint32_t to, uint32_t version, const char *data, size_t size, int flags,
               uint32_t milliseconds, uint64_t token, uint32_t *call);
int zebpy_reply(const zeb_msg_t *request, const char *data, size_t size);
int zebpy_log_start(int fd);
int zebpy_log_stop(void);
"""


def pkg_config(option: str) -> list[str]:
    try:
        said = subprocess.run(["pkg-config", option, "zeb"], check=True, stdout=subprocess.PIPE, text=True).stdout
    except (OSError, subprocess.CalledProcessError) as error:
        raise SystemExit(
            "zeb: the library is not found. Install it, or set PKG_CONFIG_PATH to the folder of its zeb.pc, "
            "or ZEB_BUILD to a build folder of its source."
        ) from error
    return shlex.split(said)


def where_the_library_is() -> dict[str, list[str]]:
    build = os.environ.get("ZEB_BUILD")
    include, library = os.environ.get("ZEB_INCLUDE_DIR"), os.environ.get("ZEB_LIBRARY_DIR")
    if build:
        cache = (pathlib.Path(build) / "CMakeCache.txt").read_text(encoding="utf-8")
        source = next(line.partition("=")[2] for line in cache.splitlines() if line.startswith("CMAKE_HOME_DIRECTORY"))
        include, library = f"{source}/header", f"{pathlib.Path(build).resolve()}/lib"
    if include and library:
        return {"include_dirs": [include], "library_dirs": [library], "libraries": ["zeb"]}
    return {"extra_compile_args": pkg_config("--cflags"), "extra_link_args": pkg_config("--libs")}


def make_builder() -> Any:
    options: dict[str, list[str]] = where_the_library_is()
    options.setdefault("include_dirs", []).append(str(HERE))
    options["depends"] = [str(HERE / "zeb_python.c"), str(HERE / "zeb_python.h")]
    made = cffi.FFI()
    made.cdef(DECLARATIONS)
    # The source is a part of the module, so that the compiler sees the functions and one file is all there is to find.
    source = f'#include "{HERE}/zeb_python.c"\n'
    made.set_source("zeb._native", source, **options)
    return made


builder = make_builder()
