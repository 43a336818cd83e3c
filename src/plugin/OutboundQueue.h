#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

namespace vlm {

/// What a publishing task carries; the classes rank from the first (given up
/// first) to the last (given up last).
enum class OutboundClass : std::size_t {
    staleTelemetry = 0,  ///< telemetry: only the freshest matters
    event = 1,           ///< the service's other events, republished
    answer = 2,          ///< answers to commands
};
inline constexpr std::size_t outboundClassCount = 3;

/// Bound of one class, or of the whole queue.
struct OutboundBound {
    std::size_t tasks = 0;
    std::size_t bytes = 0;
};

/// Bounds of an outbound queue. Each class has its own; the whole queue has
/// one too, and when it is reached, tasks of the lowest class present are
/// dropped first (oldest first), never those of a class above the new task's.
/// The answers' own bound equals the whole queue's, so answers alone fill it
/// before any answer is dropped.
struct OutboundBounds {
    std::array<OutboundBound, outboundClassCount> perClass{{
        {1024, 8u << 20},   // stale telemetry: 1024 tasks, 8 MiB
        {4096, 32u << 20},  // events: 4096 tasks, 32 MiB
        {8192, 64u << 20},  // answers: 8192 tasks, 64 MiB
    }};
    OutboundBound total{8192, 64u << 20};
};

/// Tasks dropped so far, by class.
struct OutboundDrops {
    std::array<std::uint64_t, outboundClassCount> byClass{};
    std::uint64_t of(OutboundClass c) const { return byClass[static_cast<std::size_t>(c)]; }
};

/// A queue of publishing tasks in arrival order, bounded per class and in
/// total, in tasks and in bytes (see OutboundBounds). A full class makes room
/// by dropping its own oldest task, which favours fresh work over stale; a
/// full queue drops the oldest of the lowest class present. Drops are counted
/// per class and logged once per burst (the first and every 1000th of a
/// class), as "<name> full: N <what> dropped so far". Any thread.
class OutboundQueue {
public:
    explicit OutboundQueue(OutboundBounds bounds = {}, std::string name = "outbound queue");
    OutboundQueue(const OutboundQueue&) = delete;
    OutboundQueue& operator=(const OutboundQueue&) = delete;

    /// Queues a task of class `cls` that holds about `bytes` of payload.
    /// Returns true when it was queued (older tasks may have been dropped for
    /// it), false when it was dropped itself or the queue is stopped.
    bool push(std::function<void()> task, OutboundClass cls, std::size_t bytes = 0);

    /// Takes the oldest task into `task`; false when there is none.
    bool popFront(std::function<void()>& task);

    /// Waits for a task and takes the oldest; false once the queue is stopped
    /// and empty.
    bool waitFront(std::function<void()>& task);

    /// Refuses further tasks and wakes the waiters; queued tasks stay to be taken.
    void stop();

    /// Tasks dropped so far, by class.
    OutboundDrops dropped() const;

    /// Tasks and bytes queued now, by class.
    std::array<OutboundBound, outboundClassCount> queued() const;

private:
    struct Task {
        std::function<void()> run;
        OutboundClass cls;
        std::size_t bytes;
    };
    using Tasks = std::list<Task>;

    /// Drops the oldest task of `cls` into `dropped`; returns the class's drop
    /// count so far.
    std::uint64_t dropOldest(std::size_t cls, std::vector<std::function<void()>>& dropped);
    bool overClass(std::size_t cls, std::size_t bytes) const;
    bool overTotal(std::size_t bytes) const;
    void takeFront(std::function<void()>& task);
    void logDrops(OutboundClass cls, std::uint64_t count) const;

    const OutboundBounds bounds;
    const std::string name;
    mutable std::mutex mutex;  // guards everything below
    std::condition_variable wake;
    Tasks tasks;  // arrival order
    // Each class's tasks within `tasks`, oldest first.
    std::array<std::deque<Tasks::iterator>, outboundClassCount> byClass;
    std::array<OutboundBound, outboundClassCount> held{};
    OutboundBound heldTotal;
    OutboundDrops drops;
    bool stopping = false;
};

} // namespace vlm
