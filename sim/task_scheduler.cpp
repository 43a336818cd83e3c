#include "task_scheduler.h"

#include <exception>

namespace pilot_sim {

task_scheduler::task_scheduler(asio::io_context::executor_type executor,
                               std::function<void(const std::string&)> error_sink)
    : executor_(executor), error_sink_(std::move(error_sink))
{
}

void task_scheduler::at(clock::time_point when, task fn, const std::string& group)
{
    const std::uint64_t id = ++next_id_;
    auto timer = std::make_unique<asio::steady_timer>(executor_, when);
    // The handler holds no timer: a cancelled or already fired entry is simply
    // gone from the table, which also covers a timer that expired before it
    // could be cancelled.
    timer->async_wait([this, id](const std::error_code& ec) {
        if (!ec)
            fire(id);
    });
    entries_.emplace(id, entry{std::move(timer), std::move(fn), group});
}

void task_scheduler::after(clock::duration delay, task fn, const std::string& group)
{
    at(clock::now() + delay, std::move(fn), group);
}

void task_scheduler::cancel(const std::string& group)
{
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (it->second.group == group) {
            it->second.timer->cancel();
            it = entries_.erase(it);
        } else {
            ++it;
        }
    }
}

void task_scheduler::cancel_all()
{
    for (auto& [id, e] : entries_)
        e.timer->cancel();
    entries_.clear();
}

void task_scheduler::fire(std::uint64_t id)
{
    const auto it = entries_.find(id);
    if (it == entries_.end())
        return;
    task fn = std::move(it->second.fn);
    entries_.erase(it);
    try {
        fn();
    } catch (const std::exception& e) {
        if (error_sink_)
            error_sink_(std::string("timed task failed: ") + e.what());
    }
}

}  // namespace pilot_sim
