// The real pilot-rpc program against the in-process service peer: what it
// sends, what it prints, and how it exits, over real TCP on loopback.

#include <signal.h>

#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "recording.h"
#include "rpc/codec.h"
#include "rpc/service/rpc_service.h"
#include "tools/ToolTest.h"

namespace vlm::test {
namespace {

using namespace std::chrono_literals;

class PilotRpcAgainstPeer : public ToolTest {
protected:
    void SetUp() override
    {
        service.bind("echo", [](const msgpack::object& args) {
            std::ostringstream text;
            text << args;
            return pilot_rpc::service_reply::success(text.str());
        });
        service.bind("settings", [](const msgpack::object&) {
            return pilot_rpc::service_reply::success(std::map<std::string, int>{{"hz", 5}});
        });
        service.bind("refuse", [](const msgpack::object&) {
            return pilot_rpc::service_reply::failure(4001, "vehicle not connected");
        });
        service.withhold_answers("silent");
        port = service.start(0);
        address = "127.0.0.1:" + std::to_string(port);
    }

    /// The decoded arguments of the last call of `name` the service received.
    std::string lastArguments()
    {
        const auto frames = service.frames();
        for (auto it = frames.rbegin(); it != frames.rend(); ++it)
            if (it->frame_type == 0 && it->req_id != 0)
                return it->decoded;
        return "";
    }

    pilot_rpc::rpc_service service;
    unsigned short port = 0;
    std::string address;
};

TEST_F(PilotRpcAgainstPeer, EachArgumentTypeArrivesAsTyped)
{
    const auto result = tool({"call", address, "echo", "text", "-i", "-42", "-b", "false", "-j",
                              R"({"lat":48.15,"wp":[1,2]})", "-s", "-dash", "7"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string expected = R"(["text",-42,false,{"lat":48.15,"wp":[1,2]},"-dash","7"])";
    EXPECT_EQ(result.out, expected + "\n");
    EXPECT_EQ(lastArguments(), expected);
    EXPECT_EQ(result.err, "");
}

// What a script sees of each outcome: the exit code and exactly what went to
// standard output and error.
TEST_F(PilotRpcAgainstPeer, EachOutcomeHasItsOwnExitCodeAndExactOutput)
{
    struct Outcome {
        std::vector<std::string> args;
        int exitCode;
        std::string out;
        std::string err;
    };
    const auto expectOutcome = [&](const Outcome& wanted) {
        SCOPED_TRACE(::testing::PrintToString(wanted.args));
        const auto result = tool(wanted.args);
        EXPECT_EQ(result.exitCode, wanted.exitCode);
        EXPECT_EQ(result.out, wanted.out);
        EXPECT_EQ(result.err, wanted.err);
    };
    expectOutcome({{"call", "localhost:" + std::to_string(port), "echo"}, 2, "",
                   "pilot-rpc: \"localhost\" is not a numeric address: the service link takes numeric IPv4 or IPv6 "
                   "addresses only, e.g. 127.0.0.1 or ::1 (see pilot-rpc --help)\n"});
    expectOutcome({{"call", address, "echo", "-j", "{oops"}, 2, "",
                   "pilot-rpc: argument 1 \"{oops\" is not valid JSON (see pilot-rpc --help)\n"});
    // Nothing was sent for a refused command line.
    EXPECT_EQ(service.accepted_count(), 0u);

    pilot_rpc::rpc_service gone;
    const std::string closed = "127.0.0.1:" + std::to_string(gone.start(0));
    gone.stop();
    const std::string refusal = "pilot-rpc: refuse answered error 4001: vehicle not connected\n";
    for (const Outcome& wanted : std::vector<Outcome>{
             // No arguments at all is an empty array, not a missing body.
             {{"call", address, "echo"}, 0, "[]\n", ""},
             {{"call", address, "settings"}, 0, "{\"hz\":5}\n", ""},
             {{"--json", "call", address, "echo", "x"}, 0, "{\"code\":0,\"value\":\"[\\\"x\\\"]\"}\n", ""},
             {{"call", address, "refuse", "x"}, 1, "", refusal},
             {{"call", "--json", address, "refuse"}, 1, "{\"code\":4001,\"value\":\"vehicle not connected\"}\n", refusal},
             {{"call", address, "nobodyHome"}, 1, "",
              std::string("pilot-rpc: nobodyHome answered error 1: ") + pilot_rpc::rpc_service::unbound_text + "\n"},
             {{"call", address, "silent", "unanswered", "--timeout", "0.3"}, 4, "",
              "pilot-rpc: no answer to silent from " + address + " within 0.3 s\n"},
             {{"call", closed, "echo", "--timeout", "1"}, 3, "",
              "pilot-rpc: cannot reach " + closed +
                  ": no connection within 1 s (is the service running and listening there?)\n"},
         })
        expectOutcome(wanted);
    // The unanswered request did go out: the service saw it.
    EXPECT_EQ(lastArguments(), R"(["unanswered"])");

    const auto help = tool({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Examples"), std::string::npos);
    EXPECT_EQ(tool({}).exitCode, 2);
}

// Its --count and --json output are checked against pilot-sim.
TEST_F(PilotRpcAgainstPeer, SubscribePrintsOneLinePerEventOnItsTopicsOnlyUntilSigint)
{
    ToolRun run({PILOT_RPC_PATH, "subscribe", address, "alpha", "beta"}, dir.path);
    ASSERT_TRUE(service.wait_for_subscriber("alpha", 5s));
    ASSERT_TRUE(service.wait_for_subscriber("beta", 5s));
    service.publish("gamma", "not asked for");
    service.publish("alpha", "one two");
    service.publish("beta", "{\"k\":1}");
    service.publish("alpha", "three");
    // The lines are out before the signal, so the run cannot end without them.
    for (int i = 0; i < 500 && lines(run.outputSoFar()).size() < 3; ++i)
        std::this_thread::sleep_for(10ms);
    run.signal(SIGINT);
    const auto result = run.finish(5s);
    EXPECT_FALSE(result.killed);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto got = lines(result.out);
    ASSERT_EQ(got.size(), 3u) << result.out;
    const std::regex shape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (alpha|beta) .*)");
    for (const auto& line : got)
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
    EXPECT_EQ(got[0].substr(25), "alpha one two");
    EXPECT_EQ(got[1].substr(25), "beta {\"k\":1}");
    EXPECT_EQ(got[2].substr(25), "alpha three");
}

TEST_F(PilotRpcAgainstPeer, RecordWritesEveryTopicWithItsTimeUntilTheDuration)
{
    const std::string out = dir.file("flight.jsonl");
    ToolRun run({PILOT_RPC_PATH, "record", address, "--out", out, "--duration", "1.5"}, dir.path);
    ASSERT_TRUE(service.wait_for_subscriber("vehicleOnlineStatus", 5s));
    ASSERT_TRUE(service.wait_for_subscriber("heartBeat", 5s));
    service.publish("pushTelemetry", "{\"seq\":1}");
    service.publish("notRecorded", "x");
    service.publish("vehicleOnlineStatus", "online\n\"quoted\"");
    const auto result = run.finish(5s);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "pilot-rpc: recorded 2 events to " + out + "\n");
    const auto loaded = velmora_recording::load_recording(out, nullptr);
    ASSERT_EQ(loaded.events.size(), 2u);
    EXPECT_EQ(loaded.events[0].topic, "pushTelemetry");
    EXPECT_EQ(loaded.events[1].data, "online\n\"quoted\"");
    EXPECT_LE(loaded.events[0].t_ms, loaded.events[1].t_ms);
    EXPECT_EQ(loaded.bad_lines, 0u);

    const auto unwritable = tool({"record", address, "--out", dir.file("no/such/dir.jsonl"), "--duration", "1"});
    EXPECT_EQ(unwritable.exitCode, 5);
    EXPECT_NE(unwritable.err.find("pilot-rpc: cannot write "), std::string::npos) << unwritable.err;
}

} // namespace
} // namespace vlm::test
