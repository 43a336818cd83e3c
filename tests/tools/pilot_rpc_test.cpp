// The real pilot-rpc program over real TCP on loopback: its whole command line
// against the in-process service peer, and a session with the real pilot-sim.

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>

#include "recording.h"
#include "rpc/codec.h"
#include "rpc/service/rpc_service.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "tools/ToolRun.h"

namespace vlm::test {
namespace {

using namespace std::chrono_literals;

ToolResult pilotRpc(std::vector<std::string> args, const TempDir& dir)
{
    args.insert(args.begin(), PILOT_RPC_PATH);
    return runTool(args, dir.path);
}

// What a script sees of each outcome: the exit code and exactly what went to
// standard output and error.
TEST(PilotRpcProgram, EachCommandLineHasItsExitCodeAndExactOutput)
{
    TempDir dir;
    pilot_rpc::rpc_service service;
    service.bind("echo", [](const msgpack::object& args) {
        std::ostringstream text;
        text << args;  // the arguments as the service decoded them
        return pilot_rpc::service_reply::success(text.str());
    });
    service.bind("settings", [](const msgpack::object&) {
        return pilot_rpc::service_reply::success(std::map<std::string, int>{{"hz", 5}});
    });
    service.bind("refuse",
                 [](const msgpack::object&) { return pilot_rpc::service_reply::failure(4001, "vehicle not connected"); });
    service.withhold_answers("silent");
    const std::string address = "127.0.0.1:" + std::to_string(service.start(0));
    pilot_rpc::rpc_service gone;
    const std::string closed = "127.0.0.1:" + std::to_string(gone.start(0));
    gone.stop();
    const std::string usage = " (see pilot-rpc --help)\n";
    const std::string refusal = "pilot-rpc: refuse answered error 4001: vehicle not connected\n";
    const std::string unwritable = dir.file("no/such/dir.jsonl");
    struct Row {
        std::vector<std::string> args;
        int exitCode;
        std::string out;
        std::string err;
    };
    for (const Row& row : std::vector<Row>{
             // Typed arguments keep their place; after "--" everything is a text.
             {{"call", address, "echo", "text", "-i", "-42", "-b", "false", "-j", R"({"lat":48.15,"wp":[1,2]})", "-s",
               "-dash", "--", "-i", "--timeout"},
              0, "[\"text\",-42,false,{\"lat\":48.15,\"wp\":[1,2]},\"-dash\",\"-i\",\"--timeout\"]\n", ""},
             // No arguments at all is an empty array, not a missing body.
             {{"call", address, "echo"}, 0, "[]\n", ""},
             {{"call", address, "settings"}, 0, "{\"hz\":5}\n", ""},
             {{"--json", "call", address, "echo", "x"}, 0, "{\"code\":0,\"value\":\"[\\\"x\\\"]\"}\n", ""},
             {{"call", address, "refuse", "x"}, 1, "", refusal},
             {{"call", "--json", address, "refuse"}, 1, "{\"code\":4001,\"value\":\"vehicle not connected\"}\n", refusal},
             {{"call", address, "nobodyHome"}, 1, "",
              std::string("pilot-rpc: nobodyHome answered error 1: ") + pilot_rpc::rpc_service::unbound_text + "\n"},
             {{"call", address, "silent", "--timeout", "0.3"}, 4, "",
              "pilot-rpc: no answer to silent from " + address + " within 0.3 s\n"},
             {{"call", closed, "echo", "--timeout", "1"}, 3, "",
              "pilot-rpc: cannot reach " + closed +
                  ": no connection within 1 s (is the service running and listening there?)\n"},
             // Refused before anything is sent.
             {{"record", address, "--out", unwritable, "--duration", "1"}, 5, "",
              "pilot-rpc: cannot write " + unwritable + ": No such file or directory\n"},
             {{"call", "localhost:" + address.substr(10), "echo"}, 2, "",
              "pilot-rpc: \"localhost\" is not a numeric address: the service link takes numeric IPv4 or IPv6 "
              "addresses only, e.g. 127.0.0.1 or ::1" + usage},
             {{"call", address, "echo", "-j", "{oops"}, 2, "", "pilot-rpc: argument 1 \"{oops\" is not valid JSON" + usage},
             {{"call", address, "echo", "x", "-i", "5.5"}, 2, "",
              "pilot-rpc: argument 2 \"5.5\" is not a whole number from -9223372036854775808 to 9223372036854775807" +
                  usage},
             {{"call", address, "echo", "-b", "yes"}, 2, "", "pilot-rpc: argument 1 \"yes\" is neither true nor false" + usage},
         }) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        const auto result = pilotRpc(row.args, dir);
        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_EQ(result.out, row.out);
        EXPECT_EQ(result.err, row.err);
    }
    EXPECT_EQ(service.accepted_count(), 8u) << "a refused command line reached the service";
}

// One session with the simulator: a call, a recording of its events, and a
// subscription that prints one stamped line per event of its topic only.
TEST(PilotRpcProgram, TalksToTheRealSimulator)
{
    TempDir dir;
    ChildProcess sim({PILOT_SIM_PATH, "--port", "0", "--telemetry-hz", "20"}, dir.file("sim.log"));
    const auto listening = sim.waitForLine("pilot-sim listening on 127.0.0.1:", 10s);
    ASSERT_TRUE(listening) << sim.output();
    const std::string address = listening->substr(listening->find("127.0.0.1:"));

    const auto pilot = pilotRpc({"call", address, "getStringConfig", "vehicle.pilot_id"}, dir);
    EXPECT_EQ(pilot.exitCode, 0) << pilot.err;
    EXPECT_EQ(pilot.out, "SIM-UAV-0001\n");

    const std::string flight = dir.file("flight.jsonl");
    const auto recorded = pilotRpc({"record", address, "--out", flight, "--duration", "1.2"}, dir);
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    const auto recording = velmora_recording::load_recording(flight, nullptr);
    std::smatch count;
    ASSERT_TRUE(std::regex_match(recorded.err, count, std::regex("pilot-rpc: recorded (\\d+) events to " + flight + "\n")))
        << recorded.err;
    // The count is taken once the link is gone, so it is exactly what the file holds.
    EXPECT_GE(std::stoul(count[1]), 10u);
    EXPECT_EQ(std::stoul(count[1]), recording.events.size());
    EXPECT_EQ(recording.bad_lines, 0u);
    long long previousSeq = -1;  // the simulator's telemetry, as heard, counts up
    for (const auto& event : recording.events) {
        std::smatch seq;
        if (event.topic == "pushTelemetry" && std::regex_search(event.data, seq, std::regex(R"("seq":(\d+))"))) {
            EXPECT_GT(std::stoll(seq[1]), previousSeq);
            previousSeq = std::stoll(seq[1]);
        }
    }
    EXPECT_GE(previousSeq, 0) << "no telemetry was recorded";

    const auto heard = pilotRpc({"subscribe", address, "pushTelemetry", "--count", "2"}, dir);
    ASSERT_EQ(heard.exitCode, 0) << heard.err;
    const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z pushTelemetry \{.*"seq":\d+.*\}\n)");
    const auto split = heard.out.find('\n') + 1;
    EXPECT_TRUE(std::regex_match(heard.out.substr(0, split), line)) << heard.out;
    EXPECT_TRUE(std::regex_match(heard.out.substr(split), line)) << heard.out;
}

} // namespace
} // namespace vlm::test
