#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "WebApiBasic.h"

namespace vlm {

/// Handler registered for one exact path: exactly one of the two is set.
struct HttpRoute {
    StreamApiHandler stream;
    RequestApiHandler request;
    /// Served without the bearer token (the host's static console files).
    bool open = false;
    /// Methods the route takes; any other is answered 405 naming these.
    std::vector<std::string> methods;
};

/// Whether `route` takes `method` (exact, upper case as sent).
bool routeTakes(const HttpRoute& route, const std::string& method);

/// The route's methods as an "Allow" header value ("GET, POST").
std::string allowedMethods(const HttpRoute& route);

/// Exact-path map from request path to handler. Registration may happen while
/// requests are being served; any thread.
class HttpRouteTable {
public:
    /// Sets the route of `path`, replacing an earlier one.
    void set(const std::string& path, HttpRoute route);

    /// The route of exactly `path`, or null. The route stays valid for the
    /// caller even when the path is registered again meanwhile.
    std::shared_ptr<const HttpRoute> find(const std::string& path) const;

    /// Every registered path, sorted.
    std::vector<std::string> paths() const;

private:
    mutable std::mutex mutex;  // guards routes
    std::unordered_map<std::string, std::shared_ptr<const HttpRoute>> routes;
};

} // namespace vlm
