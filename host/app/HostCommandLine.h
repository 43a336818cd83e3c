#pragma once

// The velmora-host command line. Pure; any thread.

#include <stdexcept>
#include <string>
#include <vector>

namespace vlm::host {

struct HostCommandLine {
    std::string configPath;
    bool checkOnly = false;  ///< --check: validate the configuration and exit
    bool help = false;
    bool version = false;
};

/// Parses the arguments after the program name. Throws std::invalid_argument
/// naming the option and what is wrong with it.
HostCommandLine parseHostCommandLine(const std::vector<std::string>& args);

/// The text of --help.
std::string hostUsageText();

} // namespace vlm::host
