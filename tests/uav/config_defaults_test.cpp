#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "VelmoraCommon.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"

namespace {

// Every key the reset writes, with the JSON type it must be saved as.
struct DefaultKey {
    const char* key;
    char type;  // 'i' integer, 's' string, 'b' boolean
    const char* value;
};

const DefaultKey defaultTable[] = {
    {"station.app_type", 'i', "0"},
    {"station.drone_type", 'i', "1"},
    {"station.link_type", 'i', "0"},
    {"mqtts.user_name", 's', "hangarInside"},  // the second of the two writes stays
    {"mqtts.pawsswd", 's', "tepid@brkr"},
    {"station.comm_ip", 's', "192.168.188.150"},
    {"station.station_sn", 's', ""},
    {"mqtts.server_uri", 's', "127.0.0.1:1883"},
    {"vehicle.firmware_update_url", 's', nullptr},  // a local HTTP URL on port 9800, checked below
    {"vehicle.comm_heart_rate", 'i', "5"},
    {"vehicle.http_srv_port", 's', "80"},
    {"vehicle.airborne_link_type", 'i', "0"},
    {"debug.switch", 'i', "0"},
    {"mqtts.qos", 'i', "0"},
    {"station.comm_remote_ip", 's', ""},
    {"station.serial_port", 's', ""},
    {"station.comm_port", 'i', "2010"},
    {"station.baudrate", 'i', "115200"},
    {"station.forward_port", 'i', "-1"},
    {"station.waypoint_mode", 'i', "0"},
    {"vehicle.connect_type", 'i', "0"},
    {"vehicle.comm_type", 'i', "0"},
    {"vehicle.big_endian", 'i', "0"},
    {"vehicle.pilot_id", 's', ""},
    {"vehicle.vehicle_type", 's', ""},
    {"vehicle.push_route_url", 's', ""},
    {"vehicle.multi_martin_ip", 's', "192.168.1.201"},
    {"vehicle.martin_ip", 's', "226.0.0.80"},
    {"vehicle.martin_recv_port", 'i', "6094"},
    {"vehicle.martin_send_port", 'i', "6078"},
    {"vehicle.six_axis_ar_seat_grade", 'i', "2"},
    {"vehicle.six_axis_ar_seat", 'b', "false"},
    {"commsdk.gcs_type", 'i', "2"},
};

// Reads the configuration back as the file would hold it, so that the JSON
// type of each value is what is checked, not a conversion on reading.
TEST(ConfigDefaults, ResetWritesExactlyTheDefaultTableWithItsTypes)
{
    auto& config = vlm::configInstance();
    config.setString("legacy.option", "x");
    config.setInt("station.app_type", 7);

    vlm::resetConfigDefaults();

    std::ostringstream saved;
    config.save(saved, 0);
    const auto root = Poco::JSON::Parser().parse(saved.str()).extract<Poco::JSON::Object::Ptr>();
    EXPECT_FALSE(root->has("legacy")) << saved.str();

    std::size_t written = 0;
    for (const auto& name : root->getNames())
        written += root->getObject(name)->size();
    EXPECT_EQ(written, std::size(defaultTable)) << saved.str();
    ASSERT_EQ(std::size(defaultTable), 33u);

    for (const auto& entry : defaultTable) {
        SCOPED_TRACE(entry.key);
        const std::string key(entry.key);
        const auto section = root->getObject(key.substr(0, key.find('.')));
        ASSERT_TRUE(section);
        const Poco::Dynamic::Var value = section->get(key.substr(key.find('.') + 1));
        ASSERT_FALSE(value.isEmpty());
        switch (entry.type) {
        case 'i': EXPECT_TRUE(value.isInteger() && !value.isBoolean()); break;
        case 's': EXPECT_TRUE(value.isString()); break;
        case 'b': EXPECT_TRUE(value.isBoolean()); break;
        }
        if (entry.value) {
            EXPECT_EQ(value.toString(), entry.value);
        }
    }
    const std::string url = config.getString("vehicle.firmware_update_url");
    EXPECT_EQ(url.rfind("http://", 0), 0u) << url;
    EXPECT_NE(url.find(":9800"), std::string::npos) << url;
}

TEST(Identifiers, AreTheFixedTexts)
{
    EXPECT_EQ(vlm::pluginGuidString(), "{D639B3D5-A951-4BC7-A629-91255EBF9638}");
    EXPECT_EQ(vlm::topicGuidAppTypeZero(), "FBE242B9-B226-4401-A340-36ABD4D753AD");
    EXPECT_EQ(vlm::topicGuidAppTypeOther(), "C5E96E6B-8087-4F06-944F-025A84F27DE4");
    EXPECT_EQ(vlm::notificationName(), "PilotNotification");
}

} // namespace
