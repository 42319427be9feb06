// The model as a text that Prometheus reads: text format 0.0.4. A pure function of the model; docs/live-page.md lists
// the metrics. The text grows with the model, which has bounds.
#ifndef ZEBD_METRICS_H
#define ZEBD_METRICS_H

#include <string>

#include "zebd.h"

constexpr const char *ZEBD_METRICS_TYPE = "text/plain; version=0.0.4; charset=utf-8";

std::string zebd_metrics(const zebd_model_t &model);

#endif
