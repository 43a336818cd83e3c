#include "app/HostApp.h"

#include <algorithm>

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/Logger.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "ThreadPool.h"
#include "VelmoraCommon.h"
#include "app/HealthRoute.h"
#include "app/MetricsRoute.h"
#include "app/PluginWebApi.h"
#include "app/ServiceLink.h"
#include "app/console/ConsoleRoute.h"

namespace vlm::host {
namespace {

// Between two attempts to reach a plug-in's service while waiting for it.
constexpr auto serviceRetryPause = std::chrono::milliseconds(200);
constexpr auto serviceConnectBound = std::chrono::milliseconds(500);

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

bool serviceAccepts(const std::string& address, std::uint16_t port)
{
    try {
        Poco::Net::StreamSocket probe;
        probe.connect(Poco::Net::SocketAddress(address, port),
                      Poco::Timespan(std::chrono::duration_cast<std::chrono::microseconds>(serviceConnectBound).count()));
        probe.close();
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

} // namespace

HostApp::HostApp(HostConfig cfg) : config(std::move(cfg)), messageBus(std::make_shared<MessageBus>(config.bus)) {}

HostApp::~HostApp()
{
    stop();
}

void HostApp::start()
{
    startServices();
    startPlugins();
}

void HostApp::startServices()
{
    if (started)
        return;
    started = true;

    // Made before the server starts, so that the health route, which runs on
    // server threads, never sees these members change.
    mqtt = std::make_shared<PahoMqttClient>(config.mqtt);
    server = std::make_shared<HttpApiServer>(config.http);
    server->start();
    if (config.http.allowInsecureRemote && config.http.bearerToken.empty() &&
        !Poco::Net::IPAddress(config.http.bindAddress).isLoopback())
        logger().warning("http api server on %s serves without a bearer token (http.allow_insecure_remote); "
                         "any machine that reaches it can command the aircraft",
                         config.http.bindAddress);

    messageBus->start();
    HttpApiServer* serverView = server.get();
    // Bus tap streams may take half of the host's reserve, never all of it.
    busRoute = std::make_unique<BusTapRoute>(
        messageBus, [serverView] { return serverView->stopping(); }, config.http.maxBodyBytes,
        std::chrono::seconds(5), std::max(1, httpCapacity(config.http).reservedHostThreads / 2));
    busRoute->install(*server);
    installHealthRoute(*server, [this] { return health(); });
    configRoute = std::make_unique<ConfigActionRoute>();
    configRoute->install(*server);
    installMetricsRoute(*server, [this] { return metrics(); });
    apiDescription =
        std::make_unique<ApiDescriptionRoute>(*server, !config.http.bearerToken.empty(), VELMORA_HOST_VERSION);
    apiDescription->install();
    installConsoleRoutes(*server);

    if (!mqtt->connect())
        logger().warning("mqtt broker %s not reachable yet; retrying in the background", mqtt->serverUri());
}

void HostApp::startPlugins()
{
    if (!server || stopped || pluginsStarted)
        return;
    pluginsStarted = true;
    for (const auto& plugin : config.plugins) {
        {
            std::lock_guard<std::mutex> lock(interruptMutex);
            if (interrupted)
                break;
        }
        startPlugin(plugin);
    }
}

void HostApp::startPlugin(const PluginConfig& plugin)
{
    LoadedPlugin loaded;
    try {
        loaded = loadPlugin(plugin.libraryCandidates);
    } catch (const PluginLoadError& e) {
        recordFailure(plugin.library, e.what());
        return;
    }
    const std::string normalized = normalizeGuid(loaded.guid);
    for (const auto& other : plugins) {
        if (normalizeGuid(other.guid) == normalized) {
            // Its PluginUnLoad would also remove the factory of the one already running.
            recordFailure(plugin.library, "a plug-in with the GUID " + loaded.guid + " is already loaded from " +
                                              other.libraryPath);
            return;
        }
    }

    {
        std::lock_guard<std::mutex> lock(statusMutex);
        records.push_back(PluginRecord{loaded.libraryPath, loaded.name, loaded.guid, loaded.type,
                                       plugin.serviceAddress, plugin.servicePort, "starting",
                                       findPluginLinkHealth(*loaded.library), findPluginMetrics(*loaded.library)});
    }
    std::shared_ptr<MessageBus> bus = messageBus;
    const std::string origin = loaded.guid;
    loaded.instance->setCallback([bus, origin](std::string text) { bus->post(std::move(text), origin); });

    if (!waitForService(plugin))
        logger().warning("plug-in %s: service %s:%hu does not accept connections; starting it anyway",
                         loaded.name, plugin.serviceAddress, plugin.servicePort);
    try {
        loaded.instance->start(std::make_shared<PluginWebApi>(server, loaded.name), mqtt, plugin.serviceAddress,
                               plugin.servicePort);
    } catch (const std::exception& e) {
        // A plug-in must not throw from start; one that does is stopped and left out.
        logger().error("plug-in %s threw from start: %s", loaded.name, std::string(e.what()));
        loaded.instance->stop();
        loaded.instance.reset();
        loaded.entry.unload();
        setState(loaded.guid, "failed");
        recordFailure(plugin.library, std::string("start threw: ") + e.what());
        return;
    }
    messageBus->attach(loaded.guid, loaded.instance);
    apiDescription->addPlugin(loaded.name, loaded.guid, *loaded.library);
    configRoute->addPlugin(*loaded.library);
    setState(loaded.guid, "running");
    logger().information("plug-in %s %s (type %d) started from %s, service %s:%hu", loaded.name, loaded.guid,
                         loaded.type, loaded.libraryPath, plugin.serviceAddress, plugin.servicePort);
    plugins.push_back(std::move(loaded));
}

bool HostApp::waitForService(const PluginConfig& plugin)
{
    const auto deadline = std::chrono::steady_clock::now() + plugin.serviceWait;
    for (;;) {
        if (serviceAccepts(plugin.serviceAddress, plugin.servicePort))
            return true;
        if (std::chrono::steady_clock::now() + serviceRetryPause >= deadline)
            return false;
        std::unique_lock<std::mutex> lock(interruptMutex);
        if (interruptWake.wait_for(lock, serviceRetryPause, [&] { return interrupted; }))
            return false;
    }
}

void HostApp::interrupt()
{
    {
        std::lock_guard<std::mutex> lock(interruptMutex);
        interrupted = true;
    }
    interruptWake.notify_all();
}

void HostApp::stop()
{
    if (!started || stopped)
        return;
    stopped = true;
    interrupt();

    for (auto& plugin : plugins) {
        try {
            plugin.instance->stop();
        } catch (const std::exception& e) {
            logger().error("plug-in %s threw from stop: %s", plugin.name, std::string(e.what()));
        }
    }
    // No plug-in is running any more: what is still queued has no one to serve it.
    messageBus->stop();
    messageBus->detachAll();
    for (auto& plugin : plugins) {
        plugin.instance.reset();
        plugin.entry.unload();
        setState(plugin.guid, "stopped");
        logger().information("plug-in %s stopped and unloaded", plugin.name);
    }
    if (server && !server->stop())
        logger().warning("http server stopped with handlers still running");
    if (mqtt)
        mqtt->disconnect();
    // Work the plug-ins handed to the shared pool finishes before the host
    // releases what that work may still use.
    ThreadPool::defaultPool().joinAll();
    logger().information("host stopped");
}

std::uint16_t HostApp::httpPort() const
{
    return server ? server->port() : 0;
}

std::size_t HostApp::startedPlugins() const
{
    std::lock_guard<std::mutex> lock(statusMutex);
    return static_cast<std::size_t>(std::count_if(records.begin(), records.end(),
                                                   [](const PluginRecord& r) { return r.state == "running"; }));
}

std::size_t HostApp::failedPlugins() const
{
    std::lock_guard<std::mutex> lock(statusMutex);
    return failures.size();
}

void HostApp::recordFailure(const std::string& library, const std::string& reason)
{
    logger().error("plug-in %s not loaded: %s", library, reason);
    std::lock_guard<std::mutex> lock(statusMutex);
    failures.emplace_back(library, reason);
}

void HostApp::setState(const std::string& guid, const std::string& state)
{
    std::lock_guard<std::mutex> lock(statusMutex);
    for (auto& record : records) {
        if (record.guid == guid)
            record.state = state;
    }
}

Poco::JSON::Object::Ptr HostApp::health() const
{
    std::vector<PluginRecord> recordsNow;
    std::vector<std::pair<std::string, std::string>> failuresNow;
    {
        std::lock_guard<std::mutex> lock(statusMutex);
        recordsNow = records;
        failuresNow = failures;
    }
    bool degraded = !failuresNow.empty();

    Poco::JSON::Object::Ptr report = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - startedAt;

    Poco::JSON::Object::Ptr http = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    http->set("address", config.http.bindAddress);
    http->set("port", httpPort());
    http->set("token_required", !config.http.bearerToken.empty());
    if (server) {
        const HttpServerCounters load = server->counters();
        http->set("connections", load.connections);
        http->set("streams", load.openStreams);
        http->set("waiting_requests", load.waitingRequests);
        http->set("streams_refused", load.streamsRefused);
        http->set("streams_refused_per_client", load.streamsRefusedPerClient);
        http->set("requests_refused", load.requestsRefused);
        http->set("bus_taps_refused", busRoute ? busRoute->refusedStreams() : 0);
        http->set("slow_clients_cut", load.slowClientsCut);
    }

    Poco::JSON::Object::Ptr broker = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    const bool mqttUp = mqtt && mqtt->isConnected();
    degraded = degraded || !mqttUp;
    broker->set("server_uri", mqtt ? mqtt->serverUri() : config.mqtt.serverUri);
    broker->set("connected", mqttUp);
    broker->set("station_sn", config.mqtt.stationSerial);
    if (mqtt) {
        const PahoMqttClient::Counters intake = mqtt->counters();
        broker->set("oversize_refused", intake.oversizeRefused);
        broker->set("queue_dropped", intake.queueDrops);
        broker->set("delivered", intake.delivered);
        broker->set("queue_depth", intake.queueDepth);
    }

    Poco::JSON::Array::Ptr loaded = new Poco::JSON::Array;
    for (const auto& record : recordsNow) {
        Poco::JSON::Object::Ptr entry = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        entry->set("name", record.name);
        entry->set("guid", record.guid);
        entry->set("type", record.type);
        entry->set("library", record.library);
        entry->set("state", record.state);
        Poco::JSON::Object::Ptr service = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        service->set("address", record.serviceAddress);
        service->set("port", record.servicePort);
        ServiceLinkState link;
        Poco::Net::IPAddress address;
        if (Poco::Net::IPAddress::tryParse(record.serviceAddress, address))
            link = observeServiceLink(address, record.servicePort);
        degraded = degraded || link.link != ServiceLinkState::Link::up;
        service->set("link", std::string(linkName(link.link)));
        service->set("established", link.established);
        service->set("connecting", link.connecting);
        if (record.linkHealth) {
            if (const auto report = readPluginLinkHealth(record.linkHealth))
                addPluginLinkHealth(*service, *report, record.serviceAddress, record.servicePort);
        }
        entry->set("service", service);
        loaded->add(entry);
    }

    Poco::JSON::Array::Ptr failed = new Poco::JSON::Array;
    for (const auto& [library, reason] : failuresNow) {
        Poco::JSON::Object::Ptr entry = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        entry->set("library", library);
        entry->set("reason", reason);
        failed->add(entry);
    }

    const MessageBus::Stats counters = messageBus->stats();
    Poco::JSON::Object::Ptr bus = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    bus->set("posted", counters.posted);
    bus->set("delivered", counters.delivered);
    bus->set("unaddressed", counters.unaddressed);
    bus->set("rejected", counters.rejected);
    bus->set("dropped", counters.dropped);
    bus->set("taps", counters.taps);
    bus->set("dropped_for_bytes", counters.droppedForBytes);
    bus->set("oversize", counters.oversize);
    bus->set("tap_dropped", counters.tapDropped);
    bus->set("queued", counters.queued);
    bus->set("queued_bytes", counters.queuedBytes);

    report->set("status", degraded ? "degraded" : "ok");
    report->set("uptime_s", uptime.count());
    report->set("http", http);
    report->set("mqtt", broker);
    report->set("plugins", loaded);
    report->set("failed_plugins", failed);
    report->set("bus", bus);
    return report;
}

} // namespace vlm::host
