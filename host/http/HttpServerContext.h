#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "http/HttpAdmission.h"
#include "http/HttpApiServerOptions.h"
#include "http/HttpRequestCounts.h"
#include "http/HttpRequestDeadline.h"
#include "http/HttpRequestGuard.h"
#include "http/HttpRouteTable.h"

namespace vlm {

/// What the server shares with the handlers of its requests. Owned by the
/// server; outlives every request thread (the server joins them first).
struct HttpServerContext {
    explicit HttpServerContext(HttpApiServerOptions opts)
        : options(std::move(opts)), capacity(httpCapacity(options)), admission(capacity),
          deadlines(options.requestDeadline, options.keepAliveTimeout)
    {
    }

    /// Counts a handler in for as long as it runs.
    class Running {
    public:
        explicit Running(HttpServerContext& c) : context(c) { context.enter(); }
        ~Running() { context.leave(); }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        HttpServerContext& context;
    };

    /// Waits until no handler runs; false when the time-out passed first.
    bool waitUntilIdle(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(runningMutex);
        return idle.wait_for(lock, timeout, [&] { return running == 0; });
    }

    int runningHandlers() const
    {
        std::lock_guard<std::mutex> lock(runningMutex);
        return running;
    }

    const HttpApiServerOptions options;
    const HttpCapacity capacity;
    HttpAdmission admission;
    HttpRequestDeadlines deadlines;
    HttpRouteTable routes;
    HttpRequestCounts requests;
    const HttpRequestGuard guard{options.bindAddress, options.allowedHosts, options.allowedOrigins};
    std::atomic<bool> stopping{false};

private:
    void enter()
    {
        std::lock_guard<std::mutex> lock(runningMutex);
        ++running;
    }
    void leave()
    {
        {
            std::lock_guard<std::mutex> lock(runningMutex);
            --running;
        }
        idle.notify_all();
    }

    mutable std::mutex runningMutex;  // guards running
    std::condition_variable idle;
    int running = 0;
};

} // namespace vlm
