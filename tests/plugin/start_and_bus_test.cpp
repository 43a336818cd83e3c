#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "PluginFixture.h"
#include "ScriptedService.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;

// The plug-in started as a host starts it, against a scripted micro service.
class StartedPlugin : public vlm::test::PluginFixture {
protected:
    void SetUp() override
    {
        plugin->setCallback(bus.callback());
        for (const char* key : {"mqtt.server_uri", "mqtt.user_name", "mqtt.pawsswd"})
            vlm::configInstance().setString(key, "");
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
    // The subscriptions the service holds on a connection it accepted after `known`.
    std::vector<std::string> subscribedTopics(const std::vector<std::uint64_t>& known = {})
    {
        for (auto id : service.service.connections())
            if (std::find(known.begin(), known.end(), id) == known.end() && !service.service.subscriptions(id).empty())
                return service.service.subscriptions(id);
        return {};
    }
    vlm::test::ScriptedService service;
};

std::string commandTopic(const std::string& id, const char* kind = "pilot")
{
    return std::string("/velmora/") + kind + "/FBE242B9-B226-4401-A340-36ABD4D753AD/" + id + "/cmd";
}

TEST_F(StartedPlugin, StartReadsTheSettingsAnnouncesItselfAndSubscribesInRegistrationOrder)
{
    start();
    std::vector<std::string> sequence;
    for (const auto& c : service.calls())
        sequence.push_back(c.name + "(" + c.args.at(0) + (c.args.size() > 1 ? "," + c.args[1] : "") + ")");
    EXPECT_EQ(sequence, (std::vector<std::string>{
                            "getIntConfig(station.app_type)", "getStringConfig(vehicle.pilot_id)",
                            "getBoolConfig(vehicle.six_axis_ar_seat)", "getIntConfig(station.link_type)",
                            "pilotControlBase(station-1,setSelfGuid)", "reportRPCSub(true)"}));
    EXPECT_EQ(state().getPilotId(), "UAV-1");

    std::vector<std::string> expected{
        "heartBeat", "pushTelemetry", "updateProgress", "getVersionInfo", "getRunInfo", "getBinInfo", "softUpload",
        "softUpdateStatus", "getUpdateProgress", "updateMagneticCompassCali", "uploadRouteMission", "pilotConnect",
        "pilotConnectState", "syncRoute", "pushRoute", "deleteWayPointList", "setTelemFrequency", "uploadGuid",
        "saveRouteMission", "requestBomb", "requestManCtrl", "uavData2MaterCtl", "fireSearchInfo", "pushUavSn",
        "fixedPointFollow", "responseToCloud", "toMicroService", "vehicleOnlineStatus"};
    ASSERT_TRUE(service.service.wait_for_subscriber("vehicleOnlineStatus", std::chrono::seconds(5)));
    EXPECT_EQ(subscribedTopics(), expected);

    // A restarted service gets all 28 again, replayed in topic order.
    const auto before = service.service.connections();
    service.service.stop_listening();
    service.service.close_all_connections();
    service.service.resume_listening();
    std::sort(expected.begin(), expected.end());
    for (int i = 0; i < 200 && subscribedTopics(before).size() < expected.size(); ++i)
        service.service.wait_for_subscriber("vehicleOnlineStatus", std::chrono::milliseconds(50));
    EXPECT_EQ(subscribedTopics(before), expected);
}

// Seat and app type choose the MQTT command topics, and the destructor
// unsubscribes the first of them.
TEST_F(StartedPlugin, SeatAndAppTypeChooseTheCommandTopicsTheDestructorReleases)
{
    const std::string alternate = "/velmora/pilot/C5E96E6B-8087-4F06-944F-025A84F27DE4/station-1/cmd";
    const std::string seatTopic = "/station-1/pushTelemetry";
    const std::vector<std::string> pilotTopics{commandTopic("UAV-1"), commandTopic("UAV-1", "payload")};
    struct Case {
        bool seat;
        int appType;
        std::vector<std::string> topics;
    };
    const Case cases[] = {{false, 0, {commandTopic("station-1"), pilotTopics[0], pilotTopics[1]}},
                          {false, 2, {alternate}},
                          {true, 0, {seatTopic, pilotTopics[0], pilotTopics[1]}},
                          {true, 1, {seatTopic}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.seat) + " " + std::to_string(c.appType));
        service.boolSettings["vehicle.six_axis_ar_seat"] = c.seat;
        service.intSettings["station.app_type"] = c.appType;
        restart();
        EXPECT_EQ(mqtt->subscribedTopics(), c.topics);
        EXPECT_EQ(state().localMqtt, c.appType == 0);
        plugin->stop();
        LogCapture log;
        plugin = vlm::PilotControlP::createInstance();  // the started one goes
        EXPECT_EQ(mqtt->unsubscribedTopics(), std::vector<std::string>{c.topics[0]});
        EXPECT_EQ(log.infos("mqtt unsubscribe topic: " + c.topics[0]), 1);
    }
}

// Both subscriptions of the shared topic stay, each with its own side's routing.
TEST_F(StartedPlugin, AStationIdEqualToThePilotIdSubscribesOneTopicTwice)
{
    service.stringSettings["vehicle.pilot_id"] = "station-1";
    start();
    const std::string topic = commandTopic("station-1");
    EXPECT_EQ(mqtt->subscribedTopics(), (std::vector<std::string>{topic, topic, commandTopic("station-1", "payload")}));
    mqtt->deliver(topic, R"({"api":"getConfig","type":"request","msgId":"twice"})");
    ASSERT_TRUE(service.waitForCalls("telementry", 1));
    ASSERT_TRUE(service.waitForCalls("pilotControlBase", 2));  // setSelfGuid, then the cloud side's
    EXPECT_EQ(service.callsOf("pilotControlBase")[1].args[1], "publishToGround");
    EXPECT_EQ(service.callsOf("telementry")[0].args[1], "getConfig");
}

TEST_F(StartedPlugin, AnEmptyStationGetsAGeneratedId)
{
    mqtt = std::make_shared<vlm::test::RecordingMqttClient>("");
    start();
    const std::string id = state().getStationId();
    EXPECT_TRUE(std::regex_match(id, std::regex("velmora-[a-z0-9]{8}"))) << id;
    EXPECT_EQ(service.callsOf("pilotControlBase").at(0).args[0], id);
}

TEST_F(StartedPlugin, FailuresToReachTheServiceOrReadTheBrokerKeysAreLoggedAndStartGoesOn)
{
    const unsigned short port = service.port;
    const std::string where = "address: 127.0.0.1, port: " + std::to_string(port);
    auto expectSourceIsThePlugin = [](const LogCapture& log) {
        for (const auto& line : log.lines()) {
            EXPECT_EQ(line.logger, vlm::logName()) << line.text;
            EXPECT_EQ(line.source, "src/plugin/PilotControlP") << line.text;
        }
    };
    for (const char* key : {"mqtt.server_uri", "mqtt.user_name", "mqtt.pawsswd"}) {
        vlm::configInstance().remove(key);
        LogCapture log;
        restart();
        vlm::configInstance().setString(key, "");
        EXPECT_EQ(log.errors(std::string("rpc subscribe failed: Not found: ") + key), 1);
        EXPECT_TRUE(mqtt->subscribedTopics().empty()) << key;
        EXPECT_TRUE(service.callsOf("reportRPCSub").empty()) << key;
    }
    service.service.stop();
    plugin->stop();
    plugin = vlm::PilotControlP::createInstance();  // its destructor's lines are not start's
    LogCapture down;
    start();
    EXPECT_EQ(down.errors("pilot rpc connect to pilot control micro service failed, " + where), 1);
    EXPECT_EQ(down.errors("pilot subscribe rpc connect to pilot control micro service failed, " + where), 1);
    EXPECT_EQ(down.errors("rpc subscribe failed: timeout or deferred"), 1);
    EXPECT_EQ(down.lines().size(), 3u);
    expectSourceIsThePlugin(down);

    plugin->stop();
    LogCapture bad;
    plugin->start(nullptr, mqtt, "not-an-address", port);
    const auto lines = bad.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text.rfind("connect to pilot control micro service failed, address: not-an-address, port: " +
                                      std::to_string(port) + ", reason: ", 0), 0u) << lines[0].text;
    EXPECT_EQ(lines[1].text.rfind("rpc subscribe failed: ", 0), 0u) << lines[1].text;
    expectSourceIsThePlugin(bad);
    EXPECT_TRUE(mqtt->subscribedTopics().empty());
}

// Connected before the service told the pilot id: the first "pilotConnect"
// event asks for it, and only that event while the id is missing.
TEST_F(StartedPlugin, APilotConnectWithoutPilotIdAsksTheServiceForIt)
{
    start();
    state().setPilotId("");
    Access::dispatch(*plugin, "heartBeat", "{}");
    EXPECT_EQ(service.callsOf("getStringConfig").size(), 1u);
    Access::dispatch(*plugin, "pilotConnect", "{}");
    Access::dispatch(*plugin, "pilotConnect", "{}");
    EXPECT_EQ(state().getPilotId(), "UAV-1");
    const auto asked = service.callsOf("getStringConfig");
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[1].args, std::vector<std::string>{"vehicle.pilot_id"});
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
};

TEST_F(BusIntake, RoutesByTheCategoryRangesWithTheirArguments)
{
    // Each bound beside its catalogue neighbours (numbers in brackets).
    const std::pair<const char*, const char*> cases[] = {
        {"pushTelemetry", "telementry"},      {"setGcsType", "telementry"},          // [2] [3]
        {"getUavId", "telementry"},           {"payloadOnlineStatus", "telementry"}, // [23] [24]
        {"pushRoute", "flightControl"},       {"syncRoute", "flightControl"},        // [27] [28]
        {"sendSurfacePreTest", "flightControl"}, {"sendSurfaceTest", "flightControl"}, // [99] [100]
        {"getVersionInfo", ""},               {"getHLT", ""},                        // [103] [305]
        {"getDatDirPath", "microService"},    {"setJoystickConnectState", "microService"}}; // [308] [310]
    std::multiset<std::string> expected{"flightControl:pushRoute", "telementry:getConfig"};
    push(R"({"api":"getConfig","interface":"pushRoute"})");  // "interface" wins
    for (const auto& [api, category] : cases) {
        push(std::string(R"({"api":")") + api + R"("})");
        if (*category)
            expected.insert(std::string(category) + ":" + api);
    }
    push(R"({"api":"getConfig"})");  // a marker: everything before it was handled
    ASSERT_TRUE(service.waitForCalls("telementry", 5));
    std::multiset<std::string> seen;
    for (const auto& c : service.calls())
        if (c.name == "telementry" || c.name == "flightControl" || c.name == "microService")
            seen.insert(c.name + ":" +
                        (c.args.size() > 1 ? c.args[1] : parseObject(c.args[0])->getValue<std::string>("api")));
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(service.callsOf("telementry")[0].args,
              (std::vector<std::string>{R"({"api":"pushTelemetry"})", "pushTelemetry"}));
    EXPECT_EQ(service.callsOf("flightControl")[0].args[0], R"({"api":"getConfig","interface":"pushRoute"})");
    EXPECT_EQ(service.callsOf("microService")[0].args, std::vector<std::string>{R"({"api":"getDatDirPath"})"});
}

TEST_F(BusIntake, UnknownApisPassSilentlyBadMessagesAreLoggedAndNothingGoesWithoutAClient)
{
    const auto before = service.calls().size();
    LogCapture log;
    for (const char* m : {R"({"api":"noSuchApi"})", R"({"api":""})", R"({})", R"({"interface":"noSuchApi"})"})
        push(m);
    EXPECT_TRUE(log.lines().empty());
    push("not json");
    push(R"({"api":"fixedPointFollow","data":{"lat":"north"}})");
    const auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& l) { return l.priority == Poco::Message::PRIO_ERROR; }),
              2);
    push(R"({"api":"getConfig"})");  // a marker: only it is forwarded
    ASSERT_TRUE(service.waitForCalls("telementry", 1));
    EXPECT_EQ(service.calls().size(), before + 1);
    plugin->stop();
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

TEST_F(BusIntake, FixedPointFollowGetsAPayloadActionOnlyForAPositiveLatitude)
{
    LogCapture log;
    push(R"({"api":"fixedPointFollow","data":{"lat":30.5}})");
    push(R"({"api":"fixedPointFollow","data":{"lat":0}})");
    ASSERT_TRUE(service.waitForCalls("flightControl", 2));
    auto calls = service.callsOf("flightControl");
    EXPECT_EQ(parseObject(calls[0].args[0])->getObject("data")->getValue<int>("payloadAction"), 1);
    EXPECT_EQ(calls[1].args[0], R"({"api":"fixedPointFollow","data":{"lat":0}})");
    EXPECT_EQ(log.infos(R"(recv msg: {"api":"fixedPointFollow","data":{"lat":30.5}})"), 1);
}

TEST_F(BusIntake, AnswersGoBackToTheSenderRewrittenUnlessTheyNeverReturn)
{
    service.respondWith([](const std::string&, const std::vector<std::string>& args) {
        return std::string(args.at(1) == "getConfig" ? R"({"guid":"{SENDER}","message":{"ok":true}})"
                                                     : R"({"guid":"{SENDER}","message":"plain"})");
    });
    push(R"({"api":"getConfig"})");
    push(R"({"api":"setCommTeleRate"})");  // answered by the service, never returned
    push(R"({"api":"getUavId"})");         // a "message" that is a string comes back unchanged
    ASSERT_TRUE(bus.waitForCount(2));
    ASSERT_TRUE(service.waitForCalls("telementry", 3));
    auto answer = parseObject(bus.all()[0]);
    EXPECT_EQ(answer->getValue<std::string>("guid"), "{D639B3D5-A951-4BC7-A629-91255EBF9638}");
    EXPECT_EQ(answer->getArray("to")->getElement<std::string>(0), "{SENDER}");
    EXPECT_TRUE(answer->getObject("data")->getValue<bool>("ok"));
    EXPECT_TRUE(answer->getObject("message")->getValue<bool>("ok"));
    EXPECT_EQ(bus.all()[1], R"({"guid":"{SENDER}","message":"plain"})");
    EXPECT_FALSE(bus.waitForCount(3, std::chrono::milliseconds(300)));
}

} // namespace
