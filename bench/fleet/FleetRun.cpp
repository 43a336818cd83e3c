#include "FleetRun.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include "MqttRoundTrip.h"
#include "e2e/CloudBroker.h"
#include "e2e/GatewayStack.h"

namespace vlm::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto answerBound = std::chrono::seconds(10);
constexpr auto bridgeBound = std::chrono::seconds(30);

std::string stationName(int index)
{
    return "station-fleet-" + std::to_string(index);
}

std::string command(int station, const std::string& msgId)
{
    return R"({"api":"getVersionInfo","type":"request","from":"cloud","target":")" + stationName(station) +
           R"(","msgId":")" + msgId + R"(","message":{}})";
}

std::string msgIdOf(int station, int n)
{
    return "f" + std::to_string(station) + "-" + std::to_string(n);
}

/// The station a msgId of ours addresses; -1 for any other text.
int stationOf(const std::string& msgId)
{
    if (msgId.size() < 3 || msgId[0] != 'f' || msgId.find('-') == std::string::npos)
        return -1;
    try {
        return std::stoi(msgId.substr(1, msgId.find('-') - 1));
    } catch (const std::exception&) {
        return -1;
    }
}

/// Counts what a station's broker carries for other stations.
class StationObserver {
public:
    StationObserver(const std::string& uri, int station, std::atomic<std::uint64_t>& foreign)
        : probe(uri, "velmora-bench-observer-" + std::to_string(station),
                [station, &foreign](const e2e::MqttProbe::Message& m) {
                    const int addressed = stationOf(textAfterKey(m.payload, "msgId"));
                    if (addressed >= 0 && addressed != station)
                        ++foreign;
                })
    {
        probe.subscribe("/velmora/pilot/#");
    }

private:
    e2e::MqttProbe probe;
};

struct Tally {
    std::mutex mutex;  // guards the result's samples and counts
    FleetResult result;
};

void commandStation(MqttRoundTrip& cloud, int station, const FleetSettings& settings, Clock::time_point end,
                    Tally& tally)
{
    const std::string topic = e2e::stationTopicOf(stationName(station));
    for (int n = 0; n < settings.commandsPerStation && Clock::now() < end; ++n) {
        const std::string msgId = msgIdOf(station, n);
        std::optional<MqttRoundTrip::Answer> answer;
        try {
            cloud.send(topic, command(station, msgId), msgId);
            answer = cloud.await(msgId, answerBound);
        } catch (const std::exception&) {
        }
        std::lock_guard<std::mutex> lock(tally.mutex);
        ++tally.result.sent;
        if (!answer || answer->payload.find("\"code\":200") == std::string::npos) {
            ++tally.result.unanswered;
            continue;
        }
        if (answer->topic != topic || textAfterKey(answer->payload, "from") != stationName(station))
            ++tally.result.misrouted;
        tally.result.answerMs.push_back(answer->ms);
    }
}

/// Until every station answers one command through the bridge (bounded).
bool bridgesUp(MqttRoundTrip& cloud, int stations)
{
    for (int station = 0; station < stations; ++station) {
        const std::string topic = e2e::stationTopicOf(stationName(station));
        const auto deadline = Clock::now() + bridgeBound;
        bool up = false;
        for (int attempt = 0; !up && Clock::now() < deadline; ++attempt) {
            const std::string msgId = "w" + std::to_string(station) + "-" + std::to_string(attempt);
            cloud.send(topic, command(station, msgId), msgId);
            up = cloud.await(msgId, std::chrono::seconds(1)).has_value();
        }
        if (!up)
            return false;
    }
    return true;
}

} // namespace

FleetResult runFleet(int stations, const FleetSettings& settings)
{
    Tally tally;
    tally.result.stations = stations;
    std::vector<std::unique_ptr<e2e::GatewayStack>> fleet;
    try {
        std::vector<e2e::CloudBroker::Bridge> bridges;
        for (int i = 0; i < stations; ++i) {
            e2e::GatewayStack::Options options;
            options.stationSn = stationName(i);
            options.telemetryHz = settings.telemetryHz;
            if (settings.brokerNoDelay)
                options.brokerConfig = "set_tcp_nodelay true";
            fleet.push_back(std::make_unique<e2e::GatewayStack>(options));
            fleet.back()->start();
            // Only the station's own topic crosses its bridge, as on a real
            // station: the cloud addresses it there and reads its answers there.
            bridges.push_back({fleet.back()->broker.hostPort(), e2e::stationTopicOf(stationName(i))});
        }
        e2e::CloudBroker cloudBroker(bridges);
        std::atomic<std::uint64_t> foreign{0};
        std::vector<std::unique_ptr<StationObserver>> observers;
        for (int i = 0; i < stations; ++i)
            observers.push_back(std::make_unique<StationObserver>(fleet[static_cast<std::size_t>(i)]->broker.uri(), i,
                                                                  foreign));
        MqttRoundTrip cloud(cloudBroker.uri(), "velmora-bench-cloud");
        for (int i = 0; i < stations; ++i)
            cloud.subscribe(e2e::stationTopicOf(stationName(i)));
        if (!bridgesUp(cloud, stations)) {
            tally.result.error = "a station did not answer through its bridge:\n" + cloudBroker.output();
            return tally.result;
        }
        const std::uint64_t strayBefore = cloud.unmatched();

        const auto start = Clock::now();
        const auto end = start + std::chrono::seconds(settings.secondsPerFleet);
        std::vector<std::thread> drivers;
        for (int i = 0; i < stations; ++i)
            drivers.emplace_back([&, i] { commandStation(cloud, i, settings, end, tally); });
        for (auto& driver : drivers)
            driver.join();
        tally.result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        // Late repeats of an answer would come within a moment.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        tally.result.foreign = foreign.load();
        tally.result.stray = cloud.unmatched() - strayBefore;
    } catch (const std::exception& e) {
        tally.result.error = e.what();
    }
    return tally.result;
}

} // namespace vlm::bench
