// Pure parts of the MQTT client: topic filters and broker addresses.

#include <stdexcept>

#include <gtest/gtest.h>

#include "mqtt/MqttClientOptions.h"
#include "mqtt/MqttTopicFilter.h"

namespace {

TEST(MqttTopicFilter, MatchesByTheBrokersRules)
{
    struct Case {
        const char* filter;
        const char* topic;
        bool matches;
    };
    const Case cases[] = {
        {"/velmora/pilot/G/S/cmd", "/velmora/pilot/G/S/cmd", true},
        {"/velmora/pilot/G/S/cmd", "/velmora/pilot/G/S/cmd/x", false},
        {"/velmora/pilot/G/S/cmd", "velmora/pilot/G/S/cmd", false},
        {"a/+/c", "a/b/c", true},
        {"a/+/c", "a//c", true},
        {"a/+/c", "a/b/x/c", false},
        {"a/+", "a", false},
        {"a/+", "a/", true},
        {"+", "a", true},
        {"+", "a/b", false},
        {"+/+", "/x", true},
        {"a/#", "a", true},
        {"a/#", "a/b/c", true},
        {"a/#", "ab", false},
        {"#", "a/b", true},
        {"#", "/", true},
        {"#", "$SYS/broker", false},
        {"+/broker", "$SYS/broker", false},
        {"$SYS/#", "$SYS/broker", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(vlm::mqttTopicMatches(c.filter, c.topic), c.matches) << c.filter << " vs " << c.topic;
}

TEST(MqttTopicFilter, TellsValidFiltersAndTopicsFromInvalidOnes)
{
    for (const char* good : {"a", "/", "a/+/c", "+", "#", "a/#", "+/+/#", "a//b"})
        EXPECT_TRUE(vlm::isValidMqttTopicFilter(good)) << good;
    for (const char* bad : {"", "a/#/b", "a#", "a/b#", "a+/b", "a/+b", "##"})
        EXPECT_FALSE(vlm::isValidMqttTopicFilter(bad)) << bad;
    EXPECT_FALSE(vlm::isValidMqttTopicFilter(std::string("a\0b", 3)));

    EXPECT_TRUE(vlm::isValidMqttTopicName("/msg/pilot/P1/out"));
    for (const char* bad : {"", "a/+", "a/#", "+"})
        EXPECT_FALSE(vlm::isValidMqttTopicName(bad)) << bad;
}

TEST(MqttServerUri, AcceptsTheConfiguredFormsAndRefusesOthers)
{
    EXPECT_EQ(vlm::normalizeMqttServerUri("127.0.0.1:1883"), "tcp://127.0.0.1:1883");
    EXPECT_EQ(vlm::normalizeMqttServerUri("tcp://broker.local:1884"), "tcp://broker.local:1884");
    EXPECT_EQ(vlm::normalizeMqttServerUri("mqtt://broker.local"), "tcp://broker.local:1883");
    EXPECT_EQ(vlm::normalizeMqttServerUri("ssl://broker.local"), "ssl://broker.local:8883");
    EXPECT_EQ(vlm::normalizeMqttServerUri("mqtts://broker.local:9000/"), "ssl://broker.local:9000");
    EXPECT_EQ(vlm::normalizeMqttServerUri("[::1]:1883"), "tcp://[::1]:1883");
    EXPECT_TRUE(vlm::isTlsMqttUri(vlm::normalizeMqttServerUri("ssl://h:1")));
    EXPECT_FALSE(vlm::isTlsMqttUri(vlm::normalizeMqttServerUri("h:1")));

    for (const char* bad : {"", "tcp://", "http://h:80", "h:", "h:0", "h:65536", "h:12x", ":1883", "tcp://h:1/path",
                            "u@h:1", "[::1", "::1:1883"})
        EXPECT_THROW(vlm::normalizeMqttServerUri(bad), std::invalid_argument) << bad;
}

TEST(MqttServerUri, TellsLoopbackBrokersFromOthers)
{
    for (const char* local : {"127.0.0.1:1883", "tcp://127.3.2.1:1", "localhost", "[::1]:1883"})
        EXPECT_TRUE(vlm::isLoopbackMqttUri(vlm::normalizeMqttServerUri(local))) << local;
    for (const char* remote : {"10.0.0.2:1883", "127.example.com:1883", "broker.local", "[::2]:1883", "0.0.0.0:1"})
        EXPECT_FALSE(vlm::isLoopbackMqttUri(vlm::normalizeMqttServerUri(remote))) << remote;
    EXPECT_EQ(vlm::mqttUriHost("ssl://[::1]:8883"), "[::1]");
}

} // namespace
