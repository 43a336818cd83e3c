#pragma once

// The JSON texts of the events the simulator publishes. Each is what the
// plug-in later wraps as the "message" of an answer, so each is one object.
//
// Pure functions; any thread.

#include <cstddef>
#include <cstdint>
#include <string>

#include "vehicle_model.h"

namespace pilot_sim {

/// "pushTelemetry": position, motion, battery, fix and flight mode.
/// `timestamp_ms` is wall-clock milliseconds since the epoch.
std::string telemetry_payload(const vehicle_state& state, const std::string& pilot_id, std::uint64_t seq,
                              std::int64_t timestamp_ms);

/// `payload` (a JSON object text) with "publishedUs": `wall_us` added as its last key.
std::string with_publish_stamp(const std::string& payload, std::int64_t wall_us);

/// Wall-clock microseconds since the epoch.
std::int64_t wall_clock_us();

/// "heartBeat": the service is alive; says whether the vehicle link is up.
std::string heartbeat_payload(const std::string& pilot_id, std::uint64_t seq, std::int64_t timestamp_ms,
                              bool vehicle_connected);

/// "updateProgress" of a route upload made by `api`, at `percent` (0..100).
std::string progress_payload(const std::string& api, int percent);

/// The route result event on the topic `api` ("pushRoute" or "syncRoute").
std::string route_result_payload(const std::string& api, const std::string& route_id, std::size_t waypoints);

/// "deleteWayPointList": the route is gone.
std::string route_deleted_payload();

/// "getRunInfo": flight time, battery and flight mode of the vehicle.
std::string run_info_payload(const vehicle_state& state, std::int64_t uptime_seconds);

/// "getBinInfo": the flight logs on board.
std::string bin_info_payload(const vehicle_state& state);

/// "softUpload": the firmware file `file` arrived on the vehicle.
std::string soft_upload_payload(const std::string& file);

/// "pilotConnect": the vehicle link came up.
std::string pilot_connect_payload(const std::string& pilot_id);

/// A believable "fireSearchInfo" report at the vehicle's position.
std::string fire_search_payload(const vehicle_state& state, const std::string& pilot_id);

/// Wall-clock milliseconds since the epoch.
std::int64_t wall_clock_ms();

}  // namespace pilot_sim
