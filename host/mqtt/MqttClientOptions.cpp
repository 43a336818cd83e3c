#include "mqtt/MqttClientOptions.h"

#include <cctype>
#include <stdexcept>

namespace vlm {
namespace {

const char* const keyServerUri = "mqtt.server_uri";
const char* const keyUserName = "mqtt.user_name";
const char* const keyPassword = "mqtt.pawsswd";
const char* const keyCaFile = "mqtt.ca_file";
const char* const keyClientId = "mqtt.client_id";
const char* const keyStationSerial = "station.station_sn";

[[noreturn]] void refuse(const std::string& configured, const std::string& why)
{
    throw std::invalid_argument("invalid mqtt server address \"" + configured + "\": " + why);
}

bool isPort(const std::string& text)
{
    if (text.empty() || text.size() > 5)
        return false;
    for (char c : text)
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    const int port = std::stoi(text);
    return port > 0 && port <= 65535;
}

} // namespace

MqttClientOptions MqttClientOptions::fromConfig(const Poco::Util::AbstractConfiguration& config)
{
    MqttClientOptions options;
    options.serverUri = config.getString(keyServerUri, options.serverUri);
    options.userName = config.getString(keyUserName, "");
    options.password = config.getString(keyPassword, "");
    options.caFile = config.getString(keyCaFile, "");
    options.clientId = config.getString(keyClientId, "");
    options.stationSerial = config.getString(keyStationSerial, "");
    return options;
}

std::string normalizeMqttServerUri(const std::string& configured)
{
    std::string scheme = "tcp";
    std::string rest = configured;
    const auto separator = configured.find("://");
    if (separator != std::string::npos) {
        const std::string given = configured.substr(0, separator);
        if (given == "tcp" || given == "mqtt")
            scheme = "tcp";
        else if (given == "ssl" || given == "mqtts")
            scheme = "ssl";
        else
            refuse(configured, "unknown scheme \"" + given + "\"");
        rest = configured.substr(separator + 3);
    }
    if (!rest.empty() && rest.back() == '/')
        rest.pop_back();
    if (rest.empty())
        refuse(configured, "no host");
    if (rest.find_first_of("/?#@ ") != std::string::npos)
        refuse(configured, "only host and port are allowed");

    std::string host = rest;
    std::string port;
    if (rest.front() == '[') {
        const auto close = rest.find(']');
        if (close == std::string::npos)
            refuse(configured, "unclosed IPv6 bracket");
        host = rest.substr(0, close + 1);
        const std::string after = rest.substr(close + 1);
        if (!after.empty()) {
            if (after.front() != ':')
                refuse(configured, "junk after the IPv6 address");
            port = after.substr(1);
            if (port.empty())
                refuse(configured, "empty port");
        }
    } else {
        const auto colon = rest.rfind(':');
        if (colon != std::string::npos) {
            host = rest.substr(0, colon);
            port = rest.substr(colon + 1);
            if (port.empty())
                refuse(configured, "empty port");
        }
    }
    if (host.empty() || host == "[]" || (host.front() != '[' && host.find(':') != std::string::npos))
        refuse(configured, "bad host");
    if (port.empty())
        port = scheme == "ssl" ? "8883" : "1883";
    else if (!isPort(port))
        refuse(configured, "bad port \"" + port + "\"");
    return scheme + "://" + host + ":" + port;
}

bool isTlsMqttUri(const std::string& normalized)
{
    return normalized.compare(0, 6, "ssl://") == 0;
}

} // namespace vlm
