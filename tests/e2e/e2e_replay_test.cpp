// A flight recorded from the simulator with pilot-rpc and played back by
// another simulator reaches ground apps through the host and the plug-in:
// the station's topic carries the recorded samples in order.

#include <Poco/JSON/Parser.h>

#include "e2e/E2eTest.h"
#include "recording.h"
#include "tools/ToolRun.h"

namespace vlm::e2e {
namespace {

/// The "seq" of a telemetry sample, given as its text or inside an envelope's "message".
long long seqOf(const std::string& text, bool inEnvelope = false)
{
    const auto object = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
    return (inEnvelope ? object->getObject("message") : object)->getValue<long long>("seq");
}

class ReplayTest : public E2eTest {
protected:
    // Only the recording's telemetry, played in a loop.
    ReplayTest() : E2eTest(GatewayStack::Options{"", 0, false, stationSn, {"--replay", flight(), "--loop"}}) {}

    static std::string flight()
    {
        static const test::TempDir recordings;
        return recordings.file("flight.jsonl");
    }

    /// Records 1.5 s of a fresh simulator's events (telemetry at 10 Hz), then starts the stack.
    void SetUp() override
    {
        ChildProcess source({programPath(VELMORA_PILOT_SIM_FOR_REPLAY, "pilot-sim"), "--port", "0", "--telemetry-hz", "10"},
                            stack.dir.file("source-sim.log"));
        const auto line = source.waitForLine("pilot-sim listening on ", eventBound);
        ASSERT_TRUE(line) << source.output();
        const auto recording = test::runTool(
            {PILOT_RPC_PATH, "record", line->substr(line->rfind(' ') + 1), "--out", flight(), "--duration", "1.5"},
            stack.dir.path, eventBound);
        ASSERT_EQ(recording.exitCode, 0) << recording.err;
        for (const auto& event : velmora_recording::load_recording(flight(), nullptr).events)
            if (event.topic == "pushTelemetry")
                recorded.push_back(seqOf(event.data));
        ASSERT_GE(recorded.size(), 8u);
        E2eTest::SetUp();
    }

    std::vector<long long> recorded;
};

TEST_F(ReplayTest, TheReplayedTelemetryIsPublishedInRecordedOrder)
{
    MqttProbe ground(stack.broker.uri(), "e2e-replay-reader");
    ground.subscribe(stationTopic());
    // A whole round of the recording, wherever the probe joined the loop.
    const auto isTelemetry = [](const MqttProbe::Message& m) { return hasText(m.payload, "api", "pushTelemetry"); };
    const std::size_t wanted = 2 * recorded.size() + 2;
    ASSERT_TRUE(GatewayStack::waitUntil([&] { return ground.count(isTelemetry) >= wanted; }, eventBound))
        << ground.count(isTelemetry) << " of " << wanted;
    std::vector<long long> published;
    ground.count([&](const MqttProbe::Message& m) {
        if (isTelemetry(m))
            published.push_back(seqOf(m.payload, true));
        return false;  // only read, in arrival order
    });
    const auto start = std::find(published.begin(), published.end(), recorded.front());
    ASSERT_GE(published.end() - start, static_cast<std::ptrdiff_t>(recorded.size())) << "no whole round came";
    EXPECT_EQ(std::vector<long long>(start, start + static_cast<std::ptrdiff_t>(recorded.size())), recorded);
}

} // namespace
} // namespace vlm::e2e
