#include "rpc/client_core.h"

#include <array>
#include <iostream>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

#include "rpc/codec.h"
#include "rpc/function_id.h"

namespace pilot_rpc {

void client_core::write(outgoing_message message)
{
    bool start = false;
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
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

void client_core::write_front()
{
    const char* body = nullptr;
    frame_header header;
    std::uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
        if (write_in_flight_ || outbox_.empty())
            return;
        const outgoing_message& front = outbox_.front();
        body = front.body.data();
        header.frame_type = front.frame_type;
        header.body_len = static_cast<std::uint32_t>(front.body.size());
        header.req_id = front.req_id;
        header.func_id = front.func_id;
        generation = outbox_generation_;
        write_in_flight_ = true;
    }
    // `body` stays valid: the message leaves the outbox only in on_write or in
    // close(), which closes the socket (ending this write) before dropping it.
    write_size_ = header.body_len;
    send_header_ = encode_header(header);
    const std::array<asio::const_buffer, 2> buffers{asio::buffer(send_header_), asio::buffer(body, write_size_)};
    asio::async_write(socket_, buffers, [this, generation](const std::error_code& ec, std::size_t) {
        on_write(ec, generation);
    });
}

void client_core::on_write(const std::error_code& ec, std::uint64_t outbox_generation)
{
    bool more = false;
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
        write_in_flight_ = false;
        if (!ec) {
            // A close() while this frame was on the wire already dropped it.
            if (outbox_generation == outbox_generation_ && !outbox_.empty())
                outbox_.pop_front();
            more = !outbox_.empty();
        }
        // On error the front frame stays where it is and nothing else is
        // started: the outbox is held until a close() that finds the link
        // connected empties it.
    }
    if (more)
        write_front();
    if (ec) {
        // Cleared before close() on purpose, so that close() leaves the
        // socket, the outbox and both tables as they are.
        connected_.store(false);
        close(false);
        error_routine(ec);
    }
}

void client_core::send_subscribe(const std::string& topic, const std::string& token)
{
    write(outgoing_message{0, topic_frame, pack_args(topic, token), function_id(topic)});
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
    write(outgoing_message{id, call_frame, std::move(body), function_id(rpc_name)});
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
    write(outgoing_message{id, call_frame, std::move(body), function_id(rpc_name)});
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
