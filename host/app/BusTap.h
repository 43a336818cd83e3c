#pragma once

// One reader of the bus tap: a bounded queue between the bus thread, which
// offers every bus message, and the HTTP handler that streams them.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
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
/// messages or `byteLimit` bytes of text, the oldest are dropped and counted,
/// so a slow browser never holds the bus up; the reader learns how many it
/// missed. A message larger than `byteLimit` on its own is dropped at once.
class BusTap {
public:
    explicit BusTap(std::size_t limit, std::size_t byteLimit = std::numeric_limits<std::size_t>::max());

    /// What a reader gets: the messages queued so far (in bus order), how many
    /// were dropped before them, and whether the tap was closed.
    struct Batch {
        std::vector<BusMessage> messages;
        std::size_t dropped = 0;
        bool closed = false;
    };

    /// Waits up to `timeout` for a message, a drop or the close; returns at
    /// once when something is queued or was dropped. Called by the reader's thread.
    Batch take(std::chrono::milliseconds timeout);

    /// What an offer cost this reader.
    struct Offered {
        /// Messages dropped by this offer (the oldest, or the offered one).
        std::size_t dropped = 0;
        /// Messages this reader lost since it was opened, this offer's included.
        std::uint64_t droppedTotal = 0;
    };

    /// Queues a copy of the message, dropping the oldest to stay within the
    /// bounds. Called by the bus thread.
    Offered offer(const BusMessage& message);

    /// Messages and bytes of text queued now. Any thread.
    std::size_t queuedMessages() const;
    std::size_t queuedBytes() const;

    /// Wakes the reader; later takes report `closed`. Any thread.
    void close();

private:
    const std::size_t limit;
    const std::size_t byteLimit;
    mutable std::mutex mutex;  // guards queue, bytes, dropped, droppedTotal, closed
    std::condition_variable ready;
    std::deque<BusMessage> queue;
    std::size_t bytes = 0;
    std::size_t dropped = 0;
    std::uint64_t droppedTotal = 0;
    bool closed = false;
};

} // namespace vlm::host
