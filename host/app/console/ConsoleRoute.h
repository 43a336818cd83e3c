#pragma once

// "/host/console": the station console, a page that shows the vehicle link,
// live telemetry, the bus tap and the links in health, and sends requests to
// the plug-in's endpoints.
//
// The files are open routes: they load without the bearer token, because a
// browser cannot send one when it opens a page and the files hold no secret.
// The page asks for the token itself when the host answers its first call 401.
// "/host/console" serves index.html; every file is also at
// "/host/console/<name>". GET and HEAD; other methods get 405.

#include <string>
#include <vector>

#include "app/console/ConsoleAssets.h"
#include "http/HttpApiServer.h"

namespace vlm::host {

/// Path of the console's page.
inline constexpr const char* consolePath = "/host/console";

/// One path the console serves and the file behind it.
struct ConsoleRoute {
    std::string path;
    std::string contentType;
    const ConsoleAsset* asset;
};

/// Every path of the console, "/host/console" first. Any thread.
std::vector<ConsoleRoute> consoleRoutes();

/// The media type served for a file name, by its extension. Pure.
std::string consoleContentType(const std::string& name);

/// Registers every console path on the server as an open route.
void installConsoleRoutes(HttpApiServer& server);

} // namespace vlm::host
