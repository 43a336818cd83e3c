#include "event_payloads.h"

#include <chrono>
#include <cstdio>
#include <sstream>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSONString.h>

#include "sim_texts.h"

namespace pilot_sim {

namespace {

std::string stringify(const Poco::JSON::Object& object)
{
    std::ostringstream out;
    object.stringify(out);
    return out.str();
}

Poco::JSON::Object ordered() { return Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER); }

}  // namespace

std::string telemetry_payload(const vehicle_state& s, const std::string& pilot_id, std::uint64_t seq,
                              std::int64_t timestamp_ms)
{
    // Formatted by hand: telemetry is the one event sent at high rates, and
    // fixed decimals keep the numbers readable.
    char numbers[512];
    std::snprintf(numbers, sizeof numbers,
                  "\"seq\":%llu,\"timestamp\":%lld,\"lat\":%.7f,\"lon\":%.7f,\"alt\":%.2f,\"speed\":%.2f,"
                  "\"heading\":%.1f,\"battery\":%.1f,\"gpsFix\":%d,\"satellites\":%d,\"flightMode\":\"%s\","
                  "\"waypointIndex\":%zu,\"routeSize\":%zu,\"flightTime\":%.1f",
                  static_cast<unsigned long long>(seq), static_cast<long long>(timestamp_ms), s.lat, s.lon, s.alt,
                  s.speed, s.heading, s.battery, s.gps_fix, s.satellites, flight_mode_name(s.mode), s.waypoint_index,
                  s.route_size, s.flight_seconds);
    return "{\"pilot_id\":" + Poco::toJSON(pilot_id) + "," + numbers + "}";
}

std::string heartbeat_payload(const std::string& pilot_id, std::uint64_t seq, std::int64_t timestamp_ms,
                              bool vehicle_connected)
{
    Poco::JSON::Object o = ordered();
    o.set("pilot_id", pilot_id);
    o.set("seq", static_cast<Poco::UInt64>(seq));
    o.set("timestamp", static_cast<Poco::Int64>(timestamp_ms));
    o.set("pilotConnected", vehicle_connected);
    return stringify(o);
}

std::string progress_payload(const std::string& api, int percent)
{
    Poco::JSON::Object o = ordered();
    o.set("operation", api);
    o.set("progress", percent);
    o.set("status", percent >= 100 ? "done" : "uploading");
    return stringify(o);
}

std::string route_result_payload(const std::string& api, const std::string& route_id, std::size_t waypoints)
{
    Poco::JSON::Object result = ordered();
    result.set("routeId", route_id);
    result.set("waypointCount", static_cast<Poco::UInt64>(waypoints));
    Poco::JSON::Object o = ordered();
    o.set("operation", api);
    o.set("code", 200);
    o.set("msg", texts::success);
    o.set("result", result);
    return stringify(o);
}

std::string route_deleted_payload()
{
    Poco::JSON::Object o = ordered();
    o.set("code", 200);
    o.set("msg", texts::success);
    o.set("routeSize", 0);
    return stringify(o);
}

std::string run_info_payload(const vehicle_state& s, std::int64_t uptime_seconds)
{
    Poco::JSON::Object info = ordered();
    info.set("uptime", static_cast<Poco::Int64>(uptime_seconds));
    info.set("flightTime", static_cast<Poco::Int64>(s.flight_seconds));
    info.set("battery", static_cast<int>(s.battery));
    info.set("flightMode", flight_mode_name(s.mode));
    info.set("gpsFix", s.gps_fix);
    Poco::JSON::Object o = ordered();
    o.set("code", 200);
    o.set("msg", texts::success);
    o.set("runInfo", info);
    return stringify(o);
}

std::string bin_info_payload(const vehicle_state& s)
{
    Poco::JSON::Array files;
    Poco::JSON::Object log = ordered();
    log.set("name", "flight_0001.bin");
    // A log grows with the time flown; a few kilobytes a second is typical.
    log.set("size", static_cast<Poco::Int64>(4096 + static_cast<Poco::Int64>(s.flight_seconds) * 2048));
    files.add(log);
    Poco::JSON::Object o = ordered();
    o.set("code", 200);
    o.set("msg", texts::success);
    o.set("files", files);
    return stringify(o);
}

std::string soft_upload_payload(const std::string& file)
{
    Poco::JSON::Object o = ordered();
    o.set("code", 200);
    o.set("msg", "upload success");
    o.set("fileName", file);
    o.set("progress", 100);
    return stringify(o);
}

std::string pilot_connect_payload(const std::string& pilot_id)
{
    Poco::JSON::Object o = ordered();
    o.set("code", 200);
    o.set("msg", "pilot connected");
    o.set("pilot_id", pilot_id);
    return stringify(o);
}

std::string fire_search_payload(const vehicle_state& s, const std::string& pilot_id)
{
    Poco::JSON::Object o = ordered();
    o.set("pilot_id", pilot_id);
    o.set("lat", s.lat);
    o.set("lon", s.lon);
    o.set("confidence", 0.9);
    o.set("timestamp", static_cast<Poco::Int64>(wall_clock_ms()));
    return stringify(o);
}

std::string with_publish_stamp(const std::string& payload, std::int64_t wall_us)
{
    const std::size_t close = payload.rfind('}');
    if (close == std::string::npos)
        return payload;
    const bool empty = payload.find_first_not_of(" \t\r\n", payload.find('{') + 1) == close;
    return payload.substr(0, close) + (empty ? "" : ",") + "\"publishedUs\":" + std::to_string(wall_us) +
           payload.substr(close);
}

std::int64_t wall_clock_us()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::int64_t wall_clock_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace pilot_sim
