#pragma once

// One-shot timed tasks on an Asio executor, cancellable by group. The
// simulator's clocks re-arm themselves through it, and its event sequences
// (announcements, upload progress, delayed results) are queued on it.
//
// Threads: every member runs on the executor's thread, where the tasks run
// too. A task that throws a std::exception is reported to the error sink and
// dropped; nothing escapes into the I/O loop.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace pilot_sim {

class task_scheduler {
public:
    using task = std::function<void()>;
    using clock = std::chrono::steady_clock;

    task_scheduler(asio::io_context::executor_type executor, std::function<void(const std::string&)> error_sink);
    task_scheduler(const task_scheduler&) = delete;
    task_scheduler& operator=(const task_scheduler&) = delete;

    /// Runs `fn` once at `when` unless `group` is cancelled first.
    void at(clock::time_point when, task fn, const std::string& group = std::string());
    void after(clock::duration delay, task fn, const std::string& group = std::string());
    /// Drops every task of `group` that has not run yet.
    void cancel(const std::string& group);
    void cancel_all();
    /// Tasks waiting to run.
    std::size_t pending() const { return entries_.size(); }

private:
    struct entry {
        std::unique_ptr<asio::steady_timer> timer;
        task fn;
        std::string group;
    };

    void fire(std::uint64_t id);

    asio::io_context::executor_type executor_;
    std::function<void(const std::string&)> error_sink_;
    std::map<std::uint64_t, entry> entries_;  ///< executor thread only
    std::uint64_t next_id_ = 0;
};

}  // namespace pilot_sim
