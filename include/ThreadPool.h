#pragma once

#include <functional>
#include <memory>

#include "VelmoraExport.h"

namespace Poco {
class ThreadPool;
}

namespace vlm {

/// The host's worker pool. Plug-ins hand it work that must not run on their own
/// I/O threads; they ask first whether a thread is free and do the work in place
/// otherwise, so a task is never queued behind a busy pool.
class VLM_EXPORT ThreadPool {
public:
    /// The one pool every plug-in of the host shares.
    static ThreadPool& defaultPool();

    explicit ThreadPool(int minThreads = 2, int maxThreads = 16);
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    /// Runs the task on a pool thread. Throws Poco::NoThreadAvailableException
    /// when every thread is busy.
    void start(std::function<void()> task);

    /// Number of threads that could start a task right now.
    int available() const;

    /// Whether at least one thread is free.
    bool hasFreeThread() const { return available() > 0; }

    /// Waits until every started task has finished.
    void joinAll();

private:
    std::unique_ptr<Poco::ThreadPool> pool;
};

} // namespace vlm
