// The simulated vehicle on simulated time.

#include <gtest/gtest.h>

#include <cmath>

#include "vehicle_model.h"

namespace pilot_sim::test {
namespace {

using namespace std::chrono_literals;

const waypoint home{48.15, 11.58, 0.0};

/// About `metres` north of home.
waypoint north_of_home(double metres, double alt) { return waypoint{home.lat + metres / 111320.0, home.lon, alt}; }

/// Advances in model-sized steps until `done` or `limit` of simulated time.
template <typename Done>
bool run_until(vehicle_model& v, Done done, std::chrono::seconds limit)
{
    for (auto t = 0ms; t < limit; t += 100ms) {
        if (done(v.state()))
            return true;
        v.advance(100ms);
    }
    return done(v.state());
}

TEST(VehicleModel, TakesOffToItsHeightAndHovers)
{
    vehicle_model v(home);
    ASSERT_TRUE(v.take_off().ok);
    EXPECT_EQ(v.state().mode, flight_mode::taking_off);
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.mode == flight_mode::hovering; }, 30s));
    EXPECT_DOUBLE_EQ(v.state().alt, vehicle_model::takeoff_altitude);
    EXPECT_LT(v.state().battery, 100.0);
}

TEST(VehicleModel, FliesTheRouteWaypointByWaypointAndHoversAtTheEnd)
{
    vehicle_model v(home);
    ASSERT_TRUE(v.load_route({north_of_home(100, 40), north_of_home(200, 40)}).ok);
    ASSERT_TRUE(v.start_route().ok);
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.mode == flight_mode::on_mission; }, 30s));
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.waypoint_index == 1; }, 60s));
    v.advance(1s);
    EXPECT_NEAR(v.state().heading, 0.0, 1.0);
    EXPECT_NEAR(v.state().speed, vehicle_model::cruise_speed, 0.1);
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.mode == flight_mode::hovering; }, 60s));
    EXPECT_NEAR((v.state().lat - home.lat) * 111320.0, 200.0, vehicle_model::arrival_radius);
    EXPECT_NEAR(v.state().alt, 40.0, vehicle_model::arrival_radius);
}

TEST(VehicleModel, PausedTaskHoldsPositionUntilResumed)
{
    vehicle_model v(home);
    ASSERT_TRUE(v.load_route({north_of_home(500, 30)}).ok);
    ASSERT_TRUE(v.start_route().ok);
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.mode == flight_mode::on_mission; }, 30s));
    v.advance(2s);
    ASSERT_TRUE(v.pause_route().ok);
    const double held = v.state().lat;
    v.advance(5s);
    EXPECT_DOUBLE_EQ(v.state().lat, held);
    EXPECT_EQ(v.state().speed, 0.0);
    ASSERT_TRUE(v.resume_route().ok);
    v.advance(1s);
    EXPECT_GT(v.state().lat, held);
}

TEST(VehicleModel, ReturnsHomeAndLands)
{
    vehicle_model v(home);
    ASSERT_TRUE(v.load_route({north_of_home(150, 30)}).ok);
    ASSERT_TRUE(v.start_route().ok);
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.mode == flight_mode::hovering; }, 60s));
    ASSERT_TRUE(v.return_home().ok);
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.mode == flight_mode::on_ground; }, 60s));
    EXPECT_NEAR(v.state().lat, home.lat, 2.0 / 111320.0);
    EXPECT_EQ(v.state().alt, 0.0);
}

TEST(VehicleModel, RefusesCommandsThatDoNotFitItsState)
{
    vehicle_model v(home);
    EXPECT_EQ(v.start_route().reason, "no route has been uploaded");
    EXPECT_EQ(v.land().reason, "the vehicle is on the ground");
    EXPECT_EQ(v.pause_route().reason, "no flight task is being flown");
    EXPECT_FALSE(v.load_route({}).ok);
    ASSERT_TRUE(v.load_route({north_of_home(50, 30)}).ok);
    ASSERT_TRUE(v.start_route().ok);
    EXPECT_FALSE(v.load_route({north_of_home(60, 30)}).ok);
    EXPECT_FALSE(v.take_off().ok);
    EXPECT_EQ(v.state().mode, flight_mode::taking_off);
}

TEST(VehicleModel, LandsByItselfWhenTheBatteryRunsOut)
{
    vehicle_model v(home);
    ASSERT_TRUE(v.take_off().ok);
    const auto endurance =
        std::chrono::seconds(static_cast<long>(100.0 / vehicle_model::airborne_drain) + 60);
    ASSERT_TRUE(run_until(v, [](const vehicle_state& s) { return s.mode == flight_mode::on_ground; }, endurance));
    EXPECT_EQ(v.state().battery, 0.0);
    EXPECT_EQ(v.take_off().reason, "the battery is too low to take off");
}

}  // namespace
}  // namespace pilot_sim::test
