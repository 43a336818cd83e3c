#pragma once

// The reference host's configuration file: what it holds, the defaults, and
// the checks that turn a broken file into one precise message.

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>

#include "app/BusOptions.h"
#include "http/HttpApiServerOptions.h"
#include "mqtt/MqttClientOptions.h"

namespace vlm::host {

/// A configuration the host cannot run with: the key (dotted, list entries as
/// "plugins[2].service_port") and the reason.
class ConfigError : public std::runtime_error {
public:
    ConfigError(std::string key, std::string reason);
    const std::string& key() const { return badKey; }
    const std::string& reason() const { return why; }

private:
    std::string badKey;
    std::string why;
};

/// One entry of "plugins".
struct PluginConfig {
    /// "library" as written in the file.
    std::string library;
    /// Where the library is looked for, in order (see resolveLibraryCandidates).
    std::vector<std::string> libraryCandidates;
    /// "service_address": numeric IPv4 or IPv6 address of the plug-in's micro
    /// service (the plug-in does not resolve names).
    std::string serviceAddress = "127.0.0.1";
    /// "service_port": the micro service's TCP port.
    std::uint16_t servicePort = 0;
    /// "service_wait_seconds": how long the host waits for the service to
    /// accept connections before starting the plug-in anyway (0: no wait). A
    /// plug-in started while its service is away installs no API, so a short
    /// wait saves a restart when both are started together.
    std::chrono::seconds serviceWait{10};
};

/// Everything the host reads from its configuration. Plug-ins read the same
/// file through configInstance(); keys the host does not know are left to them.
struct HostConfig {
    /// Absolute path of the file.
    std::string path;
    /// "http.*"; the port defaults to 8080 and the worker threads to 128,
    /// enough for many event streams at once.
    HttpApiServerOptions http;
    /// "mqtt.*" and "station.station_sn".
    MqttClientOptions mqtt;
    std::vector<PluginConfig> plugins;
    /// "bus.*": the byte bounds of the bus queue, of one message and of a tap reader.
    BusOptions bus;
    /// "log.level": a POCO level name ("error", "warning", "information", "debug", ...).
    std::string logLevel = "information";
    /// "log.file": "console" (standard error) or a file path, relative paths
    /// against the configuration file's folder.
    std::string logFile = "console";
};

/// Default HTTP port of the host.
constexpr std::uint16_t defaultHttpPort = 8080;
/// Default number of HTTP worker threads: every open event stream holds one.
constexpr int defaultHttpThreads = 128;

/// Checks a parsed configuration and fills a HostConfig. `path` is the file it
/// came from (relative paths are resolved against its folder) and
/// `executableLibDir` the "../lib" folder next to the running executable.
/// Throws ConfigError for the first problem found.
HostConfig parseHostConfig(const Poco::JSON::Object& root, const std::string& path,
                           const std::string& executableLibDir);

/// Reads and checks the file. Throws ConfigError (with the key "" for a file
/// that cannot be read or is not a JSON object).
HostConfig readHostConfigFile(const std::string& path, const std::string& executableLibDir);

/// The plug-in directory of an install, relative to the executable's "../lib"
/// folder ("velmora/plugins").
extern const char* const installedPluginFolder;

/// Where a configured library is looked for: an absolute path as it is; a
/// relative one first against the configuration file's folder, then against
/// the executable's "../lib" folder (where the build puts the plug-ins), then
/// against the installed plug-in directory below it, so a configuration may
/// name a plug-in by its file name alone, in the build tree and installed.
std::vector<std::string> resolveLibraryCandidates(const std::string& library, const std::string& configDir,
                                                  const std::string& executableLibDir);

/// The "../lib" folder next to the running executable.
std::string executableLibDir();

} // namespace vlm::host
