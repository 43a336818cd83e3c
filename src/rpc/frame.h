#pragma once

// The frame layout of the micro-service link: a fixed 20-byte little-endian
// header followed by a MessagePack body. Pure code on byte buffers: nothing
// here owns a socket, a thread or a logger, so every function may be called
// from any thread.

#include <array>
#include <cstddef>
#include <cstdint>

namespace pilot_rpc {

/// Bytes in every frame header.
constexpr std::size_t header_size = 20;
/// First header byte of every frame we send; not checked on receipt.
constexpr std::uint8_t frame_magic = 39;
/// `frame_type` of requests, responses and heartbeats.
constexpr std::uint8_t call_frame = 0;
/// `frame_type` of subscriptions and publications.
constexpr std::uint8_t topic_frame = 1;
/// Receive buffer limit (exclusive): a body must be shorter than this.
constexpr std::uint32_t max_buffer_len = 10485760;
/// Frames a service on this link takes are shorter than this, header
/// included: its receive limit applies to the body, and counting the header
/// too keeps a sender clear of it whatever the far side adds.
constexpr std::size_t max_frame_size = max_buffer_len;
/// Bit of `req_id` that marks a callback-style call.
constexpr std::uint64_t callback_id_bit = std::uint64_t{1} << 63;

struct frame_header {
    std::uint8_t magic = frame_magic;
    std::uint8_t frame_type = call_frame;
    std::uint32_t body_len = 0;
    std::uint64_t req_id = 0;
    std::uint32_t func_id = 0;
};

using header_bytes = std::array<std::uint8_t, header_size>;

/// Writes `header` in wire order; the two reserved bytes are sent as zero.
header_bytes encode_header(const frame_header& header);

/// Reads a header from exactly `header_size` bytes at `data`.
frame_header decode_header(const std::uint8_t* data);

/// What a receiving client does with a header's `body_len`.
enum class body_len_verdict {
    read_body,  ///< 1 .. max_buffer_len - 1: read the body
    reject,     ///< 0 or above max_buffer_len: close and report message_size
    stall,      ///< exactly max_buffer_len: stop reading, report nothing
};

/// True when a frame of `frame_size` bytes (header and body) is one the far
/// side of the link takes.
constexpr bool frame_fits(std::size_t frame_size) { return frame_size < max_frame_size; }

/// The client's length rule. The gap at exactly `max_buffer_len` is kept on
/// purpose: such a header silently stops reading on that connection.
body_len_verdict check_body_len(std::uint32_t body_len);

}  // namespace pilot_rpc
