// The pilot-sim program and its command line, used as the demo and the
// end-to-end tests use them.

#include <signal.h>
#include <sys/wait.h>

#include <regex>

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
    const std::string settings =
        dir.write("settings.json", R"({"vehicle": {"pilot_id": "SIM-UAV-0042"}, "station": {"app_type": 1}})");
    ChildProcess sim({PILOT_SIM_PATH, "--port", "0", "--telemetry-hz", "20", "--settings", settings},
                     dir.file("output.log"));
    const auto line = sim.waitForLine("pilot-sim listening on ", 10s);
    ASSERT_TRUE(line) << sim.output();
    std::smatch match;
    ASSERT_TRUE(std::regex_match(*line, match, std::regex(R"(pilot-sim listening on 127\.0\.0\.1:(\d+))"))) << *line;
    {
        event_recorder events;  // outlives the client that feeds it
        pilot_rpc::rpc_client client;
        ASSERT_TRUE(client.connect("127.0.0.1", static_cast<unsigned short>(std::stoi(match[1])), false, 3));
        EXPECT_EQ((client.call<3000, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), "SIM-UAV-0042");
        EXPECT_EQ((client.call<3000, int>("getIntConfig", std::string("station.app_type"))), 1);
        events.subscribe(client, "pushTelemetry");
        ASSERT_TRUE(events.wait_for_count("pushTelemetry", 2));
        // Unasked, a sample carries no publish stamp and looks as it always has.
        EXPECT_FALSE(parse_object(events.of("pushTelemetry").front())->has("publishedUs"));
    }
    sim.signal(SIGTERM);
    const auto status = sim.waitExit(10s);
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
}

TEST(PilotSimCommandLine, EveryFlagReachesItsOptionAndBadOnesAreRefusedByName)
{
    const auto parsed = parse_command_line(
        {"--port", "0", "--bind=::1", "--settings", "s.json", "--telemetry-hz", "50.5", "--control-stdin",
         "--stamp-publish-time", "--delay", "getBoolConfig=6000", "--never-answer", "reportRPCSub",
         "--drop-after-frames", "40", "--refuse-for", "1500", "--vehicle-disconnected", "--bad-frame", "oversize",
         "--malformed-publication", "--fault-delay", "800", "--replay", "f.jsonl", "--speed", "4", "--loop"});
    const simulator_options& o = parsed.options;
    EXPECT_EQ(std::tie(o.port, o.bind_address, parsed.settings_path, o.telemetry_hz), std::make_tuple(0, "::1", "s.json", 50.5));
    EXPECT_TRUE(parsed.control_stdin && o.stamp_publish_time && o.faults.vehicle_disconnected &&
                o.faults.malformed_publication_after_handshake && parsed.replay_loop);
    EXPECT_EQ(o.faults.delayed.at("getBoolConfig"), 6000ms);
    EXPECT_EQ(o.faults.unanswered, std::set<std::string>{"reportRPCSub"});
    EXPECT_EQ(std::tie(o.faults.drop_after_frames, o.faults.refuse_for, o.faults.after_handshake),
              std::make_tuple(40u, 1500ms, 800ms));
    EXPECT_EQ(o.faults.bad_frame_after_handshake, bad_frame::oversize);
    EXPECT_EQ(std::tie(parsed.replay_path, parsed.replay_speed), std::make_tuple("f.jsonl", 4.0));
    // A recording brings its own telemetry unless a rate is asked for.
    EXPECT_EQ(parse_command_line({"--replay", "f.jsonl"}).options.telemetry_hz, 0.0);

    const std::pair<std::vector<std::string>, const char*> bad[] = {
        {{"--port", "65536"}, "--port: expects a whole number"},
        {{"--telemetry-hz", "nan"}, "--telemetry-hz: expects a rate"},
        {{"--delay", "getBoolConfig"}, "expects PROCEDURE=MS"},
        {{"--bad-frame", "huge"}, "zero-length, oversize or bad-type"},
        {{"--speed", "2000", "--replay", "f"}, "--speed: expects a factor from 0.01 to 1000"},
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
