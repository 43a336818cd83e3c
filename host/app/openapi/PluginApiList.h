#pragma once

// A plug-in's own list of its APIs, as the optional exported C function
// "PluginApiCatalogue" gives it (JSON text):
//
//     {"apis": [{"name": ..., "number": ..., "category": <string or null>,
//                "streaming": <bool>, "needsVehicle": <bool>,
//                "httpPath": <string or null>}, ...]}
//
// Plug-ins without the function simply have no list.

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <Poco/SharedLibrary.h>

namespace vlm::host {

/// One API of a plug-in.
struct PluginApi {
    std::string name;
    int number = 0;
    std::optional<std::string> category;
    bool streaming = false;
    bool needsVehicle = false;
    std::optional<std::string> httpPath;
};

/// The APIs of one loaded plug-in, with its identity.
struct PluginApiList {
    std::string plugin;
    std::string guid;
    std::vector<PluginApi> apis;
};

/// Why a list could not be read; the text names the entry and the key.
class PluginApiListError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Name of the exported function.
inline constexpr const char* pluginApiListSymbol = "PluginApiCatalogue";

/// Parses the text above. Throws PluginApiListError for text that is not
/// JSON, an entry without a name, a key of the wrong type, or a name that
/// occurs twice. Pure.
std::vector<PluginApi> parsePluginApiList(const std::string& text);

/// The text the library's function returns, or nothing when the library does
/// not export it. Throws PluginApiListError when the function returns null.
/// Runs the plug-in's code on the caller's thread.
std::optional<std::string> readPluginApiListText(Poco::SharedLibrary& library);

} // namespace vlm::host
