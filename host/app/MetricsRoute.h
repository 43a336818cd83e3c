#pragma once

// "/host/metrics": GET answers the host's figures in the Prometheus text
// exposition format (text/plain; version=0.0.4), behind the token and the
// guard like every host route. HostApp::metrics makes the text.

#include <functional>
#include <string>

#include "http/HttpApiServer.h"

namespace vlm::host {

/// Path of the metrics exposition.
inline constexpr const char* metricsPath = "/host/metrics";

/// Registers "/host/metrics"; `exposition` makes the text and runs on a
/// server worker thread.
void installMetricsRoute(HttpApiServer& server, std::function<std::string()> exposition);

} // namespace vlm::host
