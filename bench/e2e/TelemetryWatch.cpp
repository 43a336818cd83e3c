#include "TelemetryWatch.h"

#include <algorithm>
#include <chrono>

#include "Figures.h"
#include "e2e/EventStream.h"

namespace vlm::bench {
namespace {

const std::string stampKey = "publishedUs";

double ageMs(long long stampUs)
{
    return static_cast<double>(wallMicros() - stampUs) / 1000.0;
}

std::string restamped(const std::string& payload, long long stampUs)
{
    const std::string needle = "\"" + stampKey + "\":";
    const auto at = payload.find(needle);
    if (at == std::string::npos)
        return payload;
    const auto start = at + needle.size();
    const auto end = payload.find_first_not_of("0123456789", start);
    return payload.substr(0, start) + std::to_string(stampUs) + payload.substr(end);
}

} // namespace

TelemetryWatch::TelemetryWatch(const std::string& brokerUri, const std::string& stationTopic)
{
    publisher = std::make_unique<e2e::MqttProbe>(brokerUri, "velmora-bench-direct");
    subscriber = std::make_unique<e2e::MqttProbe>(brokerUri, "velmora-bench-telemetry",
                                                  [this](const e2e::MqttProbe::Message& m) { onMessage(m); });
    subscriber->subscribe(stationTopic);
    subscriber->subscribe(floorTopic);
}

TelemetryWatch::~TelemetryWatch()
{
    stop();
    subscriber.reset();
}

void TelemetryWatch::onMessage(const e2e::MqttProbe::Message& message)
{
    const long long stamp = numberAfterKey(message.payload, stampKey);
    if (stamp < 0)
        return;
    const double age = ageMs(stamp);
    std::lock_guard<std::mutex> lock(mutex);
    if (message.topic == floorTopic) {
        if (recording)
            data.floorAgeMs.push_back(age);
        return;
    }
    lastSample = message.payload;
    if (!recording)
        return;
    data.mqttAgeMs.push_back(age);
    ++data.mqttSamples;
    const long long seq = numberAfterKey(message.payload, "seq");
    if (seq > 0) {
        const auto s = static_cast<std::uint64_t>(seq);
        data.firstSeq = data.firstSeq == 0 ? s : std::min(data.firstSeq, s);
        data.lastSeq = std::max(data.lastSeq, s);
    }
}

void TelemetryWatch::openStreams(std::uint16_t httpPort, int count)
{
    for (int i = 0; i < count; ++i)
        readers.emplace_back([this, httpPort] { readStream(httpPort); });
}

void TelemetryWatch::readStream(std::uint16_t httpPort)
{
    // Each read is bounded by the stream's own time-out (5 s), and a stream
    // sends a block every 80 ms, so the flag is seen soon after it is set.
    while (!stopping) {
        try {
            e2e::EventStream stream(httpPort, "/index/api/pilot/pushTelemetry");
            {
                std::lock_guard<std::mutex> lock(mutex);
                ++data.streamOpens;
            }
            // Line by line: a tick without data sends head lines but no blank
            // line, so a whole block may never end while telemetry is off.
            std::string line;
            while (!stopping && stream.nextLine(line)) {
                if (line.compare(0, 6, "data: ") != 0)
                    continue;
                const long long stamp = numberAfterKey(line, stampKey);
                if (stamp < 0 || !recording)
                    continue;
                const double delay = ageMs(stamp);
                std::lock_guard<std::mutex> lock(mutex);
                data.streamDelayMs.push_back(delay);
            }
        } catch (const std::exception&) {
            // Refused or cut: open it again below.
        }
        if (!stopping)
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

bool TelemetryWatch::sawTelemetry()
{
    std::lock_guard<std::mutex> lock(mutex);
    return !lastSample.empty();
}

void TelemetryWatch::startFloor(double hz)
{
    floorStopping = false;
    floor = std::thread([this, hz] { publishFloor(hz); });
}

void TelemetryWatch::stopFloor()
{
    floorStopping = true;
    if (floor.joinable())
        floor.join();
}

void TelemetryWatch::publishFloor(double hz)
{
    const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(1.0 / hz));
    auto next = std::chrono::steady_clock::now();
    while (!floorStopping && !stopping) {
        std::string sample;
        {
            std::lock_guard<std::mutex> lock(mutex);
            sample = lastSample;
        }
        try {
            publisher->publish(floorTopic, restamped(sample, wallMicros()));
        } catch (const std::exception&) {
            // A lost floor sample is simply not counted.
        }
        next += period;
        std::this_thread::sleep_until(next);
    }
}

void TelemetryWatch::record(bool on)
{
    if (on) {
        std::lock_guard<std::mutex> lock(mutex);
        const auto opens = data.streamOpens;
        data = Recorded{};
        data.streamOpens = opens;
    }
    recording = on;
}

TelemetryWatch::Recorded TelemetryWatch::recorded()
{
    std::lock_guard<std::mutex> lock(mutex);
    return data;
}

void TelemetryWatch::stop()
{
    stopping = true;
    stopFloor();
    for (auto& reader : readers) {
        if (reader.joinable())
            reader.join();
    }
    readers.clear();
}

} // namespace vlm::bench
