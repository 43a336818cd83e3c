#include "rpc/client_core.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <sys/socket.h>
#include <sys/uio.h>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

#include "rpc/codec.h"
#include "rpc/function_id.h"

namespace pilot_rpc {

namespace {

// Writes the message's header from its own fields, for whichever thread sends
// it; returns the body length it carries.
std::uint32_t fill_header(outgoing_message& message)
{
    frame_header header;
    header.frame_type = message.frame_type;
    header.body_len = static_cast<std::uint32_t>(message.body.size());
    header.req_id = message.req_id;
    header.func_id = message.func_id;
    message.header = encode_header(header);
    return header.body_len;
}

}  // namespace

void client_core::write(outgoing_message message, send_mode mode)
{
    bool start = false;
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
        // A caller that waits for the answer gains from sending the frame
        // itself when nothing is queued or on the wire: it spares the round
        // through the I/O thread. Order holds, as nothing is ahead of it.
        // What the socket does not take at once (a full send buffer, an
        // error) queues as usual, and the I/O thread's write sends the rest
        // or meets the same error on the usual path. Other frames go through
        // the I/O thread, which gathers whatever queued meanwhile into one
        // write: that is what keeps pipelined callback calls fast.
        if (mode == send_mode::from_caller && outbox_.empty() && !write_in_flight_ && send_now_fd_ >= 0 &&
            connected_.load() && send_now(message))
            return;
        outbox_.push_back(std::move(message));
        start = outbox_.size() == 1;
    }
    if (!start)
        return;
    // The socket belongs to the I/O thread; other threads hand the start over.
    if (on_io_thread())
        write_front();
    else
        asio::post(io_, [this] { write_front(); });
}

bool client_core::send_now(outgoing_message& message)
{
    const std::uint32_t body_len = fill_header(message);

    // The header and the body in one system call, as the gathered write does.
    std::array<iovec, 2> parts{};
    parts[0].iov_base = message.header.data();
    parts[0].iov_len = message.header.size();
    parts[1].iov_base = message.body.data();
    parts[1].iov_len = message.body.size();
    msghdr msg{};
    msg.msg_iov = parts.data();
    msg.msg_iovlen = body_len == 0 ? 1 : 2;

    ssize_t sent = -1;
    do {
        sent = ::sendmsg(send_now_fd_, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0)
        return false;
    message.sent = static_cast<std::size_t>(sent);
    bytes_sent_.fetch_add(message.sent, std::memory_order_relaxed);
    const bool whole = message.sent == header_size + body_len;
    if (whole)
        frames_sent_.fetch_add(1, std::memory_order_relaxed);
    return whole;
}

void client_core::stop_sending_now()
{
    std::lock_guard<std::mutex> lock(write_mutex_);
    send_now_fd_ = -1;
    // The socket is going: a frame that a caller sent only in part can only
    // ever be sent again whole, like any frame whose write failed.
    if (!outbox_.empty())
        outbox_.front().sent = 0;
}

namespace {

// Frames handed to one gathered write. Asio sends at most 64 buffers per
// system call, two per frame.
constexpr std::size_t frames_per_write = 32;

// Names are few (one per procedure and topic); the bound only keeps a caller
// that invents names from growing the cache without limit.
constexpr std::size_t id_cache_limit = 1024;

}  // namespace

void client_core::write_front()
{
    std::uint64_t generation = 0;
    std::size_t frames = 0;
    std::uint32_t body_bytes = 0;
    write_buffers_.clear();
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
        if (write_in_flight_ || outbox_.empty())
            return;
        // One write in flight, frames in queue order: what is queued now
        // leaves together, the rest after this write completes.
        for (auto it = outbox_.begin(); it != outbox_.end() && frames < frames_per_write; ++it, ++frames) {
            const std::uint32_t body_len = fill_header(*it);
            // Only a frame that a caller began to send itself has bytes on
            // the wire already; it is then the front one.
            const std::size_t header_done = std::min(it->sent, header_size);
            if (header_done < header_size)
                write_buffers_.push_back(asio::buffer(it->header) + header_done);
            const std::size_t body_done = it->sent - header_done;
            if (body_done < body_len)
                write_buffers_.push_back(asio::buffer(it->body.data(), body_len) + body_done);
            body_bytes += body_len;
        }
        generation = outbox_generation_;
        write_in_flight_ = true;
    }
    // The buffers stay valid: messages leave the outbox only in on_write or
    // in close(), which closes the socket (ending this write) before dropping them.
    write_size_ = body_bytes;
    asio::async_write(socket_, write_buffers_,
                      [this, generation, frames](const std::error_code& ec, std::size_t bytes) {
                          bytes_sent_.fetch_add(bytes, std::memory_order_relaxed);
                          if (!ec)
                              frames_sent_.fetch_add(frames, std::memory_order_relaxed);
                          on_write(ec, generation, frames);
                      });
}

void client_core::on_write(const std::error_code& ec, std::uint64_t outbox_generation, std::size_t frames)
{
    bool more = false;
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
        write_in_flight_ = false;
        if (!ec) {
            // A close() while these frames were on the wire already dropped them.
            if (outbox_generation == outbox_generation_)
                outbox_.erase(outbox_.begin(),
                              outbox_.begin() + static_cast<std::ptrdiff_t>(std::min(frames, outbox_.size())));
            more = !outbox_.empty();
        }
        // On error the failed frames stay at the head and nothing else is
        // started: the outbox is held until a close() that finds the link
        // connected empties it.
    }
    if (more)
        write_front();
    if (ec) {
        // Cleared before close() on purpose, so that close() leaves the
        // socket, the outbox and both tables as they are.
        connected_.store(false);
        stop_sending_now();
        close(false);
        error_routine(ec);
    }
}

std::uint32_t client_core::cached_function_id(std::string_view name)
{
    std::string key(name);
    {
        std::lock_guard<std::mutex> lock(id_cache_mutex_);
        const auto it = id_cache_.find(key);
        if (it != id_cache_.end())
            return it->second;
    }
    const std::uint32_t id = function_id(name);
    std::lock_guard<std::mutex> lock(id_cache_mutex_);
    if (id_cache_.size() < id_cache_limit)
        id_cache_.emplace(std::move(key), id);
    return id;
}

void client_core::send_subscribe(const std::string& topic, const std::string& token)
{
    write(outgoing_message{0, topic_frame, pack_args(topic, token), cached_function_id(topic)});
}

std::uint64_t client_core::send_future_call(std::string_view rpc_name, msgpack::sbuffer body,
                                            std::future<req_result>& future)
{
    auto promise = std::make_shared<std::promise<req_result>>();
    future = promise->get_future();
    std::uint64_t id = 0;
    {
        std::lock_guard<std::mutex> lock(table_mutex_);
        id = ++future_id_;
        future_map_.emplace(id, std::move(promise));
    }
    write(outgoing_message{id, call_frame, std::move(body), cached_function_id(rpc_name)}, send_mode::from_caller);
    return id;
}

void client_core::send_callback_call(std::string_view rpc_name, std::size_t timeout_ms, call_callback callback,
                                     msgpack::sbuffer body)
{
    if (!connected_.load()) {
        callback(asio::error::not_connected, "not connected");
        return;
    }
    auto call = std::make_shared<call_t>(io_, std::move(callback), timeout_ms);
    // Started before the call is registered: once it is in the table the I/O
    // thread may touch (or destroy) its timer.
    call->start_timer();
    std::uint64_t id = 0;
    {
        std::lock_guard<std::mutex> lock(table_mutex_);
        callback_id_ = (callback_id_ + 1) | callback_id_bit;
        id = callback_id_;
        callback_map_.emplace(id, std::move(call));
    }
    write(outgoing_message{id, call_frame, std::move(body), cached_function_id(rpc_name)});
}

void client_core::subscribe(const std::string& topic, topic_handler handler)
{
    if (subscriptions_.add(topic, std::move(handler)))
        send_subscribe(topic, std::string());
}

std::size_t client_core::outbox_size() const
{
    std::lock_guard<std::mutex> lock(write_mutex_);
    return outbox_.size();
}

std::size_t client_core::pending_future_calls() const
{
    std::lock_guard<std::mutex> lock(table_mutex_);
    return future_map_.size();
}

std::size_t client_core::pending_callback_calls() const
{
    std::lock_guard<std::mutex> lock(table_mutex_);
    return callback_map_.size();
}

bool client_core::has_pending_future(std::uint64_t id) const
{
    std::lock_guard<std::mutex> lock(table_mutex_);
    return future_map_.count(id) != 0;
}

}  // namespace pilot_rpc
