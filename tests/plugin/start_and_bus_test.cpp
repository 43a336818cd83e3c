#include <algorithm>
#include <set>

#include "PluginFixture.h"
#include "ScriptedService.h"
#include "http/HttpApiServer.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;

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
    void start() { plugin->start(server, mqtt, "127.0.0.1", service.port); }
    void restart()
    {
        plugin->stop();
        plugin = vlm::PilotControlP::createInstance();
        mqtt = std::make_shared<vlm::test::RecordingMqttClient>("station-1");
        server = std::make_shared<vlm::HttpApiServer>();
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
    std::shared_ptr<vlm::HttpApiServer> server = std::make_shared<vlm::HttpApiServer>();
};

std::string commandTopic(const std::string& id, const char* kind = "pilot")
{
    return std::string("/velmora/") + kind + "/FBE242B9-B226-4401-A340-36ABD4D753AD/" + id + "/cmd";
}

TEST_F(StartedPlugin, StartAnnouncesItselfAndSubscribesInRegistrationOrder)
{
    start();
    EXPECT_EQ(service.callsOf("pilotControlBase").at(0).args, (std::vector<std::string>{"station-1", "setSelfGuid"}));
    EXPECT_EQ(service.callsOf("reportRPCSub").at(0).args, std::vector<std::string>{"true"});
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

// Seat, app type and ids choose the command topics (equal ids: one topic twice, each with its
// side's routing), the destructor unsubscribes the first; with the seat no HTTP API is served.
TEST_F(StartedPlugin, SeatAndAppTypeChooseTheCommandTopicsTheDestructorReleases)
{
    const std::string alternate = "/velmora/pilot/C5E96E6B-8087-4F06-944F-025A84F27DE4/station-1/cmd";
    const std::string seatTopic = "/station-1/pushTelemetry";
    const std::string station = commandTopic("station-1"), pilot = commandTopic("UAV-1");
    const std::string payload = commandTopic("UAV-1", "payload");
    const std::tuple<bool, int, std::string, std::vector<std::string>> cases[] = {
        {false, 0, "UAV-1", {station, pilot, payload}},   {false, 2, "UAV-1", {alternate}},
        {true, 0, "UAV-1", {seatTopic, pilot, payload}},  {true, 1, "UAV-1", {seatTopic}},
        {false, 0, "station-1", {station, station, commandTopic("station-1", "payload")}}};
    for (const auto& [seat, appType, pilotId, topics] : cases) {
        SCOPED_TRACE(std::to_string(seat) + " " + std::to_string(appType) + " " + pilotId);
        service.boolSettings["vehicle.six_axis_ar_seat"] = seat;
        service.intSettings["station.app_type"] = appType;
        service.stringSettings["vehicle.pilot_id"] = pilotId;
        restart();
        EXPECT_EQ(mqtt->subscribedTopics(), topics);
        const auto paths = server->routePaths();
        EXPECT_EQ(std::count_if(paths.begin(), paths.end(),
                                [](const std::string& p) { return p.rfind("/index/api/pilot/", 0) == 0; }),
                  seat ? 0 : 285);
        if (pilotId == "station-1") {
            mqtt->deliver(station, R"({"api":"getConfig","type":"request","msgId":"twice"})");
            ASSERT_TRUE(service.waitForCalls("telementry", 1));
            EXPECT_EQ(service.callsOf("telementry")[0].args[1], "getConfig");
            ASSERT_TRUE(service.waitForCalls("pilotControlBase", std::size(cases) + 1));  // and the cloud side's
            EXPECT_EQ(service.callsOf("pilotControlBase").back().args[1], "publishToGround");
        }
        plugin->stop();
        LogCapture log;
        plugin = vlm::PilotControlP::createInstance();  // the started one goes
        EXPECT_EQ(mqtt->unsubscribedTopics(), std::vector<std::string>{topics[0]});
        EXPECT_EQ(log.infos("mqtt unsubscribe topic: " + topics[0]), 1);
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

// Start goes on past every failure to reach the service, and says so.
TEST_F(StartedPlugin, FailuresToReachTheServiceAreLoggedAndStartGoesOn)
{
    const std::string port = std::to_string(service.port);
    const std::string failed = "rpc connect to pilot control micro service failed, address: 127.0.0.1, port: " + port;
    service.service.stop();
    LogCapture down;
    start();
    EXPECT_EQ(down.errors("pilot " + failed), 1);
    EXPECT_EQ(down.errors("pilot subscribe " + failed), 1);
    EXPECT_EQ(down.errors("rpc subscribe failed: timeout or deferred"), 1);
    EXPECT_EQ(down.lines().size(), 3u);
    expectPluginSource(down);

    plugin->stop();
    LogCapture bad;
    plugin->start(nullptr, mqtt, "not-an-address", service.port);
    const auto lines = bad.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text.rfind("connect to pilot control micro service failed, address: not-an-address, port: " +
                                      port + ", reason: ", 0), 0u) << lines[0].text;
    EXPECT_EQ(lines[1].text.rfind("rpc subscribe failed: ", 0), 0u) << lines[1].text;
    expectPluginSource(bad);
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
    LogCapture log;  // an unknown or empty API passes without a word
    for (const char* m : {R"({"api":"noSuchApi"})", R"({"api":""})", R"({})", R"({"interface":"noSuchApi"})"})
        push(m);
    EXPECT_TRUE(log.lines().empty());
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
    EXPECT_EQ(service.callsOf("microService")[0].args.size(), 1u);
}

// A "microService" call gives up after 5 s, the others wait two minutes; answers go
// back to their sender rewritten, except for APIs that never return one.
TEST_F(BusIntake, AnswersGoBackRewrittenAndOnlyMicroServiceCallsGiveUpAfterFiveSeconds)
{
    service.respondWith([](const std::string& procedure, const std::vector<std::string>&) {
        return R"({"guid":"{SENDER}","message":{"from":")" + procedure + R"("}})";
    });
    service.service.delay_answers("microService", std::chrono::milliseconds(5600));
    service.service.delay_answers("flightControl", std::chrono::milliseconds(5600));
    push(R"({"api":"setCommTeleRate"})");
    push(R"({"api":"getPhotoCount"})");
    push(R"({"api":"pushRoute"})");
    ASSERT_TRUE(bus.waitForCount(1, std::chrono::seconds(20)));
    EXPECT_FALSE(bus.waitForCount(2, std::chrono::seconds(1)));
    auto answer = parseObject(bus.all()[0]);
    EXPECT_EQ(answer->getValue<std::string>("guid"), "{D639B3D5-A951-4BC7-A629-91255EBF9638}");
    EXPECT_EQ(answer->getArray("to")->getElement<std::string>(0), "{SENDER}");
    EXPECT_EQ(answer->getObject("data")->getValue<std::string>("from"), "flightControl");
    EXPECT_EQ(service.callsOf("microService").size() + service.callsOf("telementry").size(), 2u);
}

} // namespace
