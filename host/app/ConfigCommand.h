#pragma once

// The configuration commands of velmora-host:
//
//     velmora-host config reset-defaults|backup|load-hangar --config FILE [--json]
//     velmora-host ping ADDRESS [--config FILE] [--json]
//
// They load the plug-in that offers the station's configuration routines (the
// first library of the configuration's "plugins" that exports
// PluginConfigAction; for ping without --config, the pilot-control plug-in
// beside the executable) and run one routine on FILE, as the running host's
// "/host/config/..." and "/host/ping" routes do.

#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

namespace vlm::host {

/// Exit codes of the configuration commands.
inline constexpr int configCommandOk = 0;
inline constexpr int configCommandFailed = 1;       ///< the routine ran and failed (the reason on stderr)
inline constexpr int configCommandUsage = 2;        ///< bad command line or configuration
inline constexpr int configCommandNoRoutines = 3;   ///< no plug-in library offers the routines

/// A parsed configuration command.
struct ConfigCommand {
    std::string action;      ///< "reset-defaults", "backup", "load-hangar" or "ping"
    std::string address;     ///< ping's address
    std::string configPath;  ///< --config; required but for ping
    bool json = false;       ///< --json: print the answer as JSON
    bool help = false;
};

/// Whether the arguments after the program name name a configuration
/// command ("config" or "ping" first).
bool isConfigCommand(const std::vector<std::string>& args);

/// Parses them. Throws std::invalid_argument with a one-line reason.
ConfigCommand parseConfigCommand(const std::vector<std::string>& args);

/// The text of "velmora-host config --help".
std::string configUsageText();

/// Parses and runs; writes the answer to `out` and a failure's one-line
/// reason to `err`; returns the exit code above.
int runConfigCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace vlm::host
