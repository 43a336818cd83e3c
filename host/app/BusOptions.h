#pragma once

// Bounds of the host's message bus and of its tap readers ("bus.*" in the
// host's configuration).

#include <cstddef>

namespace vlm::host {

struct BusOptions {
    /// Messages waiting for the bus thread; beyond it post() refuses.
    std::size_t queueLimit = 10000;
    /// Bytes of message text waiting for the bus thread ("bus.max_queue_bytes");
    /// a message that would go beyond it is refused like one beyond queueLimit.
    /// Two of the largest messages fit, or 10000 of 6.5 KiB.
    std::size_t queueByteLimit = 64u << 20;
    /// Largest message text the bus takes ("bus.max_message_bytes"). Every
    /// message of a plug-in comes out of one frame of its service link (bodies
    /// under 10 MiB), and the plug-in's bus answer can carry the service's
    /// "message" object twice (as "message" and "data"): 24 MiB leaves room
    /// for that and nothing a peer can legitimately produce is refused.
    std::size_t messageByteLimit = 24u << 20;
    /// Messages a tap reader may fall behind before the oldest are dropped.
    std::size_t tapQueueLimit = 1000;
    /// Bytes a tap reader may fall behind ("bus.tap_max_queue_bytes"); the
    /// oldest go first, and a message larger than this alone is not shown.
    std::size_t tapQueueByteLimit = 16u << 20;
};

} // namespace vlm::host
