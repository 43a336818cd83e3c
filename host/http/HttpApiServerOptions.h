#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "VelmoraExport.h"

namespace vlm {

/// Settings of the host's HTTP API server.
struct VLM_EXPORT HttpApiServerOptions {
    /// Address to listen on; loopback unless the station opens it on purpose.
    std::string bindAddress = "127.0.0.1";
    /// Port to listen on; 0 lets the kernel choose (see HttpApiServer::port()).
    std::uint16_t port = 0;
    /// Requests served at the same time. Every open event stream and every
    /// request waiting for its answer holds one.
    int workerThreads = 32;
    /// Accepted connections that may wait for a free worker.
    int queueSize = 64;
    /// Largest request body accepted; a larger one is answered 413.
    std::size_t maxBodyBytes = 1024 * 1024;
    bool keepAlive = true;
    std::chrono::seconds keepAliveTimeout{10};
    /// Bound of every socket read and write while a request is served.
    std::chrono::seconds socketTimeout{60};
    /// How long stop() waits for running handlers to return.
    std::chrono::milliseconds stopTimeout{1000};
    /// When not empty, every request must carry "Authorization: Bearer <token>".
    std::string bearerToken;
    /// Further names (or addresses) a request's "Host" may give for this
    /// server, besides the loopback ones and bindAddress.
    std::vector<std::string> allowedHosts;
    /// Exact origins ("http://127.0.0.1:5173") of web pages, besides the
    /// server's own, that may call it from a browser (CORS).
    std::vector<std::string> allowedOrigins;
    /// Serve on an address that is not loopback without a bearer token.
    bool allowInsecureRemote = false;

    // Capacity (see HttpAdmission.h); 0 takes the share of workerThreads
    // named, so that the defaults always fit.
    /// Threads kept for the host's own paths under "/host/" (0: an eighth).
    int reservedHostThreads = 0;
    /// Plug-in event streams open at once (0: half).
    int maxStreams = 0;
    /// Plug-in event streams open at once from one client address (0: a quarter).
    int maxStreamsPerClient = 0;
    /// Plug-in requests served at once, most of them waiting for their
    /// answer (0: what the reserve and the streams leave).
    int maxWaitingRequests = 0;
    /// Time a connection's thread waits for a request's head and body, from
    /// when it starts waiting for it (see HttpRequestDeadlines).
    std::chrono::milliseconds requestDeadline{10000};
};

} // namespace vlm
