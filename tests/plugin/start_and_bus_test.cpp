#include <regex>
#include <set>
#include <thread>

#include "PluginFixture.h"
#include "ScriptedService.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;
using vlm::test::ScriptedService;

// The plug-in started as a host starts it, against a scripted micro service.
class StartedPlugin : public vlm::test::PluginFixture {
protected:
    void SetUp() override
    {
        plugin->setCallback(bus.callback());
        vlm::configInstance().setString("mqtt.server_uri", "127.0.0.1:1883");
        vlm::configInstance().setString("mqtt.user_name", "");
        vlm::configInstance().setString("mqtt.pawsswd", "");
    }
    void TearDown() override
    {
        plugin->stop();
        PluginFixture::TearDown();
    }

    void start() { plugin->start(nullptr, mqtt, "127.0.0.1", service.port); }

    // Waits until the service has seen `count` subscription frames in all.
    bool waitForSubscriptions(size_t count)
    {
        return service.service.wait_for_frames(
            [count](const std::vector<pilot_rpc::received_frame>& frames) {
                size_t n = 0;
                for (const auto& f : frames)
                    n += f.frame_type == 1 ? 1 : 0;
                return n >= count;
            },
            std::chrono::seconds(5));
    }

    // Subscriptions of the subscription client: the connection that sent them.
    std::vector<std::string> subscribedTopics()
    {
        for (auto id : service.service.connections()) {
            auto topics = service.service.subscriptions(id);
            if (!topics.empty())
                return topics;
        }
        return {};
    }

    ScriptedService service;
};

TEST_F(StartedPlugin, StartAsksForTheSettingsAnnouncesItselfAndSubscribes)
{
    start();
    const auto calls = service.calls();
    std::vector<std::string> sequence;
    for (const auto& c : calls)
        sequence.push_back(c.name + (c.args.empty() ? "" : "(" + c.args[0] + (c.args.size() > 1 ? "," + c.args[1] : "") + ")"));
    EXPECT_EQ(sequence, (std::vector<std::string>{
                            "getIntConfig(station.app_type)", "getStringConfig(vehicle.pilot_id)",
                            "getBoolConfig(vehicle.six_axis_ar_seat)", "getIntConfig(station.link_type)",
                            "pilotControlBase(station-1,setSelfGuid)", "reportRPCSub(true)"}));
    EXPECT_EQ(state().getPilotId(), "UAV-1");
    EXPECT_TRUE(state().localMqtt);

    // 28 topics, in the order registered.
    ASSERT_TRUE(waitForSubscriptions(28));
    const auto topics = subscribedTopics();
    ASSERT_EQ(topics.size(), 28u);
    std::set<std::string> distinct(topics.begin(), topics.end());
    EXPECT_EQ(distinct.size(), 28u);
    for (const char* t : {"heartBeat", "pushTelemetry", "fixedPointFollow", "responseToCloud", "toMicroService",
                          "vehicleOnlineStatus", "pilotConnectState", "uavData2MaterCtl"})
        EXPECT_EQ(distinct.count(t), 1u) << t;
    EXPECT_EQ(topics.back(), "vehicleOnlineStatus");

    // The MQTT command topics, for app type 0.
    EXPECT_EQ(mqtt->subscribedTopics(),
              (std::vector<std::string>{"/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd",
                                        "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd",
                                        "/velmora/payload/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd"}));
}

TEST_F(StartedPlugin, AnEmptyStationGetsAGeneratedId)
{
    mqtt = std::make_shared<vlm::test::RecordingMqttClient>("");
    LogCapture log;
    start();
    const std::string id = state().getStationId();
    EXPECT_TRUE(std::regex_match(id, std::regex("velmora-[a-z0-9]{8}"))) << id;
    ASSERT_EQ(service.callsOf("pilotControlBase").size(), 1u);
    EXPECT_EQ(service.callsOf("pilotControlBase")[0].args[0], id);
    EXPECT_EQ(log.infos("report rpc subscribe done."), 1);
}

TEST_F(StartedPlugin, ASlowSettingsAnswerStopsStartBeforeAnySubscription)
{
    service.service.delay_answers("getBoolConfig", std::chrono::milliseconds(5600));
    LogCapture log;
    start();
    EXPECT_EQ(log.errors("rpc subscribe failed: timeout or deferred"), 1);
    EXPECT_TRUE(subscribedTopics().empty());
    EXPECT_TRUE(mqtt->subscribedTopics().empty());
    EXPECT_TRUE(service.callsOf("reportRPCSub").empty());
}

TEST_F(StartedPlugin, SixAxisSeatAndAppTypeChooseTheTelemetryTopicOnly)
{
    service.boolSettings["vehicle.six_axis_ar_seat"] = true;
    service.intSettings["station.app_type"] = 1;
    start();
    EXPECT_EQ(mqtt->subscribedTopics(), std::vector<std::string>{"/station-1/pushTelemetry"});
    EXPECT_FALSE(state().localMqtt);
}

TEST_F(StartedPlugin, StopTwiceIsHarmlessAndTheDestructorUnsubscribesTheCommandTopic)
{
    start();
    plugin->stop();
    plugin->stop();
    EXPECT_EQ(state().callClient(), nullptr);
    auto recorder = mqtt;
    LogCapture log;
    plugin.reset();
    const std::string topic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";
    EXPECT_EQ(recorder->unsubscribedTopics(), std::vector<std::string>{topic});
    EXPECT_EQ(log.infos("mqtt unsubscribe topic: " + topic), 1);
    plugin = vlm::PilotControlP::createInstance();  // for TearDown
}

TEST_F(StartedPlugin, EventsFromTheServiceReachTheDispatch)
{
    start();
    // Subscriptions travel on a connection of their own, apart from the calls
    // start() waited for.
    ASSERT_TRUE(service.service.wait_for_subscriber("vehicleOnlineStatus", std::chrono::seconds(5)));
    service.service.publish("pilotConnectState", "true");
    service.service.publish("pushTelemetry", R"({"alt":12.5})");
    ASSERT_TRUE(mqtt->waitFor([](const auto& p) { return p.payload.find("12.5") != std::string::npos; }));
    EXPECT_TRUE(state().pilotConnected);
    const auto telemetry = mqtt->publications().back();
    EXPECT_EQ(telemetry.qos, 0);
    EXPECT_EQ(parseObject(telemetry.payload)->getValue<std::string>("api"), "pushTelemetry");
}

// --- Messages of other plug-ins ---------------------------------------------

class BusIntake : public StartedPlugin {
protected:
    void SetUp() override
    {
        StartedPlugin::SetUp();
        start();
    }
    // Sends a bus message and waits until the service has seen `expected`
    // forwarded calls in all.
    void push(const std::string& message) { plugin->pushMessage(message); }
    size_t forwardedCount()
    {
        size_t n = 0;
        for (const auto& c : service.calls())
            n += (c.name == "telementry" || c.name == "flightControl" || c.name == "microService" ||
                  c.name == "firmwareUpdate" || c.name == "project" || c.name == "multiRotor")
                     ? 1
                     : 0;
        return n;
    }
};

TEST_F(BusIntake, RoutesByTheNarrowRangesWithTheirArguments)
{
    push(R"({"api":"getConfig","x":1})");
    ASSERT_TRUE(service.waitForCalls("telementry", 1));
    EXPECT_EQ(service.callsOf("telementry")[0].args, (std::vector<std::string>{R"({"api":"getConfig","x":1})", "getConfig"}));

    push(R"({"api":"pushRoute"})");
    ASSERT_TRUE(service.waitForCalls("flightControl", 1));
    EXPECT_EQ(service.callsOf("flightControl")[0].args[1], "pushRoute");

    push(R"({"api":"getPhotoCount"})");
    ASSERT_TRUE(service.waitForCalls("microService", 1));
    EXPECT_EQ(service.callsOf("microService")[0].args, std::vector<std::string>{R"({"api":"getPhotoCount"})"});

    // In the catalogue but outside the bus ranges, unknown, or empty: nothing.
    for (const char* m : {R"({"api":"getVersionInfo"})", R"({"api":"hangerImageTransSwitch"})",
                          R"({"api":"sendAbort"})", R"({"api":"noSuchApi"})", R"({"api":""})", R"({})"})
        push(m);
    push(R"({"api":"getConfig"})");  // a marker that everything before it was handled
    ASSERT_TRUE(service.waitForCalls("telementry", 2));
    EXPECT_EQ(forwardedCount(), 4u);
}

TEST_F(BusIntake, InterfaceWinsOverApi)
{
    push(R"({"api":"getConfig","interface":"pushRoute"})");
    ASSERT_TRUE(service.waitForCalls("flightControl", 1));
    EXPECT_EQ(service.callsOf("flightControl")[0].args[1], "pushRoute");
    EXPECT_TRUE(service.callsOf("telementry").empty());
}

TEST_F(BusIntake, FixedPointFollowGetsAPayloadActionOnlyForAPositiveLatitude)
{
    LogCapture log;
    push(R"({"api":"fixedPointFollow","data":{"lat":30.5}})");
    push(R"({"api":"fixedPointFollow","data":{"lat":0}})");
    push(R"({"api":"fixedPointFollow","data":{}})");
    ASSERT_TRUE(service.waitForCalls("flightControl", 3));
    auto calls = service.callsOf("flightControl");
    EXPECT_EQ(parseObject(calls[0].args[0])->getObject("data")->getValue<int>("payloadAction"), 1);
    EXPECT_EQ(calls[1].args[0], R"({"api":"fixedPointFollow","data":{"lat":0}})");
    EXPECT_EQ(calls[2].args[0], R"({"api":"fixedPointFollow","data":{}})");
    EXPECT_EQ(log.infos(R"(recv msg: {"api":"fixedPointFollow","data":{"lat":30.5}})"), 1);
}

TEST_F(BusIntake, AnswersGoBackToTheSenderRewrittenUnlessTheyNeverReturn)
{
    service.respondWith([](const std::string&, const std::vector<std::string>& args) {
        if (args.size() > 1 && args[1] == "getConfig")
            return std::string(R"({"guid":"{SENDER}","message":{"ok":true}})");
        return std::string(R"({"guid":"{SENDER}","message":"plain"})");
    });
    push(R"({"api":"getConfig"})");
    ASSERT_TRUE(bus.waitForCount(1));
    auto answer = parseObject(bus.all()[0]);
    EXPECT_EQ(answer->getValue<std::string>("guid"), "{D639B3D5-A951-4BC7-A629-91255EBF9638}");
    EXPECT_EQ(answer->getArray("to")->getElement<std::string>(0), "{SENDER}");
    EXPECT_TRUE(answer->getObject("data")->getValue<bool>("ok"));
    EXPECT_TRUE(answer->getObject("message")->getValue<bool>("ok"));

    push(R"({"api":"setCommTeleRate"})");  // answered by the service, never returned
    push(R"({"api":"getUavId"})");         // a "message" that is a string comes back unchanged
    ASSERT_TRUE(bus.waitForCount(2));
    ASSERT_TRUE(service.waitForCalls("telementry", 3));
    EXPECT_EQ(bus.all()[1], R"({"guid":"{SENDER}","message":"plain"})");
    EXPECT_FALSE(bus.waitForCount(3, std::chrono::milliseconds(300)));
}

TEST_F(BusIntake, WithoutACallClientEveryMessageIsLoggedAndDropped)
{
    plugin->stop();
    LogCapture log;
    push(R"({"api":"getConfig"})");
    push(R"({"api":""})");
    EXPECT_EQ(log.errors("rpc client is null"), 2);
}

TEST_F(BusIntake, MalformedMessagesAreLoggedAndDropped)
{
    LogCapture log;
    push("not json");
    push(R"({"api":"fixedPointFollow","data":{"lat":"north"}})");
    int errors = 0;
    for (const auto& line : log.lines())
        errors += line.priority == Poco::Message::PRIO_ERROR ? 1 : 0;
    EXPECT_EQ(errors, 2);
}

} // namespace
