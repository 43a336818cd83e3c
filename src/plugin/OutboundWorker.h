#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>

#include "OutboundQueue.h"

namespace vlm {

/// One thread that runs publishing work in arrival order, so the RPC I/O
/// threads hand work over instead of waiting for the MQTT client. The work
/// waits in an OutboundQueue, bounded, counted and logged as "outbound queue".
class OutboundWorker {
public:
    explicit OutboundWorker(OutboundBounds bounds = {});
    /// Lets queued tasks finish, then joins; when the last owner is a task on
    /// the worker thread itself, which cannot join itself, the thread is kept
    /// for `joinAllEnded` to join.
    ~OutboundWorker();
    OutboundWorker(const OutboundWorker&) = delete;
    OutboundWorker& operator=(const OutboundWorker&) = delete;

    /// Queues a task of class `cls` that holds about `bytes` of payload; any
    /// thread. Returns true when the task was queued (older tasks may have
    /// been dropped for it), false when it was dropped itself or the worker
    /// stops (the task is not run).
    bool post(std::function<void()> task, OutboundClass cls, std::size_t bytes = 0);

    /// Tasks dropped so far, by class.
    OutboundDrops dropped() const;

    /// Tasks and bytes queued now, by class. For tests and reports.
    std::array<OutboundBound, outboundClassCount> queued() const;

    /// Waits up to `limit` until no worker exists, then joins the threads
    /// that ended their own worker. Once it returns true, no worker thread
    /// runs this library's code: the plug-in's unload calls it, as the host
    /// may unmap the library next. False when workers still exist at the
    /// limit (their threads are left as they are).
    static bool joinAllEnded(std::chrono::milliseconds limit);

private:
    static void run(const std::shared_ptr<OutboundQueue>& queue);

    // Shared with the thread so that a thread outliving its worker (one a
    // task ended) never touches the destroyed worker.
    std::shared_ptr<OutboundQueue> queue;
    std::thread thread;
};

} // namespace vlm
