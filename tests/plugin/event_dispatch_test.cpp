#include <atomic>
#include <future>
#include <vector>

#include "LinkHealth.h"
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
    std::vector<std::string> versions;
    std::vector<long> ids;
    for (const auto& p : mqtt->publications()) {
        EXPECT_EQ(p.qos, 2);
        // Keys in the order clients have always read them.
        EXPECT_EQ(p.payload.find(R"({"api":"getVersionInfo","type":"response","target":"/","from":"station-1",)"
                                 R"("pilot_id":"UAV-1","message":{)"),
                  0u)
            << p.payload;
        auto envelope = parseObject(p.payload);
        EXPECT_EQ(envelope->getObject("message")->getValue<std::string>("id"), "UAV-1");
        versions.push_back(envelope->getObject("message")->getValue<std::string>("version"));
        ids.push_back(std::stol(envelope->getValue<std::string>("msgId")));
    }
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(versions, (std::vector<std::string>{"1.2", "1.3"}));
    EXPECT_EQ(ids[1], ids[0] + 1);
}

// The counter is process-wide, so only a fresh process shows its first value.
TEST_F(EventDispatch, TheFirstEnvelopeOfAProcessCarriesMessageIdZero)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            dispatch("heartBeat", "{}");
            const bool published = mqtt->waitFor(onTopic(groundTopicZero));
            vlm::ThreadPool::defaultPool().joinAll();
            const bool zero =
                published && parseObject(mqtt->publications().front().payload)->getValue<std::string>("msgId") == "0";
            std::_Exit(zero ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
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
    // The link type is read when the hand-off runs, on the pool or, when the
    // pool is full, on the outbound worker: let both run first.
    vlm::ThreadPool::defaultPool().joinAll();
    ASSERT_TRUE(Access::drainOutbound(*plugin, std::chrono::seconds(10)));
    EXPECT_TRUE(mqtt->publications().empty());
    state().linkType = 2;
    dispatch("getVersionInfo", "{}");
    ASSERT_TRUE(mqtt->waitFor(onTopic(groundTopicZero)));
    const auto pubs = mqtt->publications();
    ASSERT_EQ(pubs.size(), 1u);
    EXPECT_EQ(parseObject(pubs[0].payload)->getValue<std::string>("api"), "getVersionInfo");
}

// The service's I/O thread must not wait for the broker: with every pool
// thread busy the envelope still leaves, through the outbound worker.
TEST_F(EventDispatch, WithThePoolFullEnvelopesStillLeave)
{
    auto& pool = vlm::ThreadPool::defaultPool();
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    for (int i = 0; i < 64 && pool.hasFreeThread(); ++i)
        pool.start([released] { released.wait_for(std::chrono::seconds(30)); });
    ASSERT_FALSE(pool.hasFreeThread());
    dispatch("getVersionInfo", R"({"v":1})");
    const bool published = mqtt->waitFor(onTopic(groundTopicZero));
    release.set_value();
    ASSERT_TRUE(published);
    EXPECT_EQ(parseObject(mqtt->publications().front().payload)->getObject("message")->getValue<int>("v"), 1);
}

// Telemetry positions must leave in the order the service sent them, though
// each event may find a different pool thread free.
TEST_F(EventDispatch, WrappedEventsLeaveOneAtATimeInArrivalOrder)
{
    using namespace std::chrono_literals;
    state().pilotConnected = true;  // telemetry is published only then
    // Shared with the publishing threads, which may outlive a failed test body.
    struct Hold {
        std::atomic<bool> first{true};
        std::promise<void> entered;
        std::promise<void> release;
        std::shared_future<void> released = release.get_future().share();
    };
    auto hold = std::make_shared<Hold>();
    mqtt->beforePublish = [hold](const std::string&) {
        if (hold->first.exchange(false)) {
            hold->entered.set_value();
            hold->released.wait_for(10s);
        }
    };
    auto telemetry = [](int seq) { return R"({"seq":)" + std::to_string(seq) + "}"; };
    dispatch("pushTelemetry", telemetry(1));
    const bool entered = hold->entered.get_future().wait_for(10s) == std::future_status::ready;
    const bool poolFree = vlm::ThreadPool::defaultPool().hasFreeThread();
    for (int seq = 2; seq <= 4; ++seq)
        dispatch("pushTelemetry", telemetry(seq));
    // Nothing may overtake the first position while its publication is held.
    const bool overtaken = mqtt->waitFor(onTopic(groundTopicZero), 1, 300ms);
    hold->release.set_value();
    ASSERT_TRUE(entered);
    EXPECT_TRUE(poolFree);  // the later events could each have had a thread of their own
    EXPECT_FALSE(overtaken);
    ASSERT_TRUE(mqtt->waitFor(onTopic(groundTopicZero), 4));
    std::vector<int> order;
    for (const auto& p : mqtt->publications())
        order.push_back(parseObject(p.payload)->getObject("message")->getValue<int>("seq"));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

// The ordered sequence's drops count where the outbound worker's do.
TEST_F(EventDispatch, DroppedWrappedEventsCountInTheHealthReport)
{
    for (int i = 0; i < 1025; ++i)  // one past the telemetry bound, nothing draining
        state().publications.push([] {}, vlm::OutboundClass::staleTelemetry, 1);
    auto instances = parseObject(vlm::describeLinkHealth())->getArray("instances");
    ASSERT_TRUE(instances && instances->size() > 0);
    auto counters = instances->getObject(static_cast<unsigned>(instances->size() - 1))->getObject("counters");
    EXPECT_EQ(counters->getValue<int>("stale_telemetry_dropped"), 1);
    EXPECT_EQ(counters->getValue<int>("event_publications_dropped"), 0);
    state().publications.drain();
}

TEST_F(EventDispatch, FireSearchInfoIsARequestToTheEdgeMaster)
{
    LogCapture log;
    const std::string edge = "/velmora/sma/FBE242B9-B226-4401-A340-36ABD4D753AD/edgeMaster/cmd";
    dispatch("fireSearchInfo", R"({"area":3})");
    ASSERT_TRUE(Access::drainOutbound(*plugin, std::chrono::seconds(10)));  // published and returned
    mqtt->publishSucceeds = false;
    dispatch("fireSearchInfo", R"({"area":4})");
    ASSERT_TRUE(Access::drainOutbound(*plugin, std::chrono::seconds(10)));  // the log line follows the publish
    const auto pubs = mqtt->publications();
    ASSERT_EQ(pubs.size(), 2u);
    for (size_t i = 0; i < pubs.size(); ++i) {
        EXPECT_EQ(pubs[i].qos, 2);
        EXPECT_EQ(pubs[i].retained, 0);
        EXPECT_EQ(pubs[i].waitSeconds, 1);
        EXPECT_EQ(parseObject(pubs[i].payload)->getValue<std::string>("type"), "request");
        // The line reports what the broker client answered.
        const std::string ret = i == 0 ? "1" : "0";
        EXPECT_EQ(log.infos("topic: fireSearchInfo, msg: " + pubs[i].payload + ", ret: " + ret), 1) << pubs[i].payload;
    }
}

TEST_F(EventDispatch, CachesTheLastAnswerPerApi)
{
    using Impl = vlm::PilotControlPImpl;
    struct Case {
        const char* topic;
        std::string Impl::*slot;
    };
    const Case cases[] = {{"pushTelemetry", &Impl::lastTelemetry},
                          {"pushRoute", &Impl::lastRoute},
                          {"syncRoute", &Impl::lastRoute},
                          {"deleteWayPointList", &Impl::lastRoute},
                          {"updateProgress", &Impl::lastProgress},
                          {"getRunInfo", &Impl::lastRunInfo},
                          {"getBinInfo", &Impl::lastBinInfo},
                          {"softUpload", &Impl::lastSoftUpload},
                          {"softUpdateStatus", &Impl::lastSoftUpdateStatus},
                          {"getUpdateProgress", &Impl::lastUpdateProgress},
                          {"updateMagneticCompassCali", &Impl::lastMagCompassCali}};
    std::string Impl::*const slots[] = {&Impl::lastTelemetry, &Impl::lastRoute, &Impl::lastProgress,
                                        &Impl::lastRunInfo, &Impl::lastBinInfo, &Impl::lastSoftUpload,
                                        &Impl::lastSoftUpdateStatus, &Impl::lastUpdateProgress,
                                        &Impl::lastMagCompassCali};
    auto snapshot = [&] {
        std::lock_guard<std::mutex> lock(state().cacheMutex);
        std::vector<std::string> values;
        for (auto slot : slots)
            values.push_back(state().*slot);
        return values;
    };
    LogCapture log;
    for (const auto& c : cases) {
        {
            std::lock_guard<std::mutex> lock(state().cacheMutex);
            for (auto slot : slots)
                state().*slot = "old";
        }
        const std::string text = std::string(R"({"from":")") + c.topic + R"("})";
        dispatch(c.topic, text);
        const bool route = c.slot == &Impl::lastRoute;
        std::vector<std::string> expected;
        for (auto slot : slots)
            expected.push_back(slot == c.slot ? text : route && slot == &Impl::lastProgress ? "" : "old");
        EXPECT_EQ(snapshot(), expected) << c.topic;
    }
    EXPECT_EQ(log.infos(R"(software res: {"from":"softUpload"})"), 1);
    // Other topics cache nothing.
    const auto before = snapshot();
    dispatch("getVersionInfo", R"({"v":1})");
    dispatch("heartBeat", "{}");
    EXPECT_EQ(snapshot(), before);
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
