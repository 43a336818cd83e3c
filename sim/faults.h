#pragma once

// Misbehaviour the simulator can be asked for, at start (as a plan, from the
// command line) or at any time (through `simulator`).

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace pilot_sim {

/// Frames a well-behaved service never sends; each makes the client drop the link.
enum class bad_frame {
    zero_length,  ///< a header whose body length is 0
    oversize,     ///< a header announcing a body longer than any client accepts
    bad_type,     ///< a complete frame of a frame type that does not exist
};

/// "zero-length", "oversize" or "bad-type".
const char* bad_frame_name(bad_frame kind);
/// The kind named by `name`, or nothing.
std::optional<bad_frame> parse_bad_frame(const std::string& name);

/// Faults applied from the start.
struct fault_plan {
    /// Answer these procedures only after the given delay.
    std::map<std::string, std::chrono::milliseconds> delayed;
    /// Never answer these procedures.
    std::set<std::string> unanswered;
    /// Cut every connection after this many frames from it; 0: never.
    std::size_t drop_after_frames = 0;
    /// Refuse connections for this long after start.
    std::chrono::milliseconds refuse_for{0};
    /// Report the vehicle link down from the start.
    bool vehicle_disconnected = false;

    // One-shot faults, sent `after_handshake` after every "reportRPCSub".
    /// Send this bad frame to every open connection.
    std::optional<bad_frame> bad_frame_after_handshake;
    /// Send an undecodable publication to every subscribed connection.
    bool malformed_publication_after_handshake = false;
    std::chrono::milliseconds after_handshake{500};
};

}  // namespace pilot_sim
