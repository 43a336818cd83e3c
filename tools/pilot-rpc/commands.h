#pragma once

// The three subcommands, run against a live service. Output goes to standard
// output, errors to standard error, one line each.
//
// Threads: run on the main thread, which must have SIGINT and SIGTERM blocked
// (as must every thread it starts): subscribe and record take them with
// sigtimedwait to end cleanly.

#include "command_line.h"
#include "exit_codes.h"

namespace pilot_rpc_tool {

exit_code run_call(const tool_options& options);

/// subscribe and record.
exit_code run_subscribe(const tool_options& options);

}  // namespace pilot_rpc_tool
