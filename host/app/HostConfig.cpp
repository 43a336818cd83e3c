#include "app/HostConfig.h"

#include <unistd.h>

#include <fstream>
#include <limits>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Logger.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Path.h>

#include "http/HttpAdmission.h"
#include "http/HttpRequestGuard.h"

namespace vlm::host {
namespace {

// Walks a dotted key through nested objects; the file is nested the way
// POCO's JSON configuration reads "http.port" as {"http": {"port": ...}}.
class KeyReader {
public:
    KeyReader(const Poco::JSON::Object& root, std::string prefix = "") : root(root), prefix(std::move(prefix)) {}

    std::string name(const std::string& key) const { return prefix + key; }

    Poco::Dynamic::Var find(const std::string& key) const
    {
        const Poco::JSON::Object* object = &root;
        std::string::size_type start = 0;
        for (;;) {
            const auto dot = key.find('.', start);
            const std::string part = key.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
            if (!object->has(part))
                return {};
            Poco::Dynamic::Var value = object->get(part);
            if (dot == std::string::npos)
                return value;
            if (value.type() != typeid(Poco::JSON::Object::Ptr))
                throw ConfigError(name(key.substr(0, dot)), "expected an object");
            object = value.extract<Poco::JSON::Object::Ptr>().get();
            start = dot + 1;
        }
    }

    bool has(const std::string& key) const { return !find(key).isEmpty(); }

    std::string text(const std::string& key, const std::string& fallback, bool required = false) const
    {
        const Poco::Dynamic::Var value = find(key);
        if (value.isEmpty()) {
            if (required)
                throw ConfigError(name(key), "missing");
            return fallback;
        }
        if (!value.isString())
            throw ConfigError(name(key), "expected a string, got " + value.toString());
        return value.extract<std::string>();
    }

    Poco::Int64 number(const std::string& key, Poco::Int64 fallback, Poco::Int64 min, Poco::Int64 max,
                       bool required = false) const
    {
        const Poco::Dynamic::Var value = find(key);
        if (value.isEmpty()) {
            if (required)
                throw ConfigError(name(key), "missing");
            return fallback;
        }
        if (!value.isInteger())
            throw ConfigError(name(key), "expected a whole number, got " + describe(value));
        Poco::Int64 n = 0;
        try {
            n = value.convert<Poco::Int64>();
        } catch (const Poco::Exception&) {
            throw ConfigError(name(key), "number too large");
        }
        if (n < min || n > max)
            throw ConfigError(name(key), "must be from " + std::to_string(min) + " to " + std::to_string(max) +
                                             ", got " + std::to_string(n));
        return n;
    }

    bool flag(const std::string& key, bool fallback) const
    {
        const Poco::Dynamic::Var value = find(key);
        if (value.isEmpty())
            return fallback;
        if (!value.isBoolean())
            throw ConfigError(name(key), "expected true or false, got " + describe(value));
        return value.extract<bool>();
    }

private:
    static std::string describe(const Poco::Dynamic::Var& value)
    {
        return value.isString() ? "\"" + value.extract<std::string>() + "\"" : value.toString();
    }

    const Poco::JSON::Object& root;
    const std::string prefix;
};

std::string folderOf(const std::string& file)
{
    Poco::Path path(file);
    path.makeAbsolute();
    return path.parent().toString();
}

std::string againstFolder(const std::string& file, const std::string& folder)
{
    Poco::Path path(file);
    if (path.isAbsolute())
        return path.toString();
    return Poco::Path(Poco::Path::forDirectory(folder), path).toString();
}

bool isLogLevel(const std::string& level)
{
    try {
        Poco::Logger::parseLevel(level);
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

// A list of strings, each of which `canonical` must accept (non-empty result).
std::vector<std::string> readTextList(const KeyReader& keys, const std::string& key,
                                      std::string (*canonical)(const std::string&), const std::string& what)
{
    const Poco::Dynamic::Var value = keys.find(key);
    if (value.isEmpty())
        return {};
    if (value.type() != typeid(Poco::JSON::Array::Ptr))
        throw ConfigError(key, "expected a list of " + what);
    const auto list = value.extract<Poco::JSON::Array::Ptr>();
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < list->size(); ++i) {
        const Poco::Dynamic::Var entry = list->get(static_cast<unsigned>(i));
        const std::string entryKey = key + "[" + std::to_string(i) + "]";
        if (!entry.isString() || canonical(entry.extract<std::string>()).empty())
            throw ConfigError(entryKey, "expected " + what + ", got " + entry.toString());
        texts.push_back(entry.extract<std::string>());
    }
    return texts;
}

HttpApiServerOptions readHttp(const KeyReader& keys)
{
    HttpApiServerOptions http;
    http.bindAddress = keys.text("http.address", http.bindAddress);
    Poco::Net::IPAddress parsed;
    if (!Poco::Net::IPAddress::tryParse(http.bindAddress, parsed))
        throw ConfigError("http.address", "expected a numeric IP address, got \"" + http.bindAddress + "\"");
    http.port = static_cast<std::uint16_t>(keys.number("http.port", defaultHttpPort, 0, 65535));
    http.workerThreads = static_cast<int>(keys.number("http.threads", defaultHttpThreads, 1, 4096));
    http.queueSize = static_cast<int>(keys.number("http.queue", http.queueSize, 1, 65536));
    http.maxBodyBytes = static_cast<std::size_t>(keys.number(
        "http.max_body_bytes", static_cast<Poco::Int64>(http.maxBodyBytes), 0, std::numeric_limits<int>::max()));
    http.keepAlive = keys.flag("http.keep_alive", http.keepAlive);
    http.bearerToken = keys.text("http.token", "");
    if (keys.has("http.token") && http.bearerToken.empty())
        throw ConfigError("http.token", "empty; leave the key out to serve without a token");
    // Left out, the caps take their share of the threads (0 here).
    http.reservedHostThreads = static_cast<int>(keys.number("http.reserved_host_threads", 0, 1, 4096));
    http.maxStreams = static_cast<int>(keys.number("http.max_streams", 0, 1, 4096));
    http.maxStreamsPerClient = static_cast<int>(keys.number("http.max_streams_per_client", 0, 1, 4096));
    http.maxWaitingRequests = static_cast<int>(keys.number("http.max_waiting_requests", 0, 1, 4096));
    http.requestDeadline = std::chrono::seconds(keys.number("http.request_deadline_seconds", 10, 1, 3600));
    if (const auto problem = httpCapacityProblem(http))
        throw ConfigError(problem->key, problem->reason);
    http.allowedHosts = readTextList(keys, "http.allowed_hosts", canonicalHttpHost,
                                     "host names or addresses like \"station.local\"");
    http.allowedOrigins = readTextList(keys, "http.allowed_origins", canonicalHttpOrigin,
                                       "origins like \"http://127.0.0.1:5173\"");
    http.allowInsecureRemote = keys.flag("http.allow_insecure_remote", false);
    // Off loopback every machine of the network reaches the API; without a
    // token any of them could command the aircraft.
    if (!parsed.isLoopback() && http.bearerToken.empty() && !http.allowInsecureRemote)
        throw ConfigError("http.token", "required because http.address " + http.bindAddress +
                                            " is not a loopback address (set http.allow_insecure_remote to true "
                                            "to serve the network without a token)");
    return http;
}

void readMqttBounds(const KeyReader& keys, MqttClientOptions& mqtt)
{
    const auto size = [&](const char* key, std::size_t fallback, Poco::Int64 min, Poco::Int64 max) {
        return static_cast<std::size_t>(keys.number(key, static_cast<Poco::Int64>(fallback), min, max));
    };
    // 268435455 is the largest payload MQTT can carry at all.
    mqtt.maxPayloadBytes = size("mqtt.max_payload_bytes", mqtt.maxPayloadBytes, 1, 268435455);
    mqtt.deliveryThreads = size("mqtt.delivery_threads", mqtt.deliveryThreads, 1, 64);
    mqtt.deliveryQueueMessages = size("mqtt.delivery_queue_messages", mqtt.deliveryQueueMessages, 1, 1000000);
    mqtt.deliveryQueueBytes = size("mqtt.delivery_queue_bytes", mqtt.deliveryQueueBytes, 1, 4294967295LL);
    if (mqtt.deliveryQueueBytes < mqtt.maxPayloadBytes)
        throw ConfigError("mqtt.delivery_queue_bytes",
                          "must be at least mqtt.max_payload_bytes (" + std::to_string(mqtt.maxPayloadBytes) +
                              "), got " + std::to_string(mqtt.deliveryQueueBytes));
}

MqttClientOptions readMqtt(const KeyReader& keys, const std::string& configDir)
{
    MqttClientOptions mqtt;
    // The plug-in reads these three itself and refuses to start without them.
    mqtt.serverUri = keys.text("mqtt.server_uri", "", true);
    try {
        normalizeMqttServerUri(mqtt.serverUri);
    } catch (const std::invalid_argument& e) {
        throw ConfigError("mqtt.server_uri", e.what());
    }
    mqtt.userName = keys.text("mqtt.user_name", "", true);
    mqtt.password = keys.text("mqtt.pawsswd", "", true);
    mqtt.caFile = keys.text("mqtt.ca_file", "");
    if (!mqtt.caFile.empty()) {
        mqtt.caFile = againstFolder(mqtt.caFile, configDir);
        if (!Poco::File(mqtt.caFile).exists())
            throw ConfigError("mqtt.ca_file", "no such file: " + mqtt.caFile);
    }
    mqtt.tlsInsecure = keys.flag("mqtt.tls_insecure", mqtt.tlsInsecure);
    mqtt.clientId = keys.text("mqtt.client_id", "");
    readMqttBounds(keys, mqtt);
    mqtt.stationSerial = keys.text("station.station_sn", "");
    return mqtt;
}

BusOptions readBus(const KeyReader& keys)
{
    BusOptions bus;
    constexpr Poco::Int64 most = Poco::Int64{1} << 40;
    const auto bytes = [&keys](const char* key, std::size_t fallback) {
        return static_cast<std::size_t>(keys.number(key, static_cast<Poco::Int64>(fallback), 1, most));
    };
    bus.queueByteLimit = bytes("bus.max_queue_bytes", bus.queueByteLimit);
    bus.messageByteLimit = bytes("bus.max_message_bytes", bus.messageByteLimit);
    bus.tapQueueByteLimit = bytes("bus.tap_max_queue_bytes", bus.tapQueueByteLimit);
    if (bus.messageByteLimit > bus.queueByteLimit)
        throw ConfigError("bus.max_message_bytes", "must not exceed bus.max_queue_bytes (" +
                                                       std::to_string(bus.queueByteLimit) + ")");
    return bus;
}

PluginConfig readPlugin(const Poco::Dynamic::Var& entry, const std::string& key, const std::string& configDir,
                        const std::string& executableLibDir)
{
    if (entry.type() != typeid(Poco::JSON::Object::Ptr))
        throw ConfigError(key, "expected an object with \"library\" and \"service_port\"");
    const KeyReader keys(*entry.extract<Poco::JSON::Object::Ptr>(), key + ".");
    PluginConfig plugin;
    plugin.library = keys.text("library", "", true);
    if (plugin.library.empty())
        throw ConfigError(keys.name("library"), "empty");
    plugin.libraryCandidates = resolveLibraryCandidates(plugin.library, configDir, executableLibDir);
    plugin.serviceAddress = keys.text("service_address", plugin.serviceAddress);
    Poco::Net::IPAddress parsed;
    if (!Poco::Net::IPAddress::tryParse(plugin.serviceAddress, parsed))
        throw ConfigError(keys.name("service_address"),
                          "expected a numeric IP address, got \"" + plugin.serviceAddress + "\"");
    plugin.servicePort = static_cast<std::uint16_t>(keys.number("service_port", 0, 1, 65535, true));
    plugin.serviceWait = std::chrono::seconds(keys.number("service_wait_seconds", plugin.serviceWait.count(), 0, 3600));
    return plugin;
}

} // namespace

const char* const installedPluginFolder = VELMORA_PLUGIN_FOLDER_FROM_LIB;

ConfigError::ConfigError(std::string key, std::string reason)
    : std::runtime_error(key.empty() ? reason : key + ": " + reason), badKey(std::move(key)), why(std::move(reason))
{
}

HostConfig parseHostConfig(const Poco::JSON::Object& root, const std::string& path,
                           const std::string& executableLibDir)
{
    HostConfig config;
    Poco::Path absolute(path);
    absolute.makeAbsolute();
    config.path = absolute.toString();
    const std::string configDir = folderOf(config.path);
    const KeyReader keys(root);

    config.http = readHttp(keys);
    config.mqtt = readMqtt(keys, configDir);
    config.bus = readBus(keys);

    config.logLevel = keys.text("log.level", config.logLevel);
    if (!isLogLevel(config.logLevel))
        throw ConfigError("log.level", "unknown level \"" + config.logLevel +
                                           "\" (none, fatal, critical, error, warning, notice, information, "
                                           "debug, trace)");
    config.logFile = keys.text("log.file", config.logFile);
    if (config.logFile.empty())
        throw ConfigError("log.file", "empty; use \"console\" for standard error");
    if (config.logFile != "console") {
        config.logFile = againstFolder(config.logFile, configDir);
        const Poco::File folder(Poco::Path(config.logFile).parent());
        if (!folder.exists() || !folder.isDirectory())
            throw ConfigError("log.file", "folder does not exist: " + folder.path());
    }

    const Poco::Dynamic::Var plugins = keys.find("plugins");
    if (plugins.isEmpty())
        throw ConfigError("plugins", "missing (an empty list [] runs the host without plug-ins)");
    if (plugins.type() != typeid(Poco::JSON::Array::Ptr))
        throw ConfigError("plugins", "expected a list of {\"library\", \"service_address\", \"service_port\"}");
    const auto list = plugins.extract<Poco::JSON::Array::Ptr>();
    for (std::size_t i = 0; i < list->size(); ++i)
        config.plugins.push_back(
            readPlugin(list->get(static_cast<unsigned>(i)), "plugins[" + std::to_string(i) + "]", configDir,
                       executableLibDir));
    return config;
}

HostConfig readHostConfigFile(const std::string& path, const std::string& executableLibDir)
{
    Poco::Dynamic::Var parsed;
    try {
        if (!Poco::File(path).exists())
            throw ConfigError("", "no such file: " + path);
        Poco::JSON::Parser parser;
        std::ifstream in(path);
        if (!in)
            throw ConfigError("", "cannot open " + path);
        parsed = parser.parse(in);
    } catch (const Poco::Exception& e) {
        throw ConfigError("", "not valid JSON: " + e.displayText());
    }
    if (parsed.type() != typeid(Poco::JSON::Object::Ptr))
        throw ConfigError("", "the file must hold one JSON object");
    return parseHostConfig(*parsed.extract<Poco::JSON::Object::Ptr>(), path, executableLibDir);
}

std::vector<std::string> resolveLibraryCandidates(const std::string& library, const std::string& configDir,
                                                  const std::string& executableLibDir)
{
    const Poco::Path path(library);
    if (path.isAbsolute())
        return {path.toString()};
    std::vector<std::string> candidates{againstFolder(library, configDir)};
    if (!executableLibDir.empty()) {
        candidates.push_back(againstFolder(library, executableLibDir));
        candidates.push_back(againstFolder(library, againstFolder(installedPluginFolder, executableLibDir)));
    }
    return candidates;
}

std::string executableLibDir()
{
    char buffer[4096];
    const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (length <= 0)
        return {};
    buffer[length] = '\0';
    Poco::Path exe(buffer);
    return Poco::Path(exe.parent()).popDirectory().pushDirectory("lib").toString();
}

} // namespace vlm::host
