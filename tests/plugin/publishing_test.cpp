#include <Poco/Timestamp.h>

#include "PluginFixture.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::expectFields;
using vlm::test::LogCapture;
using vlm::test::parseObject;

class Publishing : public vlm::test::PluginFixture {
protected:
    void publish(const std::string& payload, const std::string& api, const std::string& topic = "/t")
    {
        Access::publish(*plugin, payload, topic, api);
    }
    std::map<std::string, int> statuses()
    {
        std::lock_guard<std::mutex> lock(state().publishMutex);
        return state().responseStatus;
    }
    static std::string answer(const std::string& msgId, int code)
    {
        return R"({"message":{"msgId":")" + msgId + R"(","code":)" + std::to_string(code) + "}}";
    }
};

TEST_F(Publishing, RecordsTheStatusOfEachAnsweredMessage)
{
    publish(answer("7", 200), "pushRoute");
    EXPECT_EQ(statuses().at("7"), 1);
    publish(answer("7", 500), "pushRoute");
    EXPECT_EQ(statuses().at("7"), 2);
    publish(R"({"message":{"msgId":"8"}})", "pushRoute");  // no code: not a success
    EXPECT_EQ(statuses().at("8"), 2);
    publish(answer("9", 200), "heartBeat");  // heartbeats and telemetry are not answers
    publish(answer("10", 200), "pushTelemetry");
    EXPECT_EQ(statuses().size(), 2u);
}

TEST_F(Publishing, KeepsTwentyStatusesDroppingTheSmallestKeyFirst)
{
    for (int id = 10; id <= 30; ++id)
        publish(answer(std::to_string(id), 200), "pushRoute");
    auto map = statuses();
    EXPECT_EQ(map.size(), 20u);
    EXPECT_EQ(map.count("10"), 0u);
    EXPECT_EQ(map.begin()->first, "11");

    // By string order "10" sorts before "9", so it goes first even though it came last.
    {
        std::lock_guard<std::mutex> lock(state().publishMutex);
        state().responseStatus.clear();
    }
    for (int id = 0; id < 19; ++id)
        publish(answer("a" + std::to_string(id), 200), "pushRoute");
    publish(answer("9", 200), "pushRoute");
    publish(answer("10", 200), "pushRoute");
    map = statuses();
    EXPECT_EQ(map.count("9"), 1u);
    EXPECT_EQ(map.count("10"), 0u);
}

TEST_F(Publishing, QualityOfServiceAndTheRecordHandOn)
{
    publish(R"({"k":1})", "getVersionInfo", "/ground");
    publish("{}", "heartBeat", "/ground");
    const auto pubs = mqtt->publications();
    ASSERT_EQ(pubs.size(), 2u);
    EXPECT_EQ(std::vector<int>({pubs[0].qos, pubs[0].retained, pubs[0].waitSeconds, pubs[1].qos}),
              std::vector<int>({2, 0, 1, 2}));
    // Only the ordinary answer is handed on as a record; the heartbeat is not.
    ASSERT_EQ(bus.all().size(), 1u);
    auto record = parseObject(bus.all()[0]);
    expectFields(record, {{"api", "mrpAddRPRecord"}});
    expectFields(record->getObject("data"), {{"topic", "/ground"}});
    EXPECT_EQ(record->getObject("data")->getObject("record")->getValue<int>("k"), 1);
}

TEST_F(Publishing, TelemetryIsGatedOnThePilotLink)
{
    publish(R"({"alt":1})", "pushTelemetry");
    EXPECT_TRUE(mqtt->publications().empty());
    EXPECT_TRUE(bus.all().empty());
    EXPECT_FALSE(state().telemetryPublished);

    state().pilotConnected = true;
    publish(R"({"alt":2})", "pushTelemetry");
    ASSERT_EQ(mqtt->publications().size(), 1u);
    EXPECT_EQ(mqtt->publications()[0].qos, 0);
    EXPECT_TRUE(state().telemetryPublished);
    EXPECT_GT(state().lastTelemetryTime.load(), 0);
    EXPECT_EQ(bus.all().size(), 1u);
}

TEST_F(Publishing, AFailedRouteMissionIsKeptOnlyForThatExactApi)
{
    LogCapture log;
    mqtt->publishSucceeds = false;
    publish("{}", "uploadRouteMission", "/ground");
    publish("{}", "uploadRouteMissionV2", "/ground");
    std::lock_guard<std::mutex> lock(state().publishMutex);
    ASSERT_EQ(state().failedRouteMissions.size(), 1u);
    EXPECT_EQ(state().failedRouteMissions[0].topic + " " + state().failedRouteMissions[0].api,
              "/ground uploadRouteMission");
    EXPECT_EQ(log.infos("mqtt publishMessage api:uploadRouteMission, failed!"), 1);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(bus.all().empty());
}

TEST_F(Publishing, AMalformedPayloadIsLoggedAndStillPublished)
{
    LogCapture log;
    publish("not json", "getVersionInfo");
    ASSERT_EQ(mqtt->publications().size(), 1u);
    EXPECT_EQ(mqtt->publications()[0].payload, "not json");
    // Once when its status is read, once when it would be handed on as a
    // record, which it then is not.
    const std::string error = "JSON Exception: expected 'u' instead of byte 'o'";
    EXPECT_EQ(log.errors(error), 2);
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_TRUE(bus.all().empty());
}

class Records : public vlm::test::PluginFixture {
protected:
    Poco::JSON::Object::Ptr send(int kind, const std::string& api, const std::string& topic = "/t")
    {
        const size_t before = bus.all().size();
        Poco::JSON::Object object;
        object.set("v", 1);
        Access::record(*plugin, kind, object, topic, api);
        if (bus.all().size() == before)
            return nullptr;
        return parseObject(bus.all().back());
    }
    static std::vector<std::string> receivers(const Poco::JSON::Object::Ptr& message)
    {
        std::vector<std::string> to;
        for (const auto& v : *message->getArray("to"))
            to.push_back(v.convert<std::string>());
        return to;
    }
};

TEST_F(Records, KindThreeIsARecordForTheRecordPlugin)
{
    auto m = send(3, "", "/velmora/pilot/x/cmd");
    ASSERT_TRUE(m);
    expectFields(m, {{"api", "mrpAddRPRecord"},
                     {"interface", "mrpAddRPRecord"},
                     {"guid", "{D639B3D5-A951-4BC7-A629-91255EBF9638}"}});
    EXPECT_EQ(m->getValue<int>("msg_id"), 901);
    EXPECT_EQ(receivers(m), std::vector<std::string>{"{DCC1BA68-6C63-46EB-ADEF-7B05F95F2F30}"});
    auto data = m->getObject("data");
    expectFields(data, {{"type", "pcservice"}, {"topic", "/velmora/pilot/x/cmd"}, {"plan_id", "UAV-1"}});
    EXPECT_EQ(data->getObject("record")->getValue<int>("v"), 1);
    const auto nowMs = Poco::Timestamp().epochMicroseconds() / 1000;
    EXPECT_NEAR(static_cast<double>(data->getValue<uint64_t>("time_stamp")), static_cast<double>(nowMs), 5000.0);
}

TEST_F(Records, KindFourAddressesTheUploadPluginTwiceOnlyForUploadGuid)
{
    const std::string gimbal = "{71003D6A-4AA2-4C11-A8EA-A4971EDECEB8}";
    const std::string upload = "{9A6A04EC-D218-4815-8E88-6DC545D492C8}";
    auto m = send(4, "uploadGuid");
    ASSERT_TRUE(m);
    EXPECT_EQ(receivers(m), (std::vector<std::string>{gimbal, gimbal, upload}));
    EXPECT_EQ(m->getValue<int>("msg_id"), 5);
    EXPECT_EQ(m->getValue<std::string>("interface"), "uploadGuid");
    m = send(4, "uploadGuidX");
    EXPECT_EQ(receivers(m), (std::vector<std::string>{gimbal, upload}));
}

TEST_F(Records, SequenceRisesByOneAndUnknownKindsSendNothing)
{
    auto first = send(2, "");
    auto second = send(1, "");
    ASSERT_TRUE(first && second);
    EXPECT_EQ(second->getValue<uint32_t>("seq"), first->getValue<uint32_t>("seq") + 1);
    EXPECT_EQ(first->getValue<std::string>("api"), "sendGimbalControlCmd102");
    EXPECT_EQ(second->size(), 3u);  // kind 1: guid, seq and an empty "to" only
    EXPECT_EQ(receivers(second).size(), 0u);
    EXPECT_FALSE(send(0, ""));
    EXPECT_FALSE(send(5, ""));
}

class LinkType : public vlm::test::PluginFixture {};

TEST_F(LinkType, ReadsTheLinkOutOfARequest)
{
    LogCapture log;
    EXPECT_EQ(Access::linkTypeOf(*plugin, *parseObject(R"({"message":{"data":{"link":2}}})")), 2u);
    EXPECT_EQ(Access::linkTypeOf(*plugin, *parseObject(R"({"message":{"data":{}}})")), 0u);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(Access::linkTypeOf(*plugin, *parseObject(R"({"message":{}})")), 0u);
    EXPECT_EQ(log.errors("request not exist data"), 1);
    EXPECT_EQ(Access::linkTypeOf(*plugin, *parseObject(R"({})")), 0u);
    EXPECT_EQ(log.errors("request not exist message"), 1);
}

TEST_F(LinkType, NoticeHasItsFixedShapeAndReceiverOrder)
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

    plugin->setCallback(nullptr);
    Access::notifyLinkType(*plugin, 2);
    EXPECT_EQ(log.infos("notifyLinkTypeChange linkType: 2"), 1);
}

TEST_F(LinkType, OnlineReportsAreLoggedWithTheCurrentLinkType)
{
    LogCapture log;
    state().linkType = 3;
    Access::vehicleOnline(*plugin, "online");
    EXPECT_EQ(log.infos("vehicleOnlineStatus online linktype: 3"), 1);
}

} // namespace
