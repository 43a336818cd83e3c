#include "app/ConfigCommand.h"

#include <memory>
#include <ostream>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/JSON/Array.h>
#include <Poco/Net/IPAddress.h>

#include "VelmoraCommon.h"
#include "app/HostConfig.h"
#include "app/PluginConfigAction.h"

namespace vlm::host {
namespace {

// The plug-in that carries the routines, looked for beside the executable when
// no configuration names it (ping).
constexpr const char* pilotControlLibrary = "libVelmoraPluginPilotControl.so";

void parseOptions(const std::vector<std::string>& args, std::size_t from, ConfigCommand& command)
{
    for (std::size_t i = from; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help") {
            command.help = true;
        } else if (arg == "--json") {
            command.json = true;
        } else if (arg == "-c" || arg == "--config") {
            if (i + 1 >= args.size() || args[i + 1].empty())
                throw std::invalid_argument(arg + " needs a file name (see config --help)");
            command.configPath = args[++i];
        } else if (arg.rfind("--config=", 0) == 0 && arg.size() > 9) {
            command.configPath = arg.substr(9);
        } else if (command.action == pingAction && command.address.empty() && arg.rfind("-", 0) != 0) {
            command.address = arg;
        } else {
            throw std::invalid_argument("unknown argument \"" + arg + "\" (see config --help)");
        }
    }
}

// The library named by the configuration (or the pilot-control plug-in beside
// the executable), opened; stays loaded for the rest of the process.
struct Routines {
    std::unique_ptr<Poco::SharedLibrary> library;
    PluginConfigActionFunction function = nullptr;
    std::string problem;
};

Routines findRoutines(const std::vector<std::vector<std::string>>& candidateLists)
{
    Routines found;
    std::string tried;
    for (const auto& candidates : candidateLists) {
        for (const auto& path : candidates) {
            if (!Poco::File(path).exists())
                continue;
            tried += (tried.empty() ? "" : ", ") + path;
            try {
                auto library = std::make_unique<Poco::SharedLibrary>(path);
                if (PluginConfigActionFunction function = findPluginConfigAction(*library)) {
                    found.library = std::move(library);
                    found.function = function;
                    return found;
                }
            } catch (const Poco::Exception& e) {
                tried += " (" + e.displayText() + ")";
            }
            break;  // the first existing candidate is the one the host would load
        }
    }
    found.problem = tried.empty() ? "no plug-in library found"
                                  : "no plug-in library offers the configuration routines (tried " + tried + ")";
    return found;
}

std::string joinedErrors(const Poco::JSON::Object& answer)
{
    std::string text;
    if (const Poco::JSON::Array::Ptr errors = answer.getArray("errors"))
        for (std::size_t i = 0; i < errors->size(); ++i)
            text += (text.empty() ? "" : "; ") + errors->getElement<std::string>(static_cast<unsigned>(i));
    return text.empty() ? "no reason given" : text;
}

std::string summary(const ConfigCommand& command, const Poco::JSON::Object& answer)
{
    const std::string& action = command.action;
    if (action == resetDefaultsAction) {
        std::string kept;
        if (const Poco::JSON::Array::Ptr names = answer.getArray("kept"))
            for (std::size_t i = 0; i < names->size(); ++i)
                kept += (kept.empty() ? "" : ", ") + names->getElement<std::string>(static_cast<unsigned>(i));
        return answer.optValue<std::string>("config_file", "") + " reset to the station defaults (kept: " +
               (kept.empty() ? "nothing" : kept) + ")";
    }
    if (action == backupAction)
        return "backed up " + answer.optValue<std::string>("source", "") + " to " +
               answer.optValue<std::string>("target", "");
    if (action == loadHangarAction)
        return answer.optValue<bool>("changed", false)
                   ? "merged " + answer.optValue<std::string>("hangar_file", "") + " into " + configPath()
                   : answer.optValue<std::string>("hangar_file", "") + " holds the current settings; " +
                         configPath() + " unchanged";
    return command.address + " answered";
}

} // namespace

bool isConfigCommand(const std::vector<std::string>& args)
{
    return !args.empty() && (args[0] == "config" || args[0] == pingAction);
}

ConfigCommand parseConfigCommand(const std::vector<std::string>& args)
{
    ConfigCommand command;
    if (args.empty() || !isConfigCommand(args))
        throw std::invalid_argument("expected \"config ACTION\" or \"ping ADDRESS\" (see config --help)");
    if (args[0] == pingAction) {
        command.action = pingAction;
        parseOptions(args, 1, command);
        if (!command.help && command.address.empty())
            throw std::invalid_argument("ping needs an address, e.g. velmora-host ping 127.0.0.1");
        Poco::Net::IPAddress parsed;
        if (!command.help && !Poco::Net::IPAddress::tryParse(command.address, parsed))
            throw std::invalid_argument("ping needs a numeric IP address, not \"" + command.address + "\"");
        return command;
    }
    if (args.size() < 2 || args[1] == "-h" || args[1] == "--help") {
        command.help = args.size() >= 2;
        if (!command.help)
            throw std::invalid_argument("config needs an action: reset-defaults, backup or load-hangar");
        return command;
    }
    command.action = args[1];
    if (command.action != resetDefaultsAction && command.action != backupAction && command.action != loadHangarAction)
        throw std::invalid_argument("unknown config action \"" + command.action +
                                    "\"; expected reset-defaults, backup or load-hangar");
    parseOptions(args, 2, command);
    if (!command.help && command.configPath.empty())
        throw std::invalid_argument("config " + command.action + " needs --config FILE");
    return command;
}

std::string configUsageText()
{
    return R"(Usage: velmora-host config reset-defaults|backup|load-hangar --config FILE [--json]
       velmora-host ping ADDRESS [--config FILE] [--json]

Runs one of the station's configuration routines of the pilot-control
plug-in (the first library in FILE's "plugins" that offers them) on FILE:

  reset-defaults  Replace the station settings in FILE with their defaults.
                  The host's own sections (http, mqtt, plugins, bus, log) are
                  kept; every other key is replaced or removed. FILE is saved.
  backup          Copy <config home>/fenlix/velmora-host.json to
                  velmora-host-backup.json beside it (config home: the
                  user's ~/.config, or $XDG_CONFIG_HOME).
  load-hangar     Merge remoteIp, remotePort and uavType of
                  /etc/hangarInfo/hangarComConfig.json into FILE's
                  station.comm_ip, station.comm_port and vehicle.vehicle_type;
                  FILE is saved when anything changed.
  ping ADDRESS    Send one ICMP echo request (2 s time-out) to a numeric IPv4
                  address; needs root or CAP_NET_RAW. Without --config, the
                  plug-in beside this program is used.

A running host offers the same as POST /host/config/reset-defaults,
/host/config/backup, /host/config/load-hangar and /host/ping.

Options:
  -c, --config FILE   The host configuration.
  --json              Print the answer as JSON (also on failure).
  -h, --help          Show this text and exit.

Examples:
  velmora-host config backup --config /etc/velmora/velmora-host.json
  velmora-host ping 127.0.0.1 --json

Exit codes: 0 done, 1 the routine failed (the reason on standard error), 2 a
bad command line or configuration, 3 no plug-in library offers the routines.
)";
}

int runConfigCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    ConfigCommand command;
    try {
        command = parseConfigCommand(args);
    } catch (const std::invalid_argument& e) {
        err << "velmora-host: " << e.what() << '\n';
        return configCommandUsage;
    }
    if (command.help) {
        out << configUsageText();
        return configCommandOk;
    }

    std::vector<std::vector<std::string>> candidateLists;
    if (!command.configPath.empty()) {
        try {
            const HostConfig config = readHostConfigFile(command.configPath, executableLibDir());
            loadConfig(config.path);
            // A log file records the action beside the service's lines; on the
            // console the command's own one-line reason says it already.
            configureLogging(config.logFile == "console" ? "none" : config.logLevel, config.logFile);
            for (const auto& plugin : config.plugins)
                candidateLists.push_back(plugin.libraryCandidates);
        } catch (const ConfigError& e) {
            err << "velmora-host: configuration " << command.configPath << ": " << e.what() << '\n';
            return configCommandUsage;
        } catch (const Poco::Exception& e) {
            err << "velmora-host: configuration " << command.configPath << ": " << e.displayText() << '\n';
            return configCommandUsage;
        }
    } else {
        configureLogging("none", "console");
        candidateLists.push_back(resolveLibraryCandidates(pilotControlLibrary, executableLibDir(), ""));
    }

    const Routines routines = findRoutines(candidateLists);
    if (!routines.function) {
        err << "velmora-host: " << routines.problem << '\n';
        return configCommandNoRoutines;
    }
    const Poco::JSON::Object::Ptr answer = runPluginConfigAction(
        routines.function, command.action, command.action == pingAction ? command.address : "");
    const bool ok = answer->optValue<bool>("ok", false);
    if (command.json) {
        answer->stringify(out);
        out << '\n';
    } else if (ok) {
        out << "velmora-host: " << summary(command, *answer) << '\n';
    }
    if (!ok) {
        if (command.action == pingAction && answer->has("reason"))
            err << "velmora-host: " << command.address << " did not answer: "
                << answer->optValue<std::string>("reason", "") << '\n';
        else
            err << "velmora-host: " << command.action << " failed: " << joinedErrors(*answer) << '\n';
    }
    return ok ? configCommandOk : configCommandFailed;
}

} // namespace vlm::host
