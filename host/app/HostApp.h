#pragma once

// The reference host: the HTTP server, the MQTT client, the bus, the host's
// own routes and the configured plug-ins, started and stopped in order.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>

#include "app/BusTapRoute.h"
#include "app/ConfigActionRoute.h"
#include "app/HostConfig.h"
#include "app/MessageBus.h"
#include "app/PluginLinkHealth.h"
#include "app/PluginLoader.h"
#include "app/PluginMetricsReport.h"
#include "app/openapi/ApiDescriptionRoute.h"
#include "http/HttpApiServer.h"
#include "mqtt/PahoMqttClient.h"

namespace vlm::host {

class HostApp {
public:
    /// The configuration must have passed parseHostConfig. Plug-ins read the
    /// same file through configInstance(), which the caller loads.
    explicit HostApp(HostConfig config);
    /// Stops (if started) and then releases everything.
    ~HostApp();
    HostApp(const HostApp&) = delete;
    HostApp& operator=(const HostApp&) = delete;

    /// Starts the services, in this order: the HTTP server (throws
    /// Poco::Net::NetException naming the address when it cannot listen),
    /// the bus and the host routes, the MQTT client (waits for the first
    /// connection attempt; a broker that is not there yet is retried in the
    /// background). Once, on the thread that will also stop.
    void startServices();

    /// Then each configured plug-in, in order: load, PluginLoad, instance,
    /// bus callback, a bounded wait for its service, start, bus receiver. A
    /// plug-in that fails is logged with the reason and the others go on.
    void startPlugins();

    /// Both of the above.
    void start();

    /// Makes a start under way skip the remaining waits for services and the
    /// plug-ins not yet started. Any thread, also before start.
    void interrupt();

    /// Orderly stop: each plug-in's stop, the bus, release of the instances,
    /// PluginUnLoad, the HTTP server, the MQTT link. Idempotent; the thread
    /// that started.
    void stop();

    /// The port the HTTP server listens on (after start).
    std::uint16_t httpPort() const;

    /// Plug-ins started, and those that could not be loaded or started.
    std::size_t startedPlugins() const;
    std::size_t failedPlugins() const;

    /// The health report: "status" ("ok", or "degraded" when a plug-in failed,
    /// the broker is away or a service link is not up), "uptime_s", "http"
    /// {"address", "port", "token_required", and the server's load and
    /// refusals: "connections", "streams", "waiting_requests",
    /// "streams_refused", "streams_refused_per_client", "requests_refused",
    /// "bus_taps_refused", "slow_clients_cut"},
    /// "mqtt" {"server_uri", "connected", "station_sn", "oversize_refused",
    /// "queue_dropped", "delivered", "queue_depth"}, "plugins" (each with
    /// "name", "guid", "type", "library", "state" and "service" {"address",
    /// "port", "link", "established", "connecting", and from a plug-in that
    /// reports its links "last_frame_age_ms", "reconnects", "counters"}), "failed_plugins" (each
    /// "library", "reason") and "bus" (counters). Any thread.
    Poco::JSON::Object::Ptr health() const;

    /// The Prometheus exposition of "/host/metrics" (HostMetrics.cpp). Any thread.
    std::string metrics() const;

    /// The bus, for tests and the host's own routes.
    MessageBus& bus() { return *messageBus; }

private:
    /// What health reports of one plug-in; outlives the instance.
    struct PluginRecord {
        std::string library;
        std::string name;
        std::string guid;
        int type = 0;
        std::string serviceAddress;
        std::uint16_t servicePort = 0;
        std::string state;
        /// The library's link report, null when it has none; the library stays loaded.
        PluginLinkHealthFunction linkHealth = nullptr;
        /// The library's metrics report, null when it has none.
        PluginMetricsFunction metrics = nullptr;
    };

    void startPlugin(const PluginConfig& config);
    void recordFailure(const std::string& library, const std::string& reason);
    void setState(const std::string& guid, const std::string& state);
    bool waitForService(const PluginConfig& config);

    const HostConfig config;
    const std::chrono::steady_clock::time_point startedAt = std::chrono::steady_clock::now();

    // Touched by the starting thread only.
    std::vector<LoadedPlugin> plugins;
    bool started = false;
    bool pluginsStarted = false;
    bool stopped = false;

    mutable std::mutex statusMutex;  // guards records and failures
    std::vector<PluginRecord> records;
    std::vector<std::pair<std::string, std::string>> failures;

    std::mutex interruptMutex;  // guards interrupted
    std::condition_variable interruptWake;
    bool interrupted = false;

    // Declared in the reverse order of their release: the server (whose
    // handlers use everything else) goes first, the MQTT client after the
    // bus. The plug-in libraries above stay loaded throughout.
    std::shared_ptr<PahoMqttClient> mqtt;
    std::shared_ptr<MessageBus> messageBus;
    std::unique_ptr<BusTapRoute> busRoute;
    std::unique_ptr<ConfigActionRoute> configRoute;
    std::unique_ptr<ApiDescriptionRoute> apiDescription;
    std::shared_ptr<HttpApiServer> server;
};

} // namespace vlm::host
