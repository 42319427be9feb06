// The receive thread. It polls the topology connection and the application sockets, reads datagrams with their
// ancillary data, and routes each to its area. No datagram stops it: an invalid one is logged and dropped here. Only
// this thread reads these descriptors and uses the static buffers, so they need no lock.
#ifndef ZEB_MNG_RECV_H
#define ZEB_MNG_RECV_H

#include <sys/socket.h>

#include "zeb_app_info.h"

constexpr int ZEB_RECV_BUF_LEN = 66000;  // largest datagram of TIPC
constexpr int ZEB_TIPC_ANC_SPACE = 1096; // three ancillary items: error info, 1024 returned bytes, destination name
constexpr int ZEB_POLL_TIMEOUT_MS = 2000;

void *zeb_socket_msg_dist_thread_fun(void *arg);

bool zeb_socket_recv_app_msg(zeb_app_info_t *app_info); // true: queued without waking its proxy thread
int zeb_socket_recv_tipc_event();
int zeb_recvfrom_anc(uint32_t app, int sd, void *buf, size_t len, int flags, struct sockaddr *addr,
                     socklen_t *addr_len);
int zeb_recv_anc(uint32_t app, int sd, void *buf, size_t len, int flags);
bool zeb_verify_recv_msg_hdr(uint32_t app, const zeb_msg_t *msg);
bool zeb_verify_recv_retdata(uint32_t app, const zeb_msg_t *msg);
bool zeb_user_app_msg(const zeb_msg_t *msg);
void zeb_socket_recv_drop_msg(zeb_msg_t *msg);
void zeb_process_tipc_retdata(uint32_t app, struct cmsghdr *item);
int zeb_get_tipc_err_info(uint32_t app, int sd, uint32_t code, uint32_t size);

#endif
