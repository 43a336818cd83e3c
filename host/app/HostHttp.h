#pragma once

// Small pieces the host's own HTTP routes share. The host registers its routes
// in the stream form, which hands over the raw request and response, so that
// one path can answer several methods (GET and POST on the bus tap).

#include <cstddef>
#include <string>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include "http/HttpAdmission.h"
#include "http/HttpJsonReply.h"

namespace vlm::host {

/// Prefix of every path the host serves itself; plug-ins may not register under it.
inline constexpr const char* hostPathPrefix = vlm::hostRoutePrefix;

// JSON answers and errors are the server's own (http/HttpJsonReply.h):
// vlm::sendJsonReply and vlm::sendJsonError.

/// Answers 405 naming the allowed methods.
void sendMethodNotAllowed(Poco::Net::HTTPServerResponse& response, const std::string& allowed);

} // namespace vlm::host
