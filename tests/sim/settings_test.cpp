// The settings table: defaults, a settings file over them, and the answers
// to typed queries.

#include <gtest/gtest.h>

#include <Poco/JSON/Object.h>

#include "settings.h"

namespace pilot_sim::test {
namespace {

std::string as_text(const Poco::JSON::Object::Ptr& object)
{
    std::ostringstream out;
    object->stringify(out);
    return out.str();
}

TEST(Settings, DefaultsAreTheConfigurationTableWithASerialNumber)
{
    const auto s = service_settings::defaults();
    EXPECT_EQ(s.pilot_id(), "SIM-UAV-0001");
    EXPECT_EQ(s.int_value("station.app_type"), 0);
    EXPECT_EQ(s.int_value("station.forward_port"), -1);
    EXPECT_EQ(s.int_value("station.baudrate"), 115200);
    EXPECT_EQ(s.string_value("mqtts.user_name"), "hangarInside");
    EXPECT_EQ(s.string_value("mqtts.pawsswd"), "tepid@brkr");
    EXPECT_EQ(s.string_value("vehicle.http_srv_port"), "80");
    EXPECT_FALSE(s.bool_value("vehicle.six_axis_ar_seat"));
    EXPECT_EQ(s.size(), 33u);
}

TEST(Settings, TypedQueriesConvertLikeAConfigurationLibrary)
{
    const auto s = service_settings::defaults();
    EXPECT_EQ(s.int_value("vehicle.http_srv_port"), 80);
    EXPECT_EQ(s.string_value("station.comm_port"), "2010");
    EXPECT_EQ(s.string_value("vehicle.six_axis_ar_seat"), "false");
    EXPECT_TRUE(s.bool_value("station.drone_type"));
    EXPECT_THROW(s.int_value("mqtts.user_name"), std::invalid_argument);
    EXPECT_THROW(s.bool_value("station.comm_ip"), std::invalid_argument);
    try {
        s.string_value("vehicle.no_such_key");
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "unknown configuration key: vehicle.no_such_key");
    }
}

TEST(Settings, FileOverridesNestedKeysAndAddsNewOnes)
{
    const auto s = service_settings::parse(
        R"({"vehicle": {"pilot_id": "UAV-77", "chada_uav_ip": "10.0.0.5"}, "station": {"link_type": 1}})", "test.json");
    EXPECT_EQ(s.pilot_id(), "UAV-77");
    EXPECT_EQ(s.int_value("station.link_type"), 1);
    EXPECT_EQ(s.string_value("vehicle.chada_uav_ip"), "10.0.0.5");
    EXPECT_EQ(s.int_value("station.comm_port"), 2010);
}

TEST(Settings, TheShapeOfGetConfigReadsBackAsTheSameSettings)
{
    auto changed = service_settings::defaults();
    changed.set("vehicle.pilot_id", std::string("UAV-9"));
    changed.set("commsdk.flag_gps", true);
    const auto again = service_settings::parse(as_text(changed.to_json()), "round trip");
    EXPECT_EQ(as_text(again.to_json()), as_text(changed.to_json()));
    EXPECT_TRUE(again.bool_value("commsdk.flag_gps"));
}

class BadSettingsFile : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(BadSettingsFile, IsRefusedNamingTheFileAndTheProblem)
{
    const auto [json, expected] = GetParam();
    try {
        service_settings::parse(json, "sim.json");
        FAIL() << "accepted " << json;
    } catch (const settings_error& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.rfind("sim.json: ", 0), 0u) << text;
        EXPECT_NE(text.find(expected), std::string::npos) << text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadSettingsFile,
    ::testing::Values(std::make_pair("{\"station\": ", "not JSON"),
                      std::make_pair("[1, 2]", "one JSON object"),
                      std::make_pair(R"({"station": {"app_type": "one"}})", "station.app_type must be an integer"),
                      std::make_pair(R"({"vehicle": {"six_axis_ar_seat": 1}})", "must be a boolean"),
                      std::make_pair(R"({"station": {"comm_port": 20.5}})", "station.comm_port: a setting is"),
                      std::make_pair(R"({"debug": {"levels": [1]}})", "debug.levels: a setting is"),
                      std::make_pair(R"({"vehicle": {"pilot_id": ""}})", "vehicle.pilot_id must not be empty")));

TEST(Settings, ShippedExampleFileHoldsExactlyTheDefaults)
{
    const auto example = service_settings::load(SIM_SETTINGS_EXAMPLE);
    EXPECT_EQ(as_text(example.to_json()), as_text(service_settings::defaults().to_json()));
    EXPECT_EQ(example.size(), service_settings::defaults().size());
}

TEST(Settings, MissingFileIsReportedByPath)
{
    try {
        service_settings::load("/nonexistent/pilot-sim.json");
        FAIL() << "a missing file was accepted";
    } catch (const settings_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("/nonexistent/pilot-sim.json: ", 0), 0u) << e.what();
    }
}

}  // namespace
}  // namespace pilot_sim::test
