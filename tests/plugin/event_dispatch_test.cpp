#include <atomic>
#include <future>
#include <vector>

#include "LinkHealth.h"
#include "PluginFixture.h"
#include "ThreadPool.h"
#include "support/LogCapture.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::LogCapture;
using vlm::test::parseObject;
using Publication = vlm::test::RecordingMqttClient::Publication;

const std::string groundTopicZero = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";
const std::string groundTopicOther = "/velmora/pilot/C5E96E6B-8087-4F06-944F-025A84F27DE4/station-1/cmd";

class EventDispatch : public vlm::test::PluginFixture {
protected:
    void dispatch(const std::string& topic, const std::string& data) { Access::dispatch(*plugin, topic, data); }
    bool drained() { return Access::drainOutbound(*plugin, 10s); }
    std::vector<std::string> wrapped(const char* member)
    {
        std::vector<std::string> values;
        for (const auto& p : mqtt->publications())
            values.push_back(parseObject(p.payload)->getObject("message")->get(member).toString());
        return values;
    }
    static bool anyTopic(const Publication&) { return true; }
};

TEST_F(EventDispatch, StateEventsChangeOnlyTheirStateAndPublishNothing)
{
    LogCapture log;
    // The offset of 100 and the clamp to 100..900 are the service's own rule.
    const std::pair<const char*, int> frequencies[] = {
        {"150", 50}, {"100", 100}, {"abc", 100}, {"1100", 900}, {"1099", 999}, {"-2147483648", 100}};
    for (const auto& [text, expected] : frequencies) {
        dispatch("setTelemFrequency", text);
        EXPECT_EQ(state().telemFrequency.load(), expected) << text;
        EXPECT_EQ(log.infos("setTelemFrequency: " + std::to_string(expected)), 1) << text;
        log.clear();
    }
    dispatch("pilotConnectState", "true");
    state().telemetryPublished = true;
    for (const char* ignored : {"TRUE", "1", "false ", ""}) {
        dispatch("pilotConnectState", ignored);
        EXPECT_TRUE(state().pilotConnected && state().telemetryPublished) << ignored;
    }
    dispatch("pilotConnectState", "false");
    EXPECT_FALSE(state().pilotConnected || state().telemetryPublished);
    EXPECT_EQ(log.infos("pilot connected!"), 1);
    EXPECT_EQ(log.infos("pilot disconnected!"), 1);
    dispatch("pushUavSn", "UAV-2");
    dispatch("pushUavSn", "");  // an empty one changes nothing
    EXPECT_EQ(state().getPilotId(), "UAV-2");
    EXPECT_TRUE(mqtt->publications().empty());
}

TEST_F(EventDispatch, EachEventTakesItsRoute)
{
    LogCapture log;
    dispatch("toMicroService", R"({"to":"other"})");
    ASSERT_TRUE(bus.waitForCount(1));
    EXPECT_EQ(bus.all().front(), R"({"to":"other"})");
    plugin->setCallback(nullptr);
    const std::string edge = "/velmora/sma/FBE242B9-B226-4401-A340-36ABD4D753AD/edgeMaster/cmd";
    // Event, app type, topic, QoS, and whether it is wrapped or leaves verbatim.
    const std::tuple<const char*, int, std::string, int, bool> cases[] = {
        {"uavData2MaterCtl", 0, "/msg/pilot/UAV-1/out", 0, false},
        {"xresponseToCloudy", 1, groundTopicZero, 2, false},  // contains the name: the first GUID always
        {"heartBeat", 1, groundTopicOther, 2, true},
        {"toMicroService", 0, groundTopicZero, 2, true},  // without a bus it is wrapped like any event
        {"fireSearchInfo", 1, edge, 2, true}};
    size_t n = 0;
    for (const auto& [event, appType, topic, qos, wrap] : cases) {
        state().appType = appType;
        dispatch(event, wrap ? "{}" : "raw, not JSON");
        ASSERT_TRUE(mqtt->waitFor(anyTopic, ++n)) << event;
        const auto p = mqtt->publications().back();
        EXPECT_EQ(std::make_tuple(p.topic, p.qos, p.retained, p.waitSeconds), std::make_tuple(topic, qos, 0, 1));
        const std::string head =
            std::string(R"({"api":")") + event + R"(","type":")" + (topic == edge ? "request\"" : "response\"");
        EXPECT_EQ(p.payload.substr(0, wrap ? head.size() : std::string::npos), wrap ? head : "raw, not JSON");
    }
    // The edge master's line reports what the broker client answered.
    ASSERT_TRUE(drained());
    EXPECT_EQ(log.infos("topic: fireSearchInfo, msg: " + mqtt->publications().back().payload + ", ret: 1"), 1);
    mqtt->publishSucceeds = false;
    dispatch("fireSearchInfo", "{}");
    ASSERT_TRUE(drained());
    EXPECT_EQ(log.infos("topic: fireSearchInfo, msg: " + mqtt->publications().back().payload + ", ret: 0"), 1);
}

// The counter is process-wide, so only a fresh process shows its first value.
TEST_F(EventDispatch, TheFirstEnvelopeOfAProcessCarriesMessageIdZero)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            dispatch("heartBeat", "{}");
            const bool published = mqtt->waitFor(anyTopic);
            vlm::ThreadPool::defaultPool().joinAll();
            const bool zero =
                published && parseObject(mqtt->publications().front().payload)->getValue<std::string>("msgId") == "0";
            std::_Exit(zero ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
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
    const bool published = mqtt->waitFor(anyTopic);
    release.set_value();
    ASSERT_TRUE(published);
    EXPECT_EQ(parseObject(mqtt->publications().front().payload)->getObject("message")->getValue<int>("v"), 1);
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

TEST_F(EventDispatch, LocalBrokerOnLinkTypeOnePublishesNothing)
{
    state().localMqtt = true;
    state().linkType = 1;
    dispatch("heartBeat", "{}");
    // The link type is read when the hand-off runs, on the pool or, when the
    // pool is full, on the outbound worker: let both run first.
    vlm::ThreadPool::defaultPool().joinAll();
    ASSERT_TRUE(drained());
    EXPECT_TRUE(mqtt->publications().empty());
    state().linkType = 2;
    dispatch("getVersionInfo", "{}");
    ASSERT_TRUE(mqtt->waitFor(anyTopic));
    vlm::ThreadPool::defaultPool().joinAll();
    EXPECT_EQ(mqtt->publications().size(), 1u);
}

// Events (telemetry positions, route progress) leave in the order the service
// sent them, though each may find a different pool thread free.
TEST_F(EventDispatch, WrappedEventsLeaveOneAtATimeInArrivalOrderAndMalformedOnesAreDropped)
{
    LogCapture log;
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
    dispatch("getVersionInfo", R"({"seq":1})");
    const bool entered = hold->entered.get_future().wait_for(10s) == std::future_status::ready;
    const bool poolFree = vlm::ThreadPool::defaultPool().hasFreeThread();
    dispatch("getVersionInfo", "{not json");
    for (int seq = 2; seq <= 4; ++seq)
        dispatch("getVersionInfo", R"({"seq":)" + std::to_string(seq) + "}");
    // Nothing may overtake the first event while its publication is held.
    const bool overtaken = mqtt->waitFor(anyTopic, 1, 300ms);
    hold->release.set_value();
    ASSERT_TRUE(entered);
    EXPECT_TRUE(poolFree);  // the later events could each have had a thread of their own
    EXPECT_FALSE(overtaken);
    ASSERT_TRUE(mqtt->waitFor(anyTopic, 4));
    EXPECT_EQ(wrapped("seq"), (std::vector<std::string>{"1", "2", "3", "4"}));
    EXPECT_EQ(wrapped("id"), std::vector<std::string>(4, "UAV-1"));
    const auto pubs = mqtt->publications();
    // Keys in the order clients have always read them.
    EXPECT_EQ(pubs[0].payload.find(R"({"api":"getVersionInfo","type":"response","target":"/","from":"station-1",)"
                                   R"("pilot_id":"UAV-1","message":{)"),
              0u)
        << pubs[0].payload;
    for (size_t i = 1; i < pubs.size(); ++i)
        EXPECT_EQ(std::stol(parseObject(pubs[i].payload)->getValue<std::string>("msgId")),
                  std::stol(parseObject(pubs[0].payload)->getValue<std::string>("msgId")) + static_cast<long>(i));
    EXPECT_EQ(log.errors("getVersionInfo: JSON Exception: expected 'u' instead of byte 'o'"), 1);
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

} // namespace
