// How the MQTT client protects its broker link: the broker addresses it
// accepts, TLS against a real mosquitto with certificates made by the test,
// and the warnings about links that are not protected.

#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "host/HostTestSupport.h"
#include "mqtt/MqttClientOptions.h"
#include "mqtt/PahoMqttClient.h"
#include "support/MosquittoBroker.h"
#include "support/TestCertificates.h"

namespace {

using vlm::test::linesWith;
using vlm::test::LogCapture;
using vlm::test::MosquittoBroker;
using vlm::test::TestCertificates;
constexpr auto warning = Poco::Message::PRIO_WARNING;

TEST(MqttBrokerAddress, TheConfiguredFormsAreNormalisedAndCredentialsInTheClearToARemoteBrokerWarned)
{
    // Clients are only constructed, never connected: no traffic leaves the machine.
    struct Case {
        const char *configured, *normalized, *password;
        bool warned;
    } const cases[] = {
        {"127.0.0.1:1883", "tcp://127.0.0.1:1883", "pw", false},
        {"mqtt://broker.local", "tcp://broker.local:1883", "pw", true},
        {"127.example.com:1883", "tcp://127.example.com:1883", "pw", true},
        {"tcp://10.20.30.40:1883", "tcp://10.20.30.40:1883", "", false},
        {"mqtts://broker.local:9000/", "ssl://broker.local:9000", "pw", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vlm::normalizeMqttServerUri(c.configured), c.normalized);
        LogCapture log;
        vlm::MqttClientOptions options;
        options.serverUri = c.configured;
        options.password = c.password;
        vlm::PahoMqttClient client(options);
        EXPECT_EQ(linesWith(log, "", warning), c.warned ? 1 : 0) << c.configured;
        EXPECT_EQ(log.count(std::string("mqtt user name and password go to ") + c.normalized +
                                " unencrypted; use an ssl:// or mqtts:// broker address",
                            warning),
                  c.warned ? 1 : 0);
    }
    for (const char* bad : {"", "http://h:80", "h:0", "h:65536", "tcp://h:1/path", "u@h:1", "::1:1883"})
        EXPECT_THROW(vlm::normalizeMqttServerUri(bad), std::invalid_argument) << bad;
}

TEST(MqttTls, TheBrokersChainAndNameAreCheckedAndARefusalSaysWhatWasAsked)
{
    TestCertificates certificates;
    const auto brokerWith = [](const TestCertificates::ServerCertificate& server, const char* listenerConfig) {
        MosquittoBroker::Options options;
        options.listenerConfig = listenerConfig;
        options.tlsCertFile = server.certFile;
        options.tlsKeyFile = server.keyFile;
        auto broker = std::make_unique<MosquittoBroker>(options);
        broker->start();
        return broker;
    };
    const auto clientFor = [&](const MosquittoBroker& broker) {
        vlm::MqttClientOptions options;
        options.serverUri = "mqtts://" + broker.hostPort();
        options.caFile = certificates.caFile;
        options.reconnectMinDelay = std::chrono::milliseconds(200);
        return options;
    };
    {
        // A broker that speaks only TLS 1.3 is reached too.
        auto broker = brokerWith(certificates.loopback, "tls_version tlsv1.3");
        vlm::PahoMqttClient client(clientFor(*broker));
        EXPECT_TRUE(client.connect()) << broker->output();
    }
    const std::string asked = " (TLS: the broker's certificate must chain to a CA in " + certificates.caFile +
                              " and be issued for 127.0.0.1)";
    for (const auto* server : {&certificates.untrusted, &certificates.otherName}) {
        auto broker = brokerWith(*server, "");
        LogCapture log;
        vlm::PahoMqttClient client(clientFor(*broker));
        EXPECT_FALSE(client.connect());
        // Between the two parts stands the library's own reason.
        EXPECT_EQ(linesWith(log, "mqtt connect to ssl://" + broker->hostPort() + " failed: "), 1) << broker->output();
        EXPECT_EQ(linesWith(log, asked, Poco::Message::PRIO_ERROR), 1);
    }
}

} // namespace
