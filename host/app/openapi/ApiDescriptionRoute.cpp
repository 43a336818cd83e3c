#include "app/openapi/ApiDescriptionRoute.h"

#include <Poco/Logger.h>
#include <Poco/Net/HTTPRequest.h>

#include "VelmoraCommon.h"
#include "app/HostHttp.h"

namespace vlm::host {
namespace {

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

} // namespace

ApiDescriptionRoute::ApiDescriptionRoute(HttpApiServer& server, bool tokenRequired, std::string version)
    : server(server), tokenRequired(tokenRequired), version(std::move(version))
{
}

void ApiDescriptionRoute::install()
{
    server.apiRegist(apiDescriptionPath, StreamApiHandler([this](Poco::Net::HTTPServerRequest& request,
                                                                 Poco::Net::HTTPServerResponse& response,
                                                                 const ApiParams&, Poco::JSON::Object&) {
        if (request.getMethod() != Poco::Net::HTTPRequest::HTTP_GET) {
            sendMethodNotAllowed(response, "GET");
            return;
        }
        sendJsonReply(response, Poco::Net::HTTPResponse::HTTP_OK, *document());
    }));
}

void ApiDescriptionRoute::addPlugin(const std::string& name, const std::string& guid, Poco::SharedLibrary& library)
{
    try {
        const auto text = readPluginApiListText(library);
        if (!text) {
            logger().information("plug-in %s lists no APIs; its endpoints are described without detail", name);
            return;
        }
        PluginApiList list{name, guid, parsePluginApiList(*text)};
        logger().information("plug-in %s lists %z APIs", name, list.apis.size());
        addPlugin(std::move(list));
    } catch (const PluginApiListError& e) {
        logger().error("plug-in %s: its API list is left out of %s: %s", name, std::string(apiDescriptionPath),
                       std::string(e.what()));
    } catch (const std::exception& e) {
        logger().error("plug-in %s: reading its API list failed: %s", name, std::string(e.what()));
    }
}

void ApiDescriptionRoute::addPlugin(PluginApiList list)
{
    std::lock_guard<std::mutex> lock(mutex);
    plugins.push_back(std::move(list));
}

Poco::JSON::Object::Ptr ApiDescriptionRoute::document() const
{
    OpenApiInputs inputs;
    inputs.version = version;
    inputs.tokenRequired = tokenRequired;
    inputs.registeredPaths = server.routePaths();
    {
        std::lock_guard<std::mutex> lock(mutex);
        inputs.plugins = plugins;
    }
    return buildOpenApiDocument(inputs);
}

} // namespace vlm::host
