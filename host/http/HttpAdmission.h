#pragma once

// Who may take one of the HTTP server's threads, and for how long.
//
// Threads model: every connection is served by one worker thread of a fixed
// pool (HttpApiServerOptions::workerThreads), for as long as it is open.
// Event streams hold their thread for the stream's life, and a plug-in request
// holds its thread while it waits for the service's answer (up to 600 s). The
// server therefore counts, by the route a request reaches:
//
//   host      path under "/host/" (health, console, API description, bus tap):
//             never refused here; the bus tap bounds its own streams.
//   stream    a plug-in route in the stream form: capped in total and per
//             client address.
//   request   a plug-in route in the request form: capped in total.
//
// The caps are checked to fit under the thread count with a reserve left
// over (reservedHostThreads), so however many streams and waiting requests a
// client opens, the host's own paths find a free thread. Beyond a cap the
// answer is 503 with Retry-After at once: a refused request never waits for a
// slot. Idle and slowly sent connections are bounded in time by
// HttpRequestDeadlines.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "VelmoraExport.h"
#include "http/HttpApiServerOptions.h"
#include "http/HttpRouteTable.h"

namespace vlm {

/// The thread budget, with the shares left at 0 in the options filled in.
struct HttpCapacity {
    int threads = 0;
    int reservedHostThreads = 0;
    int maxStreams = 0;
    int maxStreamsPerClient = 0;
    int maxWaitingRequests = 0;
};

/// The options' budget: a reserve of an eighth of the threads, half of them
/// for streams (a quarter per client), the rest for waiting requests; each at
/// least 1. Values set in the options are taken as they are.
VLM_EXPORT HttpCapacity httpCapacity(const HttpApiServerOptions& options);

/// Why a budget cannot work: the configuration key to blame and the reason.
struct HttpCapacityProblem {
    std::string key;
    std::string reason;
};

/// Empty when the reserve, the streams and the waiting requests fit in the
/// threads and a client's stream cap is within the total.
VLM_EXPORT std::optional<HttpCapacityProblem> httpCapacityProblem(const HttpApiServerOptions& options);

/// Prefix of the paths the host serves itself; requests there use the reserve.
inline constexpr const char* hostRoutePrefix = "/host/";

/// Seconds a refused client is asked to wait before it tries again.
inline constexpr int httpRetryAfterSeconds = 5;

/// What the server refused and cut so far, and what it holds now.
struct HttpServerCounters {
    /// Streams refused because `maxStreams` were open.
    std::uint64_t streamsRefused = 0;
    /// Streams refused because the client address had `maxStreamsPerClient` open.
    std::uint64_t streamsRefusedPerClient = 0;
    /// Plug-in requests refused because `maxWaitingRequests` were being served.
    std::uint64_t requestsRefused = 0;
    /// Connections cut because their request was not received in time.
    std::uint64_t slowClientsCut = 0;
    /// Plug-in streams open and plug-in requests being served right now.
    int openStreams = 0;
    int waitingRequests = 0;
    /// Connections holding a thread right now.
    int connections = 0;
};

/// Counts plug-in streams and requests against the caps. Thread-safe.
class HttpAdmission {
public:
    enum class Kind { host, stream, request };

    explicit HttpAdmission(const HttpCapacity& capacity);
    HttpAdmission(const HttpAdmission&) = delete;
    HttpAdmission& operator=(const HttpAdmission&) = delete;

    /// What a request to `path` served by `route` counts as.
    static Kind classify(const std::string& path, const HttpRoute& route);

    /// A place taken by one stream or request, given back when destroyed; or
    /// the reason it was refused.
    class Slot {
    public:
        Slot() = default;
        Slot(Slot&& other) noexcept;
        Slot& operator=(Slot&&) = delete;
        Slot(const Slot&) = delete;
        ~Slot();

        bool admitted() const { return refusal.empty(); }
        /// Why not, for the 503 answer; empty when admitted.
        const std::string& reason() const { return refusal; }

    private:
        friend class HttpAdmission;
        HttpAdmission* owner = nullptr;
        Kind kind = Kind::host;
        std::string client;
        std::string refusal;
    };

    /// Takes a slot for a request of `kind` from `client` (its address), or
    /// refuses at once, counting and logging the refusal (the first and every
    /// 1000th of each kind). Host requests are always admitted.
    Slot admit(Kind kind, const std::string& client);

    /// The counters of this class (the deadline and connection fields stay 0).
    HttpServerCounters counters() const;

private:
    void release(Kind kind, const std::string& client);

    const HttpCapacity capacity;
    mutable std::mutex mutex;  // guards streams, streamsByClient, requests
    int streams = 0;
    std::unordered_map<std::string, int> streamsByClient;
    int requests = 0;

    std::atomic<std::uint64_t> streamsRefused{0};
    std::atomic<std::uint64_t> streamsRefusedPerClient{0};
    std::atomic<std::uint64_t> requestsRefused{0};
};

/// Whether the nth occurrence of a flood is logged: the first and every 1000th.
inline bool loggedOccurrence(std::uint64_t n)
{
    return n == 1 || (n > 0 && n % 1000 == 0);
}

} // namespace vlm
