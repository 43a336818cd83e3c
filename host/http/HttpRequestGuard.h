#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include "VelmoraExport.h"

namespace vlm {

/// Host and port of a "Host" header or an origin, the host in canonical form:
/// names lower case, IPv6 addresses in brackets as POCO prints them.
struct HttpAuthority {
    std::string host;
    /// 0 when no port was given.
    std::uint16_t port = 0;
};

/// Parses `host [":" port]` exactly: a name of letters, digits, '.', '-' and
/// '_', or an IPv6 address in brackets; a port of 1 to 5 digits without a
/// leading zero, 1 to 65535. Anything else (user-info, spaces, a second ':',
/// an empty part) gives nothing.
VLM_EXPORT std::optional<HttpAuthority> parseHttpAuthority(const std::string& text);

/// Canonical form of a host name or address from the configuration (an IPv6
/// address with or without brackets); empty when it is no valid host.
VLM_EXPORT std::string canonicalHttpHost(const std::string& text);

/// Canonical form of an origin from the configuration ("http://name:port",
/// no path); empty when it is no valid origin.
VLM_EXPORT std::string canonicalHttpOrigin(const std::string& text);

/// What the guard decided about one request.
struct HttpGuardVerdict {
    enum class Kind {
        serve,     ///< go on with the request
        refuse,    ///< answer 403 with `reason`
        preflight  ///< answer the CORS preflight of `corsOrigin`
    };
    Kind kind = Kind::serve;
    std::string reason;
    /// An allowed origin other than the request's own: its answer carries
    /// the CORS headers for it. Empty for requests that need none.
    std::string corsOrigin;
};

/// Keeps web pages from commanding the host through the operator's browser.
///
/// A request must name this server in "Host": "localhost", "127.0.0.1" or
/// "[::1]", the bind address, the address the connection reached, or one of
/// `allowedHosts`, with no port or the server's own. A missing "Host" passes
/// on HTTP/1.0 only (browsers always send one). A request from a browser
/// context must come from this server's own origin ("http://" + an allowed
/// host + the server's port) or one of `allowedOrigins`: an "Origin" that is
/// neither, "Origin: null", or "Sec-Fetch-Site: cross-site" / "same-site"
/// without an allowed origin is refused. Requests without these headers
/// (curl, ground apps) pass. Thread-safe; checks run on server threads.
class VLM_EXPORT HttpRequestGuard {
public:
    HttpRequestGuard(const std::string& bindAddress, const std::vector<std::string>& allowedHosts,
                     const std::vector<std::string>& allowedOrigins);

    /// Decides about `request`, which reached the server on `serverPort`.
    HttpGuardVerdict check(const Poco::Net::HTTPServerRequest& request, std::uint16_t serverPort) const;

    /// Counts a refusal and logs the first of a burst and every 1000th.
    void noteRefusal(const Poco::Net::HTTPServerRequest& request, const std::string& reason) const;

    /// Requests refused so far.
    std::uint64_t refusals() const { return refused.load(); }

private:
    bool hostAllowed(const std::string& canonicalHost, const Poco::Net::HTTPServerRequest& request) const;
    bool originAllowed(const std::string& origin, const Poco::Net::HTTPServerRequest& request,
                       std::uint16_t serverPort) const;
    std::string checkHost(const Poco::Net::HTTPServerRequest& request, std::uint16_t serverPort) const;

    std::set<std::string> hosts;    // canonical, fixed after construction
    std::set<std::string> origins;  // canonical, fixed after construction
    mutable std::atomic<std::uint64_t> refused{0};
};

/// Sets what a real answer to an allowed cross origin carries.
VLM_EXPORT void setCorsAnswerHeaders(Poco::Net::HTTPServerResponse& response, const std::string& origin);

/// Sends the 204 answer to a CORS preflight of an allowed origin.
VLM_EXPORT void sendCorsPreflight(Poco::Net::HTTPServerResponse& response, const std::string& origin);

} // namespace vlm
