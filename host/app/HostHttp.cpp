#include "app/HostHttp.h"

#include <istream>

#include "VelmoraCommon.h"

namespace vlm::host {

void sendJson(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
              const Poco::JSON::Object& object)
{
    const std::string text = jsonToString(object);
    response.setStatusAndReason(status);
    response.setContentType("application/json");
    // A whole answer goes with its length, so the connection can be kept.
    response.setChunkedTransferEncoding(false);
    response.sendBuffer(text.data(), text.size());
}

void sendError(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
               const std::string& text)
{
    Poco::JSON::Object error;
    error.set("code", static_cast<int>(status));
    error.set("msg", text);
    sendJson(response, status, error);
}

void sendMethodNotAllowed(Poco::Net::HTTPServerResponse& response, const std::string& allowed)
{
    response.set("Allow", allowed);
    sendError(response, Poco::Net::HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "allowed methods: " + allowed);
}

RequestText readRequestText(Poco::Net::HTTPServerRequest& request, std::size_t maxBytes)
{
    RequestText body;
    const bool chunked = request.getChunkedTransferEncoding();
    if (!chunked && !request.hasContentLength())
        return body;
    if (!chunked && request.getContentLength64() > static_cast<Poco::Int64>(maxBytes)) {
        body.status = RequestText::Status::tooLarge;
        return body;
    }
    std::istream& in = request.stream();
    char chunk[8192];
    while (in) {
        in.read(chunk, sizeof chunk);
        body.text.append(chunk, static_cast<std::size_t>(in.gcount()));
        if (body.text.size() > maxBytes) {
            body.status = RequestText::Status::tooLarge;
            body.text.clear();
            return body;
        }
    }
    if (in.bad())
        body.status = RequestText::Status::unreadable;
    return body;
}

} // namespace vlm::host
