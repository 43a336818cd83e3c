#pragma once

// The flight recording: a JSON-lines file of the events a pilot control micro
// service published, one event a line, written by `pilot-rpc record` and
// played back by `pilot-sim --replay`. Users share these files, so reading one
// is bounded in size, line length and event count, and every bad line is
// reported with its number instead of stopping the read.
//
//   {"t":1250,"time":"2026-11-23T16:20:01.250Z","topic":"pushTelemetry","data":"{...}"}
//
// "t": whole milliseconds since the recording started, never decreasing;
// "topic": the event's topic; "data": the event's payload text, exactly as the
// service sent it; "time": the wall-clock time it arrived (UTC), for people;
// playback ignores it and any other key.
//
// Pure apart from `load_recording`, which reads one file; any thread.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora_recording {

/// One recorded event.
struct recorded_event {
    std::int64_t t_ms = 0;  ///< since the recording started
    std::string topic;
    std::string data;
};

/// Bounds of a file that is read; `pilot-rpc record` stops before the file
/// outgrows them, so that every recording it makes can be played back.
struct recording_limits {
    std::size_t max_file_bytes = 64u * 1024u * 1024u;
    std::size_t max_line_bytes = 1024u * 1024u;
    std::size_t max_events = 1000000;
    std::size_t max_topic_bytes = 256;
};

/// Escapes `text` as the body of a JSON string (quotes not included): quote,
/// backslash and control characters; other bytes pass unchanged.
std::string json_escape(std::string_view text);

/// "2026-11-23T16:20:01.250Z".
std::string utc_time_text(std::chrono::system_clock::time_point when);

/// The line of `event` (no line feed), with `arrived` as its "time".
std::string format_record_line(const recorded_event& event, std::chrono::system_clock::time_point arrived);

/// Parses one line. On failure returns nothing and sets `why` to a short
/// reason ("not a JSON object", "\"t\" is missing" ...). Never throws.
std::optional<recorded_event> parse_record_line(std::string_view line, std::string& why,
                                                const recording_limits& limits = recording_limits());

/// What `load_recording` read.
struct loaded_recording {
    std::vector<recorded_event> events;
    std::size_t bad_lines = 0;
};

/// Told about each bad line: its number (from 1) and why it was skipped.
using bad_line_sink = std::function<void(std::size_t line_number, const std::string& why)>;

/// Reads the file at `path`. Bad lines (unparsable, too long, "t" going back
/// in time, beyond `max_events`) are told to `on_bad_line` and skipped; blank
/// lines are skipped silently. Throws std::runtime_error, naming the file and
/// the reason, when it cannot be read, is larger than `max_file_bytes`, or
/// holds no event at all.
loaded_recording load_recording(const std::string& path, const bad_line_sink& on_bad_line,
                                const recording_limits& limits = recording_limits());

}  // namespace velmora_recording
