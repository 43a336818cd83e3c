#include "CommandTrips.h"

#include <chrono>

#include "MqttRoundTrip.h"

namespace vlm::bench {
namespace {

constexpr int rounds = 5;
constexpr auto answerBound = std::chrono::seconds(5);
const char* const api = "getConfig";
// The link's procedure for the APIs numbered 2..24, getConfig among them;
// "telementry" is the service's own spelling.
const char* const procedure = "telementry";

std::string request(const std::string& msgId)
{
    return R"({"api":"getConfig","type":"request","from":"bench","target":")" + std::string(e2e::stationSn) +
           R"(","msgId":")" + msgId + R"(","message":{}})";
}

void append(Trips& into, const Trips& from)
{
    into.ms.insert(into.ms.end(), from.ms.begin(), from.ms.end());
    into.failed += from.failed;
}

Trips mqttTrips(MqttRoundTrip& client, const std::string& topic, const std::string& prefix, int count)
{
    Trips trips;
    for (int i = 0; i < count; ++i) {
        const std::string msgId = prefix + std::to_string(i);
        try {
            client.send(topic, request(msgId), msgId);
        } catch (const std::exception&) {
            ++trips.failed;
            continue;
        }
        const auto answer = client.await(msgId, answerBound);
        if (answer && (prefix[0] == 'e' || answer->payload.find("\"code\":200") != std::string::npos))
            trips.ms.push_back(answer->ms);
        else
            ++trips.failed;
    }
    return trips;
}

} // namespace

CommandTrips measureCommandTrips(const e2e::GatewayStack& stack, int count)
{
    const std::string path = std::string("/index/api/pilot/") + api;
    const std::string body = request("h");
    const std::string echoIn = "/velmora-bench/echo/in";
    const std::string echoOut = "/velmora-bench/echo/out";

    HttpEchoServer httpEcho;
    RpcEchoServer rpcEcho;
    MqttEcho mqttEcho(stack.broker.uri(), "velmora-bench-echo", echoIn, echoOut);
    // The gateway publishes its answers at QoS 2 (kept so); the broker hands
    // such a message on only once the publisher's release (PUBREL) came.
    const std::string echo2In = "/velmora-bench/echo2/in";
    MqttEcho mqttEchoQos2(stack.broker.uri(), "velmora-bench-echo2", echo2In, echoOut, 2);
    MqttRoundTrip ground(stack.broker.uri(), "velmora-bench-ground");
    ground.subscribe(e2e::groundCommandTopic());
    ground.subscribe(echoOut);

    // Warm every path once: connections, first allocations, lazy threads.
    httpRoundTrips(stack.httpPort, path, body, 3);
    httpRoundTrips(httpEcho.port(), path, body, 3);
    rawCallRoundTrips(rpcEcho.port(), procedure, body, api, 10);
    rawCallRoundTrips(stack.simPort, procedure, body, api, 10);
    mqttTrips(ground, e2e::groundCommandTopic(), "w", 3);
    mqttTrips(ground, echoIn, "ew", 3);
    mqttTrips(ground, echo2In, "ew2", 3);

    CommandTrips all;
    const int perRound = (count + rounds - 1) / rounds;
    for (int round = 0; round < rounds; ++round) {
        const std::string tag = std::to_string(round) + "-";
        append(all.http, httpRoundTrips(stack.httpPort, path, body, perRound, "\"code\":200"));
        append(all.httpEcho, httpRoundTrips(httpEcho.port(), path, body, perRound));
        append(all.rpcEcho, rawCallRoundTrips(rpcEcho.port(), procedure, body, api, perRound));
        append(all.simCall, rawCallRoundTrips(stack.simPort, procedure, body, api, perRound));
        append(all.mqtt, mqttTrips(ground, e2e::groundCommandTopic(), "m" + tag, perRound));
        append(all.mqttEcho, mqttTrips(ground, echoIn, "e" + tag, perRound));
        append(all.mqttEchoQos2, mqttTrips(ground, echo2In, "e2-" + tag, perRound));
    }
    return all;
}

} // namespace vlm::bench
