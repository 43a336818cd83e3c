#include <optional>

#include "FrontsFixture.h"
#include "PluginFixture.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::parseObject;

const std::string stationTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";
const std::string pilotTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd";

// A ground application on the same broker sends the commands and sees what
// comes back on the command topics.
class MqttFront : public vlm::test::FrontsFixture {
protected:
    void SetUp() override
    {
        FrontsFixture::SetUp();
        app.emplace(groundOptions(), std::vector<std::string>{stationTopic, pilotTopic});
    }
    void TearDown() override
    {
        app.reset();
        FrontsFixture::TearDown();
    }
    Poco::JSON::Object::Ptr ask(const std::string& topic, const std::string& api, const std::string& msgId)
    {
        app->command(topic, R"({"api":")" + api + R"(","type":"request","from":"app","target":"station-1","msgId":")" +
                                msgId + R"("})");
        return app->answerTo(topic, msgId);
    }
    // Messages on the watched topics whose text holds `part`.
    int seen(const std::string& part)
    {
        return app->count([&](const std::string&, const std::string& p) { return p.find(part) != std::string::npos; });
    }
    std::optional<vlm::test::GroundApp> app;
};

// "factory" sends any API to the vendor procedure, even one with a category;
// the cloud side's other commands go to the base procedure, 135 included.
TEST_F(MqttFront, CloudCommandsGoToTheServiceByFactoryAnd135)
{
    vehicleConnected(true);
    app->command(stationTopic, R"({"api":"getConfig","factory":true,"type":"request","msgId":"c1"})");
    app->command(stationTopic, R"({"api":"hangerImageTransSwitch","type":"request","msgId":"c2"})");
    ASSERT_TRUE(ask(stationTopic, "pushRoute", "c3"));
    ASSERT_TRUE(service.waitForCalls("djiControl", 1));
    const auto dji = service.callsOf("djiControl");
    ASSERT_EQ(dji[0].args.size(), 1u);
    EXPECT_EQ(parseObject(dji[0].args[0])->getValue<std::string>("msgId"), "c1");
    const auto base = service.callsOf("pilotControlBase");  // setSelfGuid at start, then two
    ASSERT_EQ(base.size(), 3u);
    EXPECT_EQ(base[1].args[1], "hangerImageTransSwitch");
    EXPECT_EQ(base[2].args[1], "publishToGround");
    EXPECT_TRUE(service.callsOf("telementry").empty());
    EXPECT_TRUE(service.callsOf("flightControl").empty());
}

// Each early exit ends the message where it is: a marker command sent after it
// is answered, and the early one was neither forwarded nor answered (the
// command itself comes back from the broker once).
TEST_F(MqttFront, EachEarlyExitEndsTheMessageThere)
{
    vehicleConnected(true);
    vlm::test::LogCapture log;
    const std::string exits[] = {R"("api":"setCommLink","type":"request")", R"("api":"getConfig","type":"response")",
                                 R"("type":"request")", R"("api":"pushTelemetry","type":"request","alt":5)"};
    for (std::size_t i = 0; i < std::size(exits); ++i) {
        const std::string msgId = "e" + std::to_string(i);
        app->command(pilotTopic, "{" + exits[i] + R"(,"msgId":")" + msgId + R"("})");
        ASSERT_TRUE(ask(pilotTopic, "getConfig", "m" + msgId)) << exits[i];
        EXPECT_EQ(seen(R"("msgId":")" + msgId + '"'), 1) << exits[i];
    }
    EXPECT_EQ(log.errors("param api is empty"), 1);
    EXPECT_EQ(seen("setCommLink"), 1);  // nor answered as an unknown API, which gets the short form
    app->command(pilotTopic, R"({"api":"noSuchApi","type":"request","msgId":"u"})");
    EXPECT_TRUE(app->waitFor([](const std::string&, const std::string& payload) {
        return payload == R"({"code":-1,"id":"UAV-1","msg":"current api not exist: noSuchApi","type":"response"})";
    }));
    EXPECT_EQ(service.callsOf("telementry").size(), std::size(exits));
    for (const auto& call : service.callsOf("telementry"))
        EXPECT_EQ(call.args[1], "getConfig");
    // Ground telemetry is a record for the record plug-in, with its topic.
    int records = 0;
    for (const auto& text : bus->all()) {
        auto data = parseObject(text)->getObject("data");
        if (!data || !data->getObject("record") || !data->getObject("record")->has("alt"))
            continue;  // the records of published answers
        ++records;
        EXPECT_EQ(parseObject(text)->getValue<std::string>("api"), "mrpAddRPRecord");
        EXPECT_EQ(data->getValue<std::string>("topic"), pilotTopic);
        EXPECT_EQ(data->getObject("record")->getValue<int>("alt"), 5);
    }
    EXPECT_EQ(records, 1);
}

} // namespace
