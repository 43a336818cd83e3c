#pragma once

// A believable vehicle, not a flight dynamics model: it takes off to a fixed
// height, flies straight lines between waypoints at a cruise speed, hovers,
// returns home and lands, and drains its battery while it does. Positions are
// WGS-84 degrees with a flat-earth step, which is exact enough for routes of
// a few kilometres.
//
// Pure and single-threaded: time only moves when `advance` is called, so tests
// step it deterministically. The simulator drives it from its I/O thread.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace pilot_sim {

enum class flight_mode {
    on_ground,
    taking_off,
    hovering,
    on_mission,
    paused,
    returning_home,
    landing,
};

/// The name the telemetry carries: "onGround", "takingOff", "hover", "mission",
/// "paused", "returnHome" or "landing".
const char* flight_mode_name(flight_mode mode);

struct waypoint {
    double lat = 0.0;  ///< degrees
    double lon = 0.0;  ///< degrees
    double alt = 0.0;  ///< metres above home
};

struct vehicle_state {
    double lat = 0.0;
    double lon = 0.0;
    double alt = 0.0;          ///< metres above home
    double speed = 0.0;        ///< ground speed, m/s
    double heading = 0.0;      ///< degrees clockwise from north, [0, 360)
    double battery = 100.0;    ///< percent
    int gps_fix = 3;           ///< 0 none, 2 2D, 3 3D
    int satellites = 14;
    flight_mode mode = flight_mode::on_ground;
    std::size_t waypoint_index = 0;  ///< next waypoint of the route while flying it
    std::size_t route_size = 0;
    double flight_seconds = 0.0;     ///< time spent airborne since start
};

/// Outcome of a command: refused commands change nothing and say why.
struct command_result {
    bool ok = true;
    std::string reason;
};

class vehicle_model {
public:
    static constexpr double takeoff_altitude = 30.0;  ///< m
    static constexpr double climb_rate = 3.0;         ///< m/s
    static constexpr double descent_rate = 2.0;       ///< m/s
    static constexpr double cruise_speed = 12.0;      ///< m/s
    static constexpr double arrival_radius = 1.0;     ///< m, horizontal and vertical
    static constexpr double airborne_drain = 0.05;    ///< % per second
    static constexpr double ground_drain = 0.002;     ///< % per second
    static constexpr double minimum_battery = 10.0;   ///< % needed to start a flight

    /// On the ground at `home`, battery full, 3D fix.
    explicit vehicle_model(const waypoint& home);

    const vehicle_state& state() const { return state_; }
    const waypoint& home() const { return home_; }
    bool airborne() const;

    /// Stores a route for the next flight task; refused while one is being
    /// flown or when empty.
    command_result load_route(std::vector<waypoint> route);
    /// Forgets the route; refused while it is being flown.
    command_result clear_route();
    const std::vector<waypoint>& route() const { return route_; }

    command_result take_off();
    command_result land();
    command_result return_home();
    /// Flies the stored route from its first waypoint, taking off first when
    /// on the ground. Ends hovering over the last waypoint.
    command_result start_route();
    command_result pause_route();
    command_result resume_route();
    /// Abandons the route and hovers where the vehicle is.
    command_result stop_route();

    /// Moves simulated time on by `elapsed` (negative counts as zero).
    void advance(std::chrono::duration<double> elapsed);

private:
    /// Moves towards `target` for `seconds`; true once within the arrival radius.
    bool fly_towards(const waypoint& target, double seconds);
    void step(double seconds);

    waypoint home_;
    vehicle_state state_;
    std::vector<waypoint> route_;
    bool mission_after_takeoff_ = false;
};

}  // namespace pilot_sim
