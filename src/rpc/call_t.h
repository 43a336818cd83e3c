#pragma once

// A pending callback-style call. Its timer only marks the call as timed out;
// the callback runs when the answer (or a read failure) finally arrives.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <system_error>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace pilot_rpc {

using call_callback = std::function<void(std::error_code, std::string_view)>;

class call_t : public std::enable_shared_from_this<call_t> {
public:
    /// `timeout_ms` 0 means no timer at all.
    call_t(asio::io_context& io, call_callback callback, std::size_t timeout_ms);

    /// Starts the timer (no-op for a zero time-out). Called once, before the
    /// call is visible to the I/O thread, so the timer is never touched by two
    /// threads at once.
    void start_timer();
    /// Stops the timer; I/O thread only.
    void cancel_timer();

    /// True once the time-out expired; set on the I/O thread, read anywhere.
    bool has_timed_out() const { return timed_out_.load(std::memory_order_acquire); }
    std::size_t timeout_ms() const { return timeout_ms_; }

    /// Runs the completion; I/O thread (or the caller's thread for a call
    /// refused before it was registered).
    void callback(std::error_code ec, std::string_view body) const;

private:
    asio::steady_timer timer_;
    call_callback callback_;
    std::size_t timeout_ms_;
    std::atomic<bool> timed_out_{false};
};

}  // namespace pilot_rpc
