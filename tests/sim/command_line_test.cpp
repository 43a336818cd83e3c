// pilot-sim's flags and what they turn into.

#include <gtest/gtest.h>

#include "command_line.h"

namespace pilot_sim::test {
namespace {

using namespace std::chrono_literals;

TEST(CommandLine, DefaultsListenOnTheLoopbackAtTheUsualPort)
{
    const auto parsed = parse_command_line({});
    EXPECT_EQ(parsed.options.port, 7700);
    EXPECT_EQ(parsed.options.bind_address, "127.0.0.1");
    EXPECT_EQ(parsed.options.telemetry_hz, 5.0);
    EXPECT_FALSE(parsed.control_stdin);
    EXPECT_FALSE(parsed.options.stamp_publish_time);
    EXPECT_FALSE(parsed.help);
}

TEST(CommandLine, EveryFlagReachesItsOption)
{
    const auto parsed = parse_command_line(
        {"--port", "0", "--bind=::1", "--settings", "s.json", "--telemetry-hz", "50.5", "--control-stdin", "--stamp-publish-time",
         "--delay", "getBoolConfig=6000", "--delay=flightControl=250", "--never-answer", "reportRPCSub",
         "--drop-after-frames", "40", "--refuse-for", "1500", "--vehicle-disconnected", "--bad-frame", "oversize",
         "--malformed-publication", "--fault-delay", "800"});
    const simulator_options& o = parsed.options;
    EXPECT_EQ(o.port, 0);
    EXPECT_EQ(o.bind_address, "::1");
    EXPECT_EQ(parsed.settings_path, "s.json");
    EXPECT_EQ(o.telemetry_hz, 50.5);
    EXPECT_TRUE(parsed.control_stdin);
    EXPECT_TRUE(o.stamp_publish_time);
    EXPECT_EQ(o.faults.delayed.at("getBoolConfig"), 6000ms);
    EXPECT_EQ(o.faults.delayed.at("flightControl"), 250ms);
    EXPECT_EQ(o.faults.unanswered, std::set<std::string>{"reportRPCSub"});
    EXPECT_EQ(o.faults.drop_after_frames, 40u);
    EXPECT_EQ(o.faults.refuse_for, 1500ms);
    EXPECT_TRUE(o.faults.vehicle_disconnected);
    EXPECT_EQ(o.faults.bad_frame_after_handshake, bad_frame::oversize);
    EXPECT_TRUE(o.faults.malformed_publication_after_handshake);
    EXPECT_EQ(o.faults.after_handshake, 800ms);
}

class BadCommandLine : public ::testing::TestWithParam<std::pair<std::vector<std::string>, const char*>> {};

TEST_P(BadCommandLine, IsRefusedNamingTheFlag)
{
    const auto& [args, expected] = GetParam();
    try {
        parse_command_line(args);
        FAIL() << "accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadCommandLine,
    ::testing::Values(std::make_pair(std::vector<std::string>{"--port", "65536"}, "--port: expects a whole number"),
                      std::make_pair(std::vector<std::string>{"--port", "-1"}, "--port: expects a whole number"),
                      std::make_pair(std::vector<std::string>{"--port"}, "--port: needs a value"),
                      std::make_pair(std::vector<std::string>{"--telemetry-hz", "nan"}, "--telemetry-hz: expects a rate"),
                      std::make_pair(std::vector<std::string>{"--telemetry-hz", "2e6"}, "--telemetry-hz: expects a rate"),
                      std::make_pair(std::vector<std::string>{"--delay", "getBoolConfig"}, "expects PROCEDURE=MS"),
                      std::make_pair(std::vector<std::string>{"--bad-frame", "huge"}, "zero-length, oversize or bad-type"),
                      std::make_pair(std::vector<std::string>{"--help=yes"}, "--help: takes no value"),
                      std::make_pair(std::vector<std::string>{"--fly"}, "unknown option \"--fly\"")));

TEST(CommandLine, UsageMentionsEveryFlag)
{
    const std::string usage = usage_text();
    for (const char* flag : {"--help", "--port", "--bind", "--settings", "--telemetry-hz", "--control-stdin", "--delay",
                             "--never-answer", "--drop-after-frames", "--refuse-for", "--vehicle-disconnected",
                             "--bad-frame", "--malformed-publication", "--fault-delay"})
        EXPECT_NE(usage.find(flag), std::string::npos) << flag;
}

}  // namespace
}  // namespace pilot_sim::test
