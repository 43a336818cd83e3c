#include "app/PluginWebApi.h"

#include <Poco/Logger.h>

#include "VelmoraCommon.h"
#include "app/HostHttp.h"

namespace vlm::host {

PluginWebApi::PluginWebApi(std::shared_ptr<WebApiBasic> server, std::string pluginName)
    : server(std::move(server)), pluginName(std::move(pluginName))
{
}

void PluginWebApi::apiRegist(std::string path, StreamApiHandler handler)
{
    if (allowed(path))
        server->apiRegist(std::move(path), std::move(handler));
}

void PluginWebApi::apiRegist(std::string path, RequestApiHandler handler)
{
    if (allowed(path))
        server->apiRegist(std::move(path), std::move(handler));
}

bool PluginWebApi::allowed(const std::string& path) const
{
    const std::string prefix = hostPathPrefix;
    if (path.compare(0, prefix.size(), prefix) != 0 && path != "/host")
        return true;
    Poco::Logger::get(logName()).error("plug-in %s may not register %s: paths under %s belong to the host",
                                       pluginName, path, prefix);
    return false;
}

} // namespace vlm::host
