#include <regex>

#include <Poco/Timestamp.h>

#include "PluginFixture.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;

const std::string gimbal = "\"{71003D6A-4AA2-4C11-A8EA-A4971EDECEB8}\"";
const std::string ownGuid = R"("guid":"{D639B3D5-A951-4BC7-A629-91255EBF9638}")";

class Publishing : public vlm::test::PluginFixture {
protected:
    void publish(const std::string& payload, const std::string& api, const std::string& topic = "/ground")
    {
        Access::publish(*plugin, payload, topic, api);
    }
    /// A bus message with its clock and process-wide sequence blanked out.
    static std::string shape(const std::string& message)
    {
        return std::regex_replace(message, std::regex(R"("time_stamp":\d+|"seq":\d+)"), "#");
    }
};

// Every published answer but a heartbeat is a record for the record plug-in;
// telemetry is published only while the pilot link is up.
TEST_F(Publishing, AnswersAreRecordedAndTelemetryIsGatedOnThePilotLink)
{
    publish(R"({"k":1})", "getVersionInfo", "/velmora/pilot/x/cmd");
    publish("{}", "heartBeat");
    publish(R"({"alt":1})", "pushTelemetry");
    state().pilotConnected = true;
    publish(R"({"alt":2})", "pushTelemetry");
    const auto pubs = mqtt->publications();
    ASSERT_EQ(pubs.size(), 3u);
    EXPECT_EQ(std::vector<int>({pubs[0].qos, pubs[0].retained, pubs[0].waitSeconds, pubs[1].qos, pubs[2].qos}),
              std::vector<int>({2, 0, 1, 2, 0}));
    EXPECT_EQ(pubs[2].payload, R"({"alt":2})");
    ASSERT_EQ(bus.all().size(), 2u);
    const std::string record = bus.all()[0];
    std::smatch stamp;
    ASSERT_TRUE(std::regex_search(record, stamp, std::regex(R"("time_stamp":(\d+))")));
    EXPECT_NEAR(std::stod(stamp[1]), static_cast<double>(Poco::Timestamp().epochMicroseconds() / 1000), 5000.0);
    EXPECT_EQ(shape(record), R"({"api":"mrpAddRPRecord","interface":"mrpAddRPRecord","msg_id":901,"data":{"plan_id":)"
                             R"("UAV-1","topic":"/velmora/pilot/x/cmd","record":{"k":1},"type":"pcservice",#},)" +
                                 ownGuid + R"(,#,"to":["{DCC1BA68-6C63-46EB-ADEF-7B05F95F2F30}"]})");
    EXPECT_EQ(parseObject(bus.all()[1])->getObject("data")->getObject("record")->getValue<int>("alt"), 2);
}

TEST_F(Publishing, AMalformedPayloadIsLoggedAndStillPublished)
{
    LogCapture log;
    publish("not json", "getVersionInfo");
    ASSERT_EQ(mqtt->publications().size(), 1u);
    EXPECT_EQ(mqtt->publications()[0].payload, "not json");
    // Once when its status is read, once when it would be handed on as a
    // record, which it then is not.
    EXPECT_EQ(log.errors("JSON Exception: expected 'u' instead of byte 'o'"), 2);
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_TRUE(bus.all().empty());
}

TEST_F(Publishing, MessagesToOtherPluginsHaveTheirFixedShape)
{
    LogCapture log;
    Access::notifyLinkType(*plugin, 1);
    EXPECT_EQ(log.infos("notifyLinkTypeChange linkType: 1"), 1);
    // The upload plug-in's record names the gimbal twice for this one API, as it always has.
    for (const char* api : {"uploadGuid", "uploadGuidX"})
        Access::record(*plugin, 4, *parseObject(R"({"v":1})"), "/t", api);
    const auto sent = bus.all();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0], R"({"api":"switchLink","data":{"linkType":1},"guid":"CDEB0338-FF61-4B9D-B93E-7E88565EBEA6",)"
                       R"("interface":"switchLink","msg_id":900,"seq":1,"to":[)" + gimbal +
                           R"(,"{D639B3D5-A951-4BC7-A629-91255EBF9638}","{681DBCD6-9F8D-4482-951A-B8A73E0E3865}",)"
                           R"("{71003D6A-4BB2-4C11-A8EA-A4971EDECEB9}"]})");
    auto uploadRecord = [](const std::string& api, const std::string& to) {
        return R"({"api":")" + api + R"(","interface":")" + api + R"(","msg_id":5,"data":{"v":1},)" + ownGuid +
               R"(,#,"to":[)" + to + R"(,"{9A6A04EC-D218-4815-8E88-6DC545D492C8}"]})";
    };
    EXPECT_EQ(shape(sent[1]), uploadRecord("uploadGuid", gimbal + "," + gimbal));
    EXPECT_EQ(shape(sent[2]), uploadRecord("uploadGuidX", gimbal));
}

} // namespace
