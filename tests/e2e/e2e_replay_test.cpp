// A flight recorded from the simulator with pilot-rpc and played back by
// another simulator reaches ground apps through the host and the plug-in:
// the telemetry event stream and MQTT carry the recorded samples in order.

#include <signal.h>
#include <sys/wait.h>

#include <iostream>
#include <regex>

#include <Poco/JSON/Parser.h>

#include "e2e/E2eTest.h"
#include "e2e/EventStream.h"
#include "e2e/MqttProbe.h"
#include "recording.h"
#include "tools/ToolRun.h"

namespace vlm::e2e {
namespace {

/// The "seq" of a telemetry text, -1 when it has none.
long long seqOf(const std::string& text)
{
    std::smatch match;
    if (std::regex_search(text, match, std::regex(R"("seq"\s*:\s*(\d+))")))
        return std::stoll(match[1]);
    return -1;
}

/// Records `seconds` of a fresh simulator's events (telemetry at 10 Hz) into `path`.
std::vector<long long> recordTelemetry(const test::TempDir& dir, const std::string& path, const char* seconds)
{
    ChildProcess source({programPath(VELMORA_PILOT_SIM_FOR_REPLAY, "pilot-sim"), "--port", "0", "--telemetry-hz",
                         "10"},
                        dir.file("source-sim.log"));
    const auto line = source.waitForLine("pilot-sim listening on ", eventBound);
    if (!line)
        throw std::runtime_error("the recording simulator did not start");
    const std::string address = line->substr(line->rfind(' ') + 1);
    const auto recorded = test::runTool({PILOT_RPC_PATH, "record", address, "--out", path, "--duration", seconds},
                                        dir.path, eventBound);
    if (recorded.exitCode != 0)
        throw std::runtime_error("pilot-rpc record failed: " + recorded.err);
    std::vector<long long> seqs;
    for (const auto& event : velmora_recording::load_recording(path, nullptr).events)
        if (event.topic == "pushTelemetry")
            seqs.push_back(seqOf(event.data));
    return seqs;
}

TEST(ReplayThroughTheGateway, TheReplayedTelemetryReachesTheEventStreamAndMqttInOrder)
{
    test::TempDir recordings;
    const std::string flight = recordings.file("flight.jsonl");
    std::vector<long long> recorded;
    ASSERT_NO_THROW(recorded = recordTelemetry(recordings, flight, "1.5"));
    ASSERT_GE(recorded.size(), 8u);

    GatewayStack::Options options;
    options.telemetryHz = 0;  // only the recording's telemetry
    options.simArgs = {"--replay", flight, "--loop"};
    GatewayStack stack(options);
    ASSERT_NO_THROW(stack.start());
    MqttProbe ground(stack.broker.uri(), "e2e-replay-reader");
    ground.subscribe(stationTopic());

    // MQTT: a whole round of the recording, sample by sample, in order. The
    // playback loops, so a complete round follows wherever the probe joined.
    const auto isTelemetry = [](const MqttProbe::Message& m) { return hasText(m.payload, "api", "pushTelemetry"); };
    const std::size_t wanted = 2 * recorded.size() + 2;
    ASSERT_TRUE(GatewayStack::waitUntil([&] { return ground.count(isTelemetry) >= wanted; }, eventBound))
        << ground.count(isTelemetry) << " of " << wanted << "\n" << stack.diagnostics();
    std::vector<long long> published;
    for (std::size_t i = 0; i < wanted; ++i) {
        std::optional<MqttProbe::Message> message;
        std::size_t seen = 0;
        message = ground.waitFor([&](const MqttProbe::Message& m) { return isTelemetry(m) && seen++ == i; },
                                 std::chrono::seconds(0));
        ASSERT_TRUE(message);
        const auto envelope = Poco::JSON::Parser().parse(message->payload).extract<Poco::JSON::Object::Ptr>();
        published.push_back(envelope->getObject("message")->getValue<long long>("seq"));
    }
    const auto start = std::find(published.begin(), published.end(), recorded.front());
    ASSERT_NE(start, published.end()) << "the first recorded sample never came";
    ASSERT_GE(static_cast<std::size_t>(published.end() - start), recorded.size());
    EXPECT_EQ(std::vector<long long>(start, start + static_cast<std::ptrdiff_t>(recorded.size())), recorded);

    // The event stream: recorded samples only, in recorded order (the stream
    // may skip one between its ticks; a new round may start once).
    EventStream stream(stack.httpPort, "/index/api/pilot/pushTelemetry");
    ASSERT_EQ(stream.contentType(), "text/event-stream");
    std::ptrdiff_t previous = -1;
    int rounds = 0;
    for (int i = 0; i < 6; ++i) {
        const std::string data = stream.nextData("\"seq\"", eventBound);
        const auto at = std::find(recorded.begin(), recorded.end(), seqOf(data));
        ASSERT_NE(at, recorded.end()) << "not a recorded sample: " << data;
        const std::ptrdiff_t index = at - recorded.begin();
        if (index <= previous)
            ++rounds;
        previous = index;
    }
    EXPECT_LE(rounds, 1);

    stack.host->signal(SIGTERM);
    const auto status = stack.host->waitExit(eventBound);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    if (::testing::Test::HasFailure())
        std::cout << stack.diagnostics();
}

} // namespace
} // namespace vlm::e2e
