#include "mqtt/MqttClientOptions.h"

#include <cctype>
#include <stdexcept>

#include <Poco/Net/IPAddress.h>

namespace vlm {
namespace {

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

std::string mqttUriHost(const std::string& normalized)
{
    const auto start = normalized.find("://");
    const auto colon = normalized.rfind(':');
    if (start == std::string::npos || colon == std::string::npos || colon < start + 3)
        return {};
    return normalized.substr(start + 3, colon - start - 3);
}

bool isLoopbackMqttUri(const std::string& normalized)
{
    std::string host = mqttUriHost(normalized);
    if (host == "localhost")
        return true;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    Poco::Net::IPAddress address;
    return Poco::Net::IPAddress::tryParse(host, address) && address.isLoopback();
}

} // namespace vlm
