#pragma once

// The load of the soak run: event-stream readers, HTTP requesters and an MQTT
// ground app, each on threads of its own, counting what they get until told
// to stop. Counters are atomics; the driver reads them at any time.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <mqtt/async_client.h>

#include "StreamReaders.h"

namespace vlm::soak {

struct Counters {
    std::atomic<std::uint64_t> httpServed{0};     ///< answered with code 200
    std::atomic<std::uint64_t> httpFailed{0};     ///< any other answer, or no answer
    std::atomic<std::uint64_t> mqttSent{0};
    std::atomic<std::uint64_t> mqttAnswered{0};   ///< answers with code 200
    std::atomic<std::uint64_t> mqttRefused{0};    ///< answers with another code
};

/// Everything that loads the host; stops (and joins) on destruction.
class SoakLoad {
public:
    SoakLoad(std::uint16_t httpPort, const std::string& brokerUri, const std::string& commandTopic, int streams,
             int httpClients, int mqttIntervalMs);
    ~SoakLoad();
    SoakLoad(const SoakLoad&) = delete;
    SoakLoad& operator=(const SoakLoad&) = delete;

    const Counters& counters() const { return count; }
    /// The telemetry streams' counters.
    const e2e::StreamReaders::Counters& streamCounters() const { return streams.counters(); }

    /// Ends every worker; returns once all have.
    void stop();

private:
    void requestOverHttp();
    void commandOverMqtt();

    const std::uint16_t httpPort;
    const std::string brokerUri;
    const std::string commandTopic;
    const int mqttIntervalMs;
    Counters count;
    e2e::StreamReaders streams;
    std::atomic<bool> stopping{false};
    std::vector<std::thread> workers;
};

} // namespace vlm::soak
