#include "app/HostHttp.h"

#include <istream>

#include "VelmoraCommon.h"

namespace vlm::host {

void sendMethodNotAllowed(Poco::Net::HTTPServerResponse& response, const std::string& allowed)
{
    response.set("Allow", allowed);
    sendJsonError(response, Poco::Net::HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "allowed methods: " + allowed);
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
