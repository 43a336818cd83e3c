#pragma once

// The station's configuration actions, run through the plug-in's own routines
// by way of the optional exported C function "PluginConfigAction" (see the
// plug-in's ConfigActions.h for its contract). Shared by the command line
// ("velmora-host config ...", "velmora-host ping") and the HTTP routes.

#include <cstddef>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>
#include <Poco/SharedLibrary.h>

namespace vlm::host {

/// Runs one action; writes its JSON answer like snprintf, returns its length.
using PluginConfigActionFunction = std::size_t (*)(const char* action, const char* argument, char* buffer,
                                                   std::size_t size);

/// Name of the exported function.
inline constexpr const char* pluginConfigActionSymbol = "PluginConfigAction";

/// The library's function, or null when it does not export one.
PluginConfigActionFunction findPluginConfigAction(Poco::SharedLibrary& library);

/// The configuration actions, as the command line and the routes name them.
inline constexpr const char* resetDefaultsAction = "reset-defaults";
inline constexpr const char* backupAction = "backup";
inline constexpr const char* loadHangarAction = "load-hangar";
inline constexpr const char* pingAction = "ping";

/// The top-level sections of the configuration that are the host's own
/// ("http", "mqtt", "plugins", "bus", "log"): a reset to the station's
/// defaults keeps them, so that the host still starts, keeps its token and
/// loads its plug-ins afterwards.
const std::vector<std::string>& hostOwnSections();

/// Environment variable that points load-hangar at another hangar file, so
/// that tests need not write under /etc. Unset in production.
inline constexpr const char* hangarFileOverrideVariable = "VELMORA_TEST_HANGAR_FILE";

/// Runs `action` through `function` on the host configuration (configInstance(),
/// loaded from its file by the caller) and returns the answer: the plug-in's
/// answer with "action" added, and for
/// - "reset-defaults": the host's own sections put back after the routine,
///   then the file saved; "config_file" and "kept" (the sections put back)
///   added, and "ok" false when the save failed;
/// - "load-hangar": the hangar file of hangarFileOverrideVariable when set;
/// - "ping": `argument` is the address, which must be a numeric IP address
///   (no name is looked up on behalf of a caller).
/// Never throws for a failing action: "ok" is false and "errors" says why.
/// Not for concurrent use: the caller runs one action at a time.
Poco::JSON::Object::Ptr runPluginConfigAction(PluginConfigActionFunction function, const std::string& action,
                                              const std::string& argument = "");

/// Whether `action` is one of the four.
bool isConfigAction(const std::string& action);

} // namespace vlm::host
