#pragma once

// "/host/openapi.json": GET answers the OpenAPI 3.0 description of every path
// the host serves at that moment (see OpenApiDocument.h), built anew for each
// request, so that it always matches the routes. Other methods get 405.

#include <mutex>
#include <string>
#include <vector>

#include <Poco/SharedLibrary.h>

#include "app/openapi/OpenApiDocument.h"
#include "http/HttpApiServer.h"

namespace vlm::host {

/// Path of the description.
inline constexpr const char* apiDescriptionPath = "/host/openapi.json";

class ApiDescriptionRoute {
public:
    /// `server` must outlive every request to the route; `tokenRequired` says
    /// whether the server asks for the bearer token.
    ApiDescriptionRoute(HttpApiServer& server, bool tokenRequired, std::string version);

    /// Registers "/host/openapi.json" on the server.
    void install();

    /// Reads the API list of a loaded plug-in, when its library exports one,
    /// and keeps it for the description. A list that cannot be read is logged
    /// with the reason and left out; nothing is thrown. Runs the plug-in's
    /// function on the caller's thread (the host's starting thread).
    void addPlugin(const std::string& name, const std::string& guid, Poco::SharedLibrary& library);

    /// Adds an already read list (tests, and hosts that read it otherwise).
    void addPlugin(PluginApiList list);

    /// The description as it stands now. Any thread.
    Poco::JSON::Object::Ptr document() const;

private:
    HttpApiServer& server;
    const bool tokenRequired;
    const std::string version;

    mutable std::mutex mutex;  // guards plugins
    std::vector<PluginApiList> plugins;
};

} // namespace vlm::host
