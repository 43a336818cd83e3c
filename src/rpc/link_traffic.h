#pragma once

#include <cstdint>

namespace pilot_rpc {

/// Frames and bytes (headers included) a client moved each way since it was
/// made, across reconnections. Heartbeats count as frames.
struct link_traffic {
    std::uint64_t frames_sent = 0;
    std::uint64_t bytes_sent = 0;
    std::uint64_t frames_received = 0;
    std::uint64_t bytes_received = 0;
};

}  // namespace pilot_rpc
