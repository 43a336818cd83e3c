#include "http/HttpRequestCounts.h"

namespace vlm {

const char* httpRouteClassName(HttpRouteClass routeClass)
{
    switch (routeClass) {
    case HttpRouteClass::pluginRequest:
        return "plugin_request";
    case HttpRouteClass::pluginStream:
        return "plugin_stream";
    case HttpRouteClass::host:
        return "host";
    case HttpRouteClass::console:
        return "console";
    case HttpRouteClass::preflight:
        return "preflight";
    case HttpRouteClass::refused:
        return "refused";
    }
    return "refused";
}

void HttpRequestCounts::count(HttpRouteClass routeClass, int status)
{
    if (status < firstStatus || status > lastStatus)
        status = lastStatus;
    counts[static_cast<std::size_t>(routeClass)][static_cast<std::size_t>(status - firstStatus)].fetch_add(
        1, std::memory_order_relaxed);
}

std::vector<HttpRequestCount> HttpRequestCounts::snapshot() const
{
    std::vector<HttpRequestCount> all;
    for (std::size_t c = 0; c < httpRouteClassCount; ++c) {
        for (std::size_t s = 0; s < counts[c].size(); ++s) {
            const std::uint64_t n = counts[c][s].load(std::memory_order_relaxed);
            if (n > 0)
                all.push_back({static_cast<HttpRouteClass>(c), static_cast<int>(s) + firstStatus, n});
        }
    }
    return all;
}

} // namespace vlm
