#include "rpc/client_core.h"

#include <iostream>
#include <vector>

#include <asio/buffer.hpp>
#include <asio/error.hpp>

#include "rpc/codec.h"

namespace pilot_rpc {

namespace {

void run_callback(const call_t& call, const std::error_code& ec, std::string_view body)
{
    try {
        call.callback(ec, body);
    } catch (const std::exception& e) {
        std::cerr << "rpc call callback threw: " << e.what() << '\n';
    } catch (...) {
        std::cerr << "rpc call callback threw\n";
    }
}

}  // namespace

void client_core::start_read()
{
    reader_.reset();
    read_more();
}

void client_core::read_more()
{
    socket_.async_read_some(asio::buffer(reader_.prepare_data(), reader_.prepare_size()),
                            [this](const std::error_code& ec, std::size_t bytes) { on_read(ec, bytes); });
}

void client_core::on_read(const std::error_code& ec, std::size_t bytes)
{
    // A header is pending exactly when this read belongs to a body, and the
    // body and header phases fail differently.
    const bool in_body = reader_.header_pending();
    if (!socket_.is_open()) {
        if (in_body)
            dispatch_response(reader_.pending_header().req_id, asio::error::connection_aborted, {});
        else
            connected_.store(false);
        return;
    }
    if (ec) {
        if (in_body)
            on_body_error(ec);
        else
            on_header_error(ec);
        return;
    }
    bytes_received_.fetch_add(bytes, std::memory_order_relaxed);
    reader_.commit(bytes);
    process_frames();
}

void client_core::process_frames()
{
    const std::uint64_t generation = socket_generation_;
    for (;;) {
        frame_view frame;
        switch (reader_.next(frame)) {
        case frame_reader::status::need_more:
            read_more();
            return;
        case frame_reader::status::stalled:
            // Exactly max_buffer_len: reading stops here, silently, for good.
            return;
        case frame_reader::status::bad_length:
            close(true);
            error_routine(asio::error::message_size);
            return;
        case frame_reader::status::frame:
            break;
        }
        frames_received_.fetch_add(1, std::memory_order_relaxed);
        last_receive_ns_.store(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());

        if (frame.header.frame_type == call_frame) {
            dispatch_response(frame.header.req_id, {}, frame.body);
        } else if (frame.header.frame_type == topic_frame) {
            deliver_publication(frame.body);
        } else {
            close(true);
            error_routine(asio::error::invalid_argument);
            return;
        }

        if (stopping_.load())
            return;
        if (socket_generation_ != generation) {
            // The publication error routine replaced the socket while the
            // link stayed "connected": go on reading on the new socket, and
            // forget the old connection's bytes.
            reader_.reset();
            read_more();
            return;
        }
        if (!socket_.is_open()) {
            // A callback closed the link; a further read would find it closed.
            connected_.store(false);
            return;
        }
    }
}

void client_core::on_header_error(const std::error_code& ec)
{
    std::cout << ec.message() << std::endl;
    std::vector<std::shared_ptr<call_t>> pending;
    {
        std::lock_guard<std::mutex> lock(table_mutex_);
        pending.reserve(callback_map_.size());
        for (const auto& entry : callback_map_)
            pending.push_back(entry.second);
    }
    // Called after unlocking, so a callback may start a new call on this client.
    for (const auto& call : pending)
        run_callback(*call, ec, {});
    close(false);
    error_routine(ec);
}

void client_core::on_body_error(const std::error_code& ec)
{
    connected_.store(false);
    dispatch_response(reader_.pending_header().req_id, ec, {});
    close(true);
    error_routine(ec);
}

void client_core::dispatch_response(std::uint64_t id, const std::error_code& ec, std::string_view body)
{
    last_response_id_.store(id);
    if ((id & callback_id_bit) != 0) {
        std::shared_ptr<call_t> call;
        {
            std::lock_guard<std::mutex> lock(table_mutex_);
            const auto it = callback_map_.find(id);
            if (it != callback_map_.end()) {
                call = std::move(it->second);
                callback_map_.erase(it);
            }
        }
        if (!call)
            return;
        if (!call->has_timed_out()) {
            call->cancel_timer();
            run_callback(*call, ec, body);
        } else {
            run_callback(*call, asio::error::timed_out, {});
        }
        return;
    }

    std::shared_ptr<std::promise<req_result>> promise;
    {
        std::lock_guard<std::mutex> lock(table_mutex_);
        const auto it = future_map_.find(id);
        if (it != future_map_.end()) {
            promise = std::move(it->second);
            future_map_.erase(it);
        }
    }
    if (promise)
        promise->set_value(ec ? req_result() : req_result(body));
}

void client_core::deliver_publication(std::string_view body)
{
    try {
        const publication event = unpack_publication(body);
        if (!last_handler_ || event.topic != last_topic_) {
            std::shared_ptr<const topic_handler> handler = subscriptions_.find(event.topic);
            if (!handler)
                return;
            last_topic_.assign(event.topic);
            last_handler_ = std::move(handler);
        }
        (*last_handler_)(event.data);
    } catch (...) {
        // Decoding failures and whatever the handler lets escape. The link
        // stays flagged connected on this path, so the reconnect started by
        // the error routine is ignored by the connect handler; that is kept.
        error_routine(asio::error::invalid_argument);
    }
}

}  // namespace pilot_rpc
