// pilot-rpc against the real pilot-sim program: calls, and a flight recorded
// from one simulator and played back by another, heard by a subscription.

#include <signal.h>

#include <memory>
#include <regex>
#include <thread>

#include "plugin/ServiceTopics.h"
#include "recording.h"
#include "tools/ToolTest.h"

namespace vlm::test {
namespace {

using namespace std::chrono_literals;

/// A pilot-sim process on a port the kernel chose.
class SimProcess {
public:
    SimProcess(std::vector<std::string> args, const std::string& dir)
    {
        args.insert(args.begin(), {PILOT_SIM_PATH, "--port", "0"});
        run = std::make_unique<ToolRun>(args, dir);
        const std::regex listening(R"(pilot-sim listening on 127\.0\.0\.1:(\d+))");
        for (int i = 0; i < 500 && port == 0; ++i) {
            std::smatch match;
            const std::string out = run->outputSoFar();
            if (std::regex_search(out, match, listening))
                port = static_cast<unsigned short>(std::stoi(match[1]));
            else
                std::this_thread::sleep_for(10ms);
        }
    }
    ~SimProcess()
    {
        run->signal(SIGTERM);
        run->finish(5s);
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(port); }

    std::unique_ptr<ToolRun> run;
    unsigned short port = 0;
};

using PilotRpcAgainstSim = ToolTest;

TEST_F(PilotRpcAgainstSim, ARecordedFlightIsPlayedBackInOrderAndAgainWhenLooping)
{
    const std::string flight = dir.file("flight.jsonl");
    {
        SimProcess source({"--telemetry-hz", "20"}, dir.path);
        ASSERT_NE(source.port, 0) << source.run->outputSoFar();
        const auto recorded = tool({"record", source.address(), "--out", flight, "--duration", "1.2"});
        ASSERT_EQ(recorded.exitCode, 0) << recorded.err;

        const auto pilot = tool({"call", source.address(), "getStringConfig", "vehicle.pilot_id"});
        EXPECT_EQ(pilot.exitCode, 0) << pilot.err;
        EXPECT_EQ(pilot.out, "SIM-UAV-0001\n");
        const auto handshake = tool({"--json", "call", source.address(), "reportRPCSub", "-b", "true"});
        EXPECT_EQ(handshake.exitCode, 0) << handshake.err;
        EXPECT_EQ(handshake.out, "{\"code\":0,\"value\":true}\n");
    }
    const auto recording = velmora_recording::load_recording(flight, nullptr);
    ASSERT_GE(recording.events.size(), 10u);
    EXPECT_EQ(recording.bad_lines, 0u);
    // The simulator's telemetry, as pilot-rpc heard it, counts up.
    long long previousSeq = -1;
    for (const auto& event : recording.events) {
        std::smatch seq;
        if (event.topic != "pushTelemetry")
            continue;
        ASSERT_TRUE(std::regex_search(event.data, seq, std::regex(R"("seq":(\d+))"))) << event.data;
        EXPECT_GT(std::stoll(seq[1]), previousSeq);
        previousSeq = std::stoll(seq[1]);
    }
    EXPECT_GE(previousSeq, 0) << "no telemetry was recorded";

    SimProcess replay({"--replay", flight, "--speed", "4", "--loop"}, dir.path);
    ASSERT_NE(replay.port, 0) << replay.run->outputSoFar();
    // Every topic the plug-in takes: the simulator must add nothing of its
    // own to the flight, no telemetry, no heartbeats.
    const std::size_t wanted = recording.events.size() + 2;
    std::vector<std::string> subscribe{PILOT_RPC_PATH, "--json", "subscribe", replay.address()};
    subscribe.insert(subscribe.end(), std::begin(serviceTopics::beforeApis), std::end(serviceTopics::beforeApis));
    subscribe.insert(subscribe.end(), {serviceTopics::vehicleOnlineStatus, "--count", std::to_string(wanted)});
    ToolRun subscriber(subscribe, dir.path);
    // Calls are answered while the flight plays.
    const auto during = tool({"call", replay.address(), "getStringConfig", "vehicle.pilot_id"});
    EXPECT_EQ(during.exitCode, 0) << during.err;

    const auto heard = subscriber.finish(20s);
    ASSERT_EQ(heard.exitCode, 0) << heard.err;
    const auto played = lines(heard.out);
    ASSERT_EQ(played.size(), wanted) << heard.out;
    // The whole flight in its order, then the start of the next round.
    for (std::size_t i = 0; i < wanted; ++i) {
        std::string why;
        const auto event = velmora_recording::parse_record_line(played[i], why);
        ASSERT_TRUE(event) << why << ": " << played[i];
        const auto& original = recording.events[i % recording.events.size()];
        EXPECT_EQ(event->topic, original.topic) << i;
        EXPECT_EQ(event->data, original.data) << i;
    }
}

TEST_F(PilotRpcAgainstSim, ABadRecordingIsReportedByLineOrRefused)
{
    const std::string mixed = dir.write("mixed.jsonl", "{\"t\":0,\"topic\":\"pushTelemetry\",\"data\":\"a\"}\n"
                                                       "{\"t\":5,\"topic\":\"pushTelemetry\"}\n");
    SimProcess sim({"--replay", mixed}, dir.path);
    ASSERT_NE(sim.port, 0) << sim.run->outputSoFar();
    sim.run->signal(SIGTERM);
    const auto stopped = sim.run->finish(5s);
    EXPECT_EQ(stopped.exitCode, 0);
    EXPECT_NE(stopped.err.find("pilot-sim: " + mixed + " line 2: \"data\" is missing or not a text; skipped"),
              std::string::npos)
        << stopped.err;
    EXPECT_NE(stopped.err.find("1 events over 0.000 s at speed 1"), std::string::npos) << stopped.err;

    const std::string useless = dir.write("useless.jsonl", "hello\n");
    const auto refused = runTool({PILOT_SIM_PATH, "--replay", useless}, dir.path);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.err.find(useless + ": no event to replay (1 bad lines)"), std::string::npos) << refused.err;
    const auto noFile = runTool({PILOT_SIM_PATH, "--loop"}, dir.path);
    EXPECT_EQ(noFile.exitCode, 2);
    EXPECT_NE(noFile.err.find("--loop: needs --replay FILE"), std::string::npos) << noFile.err;
}

} // namespace
} // namespace vlm::test
