// The real pilot-sim program: started, read, used and stopped as the demo and
// the end-to-end tests do.

#include <signal.h>
#include <sys/wait.h>

#include <optional>
#include <regex>

#include "sim_fixture.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace pilot_sim::test {
namespace {

using vlm::test::ChildProcess;

/// The exit code once the process has ended, or nothing after `timeout`.
std::optional<int> exit_code(ChildProcess& child, std::chrono::milliseconds timeout)
{
    const auto status = child.waitExit(timeout);
    if (!status)
        return std::nullopt;
    return WIFEXITED(*status) ? WEXITSTATUS(*status) : 128 + WTERMSIG(*status);
}

TEST(PilotSimProgram, ListensServesAndStopsCleanlyOnSigterm)
{
    const vlm::test::TempDir dir;
    const std::string settings =
        dir.write("settings.json", R"({"vehicle": {"pilot_id": "SIM-UAV-0042"}, "station": {"app_type": 1}})");
    ChildProcess sim({PILOT_SIM_PATH, "--port", "0", "--telemetry-hz", "20", "--settings", settings},
                     dir.file("output.log"));

    const auto line = sim.waitForLine("pilot-sim listening on ", 10s);
    ASSERT_TRUE(line) << "no listening line";
    std::smatch match;
    ASSERT_TRUE(std::regex_match(*line, match, std::regex(R"(pilot-sim listening on 127\.0\.0\.1:(\d+))"))) << *line;
    const auto port = static_cast<unsigned short>(std::stoi(match[1]));

    {
        event_recorder events;  // outlives the client that feeds it
        pilot_rpc::rpc_client client;
        ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
        EXPECT_EQ((client.call<3000, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), "SIM-UAV-0042");
        EXPECT_EQ((client.call<3000, int>("getIntConfig", std::string("station.app_type"))), 1);
        events.subscribe(client, "pushTelemetry");
        EXPECT_TRUE(events.wait_for_count("pushTelemetry", 2));
    }

    sim.signal(SIGTERM);
    EXPECT_EQ(exit_code(sim, 10s), std::optional<int>(0));
}

TEST(PilotSimProgram, ExplainsItselfAndRejectsBadFlags)
{
    const vlm::test::TempDir dir;
    ChildProcess help({PILOT_SIM_PATH, "--help"}, dir.file("help.log"));
    EXPECT_EQ(exit_code(help, 10s), std::optional<int>(0));
    EXPECT_EQ(help.output().rfind("Usage: pilot-sim [OPTIONS]\n", 0), 0u) << help.output();

    ChildProcess bad({PILOT_SIM_PATH, "--telemetry-hz", "fast"}, dir.file("bad.log"));
    EXPECT_EQ(exit_code(bad, 10s), std::optional<int>(2));
    EXPECT_NE(bad.output().find("--telemetry-hz"), std::string::npos) << bad.output();
}

}  // namespace
}  // namespace pilot_sim::test
