#include <algorithm>
#include <map>
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
    // A fresh plug-in and MQTT recorder, started against the same service.
    void restart()
    {
        plugin->stop();
        plugin = vlm::PilotControlP::createInstance();
        mqtt = std::make_shared<vlm::test::RecordingMqttClient>("station-1");
        start();
    }

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

// The MQTT command topics of a station or pilot id, and of the alternate app GUID.
std::string commandTopic(const std::string& id, const char* kind = "pilot")
{
    return std::string("/velmora/") + kind + "/FBE242B9-B226-4401-A340-36ABD4D753AD/" + id + "/cmd";
}
const std::string alternateTopic = "/velmora/pilot/C5E96E6B-8087-4F06-944F-025A84F27DE4/station-1/cmd";

const std::vector<std::string> registeredTopics{
    "heartBeat", "pushTelemetry", "updateProgress", "getVersionInfo", "getRunInfo", "getBinInfo", "softUpload",
    "softUpdateStatus", "getUpdateProgress", "updateMagneticCompassCali", "uploadRouteMission", "pilotConnect",
    "pilotConnectState", "syncRoute", "pushRoute", "deleteWayPointList", "setTelemFrequency", "uploadGuid",
    "saveRouteMission", "requestBomb", "requestManCtrl", "uavData2MaterCtl", "fireSearchInfo", "pushUavSn",
    "fixedPointFollow", "responseToCloud", "toMicroService"};

TEST_F(StartedPlugin, StartAsksForTheSettingsAnnouncesItselfAndSubscribes)
{
    start();
    const auto calls = service.calls();
    std::vector<std::string> sequence;
    for (const auto& c : calls)
        sequence.push_back(c.name + (c.args.empty() ? "" : "(" + c.args[0] + (c.args.size() > 1 ? "," + c.args[1] : "") +
                                                                ")"));
    EXPECT_EQ(sequence, (std::vector<std::string>{
                            "getIntConfig(station.app_type)", "getStringConfig(vehicle.pilot_id)",
                            "getBoolConfig(vehicle.six_axis_ar_seat)", "getIntConfig(station.link_type)",
                            "pilotControlBase(station-1,setSelfGuid)", "reportRPCSub(true)"}));
    EXPECT_EQ(state().getPilotId(), "UAV-1");
    EXPECT_TRUE(state().localMqtt);

    // As the service receives them: the registration order, then the link's own.
    ASSERT_TRUE(waitForSubscriptions(28));
    auto expected = registeredTopics;
    expected.push_back("vehicleOnlineStatus");
    EXPECT_EQ(subscribedTopics(), expected);

    // A restarted service gets them all again, replayed in topic order.
    const auto before = service.service.connections();
    service.service.stop_listening();
    service.service.close_all_connections();
    service.service.resume_listening();
    std::sort(expected.begin(), expected.end());
    std::vector<std::string> replayed;
    for (int i = 0; i < 200 && replayed.size() < expected.size(); ++i) {
        service.service.wait_for_subscriber("vehicleOnlineStatus", std::chrono::milliseconds(50));
        for (auto id : service.service.connections())
            if (std::find(before.begin(), before.end(), id) == before.end() &&
                !service.service.subscriptions(id).empty())
                replayed = service.service.subscriptions(id);
    }
    EXPECT_EQ(replayed, expected);

    // The MQTT command topics, for app type 0.
    EXPECT_EQ(mqtt->subscribedTopics(), (std::vector<std::string>{commandTopic("station-1"), commandTopic("UAV-1"),
                                                                  commandTopic("UAV-1", "payload")}));

    // A second stop finds nothing left to release.
    plugin->stop();
    plugin->stop();
    EXPECT_EQ(state().callClient(), nullptr);
    EXPECT_EQ(state().subscriptionClient(), nullptr);
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

TEST_F(StartedPlugin, SeatAndAppTypeChooseTheCommandTopics)
{
    struct Case {
        bool seat;
        int appType;
        std::vector<std::string> topics;
    };
    const Case cases[] = {{true, 1, {"/station-1/pushTelemetry"}},
                          {false, 1, {alternateTopic}},
                          {true, 0, {"/station-1/pushTelemetry", commandTopic("UAV-1"), commandTopic("UAV-1", "payload")}}};
    for (const auto& c : cases) {
        service.boolSettings["vehicle.six_axis_ar_seat"] = c.seat;
        service.intSettings["station.app_type"] = c.appType;
        restart();
        EXPECT_EQ(mqtt->subscribedTopics(), c.topics) << c.seat << " " << c.appType;
        EXPECT_EQ(state().localMqtt, c.appType == 0);
    }
}

// The station's and the pilot's command topics coincide when the ids do; both
// subscriptions stay, each with its own side's routing.
TEST_F(StartedPlugin, AStationIdEqualToThePilotIdSubscribesOneTopicTwice)
{
    service.stringSettings["vehicle.pilot_id"] = "station-1";
    start();
    const std::string topic = commandTopic("station-1");
    EXPECT_EQ(mqtt->subscribedTopics(),
              (std::vector<std::string>{topic, topic, commandTopic("station-1", "payload")}));
    mqtt->deliver(topic, R"({"api":"getConfig","type":"request","msgId":"twice"})");
    ASSERT_TRUE(service.waitForCalls("telementry", 1));
    ASSERT_TRUE(service.waitForCalls("pilotControlBase", 2));  // setSelfGuid, then the cloud side's
    EXPECT_EQ(service.callsOf("pilotControlBase")[1].args[1], "publishToGround");
    EXPECT_EQ(service.callsOf("telementry")[0].args[1], "getConfig");
}

TEST_F(StartedPlugin, TheDestructorUnsubscribesTheTopicOfItsSeatAndAppType)
{
    struct Case {
        int seat;
        int appType;
        std::string topic;
    };
    const Case cases[] = {{0, 0, commandTopic("station-1")},
                          {0, 2, alternateTopic},
                          {1, 0, "/station-1/pushTelemetry"},
                          {1, 2, "/station-1/pushTelemetry"}};
    for (const auto& c : cases) {
        auto doomed = vlm::PilotControlP::createInstance();
        auto recorder = std::make_shared<vlm::test::RecordingMqttClient>("station-1");
        Access::setMqtt(*doomed, recorder);
        Access::impl(*doomed).setStationId("station-1");
        Access::impl(*doomed).sixAxisArSeat = c.seat;
        Access::impl(*doomed).appType = c.appType;
        LogCapture log;
        doomed.reset();
        EXPECT_EQ(recorder->unsubscribedTopics(), std::vector<std::string>{c.topic});
        EXPECT_EQ(log.infos("mqtt unsubscribe topic: " + c.topic), 1);
    }
}

// Every line names the host's logger and the plug-in as its source.
void expectPluginSource(const LogCapture& log)
{
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.logger, vlm::logName()) << line.text;
        EXPECT_EQ(line.source, "src/plugin/PilotControlP") << line.text;
    }
}

TEST_F(StartedPlugin, AServiceThatIsNotThereIsReportedAndStartGoesOn)
{
    const unsigned short port = service.port;
    service.service.stop();
    {
        LogCapture log;
        start();
        const std::string where = "address: 127.0.0.1, port: " + std::to_string(port);
        EXPECT_EQ(log.errors("pilot rpc connect to pilot control micro service failed, " + where), 1);
        EXPECT_EQ(log.errors("pilot subscribe rpc connect to pilot control micro service failed, " + where), 1);
        EXPECT_EQ(log.errors("rpc subscribe failed: timeout or deferred"), 1);
        EXPECT_EQ(log.lines().size(), 3u);
        expectPluginSource(log);
    }
    plugin->stop();
    LogCapture log;
    plugin->start(nullptr, mqtt, "not-an-address", port);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text.rfind("connect to pilot control micro service failed, address: not-an-address, port: " +
                                      std::to_string(port) + ", reason: ",
                                  0),
              0u)
        << lines[0].text;
    EXPECT_EQ(lines[1].text.rfind("rpc subscribe failed: ", 0), 0u) << lines[1].text;
    expectPluginSource(log);
    EXPECT_TRUE(mqtt->subscribedTopics().empty());
}

// The broker keys are only read, but a host configuration without them is
// broken, and start says so before subscribing to anything.
TEST_F(StartedPlugin, AMissingBrokerKeyEndsStartBeforeAnySubscription)
{
    for (const char* key : {"mqtt.server_uri", "mqtt.user_name", "mqtt.pawsswd"}) {
        vlm::configInstance().remove(key);
        LogCapture log;
        restart();
        vlm::configInstance().setString(key, "");
        EXPECT_EQ(log.errors(std::string("rpc subscribe failed: Not found: ") + key), 1);
        EXPECT_TRUE(mqtt->subscribedTopics().empty()) << key;
        EXPECT_TRUE(service.callsOf("reportRPCSub").empty()) << key;
    }
}

// Connected before the service told the pilot id: the first "pilotConnect"
// event asks for it, and only that event while the id is missing.
TEST_F(StartedPlugin, APilotConnectWithoutPilotIdAsksTheServiceForIt)
{
    start();
    ASSERT_EQ(service.callsOf("getStringConfig").size(), 1u);
    state().setPilotId("");
    Access::dispatch(*plugin, "heartBeat", "{}");
    EXPECT_EQ(service.callsOf("getStringConfig").size(), 1u);
    Access::dispatch(*plugin, "pilotConnect", "{}");
    EXPECT_EQ(state().getPilotId(), "UAV-1");
    const auto asked = service.callsOf("getStringConfig");
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[1].args, std::vector<std::string>{"vehicle.pilot_id"});
    Access::dispatch(*plugin, "pilotConnect", "{}");
    EXPECT_EQ(service.callsOf("getStringConfig").size(), 2u);
    auto onPilotConnect = [](const auto& p) { return p.payload.find(R"("api":"pilotConnect")") != std::string::npos; };
    ASSERT_TRUE(mqtt->waitFor(onPilotConnect, 2));
    for (const auto& p : mqtt->publications()) {
        if (onPilotConnect(p)) {
            EXPECT_EQ(parseObject(p.payload)->getValue<std::string>("pilot_id"), "UAV-1");
        }
    }
}

// --- Messages of other plug-ins ---------------------------------------------

class BusIntake : public StartedPlugin {
protected:
    void SetUp() override
    {
        StartedPlugin::SetUp();
        start();
    }
    void push(const std::string& message) { plugin->pushMessage(message); }
    size_t forwardedCount()
    {
        const std::set<std::string> forwarding{"telementry", "flightControl", "microService",
                                               "firmwareUpdate", "project", "multiRotor"};
        size_t n = 0;
        for (const auto& c : service.calls())
            n += forwarding.count(c.name);
        return n;
    }
};

TEST_F(BusIntake, RoutesByTheNarrowRangesWithTheirArguments)
{
    push(R"({"api":"getConfig","x":1})");
    ASSERT_TRUE(service.waitForCalls("telementry", 1));
    EXPECT_EQ(service.callsOf("telementry")[0].args, (std::vector<std::string>{R"({"api":"getConfig","x":1})", "getConfig"}));
    push(R"({"api":"getPhotoCount"})");
    ASSERT_TRUE(service.waitForCalls("microService", 1));
    EXPECT_EQ(service.callsOf("microService")[0].args, std::vector<std::string>{R"({"api":"getPhotoCount"})"});

    // Each bound with its catalogue neighbours on both sides (numbers in brackets).
    const std::pair<const char*, const char*> cases[] = {
        {"pushTelemetry", "telementry"},      // [2]
        {"setGcsType", "telementry"},         // [3]
        {"getUavId", "telementry"},           // [23]
        {"payloadOnlineStatus", "telementry"},  // [24]
        {"pushRoute", "flightControl"},       // [27]
        {"syncRoute", "flightControl"},       // [28]
        {"sendSurfacePreTest", "flightControl"},  // [99]
        {"sendSurfaceTest", "flightControl"},     // [100]
        {"getVersionInfo", nullptr},          // [103]
        {"getHLT", nullptr},                  // [305]
        {"getDatDirPath", "microService"},    // [308]
        {"setJoystickConnectState", "microService"},  // [310]
    };
    std::map<std::string, std::set<std::string>> expected{{"telementry", {"getConfig"}},
                                                          {"flightControl", {}},
                                                          {"microService", {"getPhotoCount"}}};
    for (const auto& [api, category] : cases) {
        push(std::string(R"({"api":")") + api + R"("})");
        if (category)
            expected[category].insert(api);
    }
    push(R"({"api":"getConfig"})");  // a marker: everything before it was handled
    ASSERT_TRUE(service.waitForCalls("telementry", expected["telementry"].size() + 1));
    ASSERT_TRUE(service.waitForCalls("flightControl", expected["flightControl"].size()));
    ASSERT_TRUE(service.waitForCalls("microService", expected["microService"].size()));
    for (const auto& [category, apis] : expected) {
        std::set<std::string> seen;
        for (const auto& c : service.callsOf(category))
            seen.insert(parseObject(c.args[0])->getValue<std::string>("api"));
        EXPECT_EQ(seen, apis) << category;
    }
    EXPECT_EQ(forwardedCount(), 2 + std::size(cases) - 2 + 1);
}

TEST_F(BusIntake, UnknownApisPassSilentlyBadMessagesAreLoggedAndNothingGoesWithoutAClient)
{
    {
        LogCapture log;
        for (const char* m : {R"({"api":"noSuchApi"})", R"({"api":""})", R"({})", R"({"interface":"noSuchApi"})"})
            push(m);
        EXPECT_TRUE(log.lines().empty());
        push("not json");
        push(R"({"api":"fixedPointFollow","data":{"lat":"north"}})");
        int errors = 0;
        for (const auto& line : log.lines())
            errors += line.priority == Poco::Message::PRIO_ERROR ? 1 : 0;
        EXPECT_EQ(errors, 2);
    }
    push(R"({"api":"getConfig"})");
    ASSERT_TRUE(service.waitForCalls("telementry", 1));
    EXPECT_EQ(forwardedCount(), 1u);

    plugin->stop();
    LogCapture log;
    push(R"({"api":"getConfig"})");
    push(R"({"api":""})");
    EXPECT_EQ(log.errors("rpc client is null"), 2);
}

// A "microService" call gives up after 5 s, the others wait two minutes: an
// answer 5.6 s late still reaches the sender only for the latter.
TEST_F(BusIntake, OnlyMicroServiceCallsGiveUpAfterFiveSeconds)
{
    service.respondWith([](const std::string& procedure, const std::vector<std::string>&) {
        return R"({"guid":"{SENDER}","message":")" + procedure + R"("})";
    });
    service.service.delay_answers("microService", std::chrono::milliseconds(5600));
    service.service.delay_answers("flightControl", std::chrono::milliseconds(5600));
    push(R"({"api":"getPhotoCount"})");
    push(R"({"api":"pushRoute"})");
    ASSERT_TRUE(bus.waitForCount(1, std::chrono::seconds(20)));
    EXPECT_FALSE(bus.waitForCount(2, std::chrono::seconds(1)));
    EXPECT_EQ(bus.all(), std::vector<std::string>{R"({"guid":"{SENDER}","message":"flightControl"})"});
    EXPECT_EQ(service.callsOf("microService").size(), 1u);
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

} // namespace
