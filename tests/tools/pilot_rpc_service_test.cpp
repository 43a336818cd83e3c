// The real pilot-rpc program against the in-process service peer: what it
// sends, what it prints, and how it exits, over real TCP on loopback.

#include <signal.h>

#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "recording.h"
#include "rpc/codec.h"
#include "rpc/service/rpc_service.h"
#include "support/TempDir.h"
#include "tools/ToolRun.h"

namespace vlm::test {
namespace {

using namespace std::chrono_literals;

class PilotRpcAgainstPeer : public ::testing::Test {
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

    ToolResult tool(std::vector<std::string> args, std::chrono::milliseconds timeout = 10s)
    {
        args.insert(args.begin(), PILOT_RPC_PATH);
        return runTool(args, dir.path, timeout);
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

    TempDir dir;
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

    // No arguments at all is an empty array, not a missing body.
    const auto none = tool({"call", address, "echo"});
    EXPECT_EQ(none.exitCode, 0) << none.err;
    EXPECT_EQ(none.out, "[]\n");
}

TEST_F(PilotRpcAgainstPeer, ValuesPrintAsJsonAndJsonOutputCarriesTheCode)
{
    const auto plain = tool({"call", address, "settings"});
    EXPECT_EQ(plain.exitCode, 0) << plain.err;
    EXPECT_EQ(plain.out, "{\"hz\":5}\n");
    const auto json = tool({"--json", "call", address, "echo", "x"});
    EXPECT_EQ(json.exitCode, 0) << json.err;
    EXPECT_EQ(json.out, "{\"code\":0,\"value\":\"[\\\"x\\\"]\"}\n");
}

TEST_F(PilotRpcAgainstPeer, AnErrorAnswerExitsOneWithItsCodeAndMessage)
{
    const auto result = tool({"call", address, "refuse", "x"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "pilot-rpc: refuse answered error 4001: vehicle not connected\n");

    const auto json = tool({"call", "--json", address, "refuse"});
    EXPECT_EQ(json.exitCode, 1);
    EXPECT_EQ(json.out, "{\"code\":4001,\"value\":\"vehicle not connected\"}\n");

    const auto unbound = tool({"call", address, "nobodyHome"});
    EXPECT_EQ(unbound.exitCode, 1);
    EXPECT_EQ(unbound.err, std::string("pilot-rpc: nobodyHome answered error 1: ") +
                               pilot_rpc::rpc_service::unbound_text + "\n");
}

TEST_F(PilotRpcAgainstPeer, NoAnswerInTimeExitsFour)
{
    const auto result = tool({"call", address, "silent", "--timeout", "0.3"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.err, "pilot-rpc: no answer to silent from " + address + " within 0.3 s\n");
    // The request did go out: the service saw it.
    EXPECT_EQ(lastArguments(), "[]");
}

TEST_F(PilotRpcAgainstPeer, UnreachableNonNumericAndBadArgumentsExitWithTheirOwnCodes)
{
    // A port nobody listens on any more.
    pilot_rpc::rpc_service gone;
    const unsigned short closed = gone.start(0);
    gone.stop();
    const auto unreachable = tool({"call", "127.0.0.1:" + std::to_string(closed), "echo", "--timeout", "1"});
    EXPECT_EQ(unreachable.exitCode, 3);
    EXPECT_EQ(unreachable.err, "pilot-rpc: cannot reach 127.0.0.1:" + std::to_string(closed) +
                                   ": no connection within 1 s (is the service running and listening there?)\n");

    const auto named = tool({"call", "localhost:" + std::to_string(port), "echo"});
    EXPECT_EQ(named.exitCode, 2);
    EXPECT_NE(named.err.find("\"localhost\" is not a numeric address: the service link takes numeric IPv4 or "
                             "IPv6 addresses only"),
              std::string::npos)
        << named.err;

    const auto badJson = tool({"call", address, "echo", "-j", "{oops"});
    EXPECT_EQ(badJson.exitCode, 2);
    EXPECT_EQ(badJson.err, "pilot-rpc: argument 1 \"{oops\" is not valid JSON (see pilot-rpc --help)\n");
    // Nothing was sent for a refused command line.
    EXPECT_EQ(service.accepted_count(), 0u);

    const auto help = tool({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Examples"), std::string::npos);
    EXPECT_EQ(tool({}).exitCode, 2);
}

TEST_F(PilotRpcAgainstPeer, SubscribePrintsOneLinePerEventOnItsTopicsOnly)
{
    ToolRun run({PILOT_RPC_PATH, "subscribe", address, "alpha", "beta", "--count", "3"}, dir.path);
    ASSERT_TRUE(service.wait_for_subscriber("alpha", 5s));
    ASSERT_TRUE(service.wait_for_subscriber("beta", 5s));
    service.publish("gamma", "not asked for");
    service.publish("alpha", "one two");
    service.publish("beta", "{\"k\":1}");
    service.publish("alpha", "three");
    service.publish("alpha", "after the count");
    const auto result = run.finish(5s);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::istringstream lines(result.out);
    std::vector<std::string> got;
    for (std::string line; std::getline(lines, line);)
        got.push_back(line);
    ASSERT_EQ(got.size(), 3u) << result.out;
    const std::regex shape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (alpha|beta) .*)");
    for (const auto& line : got)
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
    EXPECT_EQ(got[0].substr(25), "alpha one two");
    EXPECT_EQ(got[1].substr(25), "beta {\"k\":1}");
    EXPECT_EQ(got[2].substr(25), "alpha three");
}

TEST_F(PilotRpcAgainstPeer, SubscribeEndsCleanlyOnSigint)
{
    ToolRun run({PILOT_RPC_PATH, "subscribe", "--json", address, "alpha"}, dir.path);
    ASSERT_TRUE(service.wait_for_subscriber("alpha", 5s));
    service.publish("alpha", "x");
    // The line is out before the signal, so the run cannot end without it.
    for (int i = 0; i < 500 && run.outputSoFar().empty(); ++i)
        std::this_thread::sleep_for(10ms);
    run.signal(SIGINT);
    const auto result = run.finish(5s);
    EXPECT_FALSE(result.killed);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    std::string why;
    const auto event = velmora_recording::parse_record_line(result.out.substr(0, result.out.find('\n')), why);
    ASSERT_TRUE(event) << why << ": " << result.out;
    EXPECT_EQ(event->topic, "alpha");
    EXPECT_EQ(event->data, "x");
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
