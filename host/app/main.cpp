// velmora-host: the reference host. See --help.

#include <signal.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/Logger.h>

#include "VelmoraCommon.h"
#include "app/ConfigCommand.h"
#include "app/HostApp.h"
#include "app/HostCommandLine.h"
#include "app/HostConfig.h"
#include "app/StopSignals.h"

namespace {

// A stop that takes longer than this is cut short (exit code 1).
constexpr auto stopBound = std::chrono::seconds(20);

void printLine(const std::string& text)
{
    std::cout << text << std::endl;
}

std::string urlHost(const std::string& address)
{
    return address.find(':') == std::string::npos ? address : "[" + address + "]";
}

const char* signalName(int number)
{
    return number == SIGINT ? "SIGINT" : number == SIGTERM ? "SIGTERM" : "request";
}

} // namespace

int main(int argc, char** argv)
{
    // A client that goes away mid-answer must cost an error code, not the process.
    ::signal(SIGPIPE, SIG_IGN);

    const std::vector<std::string> args(argv + 1, argv + argc);
    if (vlm::host::isConfigCommand(args))
        return vlm::host::runConfigCommand(args, std::cout, std::cerr);

    vlm::host::HostCommandLine commandLine;
    try {
        commandLine = vlm::host::parseHostCommandLine(args);
    } catch (const std::invalid_argument& e) {
        std::cerr << "velmora-host: " << e.what() << '\n';
        return 2;
    }
    if (commandLine.help) {
        std::cout << vlm::host::hostUsageText();
        return 0;
    }
    if (commandLine.version) {
        printLine(std::string("velmora-host ") + VELMORA_VERSION);
        return 0;
    }

    vlm::host::HostConfig config;
    try {
        config = vlm::host::readHostConfigFile(commandLine.configPath, vlm::host::executableLibDir());
        // The plug-ins read the same file through configInstance().
        vlm::loadConfig(config.path);
    } catch (const vlm::host::ConfigError& e) {
        std::cerr << "velmora-host: configuration " << commandLine.configPath << ": " << e.what() << '\n';
        return 2;
    } catch (const Poco::Exception& e) {
        std::cerr << "velmora-host: configuration " << commandLine.configPath << ": " << e.displayText() << '\n';
        return 2;
    }
    if (commandLine.checkOnly) {
        printLine("velmora-host: configuration " + config.path + " is usable (" +
                  std::to_string(config.plugins.size()) + " plug-in(s))");
        return 0;
    }
    vlm::configureLogging(config.logLevel, config.logFile);
    Poco::Logger& logger = Poco::Logger::get(vlm::logName());

    vlm::host::HostApp app(config);
    // Before app.start(): every thread the host starts must inherit the
    // blocked stop signals, so that only the watcher takes them.
    vlm::host::StopSignals signals([&app] { app.interrupt(); }, stopBound);
    try {
        app.startServices();
        printLine("velmora-host listening on http://" + urlHost(config.http.bindAddress) + ":" +
                  std::to_string(app.httpPort()));
        app.startPlugins();
    } catch (const Poco::Exception& e) {
        std::cerr << "velmora-host: cannot start: " << e.displayText() << '\n';
        app.stop();
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "velmora-host: cannot start: " << e.what() << '\n';
        app.stop();
        return 1;
    }
    printLine("velmora-host ready: " + std::to_string(app.startedPlugins()) + " of " +
              std::to_string(config.plugins.size()) + " plug-in(s) started");

    const int number = signals.wait();
    logger.information("stopping on %s", std::string(signalName(number)));
    app.stop();
    signals.done();
    printLine("velmora-host stopped");
    return 0;
}
