#include "rpc/frame_reader.h"

#include <algorithm>
#include <cstring>

namespace pilot_rpc {

namespace {

// A read that fills the whole free space hints at a fast sender; doubling up to
// this size keeps the syscall count low without holding much memory per link.
constexpr std::size_t streaming_capacity = 256 * 1024;

}  // namespace

frame_reader::frame_reader(peer_role role) : role_(role), buffer_(initial_capacity) {}

char* frame_reader::prepare_data()
{
    if (end_ == buffer_.size())
        make_room(begin_ > 0 ? 1 : buffer_.size());
    return buffer_.data() + end_;
}

std::size_t frame_reader::prepare_size() const { return buffer_.size() - end_; }

void frame_reader::commit(std::size_t n)
{
    const bool filled = n == prepare_size();
    end_ += std::min(n, prepare_size());
    if (filled && buffer_.size() < streaming_capacity)
        make_room(buffer_.size() * 2 - (end_ - begin_));
}

void frame_reader::make_room(std::size_t wanted)
{
    const std::size_t used = end_ - begin_;
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, used);
        begin_ = 0;
        end_ = used;
    }
    if (buffer_.size() < used + wanted)
        buffer_.resize(used + wanted);
}

frame_reader::status frame_reader::next(frame_view& out)
{
    if (sticky_ != status::need_more)
        return sticky_;

    if (!have_header_) {
        if (end_ - begin_ < header_size)
            return status::need_more;
        header_ = decode_header(reinterpret_cast<const std::uint8_t*>(buffer_.data() + begin_));
        begin_ += header_size;
        if (role_ == peer_role::client) {
            switch (check_body_len(header_.body_len)) {
            case body_len_verdict::reject: return sticky_ = status::bad_length;
            case body_len_verdict::stall: return sticky_ = status::stalled;
            case body_len_verdict::read_body: break;
            }
        } else if (header_.body_len >= max_buffer_len) {
            return sticky_ = status::bad_length;
        }
        have_header_ = true;
    }

    const std::size_t available = end_ - begin_;
    if (available < header_.body_len) {
        // The buffer grows as the body's bytes arrive (prepare_data doubles
        // it when full), not when the header merely claims a size.
        return status::need_more;
    }

    out.header = header_;
    out.body = std::string_view(buffer_.data() + begin_, header_.body_len);
    begin_ += header_.body_len;
    have_header_ = false;
    if (begin_ == end_)
        begin_ = end_ = 0;
    return status::frame;
}

void frame_reader::reset()
{
    begin_ = end_ = 0;
    have_header_ = false;
    sticky_ = status::need_more;
}

}  // namespace pilot_rpc
