// The MQTT client's broker link: TLS against a real mosquitto with
// certificates made by the test, and the warnings about links that are not
// protected.

#include <future>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "host/HostTestSupport.h"
#include "mqtt/PahoMqttClient.h"
#include "support/LogCapture.h"
#include "support/MosquittoBroker.h"
#include "support/TestCertificates.h"

namespace {

using vlm::test::linesWith;
using vlm::test::LogCapture;
using vlm::test::MosquittoBroker;
using vlm::test::TestCertificates;

class MqttTls : public ::testing::Test {
protected:
    static void SetUpTestSuite() { certificates = new TestCertificates; }
    static void TearDownTestSuite()
    {
        delete certificates;
        certificates = nullptr;
    }

    /// A broker presenting `server` on a TLS listener.
    static std::unique_ptr<MosquittoBroker> brokerWith(const TestCertificates::ServerCertificate& server,
                                                       const std::string& listenerConfig = "")
    {
        MosquittoBroker::Options options;
        options.listenerConfig = listenerConfig;
        options.tlsCertFile = server.certFile;
        options.tlsKeyFile = server.keyFile;
        auto broker = std::make_unique<MosquittoBroker>(options);
        broker->start();
        return broker;
    }

    static vlm::MqttClientOptions clientFor(const MosquittoBroker& broker, const std::string& scheme = "ssl")
    {
        vlm::MqttClientOptions options;
        options.serverUri = scheme + "://" + broker.hostPort();
        options.caFile = certificates->caFile;
        options.reconnectMinDelay = std::chrono::milliseconds(200);
        return options;
    }

    static TestCertificates* certificates;
};

TestCertificates* MqttTls::certificates = nullptr;

TEST_F(MqttTls, TheTrustedCaAndTheRightNameConnectAndCarryMessages)
{
    auto broker = brokerWith(certificates->loopback);
    for (const char* scheme : {"ssl", "mqtts"}) {
        vlm::PahoMqttClient client(clientFor(*broker, scheme));
        ASSERT_TRUE(client.connect()) << scheme << ": " << broker->output();
        std::promise<std::string> received;
        ASSERT_TRUE(client.Subscribe([&](const std::string&, const std::string& payload) { received.set_value(payload); },
                                     "/tls/echo", 1));
        ASSERT_TRUE(client.PublishMessage("over tls", "/tls/echo", 1, 0, 2));
        auto got = received.get_future();
        ASSERT_EQ(got.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(got.get(), "over tls");
        EXPECT_TRUE(client.Unsubscribe("/tls/echo"));
    }
}

TEST_F(MqttTls, ABrokerThatSpeaksOnlyTls13IsReached)
{
    auto broker = brokerWith(certificates->loopback, "tls_version tlsv1.3");
    vlm::PahoMqttClient client(clientFor(*broker));
    EXPECT_TRUE(client.connect()) << broker->output();
}

TEST_F(MqttTls, ACertificateForAnotherNameOrFromAnUntrustedCaIsRefused)
{
    const std::string reason = "must chain to a CA in " + certificates->caFile;
    for (const auto* server : {&certificates->otherName, &certificates->untrusted}) {
        auto broker = brokerWith(*server);
        LogCapture log;
        vlm::PahoMqttClient client(clientFor(*broker));
        EXPECT_FALSE(client.connect());
        EXPECT_FALSE(client.isConnected());
        EXPECT_TRUE(log.contains("mqtt connect to ssl://" + broker->hostPort() + " failed")) << broker->output();
        EXPECT_TRUE(log.contains(reason + " and be issued for 127.0.0.1"));
    }
}

TEST_F(MqttTls, InsecureConnectsToAWrongNameAndWarnsAtEveryStart)
{
    auto broker = brokerWith(certificates->otherName);
    LogCapture log;
    auto options = clientFor(*broker);
    options.tlsInsecure = true;
    for (int start = 1; start <= 2; ++start) {
        vlm::PahoMqttClient client(options);
        EXPECT_TRUE(client.connect()) << broker->output();
        EXPECT_EQ(linesWith(log, "mqtt.tls_insecure is set", Poco::Message::PRIO_WARNING), start);
    }
}

TEST(MqttLinkWarnings, CredentialsInTheClearToARemoteBrokerAreWarnedAbout)
{
    // Only constructed, never connected: no traffic leaves the machine.
    const std::string unencrypted = "user name and password go to";
    struct Case {
        const char* uri;
        const char* user;
        const char* password;
        bool warned;
    };
    const Case cases[] = {
        {"tcp://10.20.30.40:1883", "hangarInside", "tepid@brkr", true},
        {"broker.example:1883", "", "tepid@brkr", true},
        {"mqtt://broker.example", "hangarInside", "", true},
        {"tcp://10.20.30.40:1883", "", "", false},
        {"127.0.0.1:1883", "hangarInside", "tepid@brkr", false},
        {"tcp://localhost:1883", "hangarInside", "tepid@brkr", false},
        {"tcp://[::1]:1883", "hangarInside", "tepid@brkr", false},
        {"ssl://broker.example:8883", "hangarInside", "tepid@brkr", false},
    };
    for (const auto& c : cases) {
        LogCapture log;
        vlm::MqttClientOptions options;
        options.serverUri = c.uri;
        options.userName = c.user;
        options.password = c.password;
        vlm::PahoMqttClient client(options);
        EXPECT_EQ(linesWith(log, unencrypted, Poco::Message::PRIO_WARNING), c.warned ? 1 : 0) << c.uri;
        EXPECT_EQ(linesWith(log, "tls_insecure", Poco::Message::PRIO_WARNING), 0) << c.uri;
    }
}

} // namespace
