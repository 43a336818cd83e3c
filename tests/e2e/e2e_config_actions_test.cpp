// The station's configuration actions of the built velmora-host, run through
// the built plug-in's routines on the running stack's own files: on the
// command line and over HTTP.

#include <Poco/AutoPtr.h>
#include <Poco/File.h>
#include <Poco/Util/JSONConfiguration.h>

#include "e2e/E2eTest.h"

namespace vlm::e2e {
namespace {

constexpr const char* token = "config-actions-token";

class ConfigActionsTest : public E2eTest {
protected:
    ConfigActionsTest() : E2eTest(GatewayStack::Options{token}) {}

    std::string backupSource() const { return stack.dir.file("home") + "/.config/fenlix/velmora-host.json"; }

    /// The exit code and what the command wrote (output and error together).
    std::pair<int, std::string> run(const std::vector<std::string>& args)
    {
        ChildProcess child(stack.hostCommand(args), stack.dir.file("command-" + std::to_string(++commands) + ".out"));
        const auto status = child.waitExit(std::chrono::seconds(30));
        return {status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, child.output()};
    }

    Poco::AutoPtr<Poco::Util::JSONConfiguration> savedConfig() const
    {
        return new Poco::Util::JSONConfiguration(stack.configFile());
    }

    int commands = 0;
};

TEST_F(ConfigActionsTest, OnTheCommandLineFailuresChangeNothingAndAResetKeepsTheHostsOwnSettings)
{
    const std::string before = test::TempDir::read(stack.configFile());
    std::string other = before;
    other.replace(other.find(VELMORA_PILOT_PLUGIN), std::string(VELMORA_PILOT_PLUGIN).size(), VELMORA_PLUGINS_LIB);
    const struct {
        std::vector<std::string> args;
        int exitCode;
        std::string reason;
    } rows[] = {
        {{"config", "backup", "--config", stack.configFile()}, 1, "Source file does not exist: " + backupSource()},
        {{"config", "frobnicate", "--config", stack.configFile()}, 2, "velmora-host: "},
        {{"config", "reset-defaults", "--config", stack.dir.write("other.json", other)}, 3,
         "no plug-in library offers the configuration routines"},
    };
    for (const auto& row : rows) {
        const auto [code, text] = run(row.args);
        EXPECT_EQ(code, row.exitCode) << row.reason << ": " << text;
        EXPECT_NE(text.find(row.reason), std::string::npos) << text;
    }
    EXPECT_EQ(test::TempDir::read(stack.configFile()), before);

    const auto [exitCode, output] = run({"config", "reset-defaults", "--config", stack.configFile()});
    ASSERT_EQ(exitCode, 0) << output;
    EXPECT_NE(output.find("reset to the station defaults"), std::string::npos) << output;
    const auto saved = savedConfig();
    EXPECT_EQ(saved->getInt("station.app_type"), 0);
    EXPECT_EQ(saved->getString("station.comm_ip"), "192.168.188.150");
    // The host still starts from it, with its token and its plug-in.
    EXPECT_EQ(saved->getString("http.token"), token);
    EXPECT_EQ(saved->getString("plugins[0].library"), VELMORA_PILOT_PLUGIN);
    EXPECT_EQ(saved->getString("mqtt.client_id"), "velmora-host-e2e");
    EXPECT_EQ(run({"--config", stack.configFile(), "--check"}).first, 0);
}

TEST_F(ConfigActionsTest, RoutesRunOnTheHostsOwnFilesAndNoRequestNamesAFile)
{
    const auto noSource = stack.http(test::post("/host/config/backup", ""));
    EXPECT_EQ(noSource.status, 422) << noSource.body;
    EXPECT_NE(noSource.body.find("Source file does not exist: " + backupSource()), std::string::npos) << noSource.body;

    stack.dir.write("hangarComConfig.json", R"({"remoteIp":"10.0.0.9","remotePort":"2011","uavType":"MR"})");
    const auto merged = stack.http(test::post("/host/config/load-hangar", "{}"));
    ASSERT_EQ(merged.status, 200) << merged.body;
    EXPECT_TRUE(merged.json()->getValue<bool>("changed"));
    EXPECT_EQ(savedConfig()->getInt("station.comm_port"), 2011);
    const auto again = stack.http(test::post("/host/config/load-hangar", ""));
    ASSERT_EQ(again.status, 200) << again.body;
    EXPECT_FALSE(again.json()->getValue<bool>("changed"));

    // The routes write only the host's own files.
    const std::string before = test::TempDir::read(stack.configFile());
    const auto named = stack.http(
        test::post("/host/config/reset-defaults", R"({"file":")" + stack.dir.file("elsewhere.json") + R"("})"));
    EXPECT_EQ(named.status, 400) << named.body;
    EXPECT_EQ(test::TempDir::read(stack.configFile()), before);
    EXPECT_FALSE(Poco::File(stack.dir.file("elsewhere.json")).exists());
}

} // namespace
} // namespace vlm::e2e
