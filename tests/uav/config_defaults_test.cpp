#include <sstream>

#include <gtest/gtest.h>

#include "VelmoraCommon.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"

namespace {

TEST(ConfigDefaults, ResetReplacesEverythingWithTheDefaultTable)
{
    auto& config = vlm::configInstance();
    config.setString("legacy.option", "x");
    config.setInt("station.app_type", 7);

    vlm::resetConfigDefaults();

    EXPECT_FALSE(config.has("legacy.option"));
    EXPECT_FALSE(config.has("legacy"));
    EXPECT_EQ(config.getInt("station.app_type"), 0);
    EXPECT_EQ(config.getInt("station.drone_type"), 1);
    EXPECT_EQ(config.getInt("station.link_type"), 0);
    // The second of the two writes is the one that stays.
    EXPECT_EQ(config.getString("mqtts.user_name"), "hangarInside");
    EXPECT_EQ(config.getString("mqtts.pawsswd"), "tepid@brkr");
    EXPECT_EQ(config.getString("station.comm_ip"), "192.168.188.150");
    EXPECT_EQ(config.getString("station.station_sn"), "");
    EXPECT_EQ(config.getString("mqtts.server_uri"), "127.0.0.1:1883");
    EXPECT_NE(config.getString("vehicle.firmware_update_url").find(":9800"), std::string::npos);
    EXPECT_EQ(config.getInt("vehicle.comm_heart_rate"), 5);
    EXPECT_EQ(config.getInt("station.comm_port"), 2010);
    EXPECT_EQ(config.getInt("station.baudrate"), 115200);
    EXPECT_EQ(config.getInt("station.forward_port"), -1);
    EXPECT_EQ(config.getString("vehicle.multi_martin_ip"), "192.168.1.201");
    EXPECT_EQ(config.getString("vehicle.martin_ip"), "226.0.0.80");
    EXPECT_EQ(config.getInt("vehicle.martin_recv_port"), 6094);
    EXPECT_EQ(config.getInt("vehicle.martin_send_port"), 6078);
    EXPECT_EQ(config.getInt("vehicle.six_axis_ar_seat_grade"), 2);
    EXPECT_FALSE(config.getBool("vehicle.six_axis_ar_seat"));
    EXPECT_EQ(config.getInt("commsdk.gcs_type"), 2);
    EXPECT_EQ(config.getString("vehicle.pilot_id"), "");

    // Types as written: the HTTP port is text, the seat flag a real boolean.
    std::ostringstream saved;
    config.save(saved, 0);
    const std::string text = saved.str();
    EXPECT_NE(text.find(R"("http_srv_port":"80")"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("six_axis_ar_seat":false)"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("forward_port":-1)"), std::string::npos) << text;
}

TEST(Identifiers, AreTheFixedTexts)
{
    EXPECT_EQ(vlm::pluginGuidString(), "{D639B3D5-A951-4BC7-A629-91255EBF9638}");
    EXPECT_EQ(vlm::pluginGuidString().size(), 38u);
    EXPECT_EQ(vlm::topicGuidAppTypeZero(), "FBE242B9-B226-4401-A340-36ABD4D753AD");
    EXPECT_EQ(vlm::topicGuidAppTypeOther(), "C5E96E6B-8087-4F06-944F-025A84F27DE4");
    EXPECT_EQ(vlm::notificationName(), "PilotNotification");
}

} // namespace
