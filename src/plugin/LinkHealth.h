#pragma once

// How each live plug-in instance's link to its micro service is doing, for a
// host that reports health. Apart from the five entry points and
// PluginApiCatalogue, the library exports one more C function for it:
//
//     extern "C" size_t PluginLinkHealth(char* buffer, size_t size);
//
// Contract:
// - It writes the report (JSON text, below) into `buffer` as snprintf does:
//   at most `size - 1` bytes and a terminating NUL (nothing when `size` is 0
//   or `buffer` is null), and returns the length of the whole report without
//   the NUL. A return value of `size` or more means the text was cut; call
//   again with a buffer of at least the returned length plus one.
// - The text lives in the caller's buffer, so its lifetime is the caller's
//   and nothing in it points into the library.
// - Any thread, any number at once, while the library is loaded; also before
//   any instance exists and after all are gone ("instances" is then empty).
//   It takes a snapshot: counters read one by one, no instance is stopped,
//   delayed or blocked by it, and it never calls into the host.
//
// The report, one entry per live instance in the order they were made:
//
//     {"instances": [{
//        "service_address": "127.0.0.1", "service_port": 7700,
//        "links": {
//          "call":         {"connected": true, "last_frame_age_ms": 120, "reconnects": 0},
//          "subscription": {"connected": true, "last_frame_age_ms": 35,  "reconnects": 0}},
//        "counters": {"oversize_requests_refused": 0, "error_echoes_trimmed": 0,
//                     "stale_telemetry_dropped": 0, "event_publications_dropped": 0,
//                     "command_answers_dropped": 0}}]}
//
// "last_frame_age_ms" is the age of the last frame received on that client
// (answers on the call client, publications on the subscription client), null
// before the first; a link that is not there (not started or stopped) is
// reported as {"connected": false, "last_frame_age_ms": null, "reconnects": 0}.
// "reconnects" counts how often the link came up again after its first
// connection. The service address is empty and the port 0 before start.

#include <memory>
#include <string>
#include <vector>

namespace vlm {

struct PilotControlPImpl;

/// Makes `state` part of the report while it lives. Any thread.
void registerLinkHealth(const std::shared_ptr<PilotControlPImpl>& state);

/// The JSON text above. Any thread.
std::string describeLinkHealth();

/// The registered instances still alive, in the order they were made. Any thread.
std::vector<std::shared_ptr<PilotControlPImpl>> liveInstanceStates();

} // namespace vlm
