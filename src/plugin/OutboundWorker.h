#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace vlm {

/// One thread that runs publishing work in arrival order, so the RPC I/O
/// threads hand work over instead of waiting for the MQTT client. Work that
/// only matters while it is fresh (telemetry) is posted as droppable: when the
/// queue holds `capacity` tasks, the oldest droppable one makes room, which
/// favours fresh telemetry over stale. Other work is never dropped.
class OutboundWorker {
public:
    explicit OutboundWorker(size_t capacity = 4096);
    /// Lets queued tasks finish, then joins; when the last owner is a task on
    /// the worker thread itself, which cannot join itself, the thread is kept
    /// for `joinAllEnded` to join.
    ~OutboundWorker();
    OutboundWorker(const OutboundWorker&) = delete;
    OutboundWorker& operator=(const OutboundWorker&) = delete;

    /// Queues a task; any thread. Returns false when the worker stops (the
    /// task is not run) or when a droppable task was dropped to make room.
    bool post(std::function<void()> task, bool droppable = false);

    /// Droppable tasks dropped because the queue was full.
    size_t dropped() const;

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
        explicit State(size_t cap) : capacity(cap) {}
        const size_t capacity;
        std::mutex mutex;  // guards tasks, stopping, droppedCount
        std::condition_variable wake;
        struct Task {
            std::function<void()> run;
            bool droppable;
        };
        std::deque<Task> tasks;
        bool stopping = false;
        size_t droppedCount = 0;
    };

    static void run(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state;
    std::thread thread;
};

} // namespace vlm
