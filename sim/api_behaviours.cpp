// The APIs that do more than answer "success": settings and identity, the
// vehicle commands, route uploads and the reports that end in a result event.

#include <map>

#include <Poco/JSON/Array.h>

#include "event_payloads.h"
#include "request_handler.h"
#include "sim_texts.h"
#include "uav/PilotControlCommon/ConfigKeys.h"

namespace pilot_sim {

namespace {

/// The first of `keys` that `object` has, as a number; false when none is a number.
bool number_of(const Poco::JSON::Object& object, std::initializer_list<const char*> keys, double& out)
{
    for (const char* key : keys) {
        if (!object.has(key))
            continue;
        const Poco::Dynamic::Var value = object.get(key);
        if (!value.isNumeric())
            return false;
        out = value.convert<double>();
        return true;
    }
    return false;
}

Poco::JSON::Array::Ptr waypoint_array(const Poco::JSON::Object& payload)
{
    for (const char* key : {"waypoints", "wayPointList", "points", "route"}) {
        if (payload.isArray(key))
            return payload.getArray(key);
    }
    if (payload.isObject("data"))
        return waypoint_array(*payload.getObject("data"));
    return nullptr;
}

/// The route of an upload request, or an error text.
bool parse_route(const Poco::JSON::Object& payload, std::vector<waypoint>& route, std::string& error)
{
    const Poco::JSON::Array::Ptr points = waypoint_array(payload);
    if (!points || points->size() == 0) {
        error = "the route has no waypoints";
        return false;
    }
    for (std::size_t i = 0; i < points->size(); ++i) {
        const Poco::JSON::Object::Ptr point = points->getObject(static_cast<unsigned>(i));
        waypoint w;
        if (!point || !number_of(*point, {"lat", "latitude"}, w.lat) ||
            !number_of(*point, {"lon", "lng", "longitude"}, w.lon)) {
            error = "waypoint " + std::to_string(i) + " has no numeric lat and lon";
            return false;
        }
        if (w.lat < -90.0 || w.lat > 90.0 || w.lon < -180.0 || w.lon > 180.0) {
            error = "waypoint " + std::to_string(i) + " lies outside the globe";
            return false;
        }
        if (!number_of(*point, {"alt", "height", "altitude"}, w.alt))
            w.alt = vehicle_model::takeoff_altitude;
        route.push_back(w);
    }
    return true;
}

Poco::JSON::Object::Ptr object_with(const std::string& key, const Poco::Dynamic::Var& value)
{
    Poco::JSON::Object::Ptr o = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    o->set(key, value);
    return o;
}

}  // namespace

const request_handler::api_entry* request_handler::find_entry(const std::string& api)
{
    static const std::map<std::string, api_entry> entries = {
        {texts::getConfig, {&request_handler::get_config, false}},
        {texts::getStationInfo, {&request_handler::get_station_info, false}},
        {texts::getUavId, {&request_handler::get_uav_id, false}},
        {texts::setUavId, {&request_handler::set_uav_id, false}},
        {texts::pilotConnect, {&request_handler::pilot_connect, false}},
        {texts::disconnectPilot, {&request_handler::disconnect_pilot, false}},
        {texts::takeoffAndLand, {&request_handler::takeoff_and_land, true}},
        {texts::returnHome, {&request_handler::return_home, true}},
        {texts::executeFlightTask, {&request_handler::execute_flight_task, true}},
        {texts::cancelFlightTask, {&request_handler::stop_flight_task, true}},
        {texts::abortFlightTask, {&request_handler::stop_flight_task, true}},
        {texts::flightTaskPause, {&request_handler::pause_flight_task, true}},
        {texts::flightTaskRecovery, {&request_handler::resume_flight_task, true}},
        {texts::pushRoute, {&request_handler::upload_route, true}},
        {texts::syncRoute, {&request_handler::upload_route, true}},
        {texts::getSyncRouteResult, {&request_handler::route_result, false}},
        {texts::deleteWayPointList, {&request_handler::delete_route, true}},
        {texts::getRunInfo, {&request_handler::run_info, true}},
        {texts::getBinInfo, {&request_handler::bin_info, true}},
        {texts::softUpload, {&request_handler::soft_upload, true}},
    };
    const auto it = entries.find(api);
    return it == entries.end() ? nullptr : &it->second;
}

request_handler::outcome request_handler::get_config(const Poco::JSON::Object&, const std::string&)
{
    outcome o;
    o.result = settings_.to_json();
    return o;
}

request_handler::outcome request_handler::get_station_info(const Poco::JSON::Object&, const std::string&)
{
    namespace cfg = vlm::cfg;
    Poco::JSON::Object::Ptr info = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    info->set("stationSn", settings_.string_value(cfg::stationStationSn));
    info->set("appType", settings_.int_value(cfg::stationAppType));
    info->set("droneType", settings_.int_value(cfg::stationDroneType));
    info->set("linkType", settings_.int_value(cfg::stationLinkType));
    info->set("commIp", settings_.string_value(cfg::stationCommIp));
    info->set("commPort", settings_.int_value(cfg::stationCommPort));
    info->set("pilotId", settings_.pilot_id());
    info->set("pilotConnected", effects_.vehicle_connected());
    info->set("uptime", static_cast<Poco::Int64>(effects_.uptime_seconds()));
    outcome o;
    o.result = info;
    return o;
}

request_handler::outcome request_handler::get_uav_id(const Poco::JSON::Object&, const std::string&)
{
    outcome o;
    o.result = object_with("uavId", settings_.pilot_id());
    return o;
}

request_handler::outcome request_handler::set_uav_id(const Poco::JSON::Object& payload, const std::string&)
{
    std::string id;
    for (const char* key : {"pilot_id", "uavId"}) {
        if (payload.has(key) && payload.get(key).isString())
            id = payload.getValue<std::string>(key);
    }
    if (id.empty())
        return failed(400, "setUavId needs a non-empty \"pilot_id\" or \"uavId\"");
    settings_.set(vlm::cfg::vehiclePilotId, id);
    effects_.pilot_id_changed(id);
    outcome o;
    o.result = object_with("uavId", id);
    return o;
}

request_handler::outcome request_handler::pilot_connect(const Poco::JSON::Object&, const std::string&)
{
    effects_.set_vehicle_connected(true);
    return outcome{};
}

request_handler::outcome request_handler::disconnect_pilot(const Poco::JSON::Object&, const std::string&)
{
    effects_.set_vehicle_connected(false);
    return outcome{};
}

request_handler::outcome request_handler::takeoff_and_land(const Poco::JSON::Object& payload, const std::string& api)
{
    const std::string action = payload.has("action") ? payload.get("action").toString() : std::string();
    if (action == "takeoff")
        return commanded(api, vehicle_.take_off());
    if (action == "land")
        return commanded(api, vehicle_.land());
    if (!action.empty())
        return failed(400, "action must be \"takeoff\" or \"land\", not \"" + action + "\"");
    return commanded(api, vehicle_.airborne() ? vehicle_.land() : vehicle_.take_off());
}

request_handler::outcome request_handler::return_home(const Poco::JSON::Object&, const std::string& api)
{
    return commanded(api, vehicle_.return_home());
}

request_handler::outcome request_handler::execute_flight_task(const Poco::JSON::Object&, const std::string& api)
{
    return commanded(api, vehicle_.start_route());
}

request_handler::outcome request_handler::stop_flight_task(const Poco::JSON::Object&, const std::string& api)
{
    return commanded(api, vehicle_.stop_route());
}

request_handler::outcome request_handler::pause_flight_task(const Poco::JSON::Object&, const std::string& api)
{
    return commanded(api, vehicle_.pause_route());
}

request_handler::outcome request_handler::resume_flight_task(const Poco::JSON::Object&, const std::string& api)
{
    return commanded(api, vehicle_.resume_route());
}

request_handler::outcome request_handler::upload_route(const Poco::JSON::Object& payload, const std::string& api)
{
    std::vector<waypoint> route;
    std::string error;
    if (!parse_route(payload, route, error))
        return failed(400, error);
    const vehicle_state& state = vehicle_.state();
    if (state.mode == flight_mode::on_mission || state.mode == flight_mode::paused)
        return failed(409, "a flight task is running");
    const std::size_t count = route.size();
    last_route_api_ = api;
    effects_.route_upload_started(api, std::move(route));
    outcome o;
    o.result = object_with("waypointCount", static_cast<Poco::UInt64>(count));
    return o;
}

request_handler::outcome request_handler::route_result(const Poco::JSON::Object&, const std::string&)
{
    const std::size_t size = vehicle_.route().size();
    if (size == 0)
        return failed(404, "no route has been uploaded");
    Poco::JSON::Object::Ptr result = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    result->set("operation", last_route_api_);
    result->set("waypointCount", static_cast<Poco::UInt64>(size));
    outcome o;
    o.result = result;
    return o;
}

request_handler::outcome request_handler::delete_route(const Poco::JSON::Object&, const std::string& api)
{
    const command_result cleared = vehicle_.clear_route();
    if (cleared.ok)
        effects_.publish_later(api, route_deleted_payload());
    return commanded(api, cleared);
}

request_handler::outcome request_handler::run_info(const Poco::JSON::Object&, const std::string& api)
{
    effects_.publish_later(api, run_info_payload(vehicle_.state(), effects_.uptime_seconds()));
    return outcome{};
}

request_handler::outcome request_handler::bin_info(const Poco::JSON::Object&, const std::string& api)
{
    effects_.publish_later(api, bin_info_payload(vehicle_.state()));
    return outcome{};
}

request_handler::outcome request_handler::soft_upload(const Poco::JSON::Object& payload, const std::string& api)
{
    std::string file = "firmware.bin";
    if (payload.has("fileName") && payload.get("fileName").isString())
        file = payload.getValue<std::string>("fileName");
    effects_.publish_later(api, soft_upload_payload(file));
    return outcome{};
}

}  // namespace pilot_sim
