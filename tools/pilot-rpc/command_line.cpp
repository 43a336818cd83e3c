#include "command_line.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include <asio/ip/address.hpp>

namespace pilot_rpc_tool {

namespace {

usage_error bad(const std::string& what) { return usage_error(what + " (see pilot-rpc --help)"); }

double seconds(const std::string& flag, const std::string& text, double max)
{
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(value) || value <= 0.0 || value > max)
        throw bad(flag + " expects seconds above 0 and up to " + std::to_string(static_cast<long>(max)) +
                  ", not \"" + text + "\"");
    return value;
}

std::size_t event_count(const std::string& flag, const std::string& text)
{
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value == 0 || value > 1000000000ull)
        throw bad(flag + " expects a count from 1 to 1000000000, not \"" + text + "\"");
    return static_cast<std::size_t>(value);
}

subcommand parse_subcommand(const std::string& word)
{
    if (word == "call")
        return subcommand::call;
    if (word == "subscribe")
        return subcommand::subscribe;
    if (word == "record")
        return subcommand::record;
    throw bad("unknown command \"" + word + "\": expected call, subscribe or record");
}

/// Flags given, remembered to check that they fit the subcommand.
struct seen_flags {
    bool out = false;
    bool duration = false;
    bool count = false;
    bool typed_argument = false;
};

void check_fit(const tool_options& options, const seen_flags& seen, const std::vector<std::string>& positional)
{
    if (positional.size() < 2)
        throw bad("expected a command and ADDRESS:PORT");
    switch (options.command) {
    case subcommand::call:
        if (options.procedure.empty())
            throw bad("call needs a PROCEDURE");
        if (seen.out || seen.duration || seen.count)
            throw bad("call takes no --out, --duration or --count");
        break;
    case subcommand::subscribe:
        if (options.topics.empty())
            throw bad("subscribe needs at least one TOPIC");
        if (seen.out || seen.typed_argument)
            throw bad("subscribe takes no --out and no typed arguments");
        break;
    case subcommand::record:
        if (positional.size() > 2)
            throw bad("record takes no topics: it records every topic the plug-in subscribes to");
        if (options.out_path.empty())
            throw bad("record needs --out FILE");
        if (seen.count || seen.typed_argument)
            throw bad("record takes no --count and no typed arguments");
        break;
    }
}

}  // namespace

service_address parse_service_address(const std::string& text)
{
    std::string host;
    std::string port_text;
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':')
            throw bad("\"" + text + "\" is not ADDRESS:PORT");
        host = text.substr(1, close - 1);
        port_text = text.substr(close + 2);
    } else {
        const std::size_t colon = text.rfind(':');
        if (colon == std::string::npos || colon == 0)
            throw bad("\"" + text + "\" is not ADDRESS:PORT, e.g. 127.0.0.1:7700");
        host = text.substr(0, colon);
        port_text = text.substr(colon + 1);
    }
    asio::error_code ec;
    asio::ip::make_address(host, ec);
    if (ec)
        throw bad("\"" + host +
                  "\" is not a numeric address: the service link takes numeric IPv4 or IPv6 addresses only, "
                  "e.g. 127.0.0.1 or ::1");
    errno = 0;
    char* end = nullptr;
    const unsigned long port = std::strtoul(port_text.c_str(), &end, 10);
    if (port_text.empty() || port_text[0] == '-' || *end != '\0' || errno != 0 || port == 0 || port > 65535)
        throw bad("\"" + port_text + "\" is not a port from 1 to 65535");
    return service_address{host, static_cast<unsigned short>(port)};
}

tool_options parse_command_line(const std::vector<std::string>& args)
{
    tool_options options;
    seen_flags seen;
    std::vector<std::string> positional;
    bool flags_ended = false;

    const auto add_positional = [&](const std::string& word) {
        positional.push_back(word);
        if (positional.size() == 1)
            options.command = parse_subcommand(word);
        else if (positional.size() == 2)
            options.address = parse_service_address(word);
        else if (options.command == subcommand::call && options.procedure.empty())
            options.procedure = word;
        else if (options.command == subcommand::call)
            options.arguments.push_back({argument_kind::text, word});
        else
            options.topics.push_back(word);
    };

    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        if (flags_ended || word.empty() || word[0] != '-' || word == "-") {
            add_positional(word);
            continue;
        }
        const auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size())
                throw bad(word + " needs a value");
            return args[++i];
        };
        const auto typed = [&](argument_kind kind) {
            const std::string& text = value();
            if (positional.size() < 3 || options.command != subcommand::call)
                throw bad(word + " marks a call argument: put it after PROCEDURE");
            options.arguments.push_back({kind, text});
            seen.typed_argument = true;
        };
        if (word == "--") {
            flags_ended = true;
        } else if (word == "-h" || word == "--help") {
            options.help = true;
        } else if (word == "--json") {
            options.json = true;
        } else if (word == "--timeout") {
            options.timeout_seconds = seconds(word, value(), 3600);
        } else if (word == "--duration") {
            options.duration_seconds = seconds(word, value(), 7 * 86400);
            seen.duration = true;
        } else if (word == "--count") {
            options.count = event_count(word, value());
            seen.count = true;
        } else if (word == "--out" || word == "-o") {
            options.out_path = value();
            if (options.out_path.empty())
                throw bad(word + " needs a file name");
            seen.out = true;
        } else if (word == "-s" || word == "--string") {
            typed(argument_kind::text);
        } else if (word == "-i" || word == "--int") {
            typed(argument_kind::integer);
        } else if (word == "-b" || word == "--bool") {
            typed(argument_kind::boolean);
        } else if (word == "-j" || word == "--json-arg") {
            typed(argument_kind::json);
        } else {
            throw bad("unknown option \"" + word + "\"");
        }
    }
    if (options.help)
        return options;
    check_fit(options, seen, positional);
    return options;
}

std::string usage_text()
{
    return R"(Usage: pilot-rpc call ADDRESS:PORT PROCEDURE [ARG...]
       pilot-rpc subscribe ADDRESS:PORT TOPIC... [--count N] [--duration S]
       pilot-rpc record ADDRESS:PORT --out FILE [--duration S]

A command-line client of the pilot control micro service's RPC link.

  call       Calls PROCEDURE with the arguments in the order given and prints
             the answer: a text value as it is, any other value as JSON. An
             error answer is printed on standard error with its code.
  subscribe  Prints one line per event on the TOPICs: time (UTC), topic,
             payload. Runs until SIGINT or SIGTERM, --count or --duration.
  record     Subscribes to every topic the gateway plug-in subscribes to and
             writes each event with its time to FILE, one JSON object a line
             (the file pilot-sim --replay plays back). Runs until SIGINT or
             SIGTERM or --duration.

ADDRESS is numeric (127.0.0.1, ::1 or [::1]); the link resolves no names.

Arguments (call): each ARG is sent as a text. These mark the next value:
  -i, --int N            a whole number
  -b, --bool true|false  a boolean
  -j, --json-arg JSON    a JSON value, sent as the matching MessagePack value
  -s, --string TEXT      a text (for a text that starts with "-")
  --                     everything after it is a text argument

Options:
  --json                 Machine-readable output: call prints
                         {"code":N,"value":...}; subscribe prints the record
                         file's lines.
  --timeout S            Seconds to wait for the connection, and then for the
                         answer of a call (default 5).
  --duration S           subscribe, record: stop after S seconds.
  --count N              subscribe: stop after N events.
  -o, --out FILE         record: the file to write (replaced).
  -h, --help             Show this text.

Exit codes: 0 answered with code 0 (or subscribe/record ended as asked),
1 error answer, 2 bad command line, 3 service unreachable, 4 no answer in
time, 5 link lost mid-call, undecodable answer or unwritable file.

Examples (the demo's simulator listens on 127.0.0.1:7700):
  pilot-rpc call 127.0.0.1:7700 getStringConfig vehicle.pilot_id
  pilot-rpc call 127.0.0.1:7700 getIntConfig station.app_type
  pilot-rpc call 127.0.0.1:7700 reportRPCSub -b true
  pilot-rpc call 127.0.0.1:7700 firmwareUpdate '{"api":"getVersionInfo","message":{}}' getVersionInfo
  pilot-rpc --json call [::1]:7700 getBoolConfig vehicle.six_axis_ar_seat
  pilot-rpc subscribe 127.0.0.1:7700 pushTelemetry heartBeat --count 10
  pilot-rpc record 127.0.0.1:7700 --out flight.jsonl --duration 60
)";
}

}  // namespace pilot_rpc_tool
