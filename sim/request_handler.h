#pragma once

// Answers the requests the plug-in forwards, the way the micro service does:
// every procedure gets (request JSON[, API name]) and answers the JSON text
// {"api", "type": "response", "from"/"target" swapped, "msgId", "message":
// {"code", "msg", "result"}}. Known APIs answer "code" 200 unless the vehicle
// refuses; unknown ones 404, unreadable requests 400, vehicle commands while
// the vehicle link is down 503.
//
// Request payloads the simulator understands (inside "message", or "data"
// for bus messages):
//   takeoffAndLand   {"action": "takeoff" | "land"}; without it, toggles
//   pushRoute, syncRoute
//                    {"waypoints": [{"lat", "lon", "alt"}, ...]}; also
//                    "wayPointList"/"points"/"route", "lng"/"longitude",
//                    "latitude", "height"/"altitude"
//   setUavId         {"pilot_id": "..."} or {"uavId": "..."}
//   softUpload       {"fileName": "..."}
//
// Not thread-safe: the simulator calls it on its I/O thread only.

#include <string>
#include <vector>

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>
#include <msgpack.hpp>

#include "settings.h"
#include "vehicle_model.h"

namespace pilot_sim {

/// What answering may set in motion beyond the answer. Implemented by the
/// simulator; called from inside `request_handler::answer`.
class request_effects {
public:
    virtual ~request_effects() = default;
    /// "setSelfGuid": the plug-in told its station id.
    virtual void station_announced(const std::string& station_id) = 0;
    /// A route was accepted: progress events, then the result event on the
    /// topic `api`, then the route is loaded into the vehicle.
    virtual void route_upload_started(const std::string& api, std::vector<waypoint> route) = 0;
    /// Publish the result event `payload` on `topic` a moment from now.
    virtual void publish_later(const std::string& topic, std::string payload) = 0;
    virtual bool vehicle_connected() const = 0;
    /// Reports the vehicle link as up or down (and publishes the change).
    virtual void set_vehicle_connected(bool connected) = 0;
    /// The vehicle has a new serial number (published as "pushUavSn").
    virtual void pilot_id_changed(const std::string& pilot_id) = 0;
    /// Seconds since the simulator started.
    virtual std::int64_t uptime_seconds() const = 0;
    virtual void log(const std::string& line) = 0;
};

class request_handler {
public:
    request_handler(service_settings& settings, vehicle_model& vehicle, request_effects& effects);

    /// The answer text for a call of `procedure` with the MessagePack argument
    /// array `args`. Throws std::invalid_argument when the arguments are not
    /// one or two texts (the service answers that as a failure).
    std::string answer(const std::string& procedure, const msgpack::object& args);
    /// The same with the arguments already decoded.
    std::string answer(const std::string& procedure, const std::vector<std::string>& args);

    /// What one API answers inside "message".
    struct outcome {
        int code = 200;
        std::string msg = "success";
        Poco::Dynamic::Var result;  ///< left out when empty
    };

private:
    using behaviour = outcome (request_handler::*)(const Poco::JSON::Object& payload, const std::string& api);
    struct api_entry {
        behaviour act;
        bool needs_vehicle;  ///< refused with 503 while the vehicle link is down
    };

    static const api_entry* find_entry(const std::string& api);
    outcome run(const std::string& api, const Poco::JSON::Object& payload);

    // One per API with a behaviour of its own; see api_behaviours.cpp.
    outcome get_config(const Poco::JSON::Object& payload, const std::string& api);
    outcome get_station_info(const Poco::JSON::Object& payload, const std::string& api);
    outcome get_uav_id(const Poco::JSON::Object& payload, const std::string& api);
    outcome set_uav_id(const Poco::JSON::Object& payload, const std::string& api);
    outcome pilot_connect(const Poco::JSON::Object& payload, const std::string& api);
    outcome disconnect_pilot(const Poco::JSON::Object& payload, const std::string& api);
    outcome takeoff_and_land(const Poco::JSON::Object& payload, const std::string& api);
    outcome return_home(const Poco::JSON::Object& payload, const std::string& api);
    outcome execute_flight_task(const Poco::JSON::Object& payload, const std::string& api);
    outcome stop_flight_task(const Poco::JSON::Object& payload, const std::string& api);
    outcome pause_flight_task(const Poco::JSON::Object& payload, const std::string& api);
    outcome resume_flight_task(const Poco::JSON::Object& payload, const std::string& api);
    outcome upload_route(const Poco::JSON::Object& payload, const std::string& api);
    outcome route_result(const Poco::JSON::Object& payload, const std::string& api);
    outcome delete_route(const Poco::JSON::Object& payload, const std::string& api);
    outcome run_info(const Poco::JSON::Object& payload, const std::string& api);
    outcome bin_info(const Poco::JSON::Object& payload, const std::string& api);
    outcome soft_upload(const Poco::JSON::Object& payload, const std::string& api);

    static outcome failed(int code, std::string msg);
    /// Turns a vehicle command's verdict into an outcome: 409 with the reason when refused.
    outcome commanded(const std::string& api, const command_result& result);

    service_settings& settings_;
    vehicle_model& vehicle_;
    request_effects& effects_;
    std::string last_route_api_;   ///< API of the last accepted route upload
};

}  // namespace pilot_sim
