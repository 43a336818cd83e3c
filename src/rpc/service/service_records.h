#pragma once

// What `rpc_service` observed: received frames, subscriptions per connection,
// accepted and open connections. Written on the service's I/O thread, read and
// awaited from test threads; every member is thread-safe.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "rpc/service/rpc_service.h"

namespace pilot_rpc {

class service_records {
public:
    void set_recording(bool record);
    void add_frame(received_frame frame);
    void add_subscription(std::uint64_t connection, const std::string& topic);
    void connection_opened(std::uint64_t connection);
    void connection_closed(std::uint64_t connection);
    void clear_frames();

    std::vector<received_frame> frames() const;
    bool wait_for_frames(const std::function<bool(const std::vector<received_frame>&)>& done,
                         std::chrono::milliseconds timeout) const;
    std::vector<std::string> subscriptions(std::uint64_t connection) const;
    bool wait_for_subscriber(const std::string& topic, std::chrono::milliseconds timeout) const;
    std::vector<std::uint64_t> open_connections() const;
    std::uint64_t accepted_count() const;
    bool wait_for_accepted(std::uint64_t count, std::chrono::milliseconds timeout) const;
    bool wait_for_no_connections(std::chrono::milliseconds timeout) const;

private:
    mutable std::mutex mutex_;  ///< guards every field below
    mutable std::condition_variable changed_;
    bool recording_ = true;
    std::vector<received_frame> frames_;
    std::map<std::uint64_t, std::vector<std::string>> subscriptions_;
    std::set<std::uint64_t> open_;
    std::uint64_t accepted_ = 0;
};

}  // namespace pilot_rpc
