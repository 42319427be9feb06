/* Sizes and offsets of the public records, for both languages. */
#ifndef TESTS_ABI_LAYOUT_H
#define TESTS_ABI_LAYOUT_H

#include <stddef.h>

#include <zeb/zeb.h>
#include <zeb/zeb_diag.h>
#include <zeb/zeb_ext.h>
#include <zeb/zeb_tlv.h>

_Static_assert(sizeof(zeb_msg_hdr_t) == 36, "wire header");
_Static_assert(offsetof(zeb_msg_hdr_t, flag) == 2, "flag");
_Static_assert(offsetof(zeb_msg_hdr_t, len) == 4, "len");
_Static_assert(offsetof(zeb_msg_hdr_t, src_node) == 8, "src_node");
_Static_assert(offsetof(zeb_msg_hdr_t, dst_node) == 12, "dst_node");
_Static_assert(offsetof(zeb_msg_hdr_t, src_app) == 16, "src_app");
_Static_assert(offsetof(zeb_msg_hdr_t, dst_app) == 20, "dst_app");
_Static_assert(offsetof(zeb_msg_hdr_t, app_ver) == 24, "app_ver");
_Static_assert(offsetof(zeb_msg_hdr_t, seq) == 28, "seq");
_Static_assert(offsetof(zeb_msg_hdr_t, rpc_stat) == 32, "rpc_stat");
_Static_assert(offsetof(zeb_msg_t, hdr) == 2 * sizeof(void *), "the header follows the link");
_Static_assert(offsetof(zeb_msg_t, data) == 2 * sizeof(void *) + 36, "the payload follows the header");
_Static_assert(sizeof(zeb_event_t) == 16, "event");
_Static_assert(offsetof(zeb_event_t, event.app.node) == 8, "event node");
_Static_assert(offsetof(zeb_event_t, event.app.app) == 12, "event application");
_Static_assert(sizeof(zeb_msg_dispatcher_t) == 2 * sizeof(void *), "dispatcher row");
_Static_assert(sizeof(zeb_reply_msg_t) == 65 * sizeof(void *), "reply buffer");
_Static_assert(offsetof(zeb_reply_msg_t, msg) == sizeof(void *), "first reply");
_Static_assert(sizeof(zeb_mismatch_info_t) == 8, "version range");
_Static_assert(sizeof(zeb_app_dispatcher_t) == 3 * sizeof(void *), "row of a table with a context");
_Static_assert(offsetof(zeb_app_options_t, app) == sizeof(size_t), "options: application");
_Static_assert(offsetof(zeb_app_options_t, name) == sizeof(size_t) + 8, "options: name");
_Static_assert(offsetof(zeb_app_options_t, event) == sizeof(size_t) + 8 + 2 * sizeof(void *), "options: smallest size");
_Static_assert(offsetof(zeb_app_options_t, queue_notice) == sizeof(size_t) + 8 + 4 * sizeof(void *), "options: notice");
_Static_assert(sizeof(zeb_app_options_t) == sizeof(size_t) + 16 + 5 * sizeof(void *), "options");
_Static_assert(sizeof(struct tlv_desc) == 4, "element header");
_Static_assert(sizeof(zeb_peer_state_t) == 16, "state of a peer");
_Static_assert(offsetof(zeb_peer_state_t, since) == 8, "since when");
_Static_assert(ZEB_PEER_UNKNOWN == 0 && ZEB_PEER_BLOCKED == 3, "phase of a peer");
_Static_assert(ZEB_SUCCESS == 0 && ZEB_TIMEOUT == 5, "reply status");

#endif
