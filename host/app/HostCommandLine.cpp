#include "app/HostCommandLine.h"

namespace vlm::host {

HostCommandLine parseHostCommandLine(const std::vector<std::string>& args)
{
    HostCommandLine parsed;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help") {
            parsed.help = true;
        } else if (arg == "--version") {
            parsed.version = true;
        } else if (arg == "--check") {
            parsed.checkOnly = true;
        } else if (arg == "-c" || arg == "--config") {
            if (i + 1 >= args.size() || args[i + 1].empty())
                throw std::invalid_argument(arg + " needs a file name (see --help)");
            parsed.configPath = args[++i];
        } else if (arg.rfind("--config=", 0) == 0) {
            parsed.configPath = arg.substr(9);
            if (parsed.configPath.empty())
                throw std::invalid_argument("--config needs a file name (see --help)");
        } else {
            throw std::invalid_argument("unknown option \"" + arg + "\" (see --help)");
        }
    }
    if (parsed.configPath.empty() && !parsed.help && !parsed.version)
        throw std::invalid_argument("--config FILE is required (see --help)");
    return parsed;
}

std::string hostUsageText()
{
    return R"(Usage: velmora-host --config FILE [--check]
       velmora-host config reset-defaults|backup|load-hangar --config FILE
       velmora-host ping ADDRESS

The Velmora reference host: loads the plug-in libraries listed in FILE, gives
them the host's HTTP server, MQTT client and message bus, starts each against
its micro service and serves until SIGINT or SIGTERM, then stops them in order
and exits 0.

Prints "velmora-host listening on http://ADDRESS:PORT" on standard output once
the HTTP server listens, and "velmora-host ready: N of M plug-in(s) started"
once every plug-in has been started. Logs go where "log.file" says.

Host paths (beside the plug-ins' own, e.g. /index/api/pilot/<api>):
  GET  /host/health   JSON: plug-ins, MQTT connection, service links, uptime.
  GET  /host/bus      Event stream of every bus message.
  POST /host/bus      Deliver a JSON message with a "to" list of GUIDs.
  GET  /host/metrics  Prometheus text: requests, links, MQTT, bus, process.
  POST /host/config/reset-defaults, /host/config/backup,
       /host/config/load-hangar, /host/ping
                      The station's configuration routines (see config --help).

Options:
  -c, --config FILE   The JSON configuration (see config/velmora-host.example.json
                      and the README for every key). Required.
  --check             Check the configuration and exit: 0 when usable, 2 with
                      the key and the reason when not.
  --version           Print the version and exit.
  -h, --help          Show this text and exit.

Exit codes: 0 after an orderly stop, 1 when the host cannot start (e.g. the
HTTP port is taken) or the stop did not finish in time, 2 for a bad command
line or configuration.
)";
}

} // namespace vlm::host
