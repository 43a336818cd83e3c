#pragma once

#include <string>

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/Util/JSONConfiguration.h>

#include "VelmoraExport.h"

namespace vlm {

/// The host's configuration, shared by the host and every plug-in. Empty until
/// the host loads a file with loadConfig.
VLM_EXPORT Poco::Util::JSONConfiguration& configInstance();

/// Loads the configuration from a JSON file and remembers the path for
/// saveConfig. Throws Poco exceptions with the file and the reason on failure.
VLM_EXPORT void loadConfig(const std::string& path);

/// The file loadConfig read ("" before that).
VLM_EXPORT std::string configPath();

/// Writes the configuration back to its file atomically: an exclusively created
/// temporary file in the same directory with the original's mode and owner
/// (0600 for a new file: it holds the broker password and the HTTP token),
/// synced to disk, renamed over the original, then the directory synced, so a
/// crash or power loss leaves either the old file or the new one. Returns false
/// (and logs why) on failure, leaving the old file as it was, or when no file
/// was loaded.
VLM_EXPORT bool saveConfig();

/// Compact JSON text of a value, object or array.
VLM_EXPORT std::string jsonToString(const Poco::Dynamic::Var& value);
VLM_EXPORT std::string jsonToString(const Poco::JSON::Object& object);
VLM_EXPORT std::string jsonToString(const Poco::JSON::Object::Ptr& object);

/// Name of the logger the host and its plug-ins write to.
VLM_EXPORT std::string logName();

/// Sets up that logger: level ("error", "information", "debug", ...) and
/// destination ("console" for standard error, anything else a file path).
VLM_EXPORT void configureLogging(const std::string& level, const std::string& destination);

} // namespace vlm
