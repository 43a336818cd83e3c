// The gateway when its service comes and goes: the simulator killed and
// restarted under an open stream, then the host stopped by a signal.

#include "e2e/E2eTest.h"

namespace vlm::e2e {
namespace {

using ResilienceTest = E2eTest;

TEST_F(ResilienceTest, SimulatorRestartedThePluginReconnectsAndSigintStillStopsTheHostWithStreamsOpen)
{
    const auto stream = telemetryStream();
    ASSERT_TRUE(stream);
    stack.killSim();

    ASSERT_TRUE(GatewayStack::waitUntil([&] { return stack.serviceLink() != "up"; }, eventBound));
    const auto whileDown = stack.http(test::post("/index/api/pilot/getConfig", request("getConfig", "d1")));
    EXPECT_EQ(whileDown.status, 200);
    EXPECT_EQ(whileDown.body.find("\"code\":200"), std::string::npos) << whileDown.body;

    stack.startSim(stack.simPort);  // the same port: the plug-in knows no other
    // The plug-in's RPC clients retry once a second; the rest is slack.
    ASSERT_TRUE(GatewayStack::waitUntil([&] { return stack.serviceLink() == "up"; }, std::chrono::seconds(4)));
    EXPECT_TRUE(GatewayStack::waitUntil(
        [&] {
            const auto answer = stack.http(test::post("/index/api/pilot/getConfig", request("getConfig", "r1")));
            return answer.status == 200 && answer.body.find("\"code\":200") != std::string::npos;
        },
        eventBound));
    // The stream that stayed open carries the new simulator's telemetry.
    EXPECT_FALSE(stream->nextData("\"seq\"", eventBound).empty());

    stack.host->signal(SIGINT);
    const auto status = stack.host->waitExit(std::chrono::seconds(5));
    ASSERT_TRUE(status && WIFEXITED(*status)) << "velmora-host still runs 5 s after SIGINT";
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    EXPECT_TRUE(stack.host->waitForLine("velmora-host stopped", std::chrono::seconds(0)));
}

} // namespace
} // namespace vlm::e2e
