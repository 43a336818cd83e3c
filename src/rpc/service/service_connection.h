#pragma once

// One accepted client of `rpc_service`. Internal to the service library; every
// member runs on the service's I/O thread.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <asio/ip/tcp.hpp>

#include "rpc/frame.h"
#include "rpc/frame_reader.h"

namespace pilot_rpc {

class service_connection : public std::enable_shared_from_this<service_connection> {
public:
    using frame_sink = std::function<void(std::uint64_t connection, const frame_view& frame)>;
    using close_sink = std::function<void(std::uint64_t connection)>;

    service_connection(std::uint64_t id, asio::ip::tcp::socket socket, frame_sink on_frame, close_sink on_close);

    /// Starts the read loop.
    void start();
    /// Queues header + body; frames queued while a write runs leave together.
    void send(const frame_header& header, const std::string& body);
    /// Queues bytes exactly as given.
    void send_raw(std::string bytes);
    /// Closes the socket; the close sink runs once, from the failing read.
    void close();

    std::uint64_t id() const { return id_; }

private:
    void read_more();
    void write_pending();

    std::uint64_t id_;
    asio::ip::tcp::socket socket_;
    frame_reader reader_{peer_role::service};
    frame_sink on_frame_;
    close_sink on_close_;
    std::string pending_;   ///< bytes waiting for the next write
    std::string in_flight_; ///< bytes of the write under way
    bool writing_ = false;
    bool closed_ = false;
};

}  // namespace pilot_rpc
