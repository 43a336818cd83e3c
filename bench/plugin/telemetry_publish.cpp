// Telemetry from the service through the RPC link, the event dispatch and the
// MQTT client to a real broker, measured at a subscriber; beside it, the same
// payloads published straight through the MQTT client.
//
//   plugin_telemetry_publish [events=20000]

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <thread>

#include "BenchPlugin.h"

namespace {

using Clock = std::chrono::steady_clock;

// Counts what arrives on one topic and remembers when the last one came.
struct Counter {
    void arrived()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++count;
        last = Clock::now();
        changed.notify_all();
    }
    bool waitFor(long target, std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return count >= target; });
    }
    void reset()
    {
        std::lock_guard<std::mutex> lock(mutex);
        count = 0;
    }
    std::mutex mutex;  // guards count, last
    std::condition_variable changed;
    long count = 0;
    Clock::time_point last;
};

double seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

} // namespace

int main(int argc, char** argv)
{
    const long events = argc > 1 ? std::atol(argv[1]) : 20000;
    vlm::bench::BenchPlugin stack(8);
    const std::string groundTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/bench-station/cmd";

    vlm::MqttClientOptions options;
    options.serverUri = stack.broker.hostPort();
    vlm::PahoMqttClient subscriber(options);
    subscriber.connect();
    Counter counter;
    subscriber.Subscribe([&](const std::string&, const std::string&) { counter.arrived(); }, groundTopic, 0);

    stack.service.publish("pilotConnectState", "true");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::string payload = R"({"lat":30.123456,"lon":120.654321,"alt":100.5,"speed":12.3,"heading":87.0,)"
                                R"("battery":76,"gps":3,"mode":"AUTO"})";

    // Through the plug-in.
    counter.reset();
    const auto begin = Clock::now();
    for (long i = 0; i < events; ++i)
        stack.service.publish("pushTelemetry", payload);
    const bool allThrough = counter.waitFor(events, std::chrono::seconds(60));
    const long throughCount = counter.count;
    const double throughSeconds = seconds(counter.last - begin);
    const double throughRate = static_cast<double>(throughCount) / throughSeconds;

    // Straight through the MQTT client, the same payload size (the envelope
    // the plug-in adds included).
    vlm::MqttClientOptions directOptions;
    directOptions.serverUri = stack.broker.hostPort();
    vlm::PahoMqttClient direct(directOptions);
    direct.connect();
    const std::string wrapped = std::string(R"({"api":"pushTelemetry","type":"response","target":"/","from":)"
                                            R"("bench-station","pilot_id":"UAV-B","message":)") +
                                payload + R"(,"msgId":"0"})";
    counter.reset();
    const auto directBegin = Clock::now();
    long accepted = 0;
    for (long i = 0; i < events; ++i)
        accepted += direct.PublishMessage(wrapped, groundTopic, 0, 0, 1) ? 1 : 0;
    const bool allDirect = counter.waitFor(accepted, std::chrono::seconds(60));
    const double directSeconds = seconds(counter.last - directBegin);
    const double directRate = static_cast<double>(counter.count) / directSeconds;

    std::printf("telemetry at QoS 0, %ld events, received by a subscriber on the broker:\n", events);
    std::printf("  through the plug-in (RPC link, dispatch, MQTT client): %ld received%s, %.0f events/s\n",
                throughCount, allThrough ? "" : " (not all)", throughRate);
    std::printf("  published directly with the MQTT client:               %ld received%s, %.0f events/s\n",
                counter.count, allDirect ? "" : " (not all)", directRate);
    std::printf("  ratio plug-in / direct: %.2f\n", throughRate / directRate);
    direct.disconnect();
    subscriber.disconnect();
    return 0;
}
