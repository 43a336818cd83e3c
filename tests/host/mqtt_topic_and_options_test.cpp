// Pure parts of the MQTT client: topic filters, broker addresses and the
// settings read from the host configuration.

#include <stdexcept>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/Util/JSONConfiguration.h>

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

TEST(MqttClientOptions, ReadsTheHostConfigurationKeysAsStationsSpellThem)
{
    Poco::AutoPtr<Poco::Util::JSONConfiguration> config(new Poco::Util::JSONConfiguration);
    const auto defaults = vlm::MqttClientOptions::fromConfig(*config);
    EXPECT_EQ(defaults.serverUri, "127.0.0.1:1883");
    EXPECT_EQ(defaults.userName, "");
    EXPECT_EQ(defaults.stationSerial, "");

    config->setString("mqtt.server_uri", "10.0.0.2:1884");
    config->setString("mqtt.user_name", "hangarInside");
    config->setString("mqtt.pawsswd", "tepid@brkr");
    config->setString("mqtt.ca_file", "/etc/ca.pem");
    config->setString("station.station_sn", "SN-0042");
    const auto options = vlm::MqttClientOptions::fromConfig(*config);
    EXPECT_EQ(options.serverUri, "10.0.0.2:1884");
    EXPECT_EQ(options.userName, "hangarInside");
    EXPECT_EQ(options.password, "tepid@brkr");
    EXPECT_EQ(options.caFile, "/etc/ca.pem");
    EXPECT_EQ(options.stationSerial, "SN-0042");
}

TEST(MqttClientOptions, ReadsTheIntakeBoundsAndTheTlsSwitchWithTheirDefaults)
{
    Poco::AutoPtr<Poco::Util::JSONConfiguration> config(new Poco::Util::JSONConfiguration);
    const auto defaults = vlm::MqttClientOptions::fromConfig(*config);
    EXPECT_EQ(defaults.maxPayloadBytes, 1048576u);
    EXPECT_EQ(defaults.deliveryQueueMessages, 1000u);
    EXPECT_EQ(defaults.deliveryQueueBytes, 16u * 1048576u);
    EXPECT_EQ(defaults.deliveryThreads, 4u);
    EXPECT_FALSE(defaults.tlsInsecure);
    EXPECT_GE(defaults.deliveryQueueBytes, defaults.maxPayloadBytes);

    config->setUInt64("mqtt.max_payload_bytes", 13000000);
    config->setUInt64("mqtt.delivery_queue_messages", 10);
    config->setUInt64("mqtt.delivery_queue_bytes", 20000000);
    config->setUInt64("mqtt.delivery_threads", 1);
    config->setBool("mqtt.tls_insecure", true);
    const auto options = vlm::MqttClientOptions::fromConfig(*config);
    EXPECT_EQ(options.maxPayloadBytes, 13000000u);
    EXPECT_EQ(options.deliveryQueueMessages, 10u);
    EXPECT_EQ(options.deliveryQueueBytes, 20000000u);
    EXPECT_EQ(options.deliveryThreads, 1u);
    EXPECT_TRUE(options.tlsInsecure);
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
