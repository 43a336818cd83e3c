// The host's configuration: a usable file gives the documented values, and
// every kind of mistake is reported with its key and the reason.

#include <gtest/gtest.h>

#include "app/HostConfig.h"
#include "support/TempDir.h"

namespace {

using vlm::host::ConfigError;
using vlm::host::HostConfig;

const std::string mqtt = R"({"mqtt": {"server_uri": "127.0.0.1:1883", "user_name": "", "pawsswd": "")";
const std::string plugins = R"(, "plugins": [{"library": "libPlugin.so", "service_port": 7700}])";

/// A usable file with `object`.`key` set to `json`.
std::string withValue(const std::string& object, const std::string& key, const std::string& json)
{
    const std::string member = "\"" + key + "\": " + json;
    if (object == "mqtt")
        return mqtt + ", " + member + "}" + plugins + "}";
    return mqtt + "}" + plugins + ", \"" + object + "\": {" + member + "}}";
}

class HostConfigTest : public ::testing::Test {
protected:
    HostConfig read(const std::string& text)
    {
        return vlm::host::readHostConfigFile(dir.write("host.json", text), "/opt/velmora/lib");
    }

    /// The error for the file at `path`, which must be refused.
    ConfigError refusal(const std::string& path)
    {
        try {
            vlm::host::readHostConfigFile(path, "/opt/velmora/lib");
        } catch (const ConfigError& e) {
            return e;
        }
        ADD_FAILURE() << "accepted: " << path;
        return ConfigError("", "");
    }

    vlm::test::TempDir dir;
};

TEST_F(HostConfigTest, ReadsTheShippedExampleRelativePathsAndRemoteServingOnlyWhenAsked)
{
    const HostConfig example = vlm::host::readHostConfigFile(VELMORA_EXAMPLE_CONFIG, "/opt/velmora/lib");
    ASSERT_EQ(example.plugins.size(), 1u);
    EXPECT_EQ(example.plugins[0].library, "libVelmoraPluginPilotControl.so");
    EXPECT_EQ(read(withValue("log", "file", "\"host.log\"")).logFile, dir.file("host.log"));
    const std::string head = mqtt + "}" + plugins + R"(, "http": {)";
    EXPECT_EQ(read(head + R"("address": "::1"}})").http.bindAddress, "::1");
    EXPECT_EQ(read(head + R"("address": "0.0.0.0", "token": "s3cret"}})").http.bearerToken, "s3cret");
    EXPECT_TRUE(read(head + R"("address": "0.0.0.0", "allow_insecure_remote": true}})").http.allowInsecureRemote);
}

TEST_F(HostConfigTest, EveryMistakeNamesTheKeyAndTheReason)
{
    const std::string usableMqtt = mqtt + "}";
    const std::string entry = R"({"library": "a.so", "service_port": 1)";
    struct Case {
        std::string text;
        std::string key;
        std::string reasonPart;
    };
    const Case cases[] = {
        {withValue("http", "port", "\"8080\""), "http.port", "whole number"},
        {withValue("http", "max_streams", "120"), "http.threads", "= 16 + 120 + 1 = 137, got 128"},
        {withValue("http", "max_streams_per_client", "65"), "http.max_streams_per_client",
         "must not exceed http.max_streams"},
        {withValue("http", "address", "\"localhost\""), "http.address", "numeric IP address"},
        {withValue("http", "token", "\"\""), "http.token", "empty"},
        {withValue("http", "address", "\"0.0.0.0\""), "http.token",
         "0.0.0.0 is not a loopback address (set http.allow_insecure"},
        {withValue("http", "address", "\"fd00::5\""), "http.token", "fd00::5 is not a loopback address"},
        {withValue("mqtt", "ca_file", "\"missing-ca.pem\""), "mqtt.ca_file", "no such file"},
        {withValue("mqtt", "max_payload_bytes", "0"), "mqtt.max_payload_bytes", "from 1 to 268435455"},
        {withValue("mqtt", "delivery_queue_bytes", "1000"), "mqtt.delivery_queue_bytes",
         "at least mqtt.max_payload_bytes"},
        {withValue("log", "file", "\"/no/such/folder/host.log\""), "log.file", "folder does not exist"},
        {withValue("bus", "max_message_bytes", "100000000"), "bus.max_message_bytes",
         "must not exceed bus.max_queue_bytes"},
        {withValue("http", "allowed_hosts", "[\"a\", \"user@b\"]"), "http.allowed_hosts[1]", "host names"},
        {withValue("http", "allowed_origins", "[\"null\"]"), "http.allowed_origins[0]", "origins"},
        {"{\"http\": ", "", "not valid JSON"},
        {"[1, 2]", "", "the file must hold one JSON object"},
        {R"({"mqtt": {"server_uri": "h", "user_name": ""})" + plugins + "}", "mqtt.pawsswd", "missing"},
        {usableMqtt + "}", "plugins", "missing"},
        {usableMqtt + R"(, "plugins": [)" + entry + R"(}, {"service_port": 1}]})", "plugins[1].library", "missing"},
        {usableMqtt + R"(, "plugins": [{"library": "a.so"}]})", "plugins[0].service_port", "missing"},
        {usableMqtt + R"(, "plugins": [)" + entry + R"(, "service_address": "pilot.local"}]})",
         "plugins[0].service_address", "numeric"},
    };
    for (const auto& c : cases) {
        const ConfigError error = refusal(dir.write("host.json", c.text));
        EXPECT_EQ(error.key(), c.key) << c.text;
        EXPECT_NE(error.reason().find(c.reasonPart), std::string::npos) << error.what();
    }
    EXPECT_NE(refusal(dir.file("absent.json")).reason().find("no such file"), std::string::npos);
    EXPECT_TRUE(read(usableMqtt + R"(, "plugins": []})").plugins.empty());
}

TEST(LibraryCandidates, RelativeNamesTryTheConfigFolderThenTheExecutablesLibThenThePluginDirectory)
{
    EXPECT_EQ(vlm::host::resolveLibraryCandidates("plugins/libA.so", "/etc/velmora/", "/opt/lib/"),
              (std::vector<std::string>{"/etc/velmora/plugins/libA.so", "/opt/lib/plugins/libA.so",
                                        "/opt/lib/velmora/plugins/plugins/libA.so"}));
    EXPECT_EQ(vlm::host::resolveLibraryCandidates("libA.so", "/etc/velmora/", ""),
              std::vector<std::string>{"/etc/velmora/libA.so"});
}

} // namespace
