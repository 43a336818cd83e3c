// The host's configuration: a usable file gives the documented values, and
// every kind of mistake is reported with its key and the reason.

#include <gtest/gtest.h>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>

#include "app/HostCommandLine.h"
#include "app/HostConfig.h"
#include "http/HttpAdmission.h"
#include "support/TempDir.h"

namespace {

using vlm::host::ConfigError;
using vlm::host::HostConfig;

const char* const minimal = R"({
  "mqtt": {"server_uri": "127.0.0.1:1883", "user_name": "", "pawsswd": ""},
  "plugins": [{"library": "libPlugin.so", "service_port": 7700}]
})";

Poco::JSON::Object::Ptr parse(const std::string& text)
{
    return Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
}

class HostConfigTest : public ::testing::Test {
protected:
    HostConfig read(const std::string& text) { return vlm::host::readHostConfigFile(dir.write("host.json", text), "/opt/velmora/lib"); }

    /// The error for `text`, which must be refused.
    ConfigError refusal(const std::string& text)
    {
        try {
            read(text);
        } catch (const ConfigError& e) {
            return e;
        }
        ADD_FAILURE() << "accepted: " << text;
        return ConfigError("", "");
    }

    /// `minimal` with one value replaced: `object`.`key` = `json`.
    std::string withValue(const std::string& object, const std::string& key, const std::string& json)
    {
        auto root = parse(minimal);
        auto inner = root->getObject(object);
        if (!inner) {
            inner = new Poco::JSON::Object;
            root->set(object, inner);
        }
        // Wrapped in a list: the parser takes a document, not a bare value.
        inner->set(key, Poco::JSON::Parser().parse("[" + json + "]").extract<Poco::JSON::Array::Ptr>()->get(0));
        std::ostringstream out;
        root->stringify(out);
        return out.str();
    }

    vlm::test::TempDir dir;
};

TEST_F(HostConfigTest, MinimalFileGetsTheDocumentedDefaults)
{
    const HostConfig config = read(minimal);
    EXPECT_EQ(config.http.bindAddress, "127.0.0.1");
    EXPECT_EQ(config.http.port, 8080);
    EXPECT_EQ(config.http.workerThreads, 128);
    const vlm::HttpCapacity capacity = vlm::httpCapacity(config.http);
    EXPECT_EQ(capacity.reservedHostThreads, 16);
    EXPECT_EQ(capacity.maxStreams, 64);
    EXPECT_EQ(capacity.maxStreamsPerClient, 32);
    EXPECT_EQ(capacity.maxWaitingRequests, 48);
    EXPECT_EQ(config.http.requestDeadline, std::chrono::seconds(10));
    EXPECT_TRUE(config.http.bearerToken.empty());
    EXPECT_TRUE(config.http.allowedHosts.empty());
    EXPECT_EQ(config.logLevel, "information");
    EXPECT_EQ(config.logFile, "console");
    ASSERT_EQ(config.plugins.size(), 1u);
    EXPECT_EQ(config.plugins[0].serviceAddress, "127.0.0.1");
    EXPECT_EQ(config.plugins[0].servicePort, 7700);
    EXPECT_EQ(config.plugins[0].serviceWait, std::chrono::seconds(10));
    EXPECT_EQ(config.bus.queueByteLimit, 64u << 20);
    EXPECT_EQ(config.bus.messageByteLimit, 24u << 20);
    EXPECT_EQ(config.bus.tapQueueByteLimit, 16u << 20);
    EXPECT_EQ(config.mqtt.maxPayloadBytes, 1048576u);
    EXPECT_EQ(config.mqtt.deliveryQueueMessages, 1000u);
    EXPECT_EQ(config.mqtt.deliveryQueueBytes, 16u << 20);
    EXPECT_EQ(config.mqtt.deliveryThreads, 4u);
    EXPECT_FALSE(config.mqtt.tlsInsecure);
}

TEST_F(HostConfigTest, ShippedExampleIsUsable)
{
    const HostConfig config = vlm::host::readHostConfigFile(VELMORA_EXAMPLE_CONFIG, "/opt/velmora/lib");
    EXPECT_FALSE(config.mqtt.serverUri.empty());
    EXPECT_FALSE(config.mqtt.stationSerial.empty());
    ASSERT_EQ(config.plugins.size(), 1u);
    EXPECT_EQ(config.plugins[0].library, "libVelmoraPluginPilotControl.so");
}

TEST_F(HostConfigTest, ReadsEveryDocumentedKey)
{
    const HostConfig config = read(R"({
      "http": {"address": "::1", "port": 0, "threads": 7, "queue": 9, "max_body_bytes": 100,
               "keep_alive": false, "token": "s3cret", "reserved_host_threads": 1, "max_streams": 3,
               "max_streams_per_client": 2, "max_waiting_requests": 3, "request_deadline_seconds": 4,
               "allowed_hosts": ["station.local", "fe80::1"], "allowed_origins": ["http://127.0.0.1:5173"]},
      "mqtt": {"server_uri": "mqtts://broker.example:8884", "user_name": "u", "pawsswd": "p", "client_id": "c",
               "tls_insecure": true, "max_payload_bytes": 2048, "delivery_threads": 2,
               "delivery_queue_messages": 50, "delivery_queue_bytes": 4096},
      "station": {"station_sn": "SN-1"},
      "plugins": [{"library": "/abs/libA.so", "service_address": "10.0.0.2", "service_port": 1,
                   "service_wait_seconds": 0}],
      "log": {"level": "debug", "file": "host.log"},
      "bus": {"max_queue_bytes": 5000, "max_message_bytes": 4000, "tap_max_queue_bytes": 3000}
    })");
    EXPECT_EQ(config.http.bindAddress, "::1");
    EXPECT_EQ(config.http.port, 0);
    EXPECT_EQ(config.http.workerThreads, 7);
    EXPECT_EQ(config.http.queueSize, 9);
    EXPECT_EQ(config.http.maxBodyBytes, 100u);
    EXPECT_FALSE(config.http.keepAlive);
    EXPECT_EQ(config.http.bearerToken, "s3cret");
    EXPECT_EQ(config.http.reservedHostThreads, 1);
    EXPECT_EQ(config.http.maxStreams, 3);
    EXPECT_EQ(config.http.maxStreamsPerClient, 2);
    EXPECT_EQ(config.http.maxWaitingRequests, 3);
    EXPECT_EQ(config.http.requestDeadline, std::chrono::seconds(4));
    EXPECT_EQ(config.http.allowedHosts, (std::vector<std::string>{"station.local", "fe80::1"}));
    EXPECT_EQ(config.http.allowedOrigins, std::vector<std::string>{"http://127.0.0.1:5173"});
    EXPECT_EQ(config.mqtt.serverUri, "mqtts://broker.example:8884");
    EXPECT_EQ(config.mqtt.userName, "u");
    EXPECT_EQ(config.mqtt.password, "p");
    EXPECT_EQ(config.mqtt.clientId, "c");
    EXPECT_TRUE(config.mqtt.tlsInsecure);
    EXPECT_EQ(config.mqtt.maxPayloadBytes, 2048u);
    EXPECT_EQ(config.mqtt.deliveryThreads, 2u);
    EXPECT_EQ(config.mqtt.deliveryQueueMessages, 50u);
    EXPECT_EQ(config.mqtt.deliveryQueueBytes, 4096u);
    EXPECT_EQ(config.mqtt.stationSerial, "SN-1");
    EXPECT_EQ(config.plugins[0].serviceAddress, "10.0.0.2");
    EXPECT_EQ(config.plugins[0].serviceWait, std::chrono::seconds(0));
    EXPECT_EQ(config.logLevel, "debug");
    EXPECT_EQ(config.logFile, dir.file("host.log"));
    EXPECT_EQ(config.bus.queueByteLimit, 5000u);
    EXPECT_EQ(config.bus.messageByteLimit, 4000u);
    EXPECT_EQ(config.bus.tapQueueByteLimit, 3000u);
}

struct BadValue {
    const char* object;
    const char* key;
    const char* json;
    const char* reportedKey;
    const char* reasonPart;
};

TEST_F(HostConfigTest, BadValuesNameTheKeyAndTheReason)
{
    const BadValue cases[] = {
        {"http", "port", "\"8080\"", "http.port", "whole number"},
        {"http", "port", "70000", "http.port", "from 0 to 65535"},
        {"http", "port", "80.5", "http.port", "whole number"},
        {"http", "threads", "0", "http.threads", "from 1"},
        {"http", "threads", "2", "http.threads", "must hold http.reserved_host_threads + http.max_streams"},
        {"http", "max_streams", "0", "http.max_streams", "from 1"},
        {"http", "max_streams", "120", "http.threads", "= 16 + 120 + 1 = 137, got 128"},
        {"http", "max_waiting_requests", "100", "http.threads", "must hold"},
        {"http", "reserved_host_threads", "64", "http.threads", "must hold"},
        {"http", "max_streams_per_client", "65", "http.max_streams_per_client", "must not exceed http.max_streams"},
        {"http", "request_deadline_seconds", "0", "http.request_deadline_seconds", "from 1"},
        {"http", "address", "\"localhost\"", "http.address", "numeric IP address"},
        {"http", "keep_alive", "1", "http.keep_alive", "true or false"},
        {"http", "token", "\"\"", "http.token", "empty"},
        {"mqtt", "server_uri", "\"ftp://x\"", "mqtt.server_uri", "unknown scheme"},
        {"mqtt", "server_uri", "42", "mqtt.server_uri", "expected a string"},
        {"mqtt", "ca_file", "\"missing-ca.pem\"", "mqtt.ca_file", "no such file"},
        {"mqtt", "tls_insecure", "\"yes\"", "mqtt.tls_insecure", "true or false"},
        {"mqtt", "max_payload_bytes", "0", "mqtt.max_payload_bytes", "from 1 to 268435455"},
        {"mqtt", "delivery_threads", "65", "mqtt.delivery_threads", "from 1 to 64"},
        {"mqtt", "delivery_queue_messages", "0", "mqtt.delivery_queue_messages", "from 1"},
        {"mqtt", "delivery_queue_bytes", "1000", "mqtt.delivery_queue_bytes", "at least mqtt.max_payload_bytes"},
        {"log", "level", "\"loud\"", "log.level", "unknown level"},
        {"log", "file", "\"/no/such/folder/host.log\"", "log.file", "folder does not exist"},
        {"bus", "max_queue_bytes", "0", "bus.max_queue_bytes", "from 1"},
        {"bus", "tap_max_queue_bytes", "\"1MB\"", "bus.tap_max_queue_bytes", "whole number"},
        {"bus", "max_message_bytes", "100000000", "bus.max_message_bytes", "must not exceed bus.max_queue_bytes"},
        {"http", "allowed_hosts", "\"station.local\"", "http.allowed_hosts", "expected a list"},
        {"http", "allowed_hosts", "[1]", "http.allowed_hosts[0]", "host names"},
        {"http", "allowed_hosts", "[\"a\", \"user@b\"]", "http.allowed_hosts[1]", "host names"},
        {"http", "allowed_hosts", "[\"a:8080\"]", "http.allowed_hosts[0]", "host names"},
        {"http", "allowed_origins", "[\"null\"]", "http.allowed_origins[0]", "origins"},
        {"http", "allowed_origins", "[\"*\"]", "http.allowed_origins[0]", "origins"},
        {"http", "allowed_origins", "[\"http://a/path\"]", "http.allowed_origins[0]", "origins"},
    };
    for (const auto& c : cases) {
        const ConfigError error = refusal(withValue(c.object, c.key, c.json));
        EXPECT_EQ(error.key(), c.reportedKey) << c.json;
        EXPECT_NE(error.reason().find(c.reasonPart), std::string::npos) << error.what();
    }
}

TEST_F(HostConfigTest, OffLoopbackTheTokenIsRequiredUnlessInsecureRemoteIsSetOnPurpose)
{
    struct Case {
        std::string http;  // the "http" object's members
        bool accepted;
    };
    const Case cases[] = {
        {R"("address": "127.0.0.1")", true},
        {R"("address": "127.0.0.2")", true},
        {R"("address": "::1")", true},
        {R"("address": "0.0.0.0")", false},
        {R"("address": "fd00::5")", false},
        {R"("address": "192.168.1.5")", false},
        {R"("address": "192.168.1.5", "allow_insecure_remote": false)", false},
        {R"("address": "0.0.0.0", "token": "s3cret")", true},
        {R"("address": "0.0.0.0", "allow_insecure_remote": true)", true},
    };
    for (const auto& c : cases) {
        auto root = parse(minimal);
        root->set("http", parse("{" + c.http + "}"));
        std::ostringstream text;
        root->stringify(text);
        if (c.accepted) {
            EXPECT_NO_THROW(read(text.str())) << c.http;
            continue;
        }
        const ConfigError error = refusal(text.str());
        EXPECT_EQ(error.key(), "http.token") << c.http;
        EXPECT_NE(error.reason().find("not a loopback address"), std::string::npos) << error.what();
        EXPECT_NE(error.reason().find("http.allow_insecure_remote"), std::string::npos) << error.what();
    }
    EXPECT_TRUE(read(withValue("http", "allow_insecure_remote", "true")).http.allowInsecureRemote);
    EXPECT_FALSE(read(minimal).http.allowInsecureRemote);
}

TEST_F(HostConfigTest, MissingRequiredKeysAreNamed)
{
    for (const char* key : {"server_uri", "user_name", "pawsswd"}) {
        auto root = parse(minimal);
        root->getObject("mqtt")->remove(key);
        std::ostringstream out;
        root->stringify(out);
        const ConfigError error = refusal(out.str());
        EXPECT_EQ(error.key(), std::string("mqtt.") + key);
        EXPECT_EQ(error.reason(), "missing");
    }
    EXPECT_EQ(refusal(R"({"mqtt": {"server_uri": "h", "user_name": "", "pawsswd": ""}})").key(), "plugins");
}

TEST_F(HostConfigTest, PluginEntriesAreCheckedOneByOne)
{
    const std::string head = R"({"mqtt": {"server_uri": "h", "user_name": "", "pawsswd": ""}, "plugins": )";
    EXPECT_EQ(refusal(head + R"({"library": "x"}})").key(), "plugins");
    EXPECT_EQ(refusal(head + R"(["libA.so"]})").key(), "plugins[0]");
    EXPECT_EQ(refusal(head + R"([{"library": "a.so", "service_port": 1}, {"service_port": 1}]})").key(),
              "plugins[1].library");
    EXPECT_EQ(refusal(head + R"([{"library": "a.so"}]})").key(), "plugins[0].service_port");
    EXPECT_EQ(refusal(head + R"([{"library": "a.so", "service_port": 0}]})").key(), "plugins[0].service_port");
    EXPECT_EQ(refusal(head + R"([{"library": "a.so", "service_port": 1, "service_address": "pilot.local"}]})").key(),
              "plugins[0].service_address");
    EXPECT_TRUE(read(head + "[]}").plugins.empty());
}

TEST_F(HostConfigTest, UnreadableFilesAreReportedWithoutAKey)
{
    EXPECT_NE(refusal("{\"http\": ").reason().find("not valid JSON"), std::string::npos);
    EXPECT_EQ(refusal("[1, 2]").reason(), "the file must hold one JSON object");
    EXPECT_EQ(refusal("{\"http\": 5}").key(), "http");
    try {
        vlm::host::readHostConfigFile(dir.file("absent.json"), "");
        ADD_FAILURE() << "an absent file was accepted";
    } catch (const ConfigError& e) {
        EXPECT_NE(e.reason().find("no such file"), std::string::npos);
    }
}

TEST(LibraryCandidates, RelativeNamesTryTheConfigFolderThenTheExecutablesLibThenThePluginDirectory)
{
    EXPECT_EQ(vlm::host::resolveLibraryCandidates("/abs/libA.so", "/etc/velmora/", "/opt/lib/"),
              std::vector<std::string>{"/abs/libA.so"});
    EXPECT_STREQ(vlm::host::installedPluginFolder, "velmora/plugins");
    EXPECT_EQ(vlm::host::resolveLibraryCandidates("plugins/libA.so", "/etc/velmora/", "/opt/lib/"),
              (std::vector<std::string>{"/etc/velmora/plugins/libA.so", "/opt/lib/plugins/libA.so",
                                        "/opt/lib/velmora/plugins/plugins/libA.so"}));
    EXPECT_EQ(vlm::host::resolveLibraryCandidates("libA.so", "/etc/velmora/", ""),
              std::vector<std::string>{"/etc/velmora/libA.so"});
}

TEST(HostCommandLine, ParsesTheOptionsAndRefusesTheRest)
{
    using vlm::host::parseHostCommandLine;
    EXPECT_EQ(parseHostCommandLine({"--config", "a.json"}).configPath, "a.json");
    EXPECT_EQ(parseHostCommandLine({"--config=b.json", "--check"}).configPath, "b.json");
    EXPECT_TRUE(parseHostCommandLine({"-c", "a.json", "--check"}).checkOnly);
    EXPECT_TRUE(parseHostCommandLine({"--help"}).help);
    EXPECT_THROW(parseHostCommandLine({}), std::invalid_argument);
    EXPECT_THROW(parseHostCommandLine({"--config"}), std::invalid_argument);
    EXPECT_THROW(parseHostCommandLine({"--config="}), std::invalid_argument);
    EXPECT_THROW(parseHostCommandLine({"--config", "a.json", "--port", "1"}), std::invalid_argument);
}

} // namespace
