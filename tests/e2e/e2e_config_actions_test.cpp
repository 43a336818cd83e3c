// The station's configuration actions of the built velmora-host, run through
// the built plug-in's routines: on the command line and over HTTP, against a
// temporary host configuration, backup folder and hangar file.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/File.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Util/JSONConfiguration.h>

#include "support/ChildProcess.h"
#include "host/HttpTestClient.h"
#include "support/TempDir.h"

namespace {

using vlm::test::ChildProcess;
using vlm::test::HttpAnswer;
using vlm::test::HttpCall;
using vlm::test::TempDir;

constexpr auto processBound = std::chrono::seconds(30);
constexpr const char* token = "config-actions-token";

int portOf(const std::string& listeningLine)
{
    return std::stoi(listeningLine.substr(listeningLine.rfind(':') + 1));
}

struct CommandResult {
    int exitCode = -1;
    std::string output;  // standard output and error together
};

// A host configuration with a key of the station's, one the defaults do not
// know, and the host's own sections; the backup folder under a HOME of the
// test's own; a hangar file the host is pointed at.
class ConfigActionFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        Poco::File(backupFolder()).createDirectories();
        configFile = dir.write("velmora-host.json", R"({
  "http": {"address": "127.0.0.1", "port": 0, "token": ")" + std::string(token) + R"(", "allowed_hosts": ["station.local"]},
  "mqtt": {"server_uri": "127.0.0.1:1", "user_name": "", "pawsswd": "", "client_id": "config-actions"},
  "plugins": [{"library": ")" + std::string(VELMORA_PILOT_PLUGIN) + R"(", "service_port": )" + std::to_string(servicePort) + R"(, "service_wait_seconds": 5}],
  "log": {"level": "information", "file": ")" + dir.file("host.log") + R"("},
  "legacy": {"option": "x"},
  "station": {"app_type": 7, "comm_ip": "10.0.0.1", "comm_port": 2010},
  "vehicle": {"vehicle_type": "VT"}
})");
        hangarFile = dir.file("hangarComConfig.json");
    }

    std::string backupFolder() const { return dir.path + "/home/.config/fenlix/"; }
    std::string backupSource() const { return backupFolder() + "velmora-host.json"; }
    std::string backupTarget() const { return backupFolder() + "velmora-host-backup.json"; }
    void writeHangar(const std::string& json) const { dir.write("hangarComConfig.json", json); }

    /// The program with the test's HOME and hangar file in its environment.
    std::vector<std::string> hostCommand(const std::vector<std::string>& args,
                                         const std::string& configHome = "") const
    {
        std::vector<std::string> argv{"/usr/bin/env", "-u", "XDG_CONFIG_HOME", "HOME=" + dir.path + "/home",
                                      "VELMORA_TEST_HANGAR_FILE=" + hangarFile};
        if (!configHome.empty())
            argv.push_back("XDG_CONFIG_HOME=" + configHome);
        argv.push_back(VELMORA_HOST_BIN);
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    CommandResult run(const std::vector<std::string>& args, const std::string& configHome = "")
    {
        ChildProcess child(hostCommand(args, configHome), dir.file("command-" + std::to_string(++commands) + ".out"));
        const auto status = child.waitExit(processBound);
        CommandResult result;
        result.output = child.output();
        if (status && WIFEXITED(*status))
            result.exitCode = WEXITSTATUS(*status);
        return result;
    }

    CommandResult config(const std::string& action) { return run({"config", action, "--config", configFile}); }

    Poco::AutoPtr<Poco::Util::JSONConfiguration> savedConfig() const
    {
        return new Poco::Util::JSONConfiguration(configFile);
    }

    /// What the default routine's own tests expect, plus the host's sections kept.
    void expectStationDefaults() const
    {
        const auto saved = savedConfig();
        EXPECT_FALSE(saved->has("legacy")) << "keys the defaults do not know are removed";
        EXPECT_EQ(saved->getInt("station.app_type"), 0);
        EXPECT_EQ(saved->getString("mqtts.user_name"), "hangarInside");
        EXPECT_EQ(saved->getString("mqtts.pawsswd"), "tepid@brkr");
        EXPECT_EQ(saved->getString("station.comm_ip"), "192.168.188.150");
        EXPECT_EQ(saved->getInt("station.forward_port"), -1);
        EXPECT_EQ(saved->getInt("station.baudrate"), 115200);
        EXPECT_EQ(saved->getString("vehicle.vehicle_type"), "");
        const std::string text = TempDir::read(configFile);
        EXPECT_NE(text.find(R"("http_srv_port": "80")"), std::string::npos) << text;
        EXPECT_NE(text.find(R"("six_axis_ar_seat": false)"), std::string::npos) << text;
        // The host still starts from it, with its token and its plug-in.
        EXPECT_EQ(saved->getString("http.token"), token);
        EXPECT_EQ(saved->getString("http.allowed_hosts[0]"), "station.local");
        EXPECT_EQ(saved->getString("plugins[0].library"), VELMORA_PILOT_PLUGIN);
        EXPECT_EQ(saved->getInt("plugins[0].service_port"), servicePort);
        EXPECT_EQ(saved->getString("mqtt.client_id"), "config-actions");
    }

    TempDir dir;
    std::string configFile;
    std::string hangarFile;
    int commands = 0;
    // The plug-in's service: nothing for the command line, the simulator for
    // a running host (without one its start waits out the link's time-outs).
    int servicePort = 1;
};

using ConfigCommandLine = ConfigActionFiles;

TEST_F(ConfigCommandLine, ResetDefaultsRewritesTheStationSettingsAndKeepsTheHostUsable)
{
    const CommandResult reset = config("reset-defaults");
    ASSERT_EQ(reset.exitCode, 0) << reset.output;
    EXPECT_NE(reset.output.find("reset to the station defaults"), std::string::npos) << reset.output;
    expectStationDefaults();
    const CommandResult check = run({"--config", configFile, "--check"});
    EXPECT_EQ(check.exitCode, 0) << check.output;
}

TEST_F(ConfigCommandLine, BackupCopiesTheFileAndAMissingOneIsRefusedWithItsPath)
{
    dir.write("home/.config/fenlix/velmora-host.json", R"({"v":2})");
    dir.write("home/.config/fenlix/velmora-host-backup.json", R"({"v":1})");
    const CommandResult done = config("backup");
    ASSERT_EQ(done.exitCode, 0) << done.output;
    EXPECT_EQ(TempDir::read(backupTarget()), R"({"v":2})");

    Poco::File(backupSource()).remove();
    Poco::File(backupTarget()).remove();
    const CommandResult missing = run({"config", "backup", "--config", configFile, "--json"});
    EXPECT_EQ(missing.exitCode, 1) << missing.output;
    EXPECT_NE(missing.output.find("Source file does not exist: " + backupSource()), std::string::npos)
        << missing.output;
    EXPECT_NE(missing.output.find(R"("ok":false)"), std::string::npos) << missing.output;
    EXPECT_FALSE(Poco::File(backupTarget()).exists());
}

TEST_F(ConfigCommandLine, BackupUnderXdgConfigHomeUsesItsFenlixFolder)
{
    const std::string xdg = dir.path + "/xdg";
    Poco::File(xdg + "/fenlix").createDirectories();
    dir.write("xdg/fenlix/velmora-host.json", R"({"v":3})");
    const CommandResult done = run({"config", "backup", "--config", configFile}, xdg);
    ASSERT_EQ(done.exitCode, 0) << done.output;
    EXPECT_EQ(TempDir::read(xdg + "/fenlix/velmora-host-backup.json"), R"({"v":3})");
}

TEST_F(ConfigCommandLine, LoadHangarMergesChangesSavesOnlyThenAndReportsBadFiles)
{
    writeHangar(R"({"remoteIp":"10.0.0.9","remotePort":"2011","uavType":"MR"})");
    const CommandResult merged = config("load-hangar");
    ASSERT_EQ(merged.exitCode, 0) << merged.output;
    EXPECT_EQ(savedConfig()->getString("station.comm_ip"), "10.0.0.9");
    EXPECT_EQ(savedConfig()->getInt("station.comm_port"), 2011);
    EXPECT_EQ(savedConfig()->getString("vehicle.vehicle_type"), "MR");
    EXPECT_EQ(savedConfig()->getString("legacy.option"), "x") << "a merge touches only the three settings";

    const std::string before = TempDir::read(configFile);
    const CommandResult same = config("load-hangar");
    EXPECT_EQ(same.exitCode, 0) << same.output;
    EXPECT_NE(same.output.find("unchanged"), std::string::npos) << same.output;
    EXPECT_EQ(TempDir::read(configFile), before) << "an identical hangar file saves nothing";

    // The port's conversion fails after the address was taken: nothing is saved.
    writeHangar(R"({"remoteIp":"10.0.0.7","remotePort":"abc","uavType":"MR"})");
    const CommandResult bad = config("load-hangar");
    EXPECT_EQ(bad.exitCode, 1) << bad.output;
    EXPECT_NE(bad.output.find("invalid stoi argument"), std::string::npos) << bad.output;
    EXPECT_EQ(TempDir::read(configFile), before);

    writeHangar(R"({"remotePort":"2012","uavType":""})");
    const CommandResult partial = config("load-hangar");
    EXPECT_EQ(partial.exitCode, 1) << partial.output;
    EXPECT_NE(partial.output.find("not exist remoteIp; uavType is empty"), std::string::npos) << partial.output;
    EXPECT_EQ(savedConfig()->getInt("station.comm_port"), 2012) << "the readers that can still run do";

    Poco::File(hangarFile).remove();
    const CommandResult missing = config("load-hangar");
    EXPECT_EQ(missing.exitCode, 1) << missing.output;
    EXPECT_NE(missing.output.find("Source file does not exist: " + hangarFile), std::string::npos)
        << missing.output;
}

TEST_F(ConfigCommandLine, PingAnswersForLoopbackOrSaysWhyNot)
{
    const CommandResult ping = run({"ping", "127.0.0.1", "--config", configFile, "--json"});
    if (geteuid() == 0) {
        EXPECT_EQ(ping.exitCode, 0) << ping.output;
        EXPECT_NE(ping.output.find(R"("answered":true)"), std::string::npos) << ping.output;
    } else {
        EXPECT_EQ(ping.exitCode, 1) << ping.output;
        EXPECT_NE(ping.output.find("raw ICMP socket could not be opened"), std::string::npos) << ping.output;
    }
    // Without --config, the plug-in beside the program carries the routines.
    const CommandResult ipv6 = run({"ping", "::1"});
    EXPECT_EQ(ipv6.exitCode, 1) << ipv6.output;
    EXPECT_NE(ipv6.output.find("::1 did not answer"), std::string::npos) << ipv6.output;
}

TEST_F(ConfigCommandLine, BadCommandLinesAndMissingRoutinesHaveTheirExitCodes)
{
    const std::string before = TempDir::read(configFile);
    for (const auto& args : std::vector<std::vector<std::string>>{{"config"},
                                                                  {"config", "frobnicate", "--config", configFile},
                                                                  {"config", "backup"},
                                                                  {"config", "backup", "--config"},
                                                                  {"config", "reset-defaults", "--config", configFile,
                                                                   "extra"},
                                                                  {"ping"},
                                                                  {"ping", "localhost"},
                                                                  {"config", "backup", "--config", dir.file("absent.json")}}) {
        const CommandResult result = run(args);
        EXPECT_EQ(result.exitCode, 2) << args[0] << " " << (args.size() > 1 ? args[1] : "") << ": " << result.output;
        EXPECT_NE(result.output.find("velmora-host: "), std::string::npos) << result.output;
    }
    EXPECT_EQ(TempDir::read(configFile), before);

    // A configuration whose only library lacks the routines.
    std::string other = before;
    other.replace(other.find(VELMORA_PILOT_PLUGIN), std::string(VELMORA_PILOT_PLUGIN).size(), VELMORA_PLUGINS_LIB);
    const std::string otherFile = dir.write("other.json", other);
    const CommandResult none = run({"config", "reset-defaults", "--config", otherFile});
    EXPECT_EQ(none.exitCode, 3) << none.output;
    EXPECT_NE(none.output.find("no plug-in library offers the configuration routines"), std::string::npos)
        << none.output;
    EXPECT_EQ(TempDir::read(otherFile), other);

    const CommandResult help = run({"config", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.output.find("velmora-host ping ADDRESS"), std::string::npos) << help.output;
}

// The same actions on a running host, which works on the file it started with.
class ConfigRoutes : public ConfigActionFiles {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(*VELMORA_PILOT_SIM) << "pilot-sim is not built; these tests need it";
        sim = std::make_unique<ChildProcess>(std::vector<std::string>{VELMORA_PILOT_SIM, "--port", "0"},
                                             dir.file("sim.log"));
        const auto simListening = sim->waitForLine("pilot-sim listening on ", processBound);
        ASSERT_TRUE(simListening) << sim->output();
        servicePort = portOf(*simListening);
        ConfigActionFiles::SetUp();
        host = std::make_unique<ChildProcess>(hostCommand({"--config", configFile}), dir.file("host.out"));
        const auto listening = host->waitForLine("velmora-host listening on http://", processBound);
        ASSERT_TRUE(listening) << host->output();
        port = static_cast<std::uint16_t>(portOf(*listening));
        ASSERT_TRUE(host->waitForLine("velmora-host ready: 1 of 1", processBound)) << host->output();
    }

    void TearDown() override
    {
        if (host && host->running()) {
            host->signal(SIGTERM);
            const auto status = host->waitExit(processBound);
            EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << host->output();
        }
        const std::string log = TempDir::read(dir.file("host.log")) + (host ? host->output() : "");
        EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << log;
    }

    HttpAnswer send(HttpCall call, bool withToken = true)
    {
        if (withToken)
            call.headers["Authorization"] = std::string("Bearer ") + token;
        return call.sendTo(port);
    }
    HttpAnswer post(const std::string& path, const std::string& body = "", bool withToken = true)
    {
        return send(vlm::test::post(path, body), withToken);
    }

    std::unique_ptr<ChildProcess> sim;
    std::unique_ptr<ChildProcess> host;
    std::uint16_t port = 0;
};

// Without the files they work on, the actions answer 422 with the routines'
// own lines; with them, they run on the host's own files.
TEST_F(ConfigRoutes, EachActionRunsOnTheHostsOwnFilesOrAnswers422WithTheRoutinesLines)
{
    const HttpAnswer noSource = post("/host/config/backup");
    EXPECT_EQ(noSource.status, 422) << noSource.body;
    EXPECT_NE(noSource.body.find("Source file does not exist: " + backupSource()), std::string::npos) << noSource.body;
    const HttpAnswer noHangar = post("/host/config/load-hangar");
    EXPECT_EQ(noHangar.status, 422) << noHangar.body;
    EXPECT_NE(noHangar.body.find("Source file does not exist: " + hangarFile), std::string::npos) << noHangar.body;
    const HttpAnswer silent = post("/host/ping", R"({"address":"::1"})");
    EXPECT_EQ(silent.status, 422) << silent.body;
    EXPECT_NE(silent.body.find(R"("reason")"), std::string::npos) << silent.body;

    dir.write("home/.config/fenlix/velmora-host.json", R"({"v":5})");
    const HttpAnswer backup = post("/host/config/backup");
    ASSERT_EQ(backup.status, 200) << backup.body;
    EXPECT_EQ(TempDir::read(backupTarget()), R"({"v":5})");
    ASSERT_TRUE(backup.json());
    EXPECT_EQ(backup.json()->getValue<std::string>("target"), backupTarget());

    writeHangar(R"({"remoteIp":"10.0.0.9","remotePort":"2011","uavType":"MR"})");
    const HttpAnswer merged = post("/host/config/load-hangar", "{}");
    ASSERT_EQ(merged.status, 200) << merged.body;
    EXPECT_TRUE(merged.json()->getValue<bool>("changed"));
    EXPECT_EQ(savedConfig()->getInt("station.comm_port"), 2011);
    const HttpAnswer again = post("/host/config/load-hangar");
    ASSERT_EQ(again.status, 200) << again.body;
    EXPECT_FALSE(again.json()->getValue<bool>("changed"));

    const HttpAnswer reset = post("/host/config/reset-defaults");
    ASSERT_EQ(reset.status, 200) << reset.body;
    EXPECT_EQ(reset.json()->getValue<std::string>("config_file"), configFile);
    expectStationDefaults();

    const HttpAnswer ping = post("/host/ping", R"({"address":"127.0.0.1"})");
    if (geteuid() == 0) {
        EXPECT_EQ(ping.status, 200) << ping.body;
    } else {
        EXPECT_EQ(ping.status, 422) << ping.body;
        EXPECT_NE(ping.body.find("raw ICMP socket could not be opened"), std::string::npos) << ping.body;
    }
    // The host runs on after all of it and still wants its token.
    EXPECT_EQ(post("/host/config/backup", "", false).status, 401);
}

TEST_F(ConfigRoutes, RefusedRequestsChangeNothing)
{
    dir.write("home/.config/fenlix/velmora-host.json", R"({"v":6})");
    writeHangar(R"({"remoteIp":"10.0.0.9","remotePort":"2011","uavType":"MR"})");
    const std::string before = TempDir::read(configFile);

    for (const char* path : {"/host/config/reset-defaults", "/host/config/backup", "/host/config/load-hangar"}) {
        EXPECT_EQ(post(path, "", false).status, 401) << path;
        EXPECT_EQ(send(vlm::test::get(path)).status, 405) << path;
        // No request names a file: the host's own are the only ones used.
        EXPECT_EQ(post(path, R"({"file":")" + dir.file("elsewhere.json") + R"("})").status, 400) << path;
        EXPECT_EQ(post(path, "not json").status, 400) << path;
        EXPECT_EQ(post(path, "[]").status, 400) << path;
        EXPECT_EQ(post(path, std::string(8192, ' ')).status, 413) << path;
        // A page in the operator's browser is stopped before the token matters.
        HttpCall page = vlm::test::post(path, "");
        page.headers["Origin"] = "http://evil.example";
        page.headers["Sec-Fetch-Site"] = "cross-site";
        EXPECT_EQ(send(page).status, 403) << path;
    }
    for (const char* body : {"", "{}", R"({"address":"localhost"})", R"({"address":7})",
                             R"({"address":"127.0.0.1","count":100})"})
        EXPECT_EQ(post("/host/ping", body).status, 400) << body;

    EXPECT_EQ(TempDir::read(configFile), before);
    EXPECT_FALSE(Poco::File(backupTarget()).exists());
    EXPECT_FALSE(Poco::File(dir.file("elsewhere.json")).exists());
}

TEST_F(ConfigRoutes, AreListedInTheApiDescription)
{
    const HttpAnswer answer = send(vlm::test::get("/host/openapi.json"));
    ASSERT_EQ(answer.status, 200);
    const auto paths = answer.json()->getObject("paths");
    ASSERT_TRUE(paths);
    for (const char* path : {"/host/config/reset-defaults", "/host/config/backup", "/host/config/load-hangar",
                             "/host/ping"}) {
        const auto item = paths->getObject(path);
        ASSERT_TRUE(item) << path;
        const auto operation = item->getObject("post");
        ASSERT_TRUE(operation) << path;
        EXPECT_TRUE(operation->getObject("responses")->has("401")) << path;
        EXPECT_TRUE(operation->getObject("responses")->has("422")) << path;
    }
}

} // namespace
