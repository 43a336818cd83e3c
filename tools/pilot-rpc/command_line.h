#pragma once

// The `pilot-rpc` command line: subcommand, service address, typed call
// arguments, topics and flags. Pure; any thread.

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "typed_arguments.h"

namespace pilot_rpc_tool {

/// A command line that cannot be run; the text says what is wrong.
class usage_error : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

enum class subcommand { call, subscribe, record };

/// The service's address: a numeric IPv4 or IPv6 address and a port.
struct service_address {
    std::string host;
    unsigned short port = 0;
};

struct tool_options {
    bool help = false;
    subcommand command = subcommand::call;
    service_address address;
    std::string procedure;                  ///< call
    std::vector<typed_argument> arguments;  ///< call, in order
    std::vector<std::string> topics;        ///< subscribe
    std::string out_path;                   ///< record
    std::optional<double> duration_seconds; ///< subscribe, record: stop after this long
    std::optional<std::size_t> count;       ///< subscribe: stop after this many events
    bool json = false;
    double timeout_seconds = 5.0;  ///< connect, and then the answer of a call
};

/// Splits "ADDRESS:PORT" ("127.0.0.1:7700", "[::1]:7700" or "::1:7700") and
/// checks that the address is numeric: the link resolves no names.
/// Throws usage_error.
service_address parse_service_address(const std::string& text);

/// Parses the arguments after the program name. Throws usage_error.
tool_options parse_command_line(const std::vector<std::string>& args);

/// The text of --help, with examples.
std::string usage_text();

}  // namespace pilot_rpc_tool
