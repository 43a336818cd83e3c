#pragma once

// The floor of the benchmark: a blocking socket that sends and receives the
// same frame bytes as the client, with nothing else in the way.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace pilot_rpc::bench {

class raw_link {
public:
    explicit raw_link(unsigned short port);
    ~raw_link();
    raw_link(const raw_link&) = delete;
    raw_link& operator=(const raw_link&) = delete;

    /// One send() per call.
    void send_all(const std::string& bytes);
    /// Exactly one frame: header, then its body; returns the body.
    std::string read_frame(std::uint64_t& req_id);
    /// Reads through a large buffer and calls `on_frame(type, body)` for every
    /// frame until `frames` frames were seen.
    template <typename F>
    void read_frames(std::size_t frames, F on_frame);

private:
    void read_exact(char* out, std::size_t count);
    std::size_t read_some(char* out, std::size_t count);

    int fd_ = -1;
};

/// A whole frame: header and body.
std::string frame_bytes(std::uint8_t type, std::uint64_t req_id, std::uint32_t func_id, const std::string& body);

template <typename F>
void raw_link::read_frames(std::size_t frames, F on_frame)
{
    std::vector<char> buffer(256 * 1024);
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t seen = 0;
    while (seen < frames) {
        if (end == buffer.size()) {
            std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(begin),
                      buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.begin());
            end -= begin;
            begin = 0;
        }
        end += read_some(buffer.data() + end, buffer.size() - end);
        while (end - begin >= 20) {
            const auto* header = reinterpret_cast<const unsigned char*>(buffer.data() + begin);
            const std::uint32_t length = std::uint32_t{header[4]} | std::uint32_t{header[5]} << 8 |
                                         std::uint32_t{header[6]} << 16 | std::uint32_t{header[7]} << 24;
            if (end - begin < 20 + length)
                break;
            on_frame(header[1], std::string_view(buffer.data() + begin + 20, length));
            begin += 20 + length;
            ++seen;
        }
    }
}

}  // namespace pilot_rpc::bench
