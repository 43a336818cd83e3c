#include "PluginFixture.h"
#include "ThreadPool.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;
using Publication = vlm::test::RecordingMqttClient::Publication;

const std::string groundTopicZero = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";
const std::string groundTopicOther = "/velmora/pilot/C5E96E6B-8087-4F06-944F-025A84F27DE4/station-1/cmd";

class EventDispatch : public vlm::test::PluginFixture {
protected:
    void dispatch(const std::string& topic, const std::string& data) { Access::dispatch(*plugin, topic, data); }

    static auto onTopic(const std::string& topic)
    {
        return [topic](const Publication& p) { return p.topic == topic; };
    }
};

TEST_F(EventDispatch, TelemetryFrequencyIsOffsetAndClamped)
{
    LogCapture log;
    const std::pair<const char*, int> cases[] = {{"150", 50},  {"100", 100},   {"50", 100},   {"abc", 100},
                                                 {"1100", 900}, {"5000", 900}, {"1099", 999}, {"101", 1},
                                                 {"-2147483648", 100}};
    for (const auto& [text, expected] : cases) {
        dispatch("setTelemFrequency", text);
        EXPECT_EQ(state().telemFrequency.load(), expected) << text;
        EXPECT_EQ(log.infos("setTelemFrequency: " + std::to_string(expected)), 1)
            << text;
        log.clear();
    }
    EXPECT_TRUE(mqtt->publications().empty());
}

TEST_F(EventDispatch, PilotConnectionFollowsOnlyTheExactTexts)
{
    LogCapture log;
    dispatch("pilotConnectState", "true");
    EXPECT_TRUE(state().pilotConnected);
    EXPECT_EQ(log.infos("pilot connected!"), 1);

    state().telemetryPublished = true;
    for (const char* ignored : {"TRUE", "1", "false ", ""}) {
        dispatch("pilotConnectState", ignored);
        EXPECT_TRUE(state().pilotConnected) << ignored;
        EXPECT_TRUE(state().telemetryPublished) << ignored;
    }
    dispatch("pilotConnectState", "false");
    EXPECT_FALSE(state().pilotConnected);
    EXPECT_FALSE(state().telemetryPublished);
    EXPECT_EQ(log.infos("pilot disconnected!"), 1);
    EXPECT_TRUE(mqtt->publications().empty());
}

TEST_F(EventDispatch, SerialNumberChangesOnlyForANewNonEmptyText)
{
    dispatch("pushUavSn", "");
    EXPECT_EQ(state().getPilotId(), "UAV-1");
    dispatch("pushUavSn", "UAV-2");
    EXPECT_EQ(state().getPilotId(), "UAV-2");
    EXPECT_TRUE(mqtt->publications().empty());
}

TEST_F(EventDispatch, VehicleDataGoesVerbatimToThePilotOutTopic)
{
    dispatch("uavData2MaterCtl", "raw bytes, not JSON");
    ASSERT_TRUE(mqtt->waitFor(onTopic("/msg/pilot/UAV-1/out")));
    const auto p = mqtt->publications().front();
    EXPECT_EQ(p.payload, "raw bytes, not JSON");
    EXPECT_EQ(p.qos, 0);
    EXPECT_EQ(p.retained, 0);
    EXPECT_EQ(p.waitSeconds, 1);
}

TEST_F(EventDispatch, ATopicContainingResponseToCloudIsPublishedWithoutEnvelope)
{
    state().appType = 1;  // the cloud topic always carries the first GUID
    dispatch("xresponseToCloudy", R"({"a":1})");
    ASSERT_TRUE(mqtt->waitFor(onTopic(groundTopicZero)));
    const auto p = mqtt->publications().front();
    EXPECT_EQ(p.payload, R"({"a":1})");
    EXPECT_EQ(p.qos, 2);
}

TEST_F(EventDispatch, ToMicroServiceGoesToTheBusWhenOneIsThereAndIsWrappedOtherwise)
{
    dispatch("toMicroService", R"({"to":"other"})");
    ASSERT_TRUE(bus.waitForCount(1));
    EXPECT_EQ(bus.all().front(), R"({"to":"other"})");
    EXPECT_TRUE(mqtt->publications().empty());

    plugin->setCallback(nullptr);
    dispatch("toMicroService", R"({"to":"other"})");
    ASSERT_TRUE(mqtt->waitFor(onTopic(groundTopicZero)));
    EXPECT_EQ(parseObject(mqtt->publications().front().payload)->getValue<std::string>("api"), "toMicroService");
}

TEST_F(EventDispatch, GeneralEventsAreWrappedInOrderWithARisingMessageId)
{
    dispatch("getVersionInfo", R"({"version":"1.2"})");
    dispatch("getVersionInfo", R"({"version":"1.3"})");
    ASSERT_TRUE(mqtt->waitFor(onTopic(groundTopicZero), 2));
    auto pubs = mqtt->publications();
    for (const auto& p : pubs) {
        EXPECT_EQ(p.qos, 2);
        // Keys in the order clients have always read them.
        EXPECT_EQ(p.payload.find(R"({"api":"getVersionInfo","type":"response","target":"/","from":"station-1",)"
                                 R"("pilot_id":"UAV-1","message":{)"),
                  0u)
            << p.payload;
    }
    long first = std::stol(parseObject(pubs[0].payload)->getValue<std::string>("msgId"));
    long second = std::stol(parseObject(pubs[1].payload)->getValue<std::string>("msgId"));
    EXPECT_EQ(std::abs(second - first), 1);
    auto message = parseObject(pubs[0].payload)->getObject("message");
    EXPECT_EQ(message->getValue<std::string>("id"), "UAV-1");
}

TEST_F(EventDispatch, AppTypeChoosesTheGroundTopicGuid)
{
    state().appType = 1;
    dispatch("heartBeat", "{}");
    EXPECT_TRUE(mqtt->waitFor(onTopic(groundTopicOther)));
}

TEST_F(EventDispatch, LocalBrokerOnLinkTypeOnePublishesNothing)
{
    state().localMqtt = true;
    state().linkType = 1;
    dispatch("heartBeat", "{}");
    // The link type is read when the hand-off runs, so let it run first.
    vlm::ThreadPool::defaultPool().joinAll();
    EXPECT_TRUE(mqtt->publications().empty());
    state().linkType = 2;
    dispatch("getVersionInfo", "{}");
    ASSERT_TRUE(mqtt->waitFor(onTopic(groundTopicZero)));
    const auto pubs = mqtt->publications();
    ASSERT_EQ(pubs.size(), 1u);
    EXPECT_EQ(parseObject(pubs[0].payload)->getValue<std::string>("api"), "getVersionInfo");
}

TEST_F(EventDispatch, FireSearchInfoIsARequestToTheEdgeMaster)
{
    LogCapture log;
    dispatch("fireSearchInfo", R"({"area":3})");
    const std::string edge = "/velmora/sma/FBE242B9-B226-4401-A340-36ABD4D753AD/edgeMaster/cmd";
    ASSERT_TRUE(mqtt->waitFor(onTopic(edge)));
    const auto p = mqtt->publications().front();
    EXPECT_EQ(p.qos, 2);
    EXPECT_EQ(parseObject(p.payload)->getValue<std::string>("type"), "request");
    EXPECT_EQ(mqtt->publications().size(), 1u);
}

TEST_F(EventDispatch, CachesTheLastAnswerPerApi)
{
    {
        std::lock_guard<std::mutex> lock(state().cacheMutex);
        state().lastProgress = "old progress";
    }
    dispatch("syncRoute", R"({"route":"done"})");
    dispatch("getRunInfo", R"({"run":1})");
    dispatch("pushTelemetry", R"({"alt":10})");
    std::lock_guard<std::mutex> lock(state().cacheMutex);
    EXPECT_EQ(state().lastRoute, R"({"route":"done"})");
    EXPECT_EQ(state().lastProgress, "");
    EXPECT_EQ(state().lastRunInfo, R"({"run":1})");
    EXPECT_EQ(state().lastTelemetry, R"({"alt":10})");
}

TEST_F(EventDispatch, MalformedEventsAreLoggedAndDropped)
{
    LogCapture log;
    dispatch("getVersionInfo", "{not json");
    dispatch("getVersionInfo", "[1,2]");  // not an object: wrapped as an empty message
    ASSERT_TRUE(mqtt->waitFor(onTopic(groundTopicZero)));
    EXPECT_EQ(mqtt->publications().size(), 1u);
    bool logged = false;
    for (const auto& line : log.lines())
        logged = logged || (line.text.rfind("getVersionInfo: ", 0) == 0 && line.priority == Poco::Message::PRIO_ERROR);
    EXPECT_TRUE(logged);
}

} // namespace
