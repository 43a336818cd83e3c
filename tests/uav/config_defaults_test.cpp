#include <sstream>

#include <gtest/gtest.h>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "VelmoraCommon.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"

namespace {

Poco::JSON::Object::Ptr parseObject(const std::string& text)
{
    return Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
}

// The document as the file holds it, so that the JSON type of every value is
// compared, not a conversion on reading: "80" is a string, -1 a number and the
// seat a boolean. The broker credentials are the second of their two writes.
const char* const expectedDefaults = R"({
  "station": {"app_type": 0, "drone_type": 1, "link_type": 0, "comm_ip": "192.168.188.150", "station_sn": "",
              "comm_remote_ip": "", "serial_port": "", "comm_port": 2010, "baudrate": 115200, "forward_port": -1,
              "waypoint_mode": 0},
  "mqtts": {"user_name": "hangarInside", "pawsswd": "tepid@brkr", "server_uri": "127.0.0.1:1883", "qos": 0},
  "vehicle": {"comm_heart_rate": 5, "http_srv_port": "80", "airborne_link_type": 0, "connect_type": 0,
              "comm_type": 0, "big_endian": 0, "pilot_id": "", "vehicle_type": "", "push_route_url": "",
              "multi_martin_ip": "192.168.1.201", "martin_ip": "226.0.0.80", "martin_recv_port": 6094,
              "martin_send_port": 6078, "six_axis_ar_seat_grade": 2, "six_axis_ar_seat": false},
  "debug": {"switch": 0},
  "commsdk": {"gcs_type": 2}
})";

TEST(ConfigDefaults, ResetWritesExactlyTheThirtyThreeDefaultsWithTheirTypes)
{
    auto& config = vlm::configInstance();
    config.setString("legacy.option", "x");
    config.setInt("station.app_type", 7);

    vlm::resetConfigDefaults();

    std::ostringstream saved;
    config.save(saved, 0);
    auto root = parseObject(saved.str());
    // Any HTTP URL on the local network's port 9800 will do for the firmware.
    auto vehicle = root->getObject("vehicle");
    ASSERT_TRUE(vehicle && vehicle->has("firmware_update_url")) << saved.str();
    const std::string url = vehicle->getValue<std::string>("firmware_update_url");
    EXPECT_EQ(url.rfind("http://", 0), 0u) << url;
    EXPECT_NE(url.find(":9800/"), std::string::npos) << url;
    vehicle->remove("firmware_update_url");

    // Keys come out sorted on both sides; 32 here plus the URL make 33.
    EXPECT_EQ(vlm::jsonToString(root), vlm::jsonToString(parseObject(expectedDefaults)));
}

} // namespace
