#pragma once

// The host's message bus between plug-ins.
//
//   plug-in callback ─┐                       ┌─> pushMessage of each receiver
//   (any thread)      ├─> queue ─> bus thread ┤
//   POST /host/bus  ──┘   (bounded)           └─> every open tap (bounded each)
//
// A sender never waits for a receiver: post() only queues. One bus thread
// takes the messages in order, offers each to every tap, and hands it to the
// pushMessage of every attached plug-in whose GUID is in the message's "to"
// list. GUIDs are compared without braces and case-insensitively, and each
// plug-in gets a message once however often it is listed.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <Poco/JSON/Object.h>

#include "PluginBase.h"
#include "app/BusOptions.h"
#include "app/BusTap.h"

namespace vlm::host {

/// A GUID in the form used to compare them: surrounding braces and blanks
/// removed, letters in upper case.
std::string normalizeGuid(const std::string& guid);

/// The receivers named by a bus message's "to" list, normalized; empty when
/// the message has no such list. Entries that are not strings are skipped.
std::set<std::string> busReceivers(const Poco::JSON::Object& message);

class MessageBus {
public:
    using Options = BusOptions;

    struct Stats {
        std::uint64_t posted = 0;          ///< accepted by post()
        std::uint64_t delivered = 0;       ///< pushMessage calls made
        std::uint64_t unaddressed = 0;     ///< well-formed, but no attached plug-in was named
        std::uint64_t rejected = 0;        ///< not a JSON object; logged, delivered to no one
        std::uint64_t dropped = 0;         ///< refused because the queue was full or the bus stopped
        std::uint64_t droppedForBytes = 0; ///< of `dropped`: the queue's byte budget was full
        std::uint64_t oversize = 0;        ///< refused as larger than messageByteLimit (not in `dropped`)
        std::uint64_t tapDropped = 0;      ///< messages tap readers missed because they fell behind
        std::size_t queued = 0;            ///< messages waiting for the bus thread now
        std::size_t queuedBytes = 0;       ///< bytes of their text
        std::size_t taps = 0;              ///< tap readers open now
    };

    explicit MessageBus(Options options);
    MessageBus();
    /// Stops the bus thread.
    ~MessageBus();
    MessageBus(const MessageBus&) = delete;
    MessageBus& operator=(const MessageBus&) = delete;

    /// Starts the bus thread. Once.
    void start();

    /// Ends the bus thread after the message it is delivering; messages still
    /// queued are dropped (and the number logged), every tap is closed and
    /// post() refuses from then on. Idempotent; not from a receiver.
    void stop();

    /// Makes `plugin` a receiver under `guid`. Any thread.
    void attach(const std::string& guid, std::shared_ptr<PluginBase> plugin);

    /// Removes every receiver; a delivery already under way completes. Any thread.
    void detachAll();

    /// Queues a message for delivery. Returns its sequence number, or 0 when
    /// the text is larger than messageByteLimit, the queue is full (by count or
    /// by bytes) or the bus stopped (each counted; logged once per burst).
    /// Never throws and never waits for a receiver, so it is safe on any
    /// thread, including a plug-in's I/O thread.
    std::uint64_t post(std::string text, std::string origin) noexcept;

    /// Opens a tap: every message posted from now on is offered to it. Any thread.
    std::shared_ptr<BusTap> openTap();

    /// Closes and forgets a tap. Any thread.
    void closeTap(const std::shared_ptr<BusTap>& tap);

    Stats stats() const;

    /// Waits until every message posted so far has been handled; false when
    /// the time-out passed first. For an orderly hand-over and for tests.
    bool waitUntilIdle(std::chrono::milliseconds timeout);

private:
    void run();
    void handle(BusMessage& message);
    void refuseOversize(std::size_t size, const std::string& origin);
    void offerToTaps(const std::vector<std::shared_ptr<BusTap>>& tapsNow, const BusMessage& message);

    const Options options;

    // guards queue, queuedBytes, nextSeq, stopping, handled, overflowing, overflowDrops
    mutable std::mutex queueMutex;
    std::condition_variable queueReady;
    std::condition_variable queueIdle;
    std::deque<BusMessage> queue;
    std::size_t queuedBytes = 0;
    std::uint64_t nextSeq = 1;
    bool stopping = false;
    std::uint64_t handled = 0;
    bool overflowing = false;
    std::uint64_t overflowDrops = 0;

    mutable std::mutex receiversMutex;  // guards receivers and taps
    std::vector<std::pair<std::string, std::shared_ptr<PluginBase>>> receivers;
    std::vector<std::shared_ptr<BusTap>> taps;

    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> unaddressed{0};
    std::atomic<std::uint64_t> rejected{0};
    std::atomic<std::uint64_t> dropped{0};
    std::atomic<std::uint64_t> droppedForBytes{0};
    std::atomic<std::uint64_t> oversize{0};
    std::atomic<std::uint64_t> tapDropped{0};

    std::thread worker;
};

} // namespace vlm::host
