#include <regex>

#include <Poco/Timestamp.h>

#include "PluginFixture.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::expectFields;
using vlm::test::LogCapture;
using vlm::test::parseObject;

class Publishing : public vlm::test::PluginFixture {
protected:
    void publish(const std::string& payload, const std::string& api, const std::string& topic = "/ground")
    {
        Access::publish(*plugin, payload, topic, api);
    }
    static std::vector<std::string> receivers(const Poco::JSON::Object::Ptr& message)
    {
        std::vector<std::string> to;
        for (const auto& v : *message->getArray("to"))
            to.push_back(v.convert<std::string>());
        return to;
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
    // The record plug-in's message, in its member order; only the clock and
    // the process-wide sequence vary.
    const std::string record = bus.all()[0];
    std::smatch stamp;
    ASSERT_TRUE(std::regex_search(record, stamp, std::regex(R"("time_stamp":(\d+))")));
    EXPECT_NEAR(std::stod(stamp[1]), static_cast<double>(Poco::Timestamp().epochMicroseconds() / 1000), 5000.0);
    EXPECT_EQ(std::regex_replace(record, std::regex(R"("time_stamp":\d+|"seq":\d+)"), "#"),
              R"({"api":"mrpAddRPRecord","interface":"mrpAddRPRecord","msg_id":901,"data":{"plan_id":"UAV-1",)"
              R"("topic":"/velmora/pilot/x/cmd","record":{"k":1},"type":"pcservice",#},)"
              R"("guid":"{D639B3D5-A951-4BC7-A629-91255EBF9638}",#,"to":["{DCC1BA68-6C63-46EB-ADEF-7B05F95F2F30}"]})");
    EXPECT_EQ(parseObject(bus.all()[1])->getObject("data")->getObject("record")->getValue<int>("alt"), 2);
}

TEST_F(Publishing, AFailedRouteMissionIsKeptOnlyForThatExactApi)
{
    LogCapture log;
    mqtt->publishSucceeds = false;
    publish("{}", "uploadRouteMission");
    publish("{}", "uploadRouteMissionV2");
    EXPECT_EQ(log.infos("mqtt publishMessage api:uploadRouteMission, failed!"), 1);
    EXPECT_EQ(log.lines().size(), 1u);  // a name that merely begins alike logs nothing
    EXPECT_TRUE(bus.all().empty());
    std::lock_guard<std::mutex> lock(state().publishMutex);
    EXPECT_EQ(state().failedRouteMissions.size(), 1u);
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
    ASSERT_EQ(bus.all().size(), 1u);
    EXPECT_EQ(bus.all()[0],
              R"({"api":"switchLink","data":{"linkType":1},"guid":"CDEB0338-FF61-4B9D-B93E-7E88565EBEA6",)"
              R"("interface":"switchLink","msg_id":900,"seq":1,"to":["{71003D6A-4AA2-4C11-A8EA-A4971EDECEB8}",)"
              R"("{D639B3D5-A951-4BC7-A629-91255EBF9638}","{681DBCD6-9F8D-4482-951A-B8A73E0E3865}",)"
              R"("{71003D6A-4BB2-4C11-A8EA-A4971EDECEB9}"]})");
    EXPECT_EQ(log.infos("notifyLinkTypeChange linkType: 1"), 1);

    // The upload plug-in's record: the doubled receiver is kept.
    Access::record(*plugin, 4, *parseObject(R"({"v":1})"), "/t", "uploadGuid");
    Access::record(*plugin, 4, *parseObject(R"({"v":1})"), "/t", "uploadGuidX");
    ASSERT_EQ(bus.all().size(), 3u);
    auto m = parseObject(bus.all()[1]);
    expectFields(m, {{"api", "uploadGuid"}, {"interface", "uploadGuid"}});
    EXPECT_EQ(m->getValue<int>("msg_id"), 5);
    const std::string gimbal = "{71003D6A-4AA2-4C11-A8EA-A4971EDECEB8}";
    const std::string upload = "{9A6A04EC-D218-4815-8E88-6DC545D492C8}";
    EXPECT_EQ(receivers(m), (std::vector<std::string>{gimbal, gimbal, upload}));
    EXPECT_EQ(receivers(parseObject(bus.all()[2])), (std::vector<std::string>{gimbal, upload}));
    EXPECT_EQ(parseObject(bus.all()[2])->getValue<uint32_t>("seq"), m->getValue<uint32_t>("seq") + 1);
}

} // namespace
