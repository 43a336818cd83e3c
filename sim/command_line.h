#pragma once

// The `pilot-sim` command line: flags to simulator options. Pure; any thread.

#include <string>
#include <vector>

#include "simulator.h"

namespace pilot_sim {

/// Port the executable listens on unless told otherwise.
constexpr unsigned short default_port = 7700;

struct command_line {
    simulator_options options;  ///< port defaults to `default_port`
    std::string settings_path;  ///< empty: the defaults
    bool control_stdin = false; ///< read control commands from standard input
    std::string replay_path;    ///< empty: no playback
    double replay_speed = 1.0;
    bool replay_loop = false;
    bool help = false;
};

/// Parses the arguments after the program name. Throws std::invalid_argument
/// naming the flag and what is wrong with it.
command_line parse_command_line(const std::vector<std::string>& args);

/// The text of --help.
std::string usage_text();

}  // namespace pilot_sim
