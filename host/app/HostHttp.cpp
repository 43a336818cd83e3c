#include "app/HostHttp.h"

#include "VelmoraCommon.h"

namespace vlm::host {

void sendMethodNotAllowed(Poco::Net::HTTPServerResponse& response, const std::string& allowed)
{
    response.set("Allow", allowed);
    sendJsonError(response, Poco::Net::HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "allowed methods: " + allowed);
}

} // namespace vlm::host
