#pragma once

// Requests the server answered, by the class of route they reached and the
// status of the answer: lock-free counters, one per class and status code.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "VelmoraExport.h"

namespace vlm {

/// What a request reached. `refused`: answered before any route's handler
/// ran (guard, token, unknown path or method, a cap, stopping, too slow).
enum class HttpRouteClass { pluginRequest, pluginStream, host, console, preflight, refused };
inline constexpr std::size_t httpRouteClassCount = 6;

/// "plugin_request", "plugin_stream", "host", "console", "preflight", "refused".
VLM_EXPORT const char* httpRouteClassName(HttpRouteClass routeClass);

/// One non-zero count.
struct HttpRequestCount {
    HttpRouteClass routeClass;
    int status;
    std::uint64_t count;
};

/// Thread-safe.
class HttpRequestCounts {
public:
    /// One answered request; a status outside 100..599 counts as 599.
    void count(HttpRouteClass routeClass, int status);

    /// The non-zero counts, by class, then status.
    std::vector<HttpRequestCount> snapshot() const;

private:
    static constexpr int firstStatus = 100;
    static constexpr int lastStatus = 599;
    std::array<std::array<std::atomic<std::uint64_t>, lastStatus - firstStatus + 1>, httpRouteClassCount> counts{};
};

} // namespace vlm
