#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
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

/// Bounds of the outbound queue. Each class has its own; the whole queue has
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

/// One thread that runs publishing work in arrival order, so the RPC I/O
/// threads hand work over instead of waiting for the MQTT client. Every class
/// of work is bounded in count and bytes (see OutboundBounds); a full class
/// makes room by dropping its own oldest task, which favours fresh work over
/// stale. Drops are counted per class and logged once per burst (the first and
/// every 1000th of a class).
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
    // Shared with the thread so that a thread outliving its worker (one a
    // task ended) never touches the destroyed worker.
    struct State {
        explicit State(const OutboundBounds& b) : bounds(b) {}
        const OutboundBounds bounds;
        std::mutex mutex;  // guards everything below
        std::condition_variable wake;
        struct Task {
            std::function<void()> run;
            OutboundClass cls;
            std::size_t bytes;
        };
        using Queue = std::list<Task>;
        Queue tasks;  // arrival order
        // Each class's tasks within `tasks`, oldest first.
        std::array<std::deque<Queue::iterator>, outboundClassCount> byClass;
        std::array<OutboundBound, outboundClassCount> held{};
        OutboundBound heldTotal;
        OutboundDrops drops;
        bool stopping = false;

        /// Drops the oldest task of `cls` into `dropped`; returns the class's
        /// drop count so far.
        std::uint64_t dropOldest(std::size_t cls, std::vector<std::function<void()>>& dropped);
        bool overClass(std::size_t cls, std::size_t bytes) const;
        bool overTotal(std::size_t bytes) const;
    };

    static void run(const std::shared_ptr<State>& state);
    static void logDrops(OutboundClass cls, std::uint64_t count);

    std::shared_ptr<State> state;
    std::thread thread;
};

} // namespace vlm
