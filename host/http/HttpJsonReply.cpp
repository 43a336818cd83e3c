#include "http/HttpJsonReply.h"

#include "VelmoraCommon.h"

namespace vlm {

void sendJsonReply(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
                   const Poco::JSON::Object& object)
{
    const std::string text = jsonToString(object);
    response.setStatusAndReason(status);
    response.setContentType("application/json");
    // A whole answer goes with its length, so the connection can be kept.
    response.setChunkedTransferEncoding(false);
    response.sendBuffer(text.data(), text.size());
}

void sendJsonError(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
                   const std::string& text)
{
    Poco::JSON::Object error;
    error.set("code", static_cast<int>(status));
    error.set("msg", text);
    sendJsonReply(response, status, error);
}

} // namespace vlm
