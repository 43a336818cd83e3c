#pragma once

// "/host/health": GET answers the host's state as JSON (see HostApp::health
// for the fields). Other methods get 405.

#include <functional>

#include <Poco/JSON/Object.h>

#include "WebApiBasic.h"

namespace vlm::host {

/// Path of the health report.
inline constexpr const char* healthPath = "/host/health";

/// Registers "/host/health" on the server; `report` makes the answer and runs
/// on a server worker thread.
void installHealthRoute(WebApiBasic& server, std::function<Poco::JSON::Object::Ptr()> report);

} // namespace vlm::host
