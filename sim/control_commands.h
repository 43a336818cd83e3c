#pragma once

// Line commands that drive a running simulator by hand or from a script
// (`pilot-sim --control-stdin`): events on request and faults.

#include <string>

#include "simulator.h"

namespace pilot_sim {

/// Runs one command line against `sim` and returns the reply to print:
/// "ok ..." or "error: ...". Blank lines and lines starting with '#' reply
/// with an empty text. Any thread (as `simulator`).
std::string run_control_command(simulator& sim, const std::string& line);

/// The commands, one a line, for the "help" command.
std::string control_help_text();

}  // namespace pilot_sim
