#pragma once

// Splits a received byte stream into frames. The owner reads whatever the
// socket has into `prepare()`, `commit`s it, then calls `next()` until it asks
// for more. Pure and single-threaded: it is fed by exactly one reader at a time.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "rpc/frame.h"

namespace pilot_rpc {

/// Which length rule applies to received headers.
enum class peer_role {
    client,   ///< `check_body_len`: empty and oversize bodies are rejected, max_buffer_len stalls
    service,  ///< empty bodies (heartbeats) are fine; max_buffer_len and above are rejected
};

/// One complete frame; `body` points into the reader's buffer and stays valid
/// until the next call to `prepare`, `next` or `reset`.
struct frame_view {
    frame_header header;
    std::string_view body;
};

class frame_reader {
public:
    enum class status {
        need_more,   ///< no complete frame buffered: read more, then `commit`
        frame,       ///< `out` holds the next frame
        bad_length,  ///< the header's length is refused; sticky until `reset`
        stalled,     ///< the header's length stops reading for good; sticky until `reset`
    };

    /// Size the receive buffer starts with; it only ever grows.
    static constexpr std::size_t initial_capacity = 2048;

    explicit frame_reader(peer_role role = peer_role::client);

    /// Free space at the end of the buffer to read into; never empty.
    char* prepare_data();
    std::size_t prepare_size() const;
    /// Accounts for `n` bytes written into the space from `prepare_data`.
    void commit(std::size_t n);

    /// Takes the next frame out of the buffered bytes.
    status next(frame_view& out);

    /// True while a header has been taken whose body is not complete yet.
    bool header_pending() const { return have_header_; }
    /// The header of the incomplete frame; only meaningful when `header_pending`.
    const frame_header& pending_header() const { return header_; }

    /// Forgets every buffered byte and any sticky state, keeping the capacity;
    /// used when the bytes came from a connection that is gone.
    void reset();

    std::size_t capacity() const { return buffer_.size(); }

private:
    void make_room(std::size_t wanted);

    peer_role role_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  ///< first unconsumed byte
    std::size_t end_ = 0;    ///< one past the last received byte
    bool have_header_ = false;
    frame_header header_;
    status sticky_ = status::need_more;
};

}  // namespace pilot_rpc
