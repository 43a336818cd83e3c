#include <algorithm>
#include <optional>

#include "FrontsFixture.h"
#include "PluginFixture.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;

const std::string stationTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";
const std::string pilotTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd";
const std::string payloadTopic = "/velmora/payload/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd";

// A ground application on the same broker sends the commands and sees the
// answers that come back on the command topics.
class MqttFront : public vlm::test::FrontsFixture {
protected:
    void SetUp() override
    {
        FrontsFixture::SetUp();
        app.emplace(groundOptions(), std::vector<std::string>{stationTopic, pilotTopic, payloadTopic});
    }
    void TearDown() override
    {
        app.reset();
        FrontsFixture::TearDown();
    }

    // Messages on any watched topic whose text holds all of `parts`.
    int seen(std::initializer_list<std::string> parts)
    {
        std::vector<std::string> wanted(parts);
        return app->count([wanted](const std::string&, const std::string& payload) {
            return std::all_of(wanted.begin(), wanted.end(), [&](const std::string& part) {
                       return payload.find(part) != std::string::npos;
                   });
        });
    }

    std::optional<vlm::test::GroundApp> app;
};

TEST_F(MqttFront, GroundCommandsAreAnsweredOnTheirOwnTopic)
{
    for (const auto& topic : {pilotTopic, payloadTopic}) {
        const std::string msgId = "g-" + topic.substr(9, 6);
        app->command(topic, R"({"api":"getConfig","type":"request","from":"app","target":"station-1","msgId":")" + msgId +
                           R"("})");
        auto answer = app->answerTo(topic, msgId);
        ASSERT_TRUE(answer) << topic;
        EXPECT_EQ(answer->getValue<std::string>("api"), "getConfig");
        EXPECT_EQ(answer->getValue<std::string>("target"), "app");
        EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), 200);
    }
    EXPECT_EQ(service.callsOf("telementry").size(), 2u);
}

TEST_F(MqttFront, RefusalsArePublishedAsErrorEnvelopes)
{
    app->command(pilotTopic, R"({"api":"pushRoute","type":"request","from":"app","msgId":"r1"})");
    auto refused = app->answerTo(pilotTopic, "r1");
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->getObject("message")->getValue<int>("code"), 4001);
    EXPECT_EQ(refused->getValue<std::string>("target"), "app");

    app->command(pilotTopic, R"({"api":"noSuchApi","type":"request","msgId":"r2"})");
    // The unknown-API answer is the short form: it carries no msgId, only the text.
    EXPECT_TRUE(app->waitFor([](const std::string&, const std::string& payload) {
        return payload.find(R"("msg":"current api not exist: noSuchApi")") != std::string::npos &&
               payload.find(R"("code":-1)") != std::string::npos;
    }));
    EXPECT_TRUE(service.callsOf("flightControl").empty());
}

TEST_F(MqttFront, CloudCommandsGoToTheServiceByFactoryAnd135)
{
    vehicleConnected(true);
    // "factory" wins over the API's own routing, even that of 135.
    app->command(stationTopic, R"({"api":"hangerImageTransSwitch","factory":true,"type":"request","msgId":"c1"})");
    app->command(stationTopic, R"({"api":"hangerImageTransSwitch","type":"request","msgId":"c2"})");
    app->command(stationTopic, R"({"api":"pushRoute","type":"request","msgId":"c3"})");
    ASSERT_TRUE(app->answerTo(stationTopic, "c3"));
    ASSERT_TRUE(service.waitForCalls("djiControl", 1));
    ASSERT_TRUE(service.waitForCalls("pilotControlBase", 3));  // setSelfGuid at start, then two

    auto dji = service.callsOf("djiControl");
    ASSERT_EQ(dji.size(), 1u);
    EXPECT_EQ(dji[0].args.size(), 1u);
    EXPECT_EQ(parseObject(dji[0].args[0])->getValue<std::string>("msgId"), "c1");

    auto base = service.callsOf("pilotControlBase");
    ASSERT_EQ(base.size(), 3u);
    EXPECT_EQ(base[1].args[1], "hangerImageTransSwitch");
    EXPECT_EQ(base[2].args[1], "publishToGround");
    EXPECT_TRUE(service.callsOf("flightControl").empty());
}

// Each early exit ends the message where it is: a marker command sent after it
// is answered, and the early one was neither forwarded nor answered.
TEST_F(MqttFront, EachEarlyExitEndsTheMessageThere)
{
    vehicleConnected(true);
    int markers = 0;
    auto marker = [&] {
        const std::string msgId = "m" + std::to_string(++markers);
        app->command(pilotTopic, R"({"api":"getConfig","type":"request","msgId":")" + msgId + R"("})");
        return app->answerTo(pilotTopic, msgId) != nullptr;
    };
    // The command itself comes back from the broker; an answer would be a second.
    LogCapture log;
    app->command(pilotTopic, R"({"api":"setCommLink","type":"request","msgId":"e1"})");
    ASSERT_TRUE(marker());
    EXPECT_EQ(seen({R"("msgId":"e1")"}), 1);
    EXPECT_EQ(seen({"setCommLink"}), 1);  // nor answered as an unknown API

    app->command(pilotTopic, R"({"api":"getConfig","type":"response","msgId":"e2"})");
    ASSERT_TRUE(marker());
    EXPECT_EQ(seen({R"("msgId":"e2")"}), 1);

    app->command(pilotTopic, R"({"type":"request","msgId":"e3"})");
    ASSERT_TRUE(marker());
    EXPECT_EQ(seen({R"("msgId":"e3")"}), 1);
    EXPECT_EQ(log.errors("param api is empty"), 1);

    // Telemetry from the ground is a record for the record plug-in, with the
    // topic it came on; handed over on the delivery thread, before the marker.
    app->command(pilotTopic, R"({"api":"pushTelemetry","type":"request","alt":5,"msgId":"e4"})");
    ASSERT_TRUE(marker());
    EXPECT_EQ(seen({R"("msgId":"e4")"}), 1);
    int records = 0;
    for (const auto& text : bus->all()) {
        auto record = parseObject(text);
        auto data = record->getObject("data");
        if (!data || !data->getObject("record") || !data->getObject("record")->has("alt"))
            continue;  // the records of published answers
        ++records;
        EXPECT_EQ(record->getValue<std::string>("api"), "mrpAddRPRecord");
        EXPECT_EQ(data->getValue<std::string>("topic"), pilotTopic);
        EXPECT_EQ(data->getObject("record")->getValue<int>("alt"), 5);
    }
    EXPECT_EQ(records, 1);

    const auto forwarded = service.callsOf("telementry");
    EXPECT_EQ(forwarded.size(), 4u);
    for (const auto& call : forwarded)
        EXPECT_EQ(call.args[1], "getConfig");
}

// A frame the link cannot read makes it drop every pending call without
// calling back; a command then waiting for its answer must still get one.
TEST_F(MqttFront, ACommandWhoseCallTheLinkDropsIsAnsweredOnce)
{
    service.service.withhold_answers("telementry");
    app->command(pilotTopic, R"({"api":"getConfig","type":"request","from":"app","target":"station-1","msgId":"lost-1"})");
    // A withheld call is received but not handed to the recording handler.
    std::uint64_t callConnection = 0;
    ASSERT_TRUE(service.service.wait_for_frames(
        [&](const std::vector<pilot_rpc::received_frame>& frames) {
            for (const auto& frame : frames)
                if (frame.decoded.find("lost-1") != std::string::npos)
                    callConnection = frame.connection;
            return callConnection != 0;
        },
        std::chrono::seconds(10)));

    pilot_rpc::frame_header badType;
    badType.frame_type = 7;
    badType.body_len = 1;
    ASSERT_TRUE(service.service.send_frame(callConnection, badType, "x"));

    auto answer = app->answerTo(pilotTopic, "lost-1");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), ECONNABORTED);

    // Exactly once: a later command's answer arrives, and still only one for the lost call.
    service.service.withhold_answers("telementry", false);
    app->command(pilotTopic, R"({"api":"getConfig","type":"request","from":"app","target":"station-1","msgId":"after-1"})");
    ASSERT_TRUE(app->answerTo(pilotTopic, "after-1"));
    EXPECT_EQ(seen({R"("msgId":"lost-1")", R"("type":"response")"}), 1);
}

} // namespace
