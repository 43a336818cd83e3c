#pragma once

#include <cstddef>
#include <functional>
#include <mutex>

#include "OutboundQueue.h"

namespace vlm {

/// Publications that must leave in the order they arrived, whichever thread
/// runs them: a task pool may lend a different thread to each, and two
/// threads racing would swap, say, two telemetry positions. Tasks wait in a
/// bounded OutboundQueue (drops counted and logged as "publication queue");
/// `drain` runs them one at a time, oldest first, on the thread that calls it.
class PublishSequence {
public:
    explicit PublishSequence(OutboundBounds bounds = {});
    PublishSequence(const PublishSequence&) = delete;
    PublishSequence& operator=(const PublishSequence&) = delete;

    /// Queues a publication; any thread. False when it was dropped itself
    /// (older ones may be dropped for it and the call still returns true).
    bool push(std::function<void()> task, OutboundClass cls, std::size_t bytes);

    /// Runs the queued tasks in order until none is left. When another thread
    /// is draining already, returns at once: that thread takes what was
    /// queued before this call. A task that throws is logged and the rest run.
    void drain();

    /// Tasks dropped so far, by class.
    OutboundDrops dropped() const { return queue.dropped(); }

    /// Tasks and bytes queued now, by class.
    std::array<OutboundBound, outboundClassCount> queued() const { return queue.queued(); }

private:
    OutboundQueue queue;
    // Guards draining. The drainer finds the queue empty and clears the flag
    // under it in one step, so a push followed by a drain that finds the flag
    // set is always taken by the active drainer. Never held while a task runs.
    std::mutex drainMutex;
    bool draining = false;
};

} // namespace vlm
