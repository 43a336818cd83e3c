// The MQTT client's broker link: TLS against a real mosquitto with
// certificates made by the test, and the warnings about links that are not
// protected.

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
constexpr auto warning = Poco::Message::PRIO_WARNING;

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

TEST_F(MqttTls, TheTrustedCaAndTheRightNameReachABrokerThatSpeaksOnlyTls13)
{
    auto broker = brokerWith(certificates->loopback, "tls_version tlsv1.3");
    vlm::PahoMqttClient client(clientFor(*broker, "mqtts"));
    EXPECT_TRUE(client.connect()) << broker->output();
}

TEST_F(MqttTls, ACertificateForAnotherNameOrFromAnUntrustedCaIsRefusedWithWhatWasAsked)
{
    const std::string tail = " (TLS: the broker's certificate must chain to a CA in " + certificates->caFile +
                             " and be issued for 127.0.0.1)";
    for (const auto* server : {&certificates->otherName, &certificates->untrusted}) {
        auto broker = brokerWith(*server);
        LogCapture log;
        vlm::PahoMqttClient client(clientFor(*broker));
        EXPECT_FALSE(client.connect());
        EXPECT_FALSE(client.isConnected());
        const std::string head = "mqtt connect to ssl://" + broker->hostPort() + " failed: ";
        EXPECT_EQ(linesWith(log, head, Poco::Message::PRIO_ERROR), 1) << broker->output();
        EXPECT_EQ(linesWith(log, tail, Poco::Message::PRIO_ERROR), 1);
    }
}

TEST_F(MqttTls, InsecureConnectsToAWrongNameAndWarnsAtEveryStart)
{
    auto broker = brokerWith(certificates->otherName);
    LogCapture log;
    auto options = clientFor(*broker);
    options.tlsInsecure = true;
    const std::string warned = "mqtt.tls_insecure is set: the certificate and host name of ssl://" +
                               broker->hostPort() +
                               " are not checked; whoever sits between this host and the broker can read and "
                               "change the traffic";
    for (int start = 1; start <= 2; ++start) {
        vlm::PahoMqttClient client(options);
        EXPECT_TRUE(client.connect()) << broker->output();
        EXPECT_EQ(log.count(warned, warning), start);
    }
}

TEST(MqttLinkWarnings, CredentialsInTheClearToARemoteBrokerAreWarnedAbout)
{
    // Only constructed, never connected: no traffic leaves the machine.
    struct Case {
        const char *uri, *user, *password, *warnedUri;
    } const cases[] = {
        {"10.20.30.40:1883", "hangarInside", "tepid@brkr", "tcp://10.20.30.40:1883"},
        {"mqtt://broker.example", "", "tepid@brkr", "tcp://broker.example:1883"},
        {"tcp://10.20.30.40:1883", "", "", nullptr},
        {"tcp://[::1]:1883", "hangarInside", "tepid@brkr", nullptr},
        {"ssl://broker.example:8883", "hangarInside", "tepid@brkr", nullptr},
    };
    for (const auto& c : cases) {
        LogCapture log;
        vlm::MqttClientOptions options;
        options.serverUri = c.uri;
        options.userName = c.user;
        options.password = c.password;
        vlm::PahoMqttClient client(options);
        const int warnings = c.warnedUri ? 1 : 0;
        EXPECT_EQ(linesWith(log, "", warning), warnings) << c.uri;
        const std::string text = c.warnedUri ? std::string("mqtt user name and password go to ") + c.warnedUri +
                                                   " unencrypted; use an ssl:// or mqtts:// broker address"
                                             : std::string();
        EXPECT_EQ(log.count(text, warning), warnings) << c.uri;
    }
}

} // namespace
