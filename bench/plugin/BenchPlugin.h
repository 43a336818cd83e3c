#pragma once

// The plug-in assembled as the host assembles it, for load drivers: a real
// HTTP server, a real broker and MQTT client, and a service peer that answers
// the settings queries and forwarded requests.

#include <fstream>
#include <memory>
#include <string>

#include "PilotControlP.h"
#include "VelmoraCommon.h"
#include "http/HttpApiServer.h"
#include "mqtt/PahoMqttClient.h"
#include "rpc/service/rpc_service.h"
#include "support/MosquittoBroker.h"

namespace vlm::bench {

/// Resident set size of this process in kB, from /proc.
inline long residentKilobytes()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    while (status >> key) {
        if (key == "VmRSS:") {
            long kb = 0;
            status >> kb;
            return kb;
        }
        status.ignore(4096, '\n');
    }
    return -1;
}

struct BenchPlugin {
    /// `streams` and `requests` raise the server's caps (all streams from one
    /// client address, as a load driver opens them); 0 keeps the defaults.
    explicit BenchPlugin(int httpThreads, int streams = 0, int requests = 0)
    {
        service.bind("getIntConfig", [](const msgpack::object&) { return pilot_rpc::service_reply::success(0); });
        service.bind("getStringConfig",
                     [](const msgpack::object&) { return pilot_rpc::service_reply::success(std::string("UAV-B")); });
        service.bind("getBoolConfig", [](const msgpack::object&) { return pilot_rpc::service_reply::success(false); });
        service.bind("pilotControlBase", [](const msgpack::object&) {
            return pilot_rpc::service_reply::success(std::string("{}"));
        });
        service.bind("reportRPCSub", [](const msgpack::object&) { return pilot_rpc::service_reply::success(true); });
        service.bind("telementry", [](const msgpack::object&) {
            return pilot_rpc::service_reply::success(
                std::string(R"({"api":"getConfig","type":"response","message":{"code":200}})"));
        });
        service.set_recording(false);
        const unsigned short port = service.start(0);

        broker.start();
        configInstance().setString("mqtt.server_uri", broker.hostPort());
        configInstance().setString("mqtt.user_name", "");
        configInstance().setString("mqtt.pawsswd", "");
        MqttClientOptions mqttOptions;
        mqttOptions.serverUri = broker.hostPort();
        mqttOptions.stationSerial = "bench-station";
        mqtt = std::make_shared<PahoMqttClient>(mqttOptions);
        mqtt->connect();

        HttpApiServerOptions httpOptions;
        httpOptions.workerThreads = httpThreads;
        httpOptions.queueSize = httpThreads;
        httpOptions.maxStreams = streams;
        httpOptions.maxStreamsPerClient = streams;
        httpOptions.maxWaitingRequests = requests;
        server = std::make_shared<HttpApiServer>(httpOptions);
        server->start();
        plugin->start(server, mqtt, "127.0.0.1", port);
    }
    ~BenchPlugin()
    {
        plugin->stop();
        server->stop();
        mqtt->disconnect();
    }

    pilot_rpc::rpc_service service;
    test::MosquittoBroker broker;
    std::shared_ptr<PahoMqttClient> mqtt;
    std::shared_ptr<HttpApiServer> server;
    std::shared_ptr<PilotControlP> plugin = PilotControlP::createInstance();
};

} // namespace vlm::bench
