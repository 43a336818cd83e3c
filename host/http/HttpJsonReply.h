#pragma once

#include <string>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPServerResponse.h>

#include "VelmoraExport.h"

namespace vlm {

/// Sends `object` as the whole application/json answer with the given status.
/// The response must not have been sent yet. Throws what the socket throws.
VLM_EXPORT void sendJsonReply(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
                   const Poco::JSON::Object& object);

/// Sends the server's own error answer: {"code": <status>, "msg": <text>}.
VLM_EXPORT void sendJsonError(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
                   const std::string& text);

} // namespace vlm
