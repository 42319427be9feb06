// The static probes of the library (USDT): where bpftrace, perf, gdb and SystemTap look into a running process. A probe
// is a `nop`, and a note in the ELF file that says where its arguments are. Nothing is needed at run time, and nothing
// else happens there while nobody traces. A probe fires on the thread and under the locks of its place.
//
// Provider `zeb`. Each macro ZEB_PROBE_<NAME> below is one probe, with its arguments in their order. They are an
// interface: a probe may get further arguments at its end, none goes or changes its meaning. tests/probes compares this
// list with docs/tracing.md and with the built library.
//
// All arguments are integers of 1 or 4 bytes, in host order. An argument costs where it has to be computed, traced or
// not: give what is at hand in a register or a record. These names mean the same in every probe:
//   ..._app, ..._node  an application id and a node id; together they name an instance
//   len                bytes of header and payload
//   flag               bits ZEB_MSG_FLAG_...: 0 a one-way message, 2 a request, 6 a reply, 1 a synchronisation, 8 and
//                      others with this bit a management message
//   seq                the number of a call, unique among the calls in progress of an application
//   result             0, or a negative errno
#ifndef ZEB_PROBE_H
#define ZEB_PROBE_H

#ifdef ZEB_PROBES

// A source that defines ZEB_PROBE_GUARDED before it includes this fires guarded probes alone: a tracer counts itself in
// the semaphore of such a probe, and the library computes its arguments only then.
#ifdef ZEB_PROBE_GUARDED
#define _SDT_HAS_SEMAPHORES 1
#endif
#include <sys/sdt.h>
#ifdef __clang__ // -Wpedantic looks into the macros of that header
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"
#endif

extern "C" {
extern volatile unsigned short zeb_pair_semaphore __attribute__((visibility("hidden")));
}

#define ZEB_PROBE_ON(name) __builtin_expect(zeb_##name##_semaphore != 0, 0)
#define ZEB_PROBE_FIRE2(name, a, b) STAP_PROBE2(zeb, name, a, b)
#define ZEB_PROBE_FIRE3(name, a, b, c) STAP_PROBE3(zeb, name, a, b, c)
#define ZEB_PROBE_FIRE4(name, a, b, c, d) STAP_PROBE4(zeb, name, a, b, c, d)
#define ZEB_PROBE_FIRE5(name, a, b, c, d, e) STAP_PROBE5(zeb, name, a, b, c, d, e)
#define ZEB_PROBE_FIRE6(name, a, b, c, d, e, f) STAP_PROBE6(zeb, name, a, b, c, d, e, f)

#else // no probes: arguments are compiled and never evaluated

#define ZEB_PROBE_ON(name) false
#define ZEB_PROBE_USE(x)                                                                                               \
    do {                                                                                                               \
        if (false)                                                                                                     \
            (void)(x);                                                                                                 \
    } while (false)
#define ZEB_PROBE_FIRE2(name, a, b) ZEB_PROBE_USE(((void)(a), (b)))
#define ZEB_PROBE_FIRE3(name, a, b, c) ZEB_PROBE_USE(((void)(a), (void)(b), (c)))
#define ZEB_PROBE_FIRE4(name, a, b, c, d) ZEB_PROBE_USE(((void)(a), (void)(b), (void)(c), (d)))
#define ZEB_PROBE_FIRE5(name, a, b, c, d, e) ZEB_PROBE_USE(((void)(a), (void)(b), (void)(c), (void)(d), (e)))
#define ZEB_PROBE_FIRE6(name, a, b, c, d, e, f)                                                                        \
    ZEB_PROBE_USE(((void)(a), (void)(b), (void)(c), (void)(d), (void)(e), (f)))

#endif

// clang-format off

// TIPC has taken a datagram of any kind for one instance, or has refused it (-errno). Also a one-way send that was
// refused before it wrote to any instance: dst_app and dst_node are then what the caller named (dst_node ZEB_NODE_ALL
// for all), and result is -ENOENT (no server is online), -EAGAIN (would block), -EINVAL or -ESHUTDOWN.
#define ZEB_PROBE_SEND(src_app, dst_app, dst_node, len, flag, result) ZEB_PROBE_FIRE6(send, src_app, dst_app, dst_node, len, flag, result)

// A thread begins to wait in a send, because an instance of dst_app is past its window. It fires unblock when it goes
// on: result 0, or -ESHUTDOWN when the library stops.
#define ZEB_PROBE_BLOCK(src_app, dst_app) ZEB_PROBE_FIRE2(block, src_app, dst_app)
#define ZEB_PROBE_UNBLOCK(src_app, dst_app, result) ZEB_PROBE_FIRE3(unblock, src_app, dst_app, result)

// An instance is past its window from now on (past 1), so that senders to dst_app block on every node, or no longer (0).
#define ZEB_PROBE_WINDOW(src_app, dst_app, dst_node, past) ZEB_PROBE_FIRE4(window, src_app, dst_app, dst_node, past)

// The receive thread has read a whole datagram of any kind for the application dst_app of this process.
#define ZEB_PROBE_RECEIVE(dst_app, src_app, src_node, len, flag) ZEB_PROBE_FIRE5(receive, dst_app, src_app, src_node, len, flag)

// A dispatcher of the application `app` begins with a message of version `ver`, and has returned, on the same thread. A
// message without a dispatcher fires neither.
#define ZEB_PROBE_DISPATCH_START(app, ver, src_app, src_node, flag) ZEB_PROBE_FIRE5(dispatch_start, app, ver, src_app, src_node, flag)
#define ZEB_PROBE_DISPATCH_END(app, ver) ZEB_PROBE_FIRE2(dispatch_end, app, ver)

// A call begins, of either kind. dst_app and dst_node are what the caller named (dst_node ZEB_NODE_ALL for all);
// timeout is in seconds, rounded up, 0 for none.
#define ZEB_PROBE_CALL_START(src_app, dst_app, dst_node, seq, timeout) ZEB_PROBE_FIRE5(call_start, src_app, dst_app, dst_node, seq, timeout)

// The outcome of one instance of a call: its reply, or the library's substitute for it. status is a zeb_reply_stat_t.
#define ZEB_PROBE_CALL_OUTCOME(src_app, seq, dst_app, dst_node, status) ZEB_PROBE_FIRE5(call_outcome, src_app, seq, dst_app, dst_node, status)

// A call that has begun ends: 0 with an outcome of every instance, and before the function of a call that no thread
// waits for is called. -ENOENT: no server is online. -ECANCELED: zeb_rpc_cancel. -ESHUTDOWN: the library stops.
#define ZEB_PROBE_CALL_END(src_app, seq, result) ZEB_PROBE_FIRE3(call_end, src_app, seq, result)

// Guarded. An event of the handshake concerns the pair of an application and a remote instance, which is now in this
// zeb_pair_phase_t, the same as before or another one. g_lib_mutex is held.
#define ZEB_PROBE_PAIR(app, peer_app, peer_node, phase) ZEB_PROBE_FIRE4(pair, app, peer_app, peer_node, phase)

// An application is notified of a join or a quit of a server: its event is queued, or its callback is called next.
#define ZEB_PROBE_JOIN(app, peer_app, peer_node) ZEB_PROBE_FIRE3(join, app, peer_app, peer_node)
#define ZEB_PROBE_QUIT(app, peer_app, peer_node) ZEB_PROBE_FIRE3(quit, app, peer_app, peer_node)

// clang-format on

#endif
