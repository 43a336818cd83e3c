#pragma once

// A listening socket on 127.0.0.1 that a test drives byte by byte, to check
// exactly what the client puts on the wire. Every wait has a deadline.

#include <chrono>
#include <optional>
#include <string>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read.hpp>

namespace pilot_rpc::test {

class raw_peer {
public:
    unsigned short port() const { return acceptor_.local_endpoint().port(); }

    /// Waits for a connection, then keeps the newest of those waiting: a
    /// reconnecting client may have given up on older ones meanwhile.
    bool accept_newest(std::chrono::milliseconds timeout)
    {
        socket_ = asio::ip::tcp::socket(io_);
        if (!run_for(timeout, [&](auto done) { acceptor_.async_accept(socket_, done); }))
            return false;
        acceptor_.non_blocking(true);
        asio::error_code ec;
        for (asio::ip::tcp::socket next(io_); acceptor_.accept(next, ec), !ec; next = asio::ip::tcp::socket(io_))
            socket_ = std::move(next);
        acceptor_.non_blocking(false);
        return true;
    }

    /// Exactly `count` bytes, or nothing when they do not all come in time.
    std::optional<std::string> read_exact(std::size_t count, std::chrono::milliseconds timeout)
    {
        std::string data(count, '\0');
        if (!run_for(timeout, [&](auto done) { asio::async_read(socket_, asio::buffer(data), done); }))
            return std::nullopt;
        return data;
    }

    /// Closes the connection with a reset instead of an orderly end.
    void reset_client()
    {
        socket_.set_option(asio::socket_base::linger(true, 0));
        socket_.close();
    }

    void drop_client() { socket_.close(); }

private:
    /// Runs the one operation `start` begins for at most `timeout`; true when
    /// it completed without error.
    template <typename Start>
    bool run_for(std::chrono::milliseconds timeout, Start start)
    {
        std::optional<asio::error_code> result;
        io_.restart();
        start([&result](asio::error_code ec, auto&&...) { result = ec; });
        io_.run_for(timeout);
        if (!result) {
            asio::error_code ignored;
            acceptor_.cancel(ignored);
            socket_.cancel(ignored);
            io_.restart();
            io_.run();
        }
        return result && !*result;
    }

    asio::io_context io_;
    asio::ip::tcp::acceptor acceptor_{io_, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
    asio::ip::tcp::socket socket_{io_};
};

}  // namespace pilot_rpc::test
