#include "app/HealthRoute.h"

#include <Poco/Net/HTTPRequest.h>

#include "app/HostHttp.h"

namespace vlm::host {

void installHealthRoute(WebApiBasic& server, std::function<Poco::JSON::Object::Ptr()> report)
{
    server.apiRegist(healthPath, StreamApiHandler([report](Poco::Net::HTTPServerRequest& request,
                                                           Poco::Net::HTTPServerResponse& response, const ApiParams&,
                                                           Poco::JSON::Object&) {
        if (request.getMethod() != Poco::Net::HTTPRequest::HTTP_GET) {
            sendMethodNotAllowed(response, "GET");
            return;
        }
        sendJsonReply(response, Poco::Net::HTTPResponse::HTTP_OK, *report());
    }));
}

} // namespace vlm::host
