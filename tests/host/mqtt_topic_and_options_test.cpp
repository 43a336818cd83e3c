// Pure parts of the MQTT client: topic filters and broker addresses.

#include <stdexcept>

#include <gtest/gtest.h>

#include "mqtt/MqttClientOptions.h"
#include "mqtt/MqttTopicFilter.h"
#include "mqtt/PahoMqttClient.h"
#include "support/LogCapture.h"

namespace {

TEST(MqttTopicFilter, MatchesByTheBrokersRulesAndRefusesInvalidFilters)
{
    struct Case {
        const char *filter, *topic;
        bool matches;
    } const cases[] = {
        {"/velmora/pilot/G/S/cmd", "velmora/pilot/G/S/cmd", false},
        {"a/+/c", "a//c", true},
        {"a/+/c", "a/b/x/c", false},
        {"a/+", "a", false},
        {"a/#", "a", true},
        {"a/#", "a/b/c", true},
        {"a/#", "ab", false},
        {"#", "$SYS/broker", false},
        {"+/broker", "$SYS/broker", false},
        {"$SYS/#", "$SYS/broker", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(vlm::mqttTopicMatches(c.filter, c.topic), c.matches) << c.filter << " vs " << c.topic;

    for (const char* good : {"a", "/", "+", "#", "+/+/#", "a//b"})
        EXPECT_TRUE(vlm::isValidMqttTopicFilter(good)) << good;
    for (const char* bad : {"", "a/#/b", "a#", "a+/b", "a/+b", "##"})
        EXPECT_FALSE(vlm::isValidMqttTopicFilter(bad)) << bad;
    EXPECT_FALSE(vlm::isValidMqttTopicFilter(std::string("a\0b", 3)));
    for (const char* bad : {"", "a/+", "a/#"})
        EXPECT_FALSE(vlm::isValidMqttTopicName(bad)) << bad;

    // The client refuses them before the library sees them, linked or not.
    vlm::test::LogCapture log;
    vlm::PahoMqttClient client(vlm::MqttClientOptions{});
    const vlm::MqttClient::MessageHandler handler = [](const std::string&, const std::string&) {};
    EXPECT_FALSE(client.Subscribe(handler, "a/#/b", 0));
    EXPECT_FALSE(client.Subscribe(handler, "a", 3));
    EXPECT_FALSE(client.Subscribe(nullptr, "a", 0));
    EXPECT_EQ(log.errors("mqtt subscribe refused: topic \"a/#/b\", qos 0"), 1);
    EXPECT_EQ(log.errors("mqtt subscribe refused: topic \"a\", qos 3"), 1);
    EXPECT_EQ(log.errors("mqtt subscribe refused: topic \"a\", qos 0, no handler"), 1);
}

TEST(MqttServerUri, NormalisesTheConfiguredFormsTellsLoopbackAndRefusesOthers)
{
    struct Case {
        const char *configured, *normalized;
        bool loopback;
    } const cases[] = {
        {"127.0.0.1:1883", "tcp://127.0.0.1:1883", true},
        {"tcp://127.3.2.1:1", "tcp://127.3.2.1:1", true},
        {"localhost", "tcp://localhost:1883", true},
        {"[::1]:1883", "tcp://[::1]:1883", true},
        {"mqtt://broker.local", "tcp://broker.local:1883", false},
        {"ssl://broker.local", "ssl://broker.local:8883", false},
        {"mqtts://broker.local:9000/", "ssl://broker.local:9000", false},
        {"127.example.com:1883", "tcp://127.example.com:1883", false},
        {"[::2]:1883", "tcp://[::2]:1883", false},
        {"0.0.0.0:1", "tcp://0.0.0.0:1", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vlm::normalizeMqttServerUri(c.configured), c.normalized);
        EXPECT_EQ(vlm::isLoopbackMqttUri(c.normalized), c.loopback) << c.normalized;
    }
    for (const char* bad : {"", "tcp://", "http://h:80", "h:", "h:0", "h:65536", "h:12x", ":1883", "tcp://h:1/path",
                            "u@h:1", "[::1", "::1:1883"})
        EXPECT_THROW(vlm::normalizeMqttServerUri(bad), std::invalid_argument) << bad;
}

} // namespace
