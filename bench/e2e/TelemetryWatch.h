#pragma once

// The telemetry phase's observers. An MQTT subscriber on the station topic
// takes the age of each sample the plug-in republishes (from the simulator's
// publish stamp to its arrival) and counts their sequence numbers; beside it a
// plain client publishes the same payload, freshly stamped, straight to the
// broker: the floor. Event stream readers take the delay from the stamp to
// the sample's arrival on a stream. Samples are kept only while recording.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "e2e/MqttProbe.h"

namespace vlm::bench {

class TelemetryWatch {
public:
    /// Subscribes to `stationTopic` and the floor's topic on `brokerUri`.
    TelemetryWatch(const std::string& brokerUri, const std::string& stationTopic);
    ~TelemetryWatch();
    TelemetryWatch(const TelemetryWatch&) = delete;
    TelemetryWatch& operator=(const TelemetryWatch&) = delete;

    /// Opens `count` event streams of pushTelemetry on 127.0.0.1:`httpPort`.
    void openStreams(std::uint16_t httpPort, int count);

    /// Whether a stamped sample arrived on MQTT since construction.
    bool sawTelemetry();

    /// Publishes the last seen sample, restamped, `hz` times a second to the
    /// floor's topic until stopFloor() (needs sawTelemetry()).
    void startFloor(double hz);
    void stopFloor();

    /// Clears what was recorded and records from now on / stops recording.
    void record(bool on);

    struct Recorded {
        std::vector<double> mqttAgeMs;    ///< plug-in's republished samples
        std::vector<double> floorAgeMs;   ///< the same payload published directly
        std::vector<double> streamDelayMs;
        std::uint64_t mqttSamples = 0;
        std::uint64_t firstSeq = 0;       ///< lowest and highest "seq" seen on MQTT
        std::uint64_t lastSeq = 0;
        std::uint64_t streamOpens = 0;
    };
    Recorded recorded();

    /// Ends the streams and the floor publisher; returns once all have.
    void stop();

private:
    void onMessage(const e2e::MqttProbe::Message& message);
    void readStream(std::uint16_t httpPort);
    void publishFloor(double hz);

    const std::string floorTopic = "/velmora-bench/telemetry/direct";
    std::atomic<bool> recording{false};
    std::atomic<bool> stopping{false};
    std::atomic<bool> floorStopping{false};
    std::mutex mutex;  // guards data and lastSample
    Recorded data;
    std::string lastSample;
    std::vector<std::thread> readers;
    std::thread floor;
    std::unique_ptr<e2e::MqttProbe> publisher;
    std::unique_ptr<e2e::MqttProbe> subscriber;  // last: its callback uses the members above
};

} // namespace vlm::bench
