#pragma once

// The host's API description: an OpenAPI 3.0 document of every path the HTTP
// server serves, built from the server's route table, the API lists of the
// loaded plug-ins and the host's knowledge of its own routes.

#include <string>
#include <vector>

#include <Poco/JSON/Object.h>

#include "app/openapi/PluginApiList.h"

namespace vlm::host {

/// What the document is made from.
struct OpenApiInputs {
    /// The host's version ("info.version").
    std::string version;
    /// Whether every route but the open ones needs "Authorization: Bearer".
    bool tokenRequired = false;
    /// Every path the server has a route for; exactly these are described.
    std::vector<std::string> registeredPaths;
    /// The loaded plug-ins that list their APIs.
    std::vector<PluginApiList> plugins;
};

/// Builds the document. A registered path is described as the host route it
/// is, or as the plug-in API whose "httpPath" it is (with its category as the
/// tag, "text/event-stream" for a stream, whether it needs a vehicle, the
/// request envelope and the error answers), or, when nothing describes it, as
/// a plug-in endpoint taking the envelope. Listed APIs whose path is not
/// served are named under "x-velmora-plugins". Pure.
Poco::JSON::Object::Ptr buildOpenApiDocument(const OpenApiInputs& inputs);

/// The path item of one of the host's own routes, or null for a path the host
/// does not know as its own. `tokenRequired` adds the 401 answer, except on
/// the console's files, which are served without the token. Pure.
Poco::JSON::Object::Ptr describeHostPath(const std::string& path, bool tokenRequired);

/// The path item of a configuration action route, or null for another path. Pure.
Poco::JSON::Object::Ptr describeConfigActionPath(const std::string& path, bool tokenRequired);

/// Tags of the host's own routes, for the document's "tags" list.
Poco::JSON::Array::Ptr hostPathTags();

} // namespace vlm::host
