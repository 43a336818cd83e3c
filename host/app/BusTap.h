#pragma once

// One reader of the bus tap: a bounded queue between the bus thread, which
// offers every bus message, and the HTTP handler that streams them.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace vlm::host {

/// A message as it went over the bus.
struct BusMessage {
    /// Position in the bus's order, from 1.
    std::uint64_t seq = 0;
    /// The JSON text exactly as the sender handed it over.
    std::string text;
    /// Who handed it over: a plug-in GUID, or "http <client address>" for a
    /// message injected through the tap.
    std::string origin;
    /// False when the text is not a JSON object: shown, but delivered to no one.
    bool wellFormed = true;
};

/// A tap reader's queue. When the reader falls behind by more than `limit`
/// messages, the oldest are dropped and counted, so a slow browser never holds
/// the bus up; the reader learns how many it missed.
class BusTap {
public:
    explicit BusTap(std::size_t limit);

    /// What a reader gets: the messages queued so far (in bus order), how many
    /// were dropped before them, and whether the tap was closed.
    struct Batch {
        std::vector<BusMessage> messages;
        std::size_t dropped = 0;
        bool closed = false;
    };

    /// Waits up to `timeout` for a message or the close; returns at once when
    /// something is queued. Called by the reader's thread.
    Batch take(std::chrono::milliseconds timeout);

    /// Queues a copy of the message. Called by the bus thread.
    void offer(const BusMessage& message);

    /// Wakes the reader; later takes report `closed`. Any thread.
    void close();

private:
    const std::size_t limit;
    std::mutex mutex;  // guards queue, dropped, closed
    std::condition_variable ready;
    std::deque<BusMessage> queue;
    std::size_t dropped = 0;
    bool closed = false;
};

} // namespace vlm::host
