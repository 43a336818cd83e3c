#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace vlm::e2e {

/// Clients that keep event streams open as long as they run: each thread
/// opens `path`, reads it line by line, and opens it again when it ends or
/// goes silent. Counters are atomics, readable at any time.
class StreamReaders {
public:
    struct Counters {
        std::atomic<std::uint64_t> events{0};   ///< "data: {" lines read
        std::atomic<std::uint64_t> opens{0};    ///< streams opened
        std::atomic<std::uint64_t> refused{0};  ///< answered with something else than a stream (no vehicle yet, 503)
        std::atomic<std::uint64_t> ends{0};     ///< an open stream ended, went silent or failed, and was reopened
    };

    /// Starts `count` readers of `path` on 127.0.0.1:`port`.
    StreamReaders(std::uint16_t port, std::string path, int count);
    ~StreamReaders();
    StreamReaders(const StreamReaders&) = delete;
    StreamReaders& operator=(const StreamReaders&) = delete;

    const Counters& counters() const { return count; }

    /// Ends every reader; returns once all have (each read is bounded).
    void stop();

private:
    void read();

    const std::uint16_t port;
    const std::string path;
    Counters count;
    std::atomic<bool> stopping{false};
    std::vector<std::thread> readers;
};

} // namespace vlm::e2e
