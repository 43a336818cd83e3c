#pragma once

// The station's configuration actions on the running host, token-protected
// like every other route and POST only:
//
//     POST /host/config/reset-defaults   body empty or {}
//     POST /host/config/backup           body empty or {}
//     POST /host/config/load-hangar      body empty or {}
//     POST /host/ping                    body {"address": "<numeric IP address>"}
//
// Each runs the plug-in's own routine (see PluginConfigAction.h) on the
// running host's configuration, the file the host was started with. No
// request names a file: the configuration, the backup folder and the hangar
// file are the host's own, so the routes cannot be turned into a writer of
// arbitrary paths. Answers:
//   200  the routine ran and succeeded: the answer of runPluginConfigAction
//   422  the routine ran and failed (same answer, "ok": false, "errors"; for
//        ping "reason")
//   400  a body that is not what the path takes
//   503  no loaded plug-in offers the routines, or another action is running
//        (one at a time; a ping takes up to 2 s), with Retry-After

#include <cstddef>
#include <mutex>

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/SharedLibrary.h>

#include "app/PluginConfigAction.h"
#include "http/HttpApiServer.h"

namespace vlm::host {

/// Paths of the configuration actions.
inline constexpr const char* configResetDefaultsPath = "/host/config/reset-defaults";
inline constexpr const char* configBackupPath = "/host/config/backup";
inline constexpr const char* configLoadHangarPath = "/host/config/load-hangar";
inline constexpr const char* pingPath = "/host/ping";

class ConfigActionRoute {
public:
    /// Registers the four paths on `server` for POST.
    void install(HttpApiServer& server);

    /// Takes the routines from `library` when it offers them and none were
    /// taken yet (the first such plug-in serves). The library stays loaded
    /// while the host runs. Any thread.
    void addPlugin(Poco::SharedLibrary& library);

    /// The handler; runs on a server worker thread.
    void serve(const std::string& action, Poco::Net::HTTPServerRequest& request,
               Poco::Net::HTTPServerResponse& response);

private:
    PluginConfigActionFunction routines() const;

    mutable std::mutex functionMutex;  // guards function
    PluginConfigActionFunction function = nullptr;
    // Held while an action runs: the routines work on the one configuration
    // and its file, and a second request is refused rather than queued.
    std::mutex actionMutex;
};

} // namespace vlm::host
