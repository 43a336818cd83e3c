#pragma once

// The HTTP server as a plug-in sees it: every registration goes to the host's
// server, except under "/host/", which belongs to the host itself.

#include <memory>
#include <string>

#include "WebApiBasic.h"

namespace vlm::host {

class PluginWebApi : public WebApiBasic {
public:
    /// `pluginName` only labels the log line of a refused registration.
    PluginWebApi(std::shared_ptr<WebApiBasic> server, std::string pluginName);

    /// Forwards, or refuses with an error log line for a host path. Any thread.
    void apiRegist(std::string path, StreamApiHandler handler) override;
    void apiRegist(std::string path, RequestApiHandler handler) override;

private:
    bool allowed(const std::string& path) const;

    const std::shared_ptr<WebApiBasic> server;
    const std::string pluginName;
};

} // namespace vlm::host
