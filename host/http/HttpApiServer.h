#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "VelmoraExport.h"
#include "WebApiBasic.h"
#include "http/HttpAdmission.h"
#include "http/HttpApiServerOptions.h"
#include "http/HttpRequestCounts.h"

namespace Poco {
class ThreadPool;
namespace Net {
class TCPServer;
class ServerSocket;
} // namespace Net
} // namespace Poco

namespace vlm {

struct HttpServerContext;
struct HttpRoute;
class HttpConnectionFactory;

/// The host's HTTP API server on POCO's TCPServer and HTTPServerConnection.
///
/// Requests are routed by their exact path (query string excluded) to the
/// handler registered with apiRegist; routes may be added while serving. Each
/// request runs on one worker thread of the server, for as long as its handler
/// runs. Query parameters, decoded, fill the ApiParams map (the last of several
/// equal names wins).
///
/// Request form: the body (Content-Length or chunked) is parsed as one JSON
/// object before the handler is called; an empty body is the empty object.
/// A body that is malformed or not an object is answered 400 and one above
/// maxBodyBytes 413; the handler is not called.
///
/// Stream form: the handler gets the raw response. HTTP/1.1 responses are set
/// to chunked transfer encoding before any handler runs, so every flush of the
/// response stream sends what was written as one chunk at once; a handler
/// that sets a Content-Length must switch chunking off itself.
///
/// Both forms: when the handler returns without having sent the response, the
/// reply object it was given is sent as the application/json answer. Unknown
/// paths are answered 404, a handler exception 500 (and logged), a missing or
/// wrong bearer token 401 (on every path but the open routes, and before
/// anything about the path is told), all with a JSON body {"code": <status>,
/// "msg": ...}.
///
/// Methods: a request-form route takes POST, a stream-form route GET; the
/// host's own routes state theirs (hostRouteRegist, openRouteRegist). Another
/// method is answered 405 with "Allow", after the token check.
///
/// Browsers: before anything else, "Host" must name this server and a browser
/// context must come from its own origin or a configured one, or the request
/// is answered 403 (see HttpRequestGuard); allowed cross origins get CORS
/// answers and preflights.
///
/// The host adds its own routes (health, bus) like any plug-in.
/// All members may be called from any thread; handlers run on the server's
/// worker threads.
///
/// Capacity: plug-in event streams and requests are capped so that paths
/// under "/host/" always find a thread, and a request must be received within
/// a deadline (see HttpAdmission.h and HttpRequestDeadline.h); refusals are
/// 503 with Retry-After, a request cut at its deadline 408.
///
/// Stopping: stop() makes stopping() true, closes the listening socket and
/// shuts down the socket of every open connection. A handler writing to its
/// response then sees the stream fail at its next flush (an event-stream loop
/// ends by itself); a handler that waits on something else should poll
/// stopping().
class VLM_EXPORT HttpApiServer : public WebApiBasic {
public:
    /// Throws std::invalid_argument ("key: reason") when the caps of the
    /// options do not fit in its threads (httpCapacityProblem).
    explicit HttpApiServer(HttpApiServerOptions options = {});
    /// Stops the server, then waits for handlers that ignored the stop.
    ~HttpApiServer() override;
    HttpApiServer(const HttpApiServer&) = delete;
    HttpApiServer& operator=(const HttpApiServer&) = delete;

    /// Binds, listens and starts serving. Throws Poco::Net::NetException (for
    /// example address in use) naming the address. A server starts once; a
    /// stopped server cannot be started again.
    void start();

    /// Stops serving (see the class comment) and waits up to stopTimeout for
    /// running handlers to return. Returns whether they all did. Safe to call
    /// more than once, from any thread except a handler.
    bool stop();

    /// The port the server listens on, known after start() (0 before).
    std::uint16_t port() const;

    /// Whether stop() has begun; handlers that wait on anything but their
    /// response stream poll this.
    bool stopping() const;

    /// Number of handlers running right now.
    int runningHandlers() const;

    /// Refusals, cuts and what is held right now. Any thread.
    HttpServerCounters counters() const;

    void apiRegist(std::string path, StreamApiHandler handler) override;
    void apiRegist(std::string path, RequestApiHandler handler) override;

    /// Like the stream form of apiRegist, but the route is served without the
    /// bearer token and takes GET and HEAD: for files that hold no secret and
    /// must load before a browser knows the token. Not part of what plug-ins see.
    void openRouteRegist(std::string path, StreamApiHandler handler);

    /// A host route in the stream form that takes exactly `methods` (for
    /// example {"GET", "POST"}); other methods are answered 405. Not part of
    /// what plug-ins see.
    void hostRouteRegist(std::string path, std::vector<std::string> methods, StreamApiHandler handler);

    /// Requests answered so far, by route class and status. Any thread.
    std::vector<HttpRequestCount> requestCounts() const;

    /// Requests the Host/Origin guard refused so far.
    std::uint64_t guardRefusals() const;

    /// Every path registered so far, sorted. Any thread.
    std::vector<std::string> routePaths() const;

private:
    void registerRoute(std::string path, HttpRoute route);

    std::unique_ptr<HttpServerContext> context;
    std::unique_ptr<Poco::ThreadPool> workers;

    mutable std::mutex lifecycleMutex;  // guards listener, server, connections, boundPort and started
    std::unique_ptr<Poco::Net::ServerSocket> listener;
    std::unique_ptr<Poco::Net::TCPServer> server;
    HttpConnectionFactory* connections = nullptr;  // owned by server
    std::uint16_t boundPort = 0;
    bool started = false;
};

} // namespace vlm
