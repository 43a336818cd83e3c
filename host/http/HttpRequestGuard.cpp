#include "http/HttpRequestGuard.h"

#include <Poco/Logger.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/String.h>

#include "VelmoraCommon.h"

namespace vlm {
namespace {

bool nameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
           c == '_';
}

bool addressCharacter(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == ':' || c == '.';
}

std::optional<std::uint16_t> parsePort(const std::string& digits)
{
    if (digits.empty() || digits.size() > 5 || digits.front() == '0')
        return std::nullopt;
    unsigned value = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > 65535)
        return std::nullopt;
    return static_cast<std::uint16_t>(value);
}

std::string bracketedIpv6(const Poco::Net::IPAddress& address)
{
    return "[" + Poco::toLower(address.toString()) + "]";
}

// How many fields of that name the head holds: a browser sends one, and two
// that disagree must not let the lenient one decide.
std::size_t countFields(const Poco::Net::HTTPServerRequest& request, const std::string& name)
{
    std::size_t count = 0;
    for (const auto& field : request)
        if (Poco::icompare(field.first, name) == 0)
            ++count;
    return count;
}

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

} // namespace

std::optional<HttpAuthority> parseHttpAuthority(const std::string& raw)
{
    const std::string text = Poco::trim(raw);
    HttpAuthority authority;
    std::string rest;
    if (!text.empty() && text.front() == '[') {
        const auto close = text.find(']');
        if (close == std::string::npos || close == 1)
            return std::nullopt;
        const std::string inner = text.substr(1, close - 1);
        for (const char c : inner)
            if (!addressCharacter(c))
                return std::nullopt;
        Poco::Net::IPAddress address;
        if (!Poco::Net::IPAddress::tryParse(inner, address) || address.family() != Poco::Net::IPAddress::IPv6)
            return std::nullopt;
        authority.host = bracketedIpv6(address);
        rest = text.substr(close + 1);
    } else {
        const auto colon = text.find(':');
        const std::string name = text.substr(0, colon);
        if (name.empty())
            return std::nullopt;
        for (const char c : name)
            if (!nameCharacter(c))
                return std::nullopt;
        authority.host = Poco::toLower(name);
        rest = colon == std::string::npos ? std::string() : text.substr(colon);
    }
    if (rest.empty())
        return authority;
    if (rest.front() != ':')
        return std::nullopt;
    const auto port = parsePort(rest.substr(1));
    if (!port)
        return std::nullopt;
    authority.port = *port;
    return authority;
}

std::string canonicalHttpHost(const std::string& text)
{
    Poco::Net::IPAddress address;
    if (Poco::Net::IPAddress::tryParse(text, address) && address.family() == Poco::Net::IPAddress::IPv6)
        return bracketedIpv6(address);
    const auto authority = parseHttpAuthority(text);
    if (!authority || authority->port != 0)
        return {};
    return authority->host;
}

std::string canonicalHttpOrigin(const std::string& text)
{
    const std::string lower = Poco::toLower(Poco::trim(text));
    for (const std::string scheme : {"http", "https"}) {
        const std::string prefix = scheme + "://";
        if (lower.compare(0, prefix.size(), prefix) != 0)
            continue;
        const auto authority = parseHttpAuthority(lower.substr(prefix.size()));
        if (!authority)
            return {};
        const std::uint16_t defaultPort = scheme == "http" ? 80 : 443;
        std::string origin = prefix + authority->host;
        if (authority->port != 0 && authority->port != defaultPort)
            origin += ":" + std::to_string(authority->port);
        return origin;
    }
    return {};
}

HttpRequestGuard::HttpRequestGuard(const std::string& bindAddress, const std::vector<std::string>& allowedHosts,
                                   const std::vector<std::string>& allowedOrigins)
    : hosts{"localhost", "127.0.0.1", "[::1]"}
{
    // A wildcard bind address names no host; the address each connection
    // reached stands in for it.
    Poco::Net::IPAddress bound;
    if (!(Poco::Net::IPAddress::tryParse(bindAddress, bound) && bound.isWildcard())) {
        const std::string host = canonicalHttpHost(bindAddress);
        if (!host.empty())
            hosts.insert(host);
    }
    for (const auto& name : allowedHosts) {
        const std::string host = canonicalHttpHost(name);
        if (!host.empty())
            hosts.insert(host);
        else
            logger().error("http allowed host \"%s\" ignored: not a host name or address", name);
    }
    for (const auto& text : allowedOrigins) {
        const std::string origin = canonicalHttpOrigin(text);
        if (!origin.empty())
            origins.insert(origin);
        else
            logger().error("http allowed origin \"%s\" ignored: not an origin like http://name:port", text);
    }
}

HttpGuardVerdict HttpRequestGuard::check(const Poco::Net::HTTPServerRequest& request,
                                         std::uint16_t serverPort) const
{
    HttpGuardVerdict verdict;
    auto refuse = [&verdict](std::string reason) {
        verdict.kind = HttpGuardVerdict::Kind::refuse;
        verdict.reason = std::move(reason);
        return verdict;
    };
    const std::string hostProblem = checkHost(request, serverPort);
    if (!hostProblem.empty())
        return refuse(hostProblem);

    const std::size_t originFields = countFields(request, "Origin");
    if (originFields > 1)
        return refuse("more than one Origin header");
    if (originFields == 0) {
        // Without an Origin a browser context still tells where it comes
        // from; pages of other sites (an <img src>, a link) are refused.
        const std::string site = Poco::toLower(Poco::trim(request.get("Sec-Fetch-Site", "")));
        if (site == "cross-site" || site == "same-site")
            return refuse("cross-site request from a browser");
        return verdict;
    }
    const std::string& origin = request.get("Origin");
    if (!originAllowed(origin, request, serverPort))
        return refuse("cross-origin request from a browser");
    // Same-origin answers need no CORS headers; the origin of another of this
    // server's names or of a configured page does.
    const auto host = parseHttpAuthority(request.get("Host", ""));
    const std::string own = host ? canonicalHttpOrigin("http://" + host->host + ":" + std::to_string(serverPort))
                                 : std::string();
    if (canonicalHttpOrigin(origin) != own)
        verdict.corsOrigin = Poco::trim(origin);
    if (request.getMethod() == Poco::Net::HTTPRequest::HTTP_OPTIONS) {
        verdict.kind = HttpGuardVerdict::Kind::preflight;
        verdict.corsOrigin = Poco::trim(origin);
    }
    return verdict;
}

void HttpRequestGuard::noteRefusal(const Poco::Net::HTTPServerRequest& request, const std::string& reason) const
{
    const std::uint64_t count = ++refused;
    if (count == 1 || count % 1000 == 0)
        logger().warning("http request from %s refused: %s (%Lu refused so far)",
                         request.clientAddress().toString(), reason, static_cast<Poco::UInt64>(count));
}

bool HttpRequestGuard::hostAllowed(const std::string& canonicalHost,
                                   const Poco::Net::HTTPServerRequest& request) const
{
    if (hosts.count(canonicalHost) > 0)
        return true;
    const Poco::Net::IPAddress reached = request.serverAddress().host();
    const std::string reachedHost = reached.family() == Poco::Net::IPAddress::IPv6
                                        ? bracketedIpv6(reached)
                                        : reached.toString();
    return !reached.isWildcard() && canonicalHost == reachedHost;
}

bool HttpRequestGuard::originAllowed(const std::string& origin, const Poco::Net::HTTPServerRequest& request,
                                     std::uint16_t serverPort) const
{
    const std::string canonical = canonicalHttpOrigin(origin);
    if (canonical.empty())
        return false;  // "null" and everything that is no origin
    if (origins.count(canonical) > 0)
        return true;
    const std::string prefix = "http://";
    if (canonical.compare(0, prefix.size(), prefix) != 0)
        return false;
    const auto authority = parseHttpAuthority(canonical.substr(prefix.size()));
    const std::uint16_t port = authority && authority->port != 0 ? authority->port : 80;
    return authority && port == serverPort && hostAllowed(authority->host, request);
}

std::string HttpRequestGuard::checkHost(const Poco::Net::HTTPServerRequest& request, std::uint16_t serverPort) const
{
    const std::size_t fields = countFields(request, "Host");
    if (fields > 1)
        return "more than one Host header";
    if (fields == 0) {
        // HTTP/1.1 requires a Host and every browser sends one; an old
        // HTTP/1.0 tool without it is no browser.
        return request.getVersion() == Poco::Net::HTTPMessage::HTTP_1_0 ? std::string() : "missing Host header";
    }
    const auto authority = parseHttpAuthority(request.get("Host"));
    if (!authority)
        return "malformed Host header";
    if (!hostAllowed(authority->host, request))
        return "Host header names another server";
    if (authority->port != 0 && authority->port != serverPort)
        return "Host header names another port";
    return {};
}

void setCorsAnswerHeaders(Poco::Net::HTTPServerResponse& response, const std::string& origin)
{
    response.set("Access-Control-Allow-Origin", origin);
    response.set("Vary", "Origin");
}

void sendCorsPreflight(Poco::Net::HTTPServerResponse& response, const std::string& origin)
{
    setCorsAnswerHeaders(response, origin);
    response.set("Access-Control-Allow-Methods", "GET, POST");
    response.set("Access-Control-Allow-Headers", "Content-Type, Authorization");
    response.set("Access-Control-Max-Age", "600");
    response.setChunkedTransferEncoding(false);
    response.setStatusAndReason(Poco::Net::HTTPResponse::HTTP_NO_CONTENT);
    response.setContentLength(0);
    response.send();
}

} // namespace vlm
