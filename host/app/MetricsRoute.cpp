#include "app/MetricsRoute.h"

#include <Poco/Net/HTTPRequest.h>

#include "app/PrometheusText.h"

namespace vlm::host {

void installMetricsRoute(HttpApiServer& server, std::function<std::string()> exposition)
{
    server.hostRouteRegist(metricsPath, {Poco::Net::HTTPRequest::HTTP_GET},
                           StreamApiHandler([exposition](Poco::Net::HTTPServerRequest&,
                                                         Poco::Net::HTTPServerResponse& response, const ApiParams&,
                                                         Poco::JSON::Object&) {
                               const std::string text = exposition();
                               // One answer of known length: scrapers need no chunks.
                               response.setChunkedTransferEncoding(false);
                               response.setContentType(prometheusContentType);
                               response.setContentLength(static_cast<std::streamsize>(text.size()));
                               response.send() << text;
                           }));
}

} // namespace vlm::host
