// What the live page shows: the page itself, and the model as JSON. Pure functions of the model; what peers wrote is
// shown without its control characters. `now` is in milliseconds of CLOCK_REALTIME.
#ifndef ZEBD_PAGE_H
#define ZEBD_PAGE_H

#include <cstdint>
#include <string>
#include <string_view>

#include "zebd.h"

// Where the page has this word, the answer has a number of its own: the policy lets the browser run only that script.
constexpr const char *ZEBD_PAGE_NONCE = "@NONCE@";

std::string_view zebd_page();

// The whole cluster: each instance and each pair as it is now.
std::string zebd_page_model(const zebd_model_t &model, int64_t now);

// One instance: its identity, its samples and its pairs as they are now. False when it is not known.
bool zebd_page_instance(const zebd_model_t &model, ops_inst_t inst, int64_t now, std::string *text);

// An event for the stream of server-sent events: its name and its data in one line.
const char *zebd_page_event_name(ops_event_kind_t kind);
std::string zebd_page_event(const ops_event_t &event);

#endif
