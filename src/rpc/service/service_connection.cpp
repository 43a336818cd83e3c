#include "rpc/service/service_connection.h"

#include <iostream>

#include <asio/buffer.hpp>
#include <asio/write.hpp>

namespace pilot_rpc {

service_connection::service_connection(std::uint64_t id, asio::ip::tcp::socket socket, frame_sink on_frame,
                                       close_sink on_close)
    : id_(id), socket_(std::move(socket)), on_frame_(std::move(on_frame)), on_close_(std::move(on_close))
{
    std::error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
}

void service_connection::start() { read_more(); }

void service_connection::read_more()
{
    auto self = shared_from_this();
    socket_.async_read_some(asio::buffer(reader_.prepare_data(), reader_.prepare_size()),
                            [self](const std::error_code& ec, std::size_t bytes) {
                                if (ec) {
                                    self->close();
                                    if (self->on_close_)
                                        self->on_close_(self->id_);
                                    self->on_close_ = nullptr;
                                    return;
                                }
                                self->reader_.commit(bytes);
                                for (;;) {
                                    frame_view frame;
                                    const auto status = self->reader_.next(frame);
                                    if (status == frame_reader::status::need_more)
                                        break;
                                    if (status != frame_reader::status::frame) {
                                        std::cerr << "rpc service: connection " << self->id_
                                                  << " sent a body length of "
                                                  << self->reader_.pending_header().body_len
                                                  << ", closing it\n";
                                        self->close();
                                        break;
                                    }
                                    self->on_frame_(self->id_, frame);
                                    if (self->closed_)
                                        break;
                                }
                                // Even when closed: the next read fails at once and
                                // reports the close exactly once.
                                self->read_more();
                            });
}

void service_connection::send(const frame_header& header, const std::string& body)
{
    const header_bytes bytes = encode_header(header);
    pending_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    pending_.append(body);
    write_pending();
}

void service_connection::send_raw(std::string bytes)
{
    pending_.append(bytes);
    write_pending();
}

void service_connection::write_pending()
{
    if (writing_ || closed_ || pending_.empty())
        return;
    writing_ = true;
    in_flight_.swap(pending_);
    pending_.clear();
    auto self = shared_from_this();
    asio::async_write(socket_, asio::buffer(in_flight_), [self](const std::error_code& ec, std::size_t) {
        self->writing_ = false;
        self->in_flight_.clear();
        if (ec) {
            self->close();
            return;
        }
        self->write_pending();
    });
}

void service_connection::close()
{
    if (closed_)
        return;
    closed_ = true;
    std::error_code ignored;
    socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    socket_.close(ignored);
}

}  // namespace pilot_rpc
