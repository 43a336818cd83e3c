#include "rpc/call_t.h"

namespace pilot_rpc {

call_t::call_t(asio::io_context& io, call_callback callback, std::size_t timeout_ms)
    : timer_(io), callback_(std::move(callback)), timeout_ms_(timeout_ms)
{
}

void call_t::start_timer()
{
    if (timeout_ms_ == 0)
        return;
    timer_.expires_after(std::chrono::milliseconds(timeout_ms_));
    // A weak reference: the pending-call table alone keeps the call alive, so
    // clearing the table cancels the timer instead of leaking it.
    std::weak_ptr<call_t> weak = weak_from_this();
    timer_.async_wait([weak](const std::error_code& ec) {
        if (ec)
            return;
        if (auto self = weak.lock())
            self->timed_out_.store(true, std::memory_order_release);
    });
}

void call_t::cancel_timer()
{
    if (timeout_ms_ != 0)
        timer_.cancel();
}

void call_t::callback(std::error_code ec, std::string_view body) const
{
    if (callback_)
        callback_(ec, body);
}

}  // namespace pilot_rpc
