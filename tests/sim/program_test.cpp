// The pilot-sim program and its command line, as the demo and the end-to-end tests use them.

#include <signal.h>
#include <sys/wait.h>

#include "command_line.h"
#include "sim_fixture.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace pilot_sim::test {
namespace {

using vlm::test::ChildProcess;

TEST(PilotSimProgram, ListensServesItsSettingsFileAndStopsCleanlyOnSigterm)
{
    const vlm::test::TempDir dir;
    ChildProcess sim({PILOT_SIM_PATH, "--port", "0", "--telemetry-hz", "20", "--settings",
                      dir.write("settings.json", R"({"vehicle": {"pilot_id": "SIM-UAV-0042"}})")},
                     dir.file("output.log"));
    const auto line = sim.waitForLine("pilot-sim listening on 127.0.0.1:", 10s);
    ASSERT_TRUE(line) << sim.output();
    {
        event_recorder events;  // outlives the client that feeds it
        pilot_rpc::rpc_client client;
        ASSERT_TRUE(client.connect("127.0.0.1", static_cast<unsigned short>(std::stoi(line->substr(line->rfind(':') + 1))), false, 3));
        EXPECT_EQ((client.call<3000, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), "SIM-UAV-0042");
        events.subscribe(client, "pushTelemetry");
        // Unasked, a sample carries no publish stamp and looks as it always has.
        EXPECT_FALSE(parse_object(events.of("pushTelemetry", 1).at(0))->has("publishedUs"));
    }
    sim.signal(SIGTERM);
    const auto status = sim.waitExit(10s);
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
}

TEST(PilotSimCommandLine, FlagsReachTheirOptionsAndBadOnesAreRefusedByName)
{
    const auto parsed = parse_command_line({"--delay", "getBoolConfig=6000", "--bad-frame", "oversize", "--replay", "f"});
    EXPECT_EQ(parsed.options.faults.delayed.at("getBoolConfig"), 6000ms);
    EXPECT_EQ(parsed.options.faults.bad_frame_after_handshake, bad_frame::oversize);
    // A recording brings its own telemetry unless a rate is asked for.
    EXPECT_EQ(parsed.options.telemetry_hz, 0.0);

    const std::pair<std::vector<std::string>, const char*> bad[] = {
        {{"--port", "65536"}, "--port: expects a whole number"},
        {{"--telemetry-hz", "nan"}, "--telemetry-hz: expects a rate"},
        {{"--bad-frame", "huge"}, "zero-length, oversize or bad-type"},
        {{"--loop"}, "--loop: needs --replay FILE"},
        {{"--fly"}, "unknown option \"--fly\""},
    };
    for (const auto& [args, expected] : bad) {
        try {
            parse_command_line(args);
            ADD_FAILURE() << "accepted " << args.front();
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
        }
    }
}

}  // namespace
}  // namespace pilot_sim::test
