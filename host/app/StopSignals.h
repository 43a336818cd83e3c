#pragma once

// SIGINT and SIGTERM as an orderly stop request, with a way out when the
// orderly stop hangs.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace vlm::host {

/// Construct it before the process starts any other thread: it blocks SIGINT
/// and SIGTERM in the constructing thread, every thread started later inherits
/// that, and its own watcher thread takes the signals with sigtimedwait.
///
/// The first signal (or request()) sets the stop request and calls `onStop` on
/// the watcher thread (it must be quick and thread-safe). A second signal, or
/// `forceAfter` passing before done(), ends the process at once with exit code
/// 1 and a line on standard error: a stop that hangs must not keep a station's
/// port or a terminal hostage.
class StopSignals {
public:
    StopSignals(std::function<void()> onStop, std::chrono::seconds forceAfter);
    /// Calls done() and joins the watcher.
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// Blocks until a stop was requested; returns the signal number (0 for request()).
    int wait();

    /// Requests a stop as a signal would. Any thread.
    void request();

    /// The orderly stop is complete; the watcher ends without forcing anything.
    void done();

private:
    void watch();
    void noteRequest(int signalNumber);

    const std::function<void()> onStop;
    const std::chrono::seconds forceAfter;

    std::mutex mutex;  // guards requested, signalNumber, deadline, finished
    std::condition_variable changed;
    bool requested = false;
    int signalNumber = 0;
    std::chrono::steady_clock::time_point deadline;
    bool finished = false;

    std::thread watcher;
};

} // namespace vlm::host
