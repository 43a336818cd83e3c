#include "rpc/service/service_records.h"

#include <algorithm>

namespace pilot_rpc {

void service_records::set_recording(bool record)
{
    std::lock_guard<std::mutex> lock(mutex_);
    recording_ = record;
}

void service_records::add_frame(received_frame frame)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!recording_)
            return;
        frames_.push_back(std::move(frame));
    }
    changed_.notify_all();
}

void service_records::add_subscription(std::uint64_t connection, const std::string& topic)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        subscriptions_[connection].push_back(topic);
    }
    changed_.notify_all();
}

void service_records::connection_opened(std::uint64_t connection)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_.insert(connection);
        ++accepted_;
    }
    changed_.notify_all();
}

void service_records::connection_closed(std::uint64_t connection)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_.erase(connection);
    }
    changed_.notify_all();
}

void service_records::clear_frames()
{
    std::lock_guard<std::mutex> lock(mutex_);
    frames_.clear();
}

std::vector<received_frame> service_records::frames() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
}

bool service_records::wait_for_frames(const std::function<bool(const std::vector<received_frame>&)>& done,
                                      std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(frames_); });
}

std::vector<std::string> service_records::subscriptions(std::uint64_t connection) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = subscriptions_.find(connection);
    return it == subscriptions_.end() ? std::vector<std::string>() : it->second;
}

bool service_records::wait_for_subscriber(const std::string& topic, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        for (const auto connection : open_) {
            const auto it = subscriptions_.find(connection);
            if (it != subscriptions_.end() && std::find(it->second.begin(), it->second.end(), topic) != it->second.end())
                return true;
        }
        return false;
    });
}

std::vector<std::uint64_t> service_records::open_connections() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return {open_.begin(), open_.end()};
}

std::uint64_t service_records::accepted_count() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return accepted_;
}

bool service_records::wait_for_accepted(std::uint64_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return accepted_ >= count; });
}

bool service_records::wait_for_no_connections(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return open_.empty(); });
}

}  // namespace pilot_rpc
