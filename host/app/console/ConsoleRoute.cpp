#include "app/console/ConsoleRoute.h"

#include <Poco/Net/HTTPRequest.h>

#include "app/HostHttp.h"

namespace vlm::host {
namespace {

constexpr const char* indexName = "index.html";

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void serveFile(const ConsoleRoute& route, Poco::Net::HTTPServerRequest& request,
               Poco::Net::HTTPServerResponse& response)
{
    const std::string& method = request.getMethod();
    const bool head = method == Poco::Net::HTTPRequest::HTTP_HEAD;
    if (method != Poco::Net::HTTPRequest::HTTP_GET && !head) {
        sendMethodNotAllowed(response, "GET, HEAD");
        return;
    }
    response.setStatusAndReason(Poco::Net::HTTPResponse::HTTP_OK);
    response.setContentType(route.contentType);
    // The files change with the host, not while it runs; a reload still asks,
    // so a new host's console is never mixed with an old one's cached files.
    response.set("Cache-Control", "no-cache");
    response.set("X-Content-Type-Options", "nosniff");
    // The console loads only its own files and is never framed by another
    // page, so injected markup runs nothing and no page can click for it.
    response.set("Content-Security-Policy", "default-src 'self'; frame-ancestors 'none'");
    response.set("Referrer-Policy", "no-referrer");
    response.setChunkedTransferEncoding(false);
    response.setContentLength64(static_cast<Poco::UInt64>(route.asset->size));
    if (head) {
        response.send();
        return;
    }
    response.sendBuffer(route.asset->data, route.asset->size);
}

} // namespace

std::string consoleContentType(const std::string& name)
{
    if (endsWith(name, ".html"))
        return "text/html; charset=utf-8";
    if (endsWith(name, ".js"))
        return "text/javascript; charset=utf-8";
    if (endsWith(name, ".css"))
        return "text/css; charset=utf-8";
    if (endsWith(name, ".svg"))
        return "image/svg+xml";
    return "application/octet-stream";
}

std::vector<ConsoleRoute> consoleRoutes()
{
    std::vector<ConsoleRoute> routes;
    for (const auto& asset : consoleAssets()) {
        const std::string type = consoleContentType(asset.name);
        if (asset.name == std::string(indexName))
            routes.insert(routes.begin(), ConsoleRoute{consolePath, type, &asset});
        routes.push_back(ConsoleRoute{std::string(consolePath) + "/" + asset.name, type, &asset});
    }
    return routes;
}

void installConsoleRoutes(HttpApiServer& server)
{
    for (const auto& route : consoleRoutes()) {
        server.openRouteRegist(route.path, StreamApiHandler([route](Poco::Net::HTTPServerRequest& request,
                                                                    Poco::Net::HTTPServerResponse& response,
                                                                    const ApiParams&, Poco::JSON::Object&) {
            serveFile(route, request, response);
        }));
    }
}

} // namespace vlm::host
