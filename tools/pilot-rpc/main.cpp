// pilot-rpc: a command-line client of the micro service's RPC link. See --help.

#include <signal.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands.h"

int main(int argc, char** argv)
{
    // SIGINT and SIGTERM end subscribe and record through sigtimedwait, so
    // they are blocked before the client starts its I/O thread.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    // A closed pipe (pilot-rpc subscribe ... | head) ends output, not the process.
    signal(SIGPIPE, SIG_IGN);

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
