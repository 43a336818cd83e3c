#include "e2e/GatewayStack.h"
#include "support/PollUntil.h"
#include "support/RestartablePort.h"

#include <signal.h>

#include <stdexcept>
#include <thread>

#include <Poco/File.h>
#include <Poco/JSON/Query.h>
#include <Poco/UTF8String.h>

namespace vlm::e2e {
namespace {

const auto startBound = std::chrono::seconds(20);

std::uint16_t portAfterLastColon(const std::string& line)
{
    return static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
}

std::string tail(const std::string& text, std::size_t bytes = 6000)
{
    return text.size() <= bytes ? text : "..." + text.substr(text.size() - bytes);
}

} // namespace

std::string stationTopicOf(const std::string& sn)
{
    return std::string("/velmora/pilot/") + topicGuid + "/" + sn + "/cmd";
}

std::string programPath(const char* built, const char* what)
{
    if (!built || !*built || !Poco::File(built).exists())
        throw std::runtime_error(std::string(what) + " is not built (expected at \"" + (built ? built : "") +
                                 "\"); the end-to-end tests need it: build the whole tree");
    return built;
}

GatewayStack::GatewayStack(Options opts)
    : options(std::move(opts)), broker(test::MosquittoBroker::Options{"", "", "", "", options.brokerConfig})
{
}

GatewayStack::GatewayStack() : GatewayStack(Options{}) {}

GatewayStack::~GatewayStack()
{
    host.reset();
    sim.reset();
}

void GatewayStack::start()
{
    broker.start();
    // The resilience tests restart the simulator on its port: it must be one
    // no other socket is handed meanwhile. Another test may pick it too.
    for (int attempt = 1;; ++attempt) {
        try {
            startSim(static_cast<std::uint16_t>(test::pickRestartablePort()));
            break;
        } catch (const std::runtime_error&) {
            if (attempt == 3)
                throw;
        }
    }
    startHost();
}

std::uint16_t GatewayStack::startSim(std::uint16_t port)
{
    sim.reset();
    std::vector<std::string> args{programPath(VELMORA_PILOT_SIM, "pilot-sim"), "--port", std::to_string(port),
                                  "--telemetry-hz", std::to_string(options.telemetryHz)};
    if (options.simControl)
        args.push_back("--control-stdin");
    args.insert(args.end(), options.simArgs.begin(), options.simArgs.end());
    sim = std::make_unique<ChildProcess>(std::move(args), dir.file("sim.log"), options.simControl);
    const auto line = sim->waitForLine("pilot-sim listening on ", startBound, sim->outputSize());
    if (!line)
        throw std::runtime_error("pilot-sim did not start:\n" + tail(sim->output()));
    simPort = portAfterLastColon(*line);
    return simPort;
}

void GatewayStack::killSim()
{
    sim->signal(SIGKILL);
    sim->waitExit(startBound);
}

bool GatewayStack::simCommand(const std::string& line)
{
    return sim && sim->writeLine(line);
}

void GatewayStack::startHost()
{
    host.reset();
    std::string http = R"("address": "127.0.0.1", "port": 0, "threads": 128)";
    if (!options.token.empty())
        http += R"(, "token": ")" + Poco::UTF8::escape(options.token) + '"';
    const std::string text = R"({
  "http": {)" + http + R"(},
  "mqtt": {"server_uri": ")" + broker.hostPort() + R"(", "user_name": "", "pawsswd": "", "client_id": "velmora-host-e2e"},
  "station": {"station_sn": ")" + options.stationSn + R"("},
  "plugins": [{"library": ")" + std::string(VELMORA_PILOT_PLUGIN) + R"(", "service_address": "127.0.0.1",
               "service_port": )" + std::to_string(simPort) + R"(, "service_wait_seconds": 5}],
  "log": {"level": "information", "file": ")" + dir.file("host.log") + R"("}
})";
    dir.write("velmora-host.json", text);
    host = std::make_unique<ChildProcess>(hostCommand({"--config", configFile()}), dir.file("host.out"));
    const auto listening = host->waitForLine("velmora-host listening on http://", startBound);
    if (!listening)
        throw std::runtime_error("velmora-host did not start:\n" + diagnostics());
    httpPort = portAfterLastColon(*listening);
    if (!host->waitForLine("velmora-host ready: 1 of 1 plug-in(s) started", startBound))
        throw std::runtime_error("velmora-host did not start its plug-in:\n" + diagnostics());
}

std::vector<std::string> GatewayStack::hostCommand(const std::vector<std::string>& args) const
{
    std::vector<std::string> argv{"/usr/bin/env", "-u", "XDG_CONFIG_HOME", "HOME=" + dir.file("home"),
                                  "VELMORA_TEST_HANGAR_FILE=" + dir.file("hangarComConfig.json"),
                                  programPath(VELMORA_HOST_BIN, "velmora-host")};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

test::HttpAnswer GatewayStack::http(test::HttpCall call) const
{
    if (!options.token.empty() && call.headers.count("Authorization") == 0)
        call.headers["Authorization"] = "Bearer " + options.token;
    return call.sendTo(httpPort);
}

Poco::JSON::Object::Ptr GatewayStack::health() const
{
    try {
        const auto answer = http(test::get("/host/health"));
        return answer.status == 200 ? answer.json() : nullptr;
    } catch (const std::exception&) {
        return nullptr;
    }
}

std::string GatewayStack::serviceLink() const
{
    const auto report = health();
    return report ? Poco::JSON::Query(report).findValue("plugins[0].service.link", "") : "";
}

bool GatewayStack::mqttConnected() const
{
    const auto report = health();
    return report && Poco::JSON::Query(report).findValue("mqtt.connected", false);
}

bool GatewayStack::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    return test::pollUntil(condition, timeout, std::chrono::milliseconds(50));
}

std::string GatewayStack::diagnostics() const
{
    return "--- velmora-host output\n" + tail(host ? host->output() : "") + "\n--- velmora-host log\n" +
           tail(test::TempDir::read(dir.file("host.log"))) + "\n--- pilot-sim output\n" +
           tail(sim ? sim->output() : "") + "\n--- mosquitto\n" + tail(broker.output(), 2000) + "\n";
}

} // namespace vlm::e2e
