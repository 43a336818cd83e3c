#include "vehicle_model.h"

#include <algorithm>
#include <cmath>

namespace pilot_sim {

namespace {

constexpr double metres_per_degree = 111320.0;
constexpr double pi = 3.14159265358979323846;

command_result refused(std::string reason) { return command_result{false, std::move(reason)}; }

double radians(double degrees) { return degrees * pi / 180.0; }

}  // namespace

const char* flight_mode_name(flight_mode mode)
{
    switch (mode) {
    case flight_mode::on_ground:
        return "onGround";
    case flight_mode::taking_off:
        return "takingOff";
    case flight_mode::hovering:
        return "hover";
    case flight_mode::on_mission:
        return "mission";
    case flight_mode::paused:
        return "paused";
    case flight_mode::returning_home:
        return "returnHome";
    case flight_mode::landing:
        return "landing";
    }
    return "unknown";
}

vehicle_model::vehicle_model(const waypoint& home) : home_(home)
{
    state_.lat = home.lat;
    state_.lon = home.lon;
}

bool vehicle_model::airborne() const { return state_.mode != flight_mode::on_ground; }

command_result vehicle_model::load_route(std::vector<waypoint> route)
{
    if (route.empty())
        return refused("the route has no waypoints");
    if (state_.mode == flight_mode::on_mission || state_.mode == flight_mode::paused || mission_after_takeoff_)
        return refused("a flight task is running");
    route_ = std::move(route);
    state_.route_size = route_.size();
    state_.waypoint_index = 0;
    return {};
}

command_result vehicle_model::clear_route()
{
    if (state_.mode == flight_mode::on_mission || state_.mode == flight_mode::paused || mission_after_takeoff_)
        return refused("a flight task is running");
    route_.clear();
    state_.route_size = 0;
    state_.waypoint_index = 0;
    return {};
}

command_result vehicle_model::take_off()
{
    if (airborne())
        return refused("the vehicle is already airborne");
    if (state_.battery < minimum_battery)
        return refused("the battery is too low to take off");
    state_.mode = flight_mode::taking_off;
    return {};
}

command_result vehicle_model::land()
{
    if (!airborne())
        return refused("the vehicle is on the ground");
    if (state_.mode == flight_mode::landing)
        return refused("the vehicle is already landing");
    mission_after_takeoff_ = false;
    state_.mode = flight_mode::landing;
    return {};
}

command_result vehicle_model::return_home()
{
    if (!airborne())
        return refused("the vehicle is on the ground");
    if (state_.mode == flight_mode::landing)
        return refused("the vehicle is landing");
    mission_after_takeoff_ = false;
    state_.mode = flight_mode::returning_home;
    return {};
}

command_result vehicle_model::start_route()
{
    if (route_.empty())
        return refused("no route has been uploaded");
    if (state_.mode == flight_mode::on_mission || state_.mode == flight_mode::paused || mission_after_takeoff_)
        return refused("a flight task is already running");
    if (state_.mode == flight_mode::landing || state_.mode == flight_mode::returning_home)
        return refused("the vehicle is on its way home");
    state_.waypoint_index = 0;
    if (!airborne()) {
        const command_result launched = take_off();
        if (launched.ok)
            mission_after_takeoff_ = true;
        return launched;
    }
    if (state_.mode == flight_mode::taking_off) {
        mission_after_takeoff_ = true;
        return {};
    }
    state_.mode = flight_mode::on_mission;
    return {};
}

command_result vehicle_model::pause_route()
{
    if (state_.mode != flight_mode::on_mission)
        return refused("no flight task is being flown");
    state_.mode = flight_mode::paused;
    state_.speed = 0.0;
    return {};
}

command_result vehicle_model::resume_route()
{
    if (state_.mode != flight_mode::paused)
        return refused("the flight task is not paused");
    state_.mode = flight_mode::on_mission;
    return {};
}

command_result vehicle_model::stop_route()
{
    if (state_.mode != flight_mode::on_mission && state_.mode != flight_mode::paused && !mission_after_takeoff_)
        return refused("no flight task is running");
    mission_after_takeoff_ = false;
    if (state_.mode != flight_mode::taking_off)
        state_.mode = flight_mode::hovering;
    state_.speed = 0.0;
    return {};
}

void vehicle_model::advance(std::chrono::duration<double> elapsed)
{
    double left = std::max(0.0, elapsed.count());
    // Small steps keep arrivals and mode changes from overshooting when the
    // caller was late by a lot.
    constexpr double max_step = 0.1;
    while (left > 0.0) {
        const double dt = std::min(left, max_step);
        step(dt);
        left -= dt;
    }
}

void vehicle_model::step(double seconds)
{
    const bool flying = airborne();
    state_.battery = std::max(0.0, state_.battery - seconds * (flying ? airborne_drain : ground_drain));
    if (flying)
        state_.flight_seconds += seconds;
    if (flying && state_.battery <= 0.0 && state_.mode != flight_mode::landing) {
        mission_after_takeoff_ = false;
        state_.mode = flight_mode::landing;
    }

    switch (state_.mode) {
    case flight_mode::on_ground:
    case flight_mode::hovering:
    case flight_mode::paused:
        state_.speed = 0.0;
        break;
    case flight_mode::taking_off:
        state_.speed = 0.0;
        state_.alt = std::min(takeoff_altitude, state_.alt + climb_rate * seconds);
        if (state_.alt >= takeoff_altitude) {
            state_.mode = mission_after_takeoff_ ? flight_mode::on_mission : flight_mode::hovering;
            mission_after_takeoff_ = false;
        }
        break;
    case flight_mode::on_mission:
        if (state_.waypoint_index >= route_.size()) {
            state_.mode = flight_mode::hovering;
            break;
        }
        if (fly_towards(route_[state_.waypoint_index], seconds) && ++state_.waypoint_index >= route_.size()) {
            state_.mode = flight_mode::hovering;
            state_.speed = 0.0;
        }
        break;
    case flight_mode::returning_home:
        if (fly_towards(waypoint{home_.lat, home_.lon, state_.alt}, seconds)) {
            state_.mode = flight_mode::landing;
            state_.speed = 0.0;
        }
        break;
    case flight_mode::landing:
        state_.speed = 0.0;
        state_.alt = std::max(0.0, state_.alt - descent_rate * seconds);
        if (state_.alt <= 0.0)
            state_.mode = flight_mode::on_ground;
        break;
    }
}

bool vehicle_model::fly_towards(const waypoint& target, double seconds)
{
    const double lon_metres = metres_per_degree * std::cos(radians(state_.lat));
    const double north = (target.lat - state_.lat) * metres_per_degree;
    const double east = (target.lon - state_.lon) * lon_metres;
    const double distance = std::hypot(north, east);

    const double climb = target.alt - state_.alt;
    const double max_climb = climb_rate * seconds;
    state_.alt += std::clamp(climb, -max_climb, max_climb);

    const double travel = std::min(distance, cruise_speed * seconds);
    if (distance > 1e-9) {
        const double fraction = travel / distance;
        state_.lat += north * fraction / metres_per_degree;
        state_.lon += east * fraction / lon_metres;
        const double heading = std::atan2(east, north) * 180.0 / pi;
        state_.heading = heading < 0.0 ? heading + 360.0 : heading;
    }
    state_.speed = seconds > 0.0 ? travel / seconds : 0.0;
    return distance - travel <= arrival_radius && std::fabs(target.alt - state_.alt) <= arrival_radius;
}

}  // namespace pilot_sim
