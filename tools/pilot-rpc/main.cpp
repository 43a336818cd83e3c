// pilot-rpc: a command-line client of the micro service's RPC link. See --help.

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands.h"
#include "stop_signals.h"

int main(int argc, char** argv)
{
    // SIGINT and SIGTERM end subscribe and record through sigtimedwait, so
    // they are blocked before the client starts its I/O thread; a closed pipe
    // (pilot-rpc subscribe ... | head) ends output, not the process.
    velmora_signals::block_stop_signals();

    pilot_rpc_tool::tool_options options;
    try {
        options = pilot_rpc_tool::parse_command_line(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        std::cerr << "pilot-rpc: " << e.what() << '\n';
        return pilot_rpc_tool::exit_usage;
    }
    if (options.help || argc == 1) {
        std::cout << pilot_rpc_tool::usage_text();
        return argc == 1 ? pilot_rpc_tool::exit_usage : pilot_rpc_tool::exit_ok;
    }
    if (options.command == pilot_rpc_tool::subcommand::call)
        return pilot_rpc_tool::run_call(options);
    return pilot_rpc_tool::run_subscribe(options);
}
