// pilot-rpc against the real pilot-sim program: a call, a subscription, and a
// flight recorded from one simulator and played back by another.

#include <signal.h>

#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "recording.h"
#include "support/TempDir.h"
#include "tools/ToolRun.h"

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

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

class PilotRpcAgainstSim : public ::testing::Test {
protected:
    ToolResult tool(std::vector<std::string> args, std::chrono::milliseconds timeout = 10s)
    {
        args.insert(args.begin(), PILOT_RPC_PATH);
        return runTool(args, dir.path, timeout);
    }

    TempDir dir;
};

TEST_F(PilotRpcAgainstSim, CallsAndSubscriptionsReachTheSimulator)
{
    SimProcess sim({"--telemetry-hz", "20"}, dir.path);
    ASSERT_NE(sim.port, 0) << sim.run->outputSoFar();

    const auto pilot = tool({"call", sim.address(), "getStringConfig", "vehicle.pilot_id"});
    EXPECT_EQ(pilot.exitCode, 0) << pilot.err;
    EXPECT_EQ(pilot.out, "SIM-UAV-0001\n");
    const auto handshake = tool({"--json", "call", sim.address(), "reportRPCSub", "-b", "true"});
    EXPECT_EQ(handshake.exitCode, 0) << handshake.err;
    EXPECT_EQ(handshake.out, "{\"code\":0,\"value\":true}\n");

    const auto telemetry = tool({"subscribe", sim.address(), "pushTelemetry", "--count", "3", "--json"});
    ASSERT_EQ(telemetry.exitCode, 0) << telemetry.err;
    const auto got = lines(telemetry.out);
    ASSERT_EQ(got.size(), 3u);
    long long previousSeq = -1;
    for (const auto& line : got) {
        std::string why;
        const auto event = velmora_recording::parse_record_line(line, why);
        ASSERT_TRUE(event) << why << ": " << line;
        EXPECT_EQ(event->topic, "pushTelemetry");
        std::smatch seq;
        ASSERT_TRUE(std::regex_search(event->data, seq, std::regex(R"("seq":(\d+))"))) << event->data;
        EXPECT_GT(std::stoll(seq[1]), previousSeq);
        previousSeq = std::stoll(seq[1]);
    }
}

TEST_F(PilotRpcAgainstSim, ARecordedFlightIsPlayedBackInOrderAndAgainWhenLooping)
{
    const std::string flight = dir.file("flight.jsonl");
    {
        SimProcess source({"--telemetry-hz", "20"}, dir.path);
        ASSERT_NE(source.port, 0);
        const auto recorded = tool({"record", source.address(), "--out", flight, "--duration", "1.2"});
        ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    }
    const auto recording = velmora_recording::load_recording(flight, nullptr);
    ASSERT_GE(recording.events.size(), 10u);
    EXPECT_EQ(recording.bad_lines, 0u);

    SimProcess replay({"--replay", flight, "--speed", "4", "--loop"}, dir.path);
    ASSERT_NE(replay.port, 0) << replay.run->outputSoFar();
    const std::size_t wanted = recording.events.size() + 2;
    ToolRun subscriber({PILOT_RPC_PATH, "record", replay.address(), "--out", dir.file("replayed.jsonl"),
                        "--duration", "8"},
                       dir.path);
    // Calls are answered while the flight plays.
    const auto during = tool({"call", replay.address(), "getStringConfig", "vehicle.pilot_id"});
    EXPECT_EQ(during.exitCode, 0) << during.err;

    std::vector<velmora_recording::recorded_event> played;
    for (int i = 0; i < 800 && played.size() < wanted; ++i) {
        std::this_thread::sleep_for(10ms);
        try {
            played = velmora_recording::load_recording(dir.file("replayed.jsonl"), nullptr).events;
        } catch (const std::runtime_error&) {
            // Nothing written yet.
        }
    }
    subscriber.signal(SIGTERM);
    EXPECT_EQ(subscriber.finish(5s).exitCode, 0);
    ASSERT_GE(played.size(), wanted);
    // The whole flight in its order, then the start of the next round. The
    // simulator adds nothing of its own: no telemetry, no heartbeats.
    for (std::size_t i = 0; i < wanted; ++i) {
        const auto& original = recording.events[i % recording.events.size()];
        EXPECT_EQ(played[i].topic, original.topic) << i;
        EXPECT_EQ(played[i].data, original.data) << i;
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
