#include "command_line.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

namespace pilot_sim {

namespace {

/// Highest telemetry rate accepted; far above any real vehicle, enough for load tests.
constexpr double max_telemetry_hz = 1e6;

/// Playback speeds accepted: from a hundredth to a thousand times real time.
constexpr double min_replay_speed = 0.01;
constexpr double max_replay_speed = 1000.0;

std::invalid_argument bad(const std::string& flag, const std::string& why)
{
    return std::invalid_argument(flag + ": " + why + " (see --help)");
}

unsigned long long whole_number(const std::string& flag, const std::string& text, unsigned long long max)
{
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > max)
        throw bad(flag, "expects a whole number from 0 to " + std::to_string(max) + ", not \"" + text + "\"");
    return value;
}

std::chrono::milliseconds milliseconds(const std::string& flag, const std::string& text)
{
    // A day is more than any fault needs and keeps the arithmetic far from overflow.
    return std::chrono::milliseconds(whole_number(flag, text, 86400000ull));
}

double rate(const std::string& flag, const std::string& text)
{
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(value) || value < 0.0 ||
        value > max_telemetry_hz)
        throw bad(flag, "expects a rate from 0 to 1000000, not \"" + text + "\"");
    return value;
}

double speed(const std::string& flag, const std::string& text)
{
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(value) || value < min_replay_speed ||
        value > max_replay_speed)
        throw bad(flag, "expects a factor from 0.01 to 1000, not \"" + text + "\"");
    return value;
}

}  // namespace

command_line parse_command_line(const std::vector<std::string>& args)
{
    command_line parsed;
    parsed.options.port = default_port;
    fault_plan& faults = parsed.options.faults;
    bool telemetry_given = false;
    bool speed_given = false;

    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string flag = args[i];
        std::string value;
        bool inline_value = false;
        const std::size_t equals = flag.find('=');
        if (flag.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = flag.substr(equals + 1);
            flag = flag.substr(0, equals);
            inline_value = true;
        }
        const auto take_value = [&]() -> std::string {
            if (inline_value)
                return value;
            if (i + 1 >= args.size())
                throw bad(flag, "needs a value");
            return args[++i];
        };
        const auto no_value = [&] {
            if (inline_value)
                throw bad(flag, "takes no value");
        };

        if (flag == "--help" || flag == "-h") {
            no_value();
            parsed.help = true;
        } else if (flag == "--port") {
            parsed.options.port = static_cast<unsigned short>(whole_number(flag, take_value(), 65535));
        } else if (flag == "--bind") {
            parsed.options.bind_address = take_value();
            if (parsed.options.bind_address.empty())
                throw bad(flag, "needs a numeric address");
        } else if (flag == "--settings") {
            parsed.settings_path = take_value();
        } else if (flag == "--telemetry-hz") {
            parsed.options.telemetry_hz = rate(flag, take_value());
            telemetry_given = true;
        } else if (flag == "--stamp-publish-time") {
            no_value();
            parsed.options.stamp_publish_time = true;
        } else if (flag == "--replay") {
            parsed.replay_path = take_value();
            if (parsed.replay_path.empty())
                throw bad(flag, "needs a file");
        } else if (flag == "--speed") {
            parsed.replay_speed = speed(flag, take_value());
            speed_given = true;
        } else if (flag == "--loop") {
            no_value();
            parsed.replay_loop = true;
        } else if (flag == "--control-stdin") {
            no_value();
            parsed.control_stdin = true;
        } else if (flag == "--delay") {
            const std::string assignment = take_value();
            const std::size_t sep = assignment.find('=');
            if (sep == std::string::npos || sep == 0)
                throw bad(flag, "expects PROCEDURE=MS, not \"" + assignment + "\"");
            faults.delayed[assignment.substr(0, sep)] = milliseconds(flag, assignment.substr(sep + 1));
        } else if (flag == "--never-answer") {
            const std::string procedure = take_value();
            if (procedure.empty())
                throw bad(flag, "needs a procedure name");
            faults.unanswered.insert(procedure);
        } else if (flag == "--drop-after-frames") {
            faults.drop_after_frames = static_cast<std::size_t>(whole_number(flag, take_value(), 1000000000ull));
        } else if (flag == "--refuse-for") {
            faults.refuse_for = milliseconds(flag, take_value());
        } else if (flag == "--vehicle-disconnected") {
            no_value();
            faults.vehicle_disconnected = true;
        } else if (flag == "--bad-frame") {
            const std::string kind = take_value();
            faults.bad_frame_after_handshake = parse_bad_frame(kind);
            if (!faults.bad_frame_after_handshake)
                throw bad(flag, "expects zero-length, oversize or bad-type, not \"" + kind + "\"");
        } else if (flag == "--malformed-publication") {
            no_value();
            faults.malformed_publication_after_handshake = true;
        } else if (flag == "--fault-delay") {
            faults.after_handshake = milliseconds(flag, take_value());
        } else {
            throw std::invalid_argument("unknown option \"" + args[i] + "\" (see --help)");
        }
    }
    if (parsed.replay_path.empty() && (speed_given || parsed.replay_loop))
        throw bad(speed_given ? "--speed" : "--loop", "needs --replay FILE");
    // The recording carries the telemetry; the simulator's own would interleave with it.
    if (!parsed.replay_path.empty() && !telemetry_given)
        parsed.options.telemetry_hz = 0.0;
    return parsed;
}

std::string usage_text()
{
    return R"(Usage: pilot-sim [OPTIONS]

Simulates the pilot control micro service: listens for the plug-in's RPC
clients, answers settings queries and forwarded requests, flies a simulated
vehicle and publishes its telemetry, heartbeats, upload progress and results.
Prints "pilot-sim listening on ADDRESS:PORT" on standard output once it
accepts connections; logs to standard error. SIGINT or SIGTERM stop it (exit 0).

Options:
  -h, --help                 Show this text and exit.
  --port N                   TCP port to listen on (default 7700; 0: any free port).
  --bind ADDRESS             Numeric address to listen on (default 127.0.0.1).
  --settings FILE            JSON settings, nested by key: {"vehicle": {"pilot_id":
                             "SIM-UAV-0042"}}. Unlisted keys keep the station's
                             defaults; "vehicle.pilot_id" defaults to SIM-UAV-0001.
                             sim/pilot-sim.settings.json lists every key.
  --telemetry-hz N           "pushTelemetry" events a second (default 5; 0: none).
  --stamp-publish-time       Add "publishedUs" (wall clock, microseconds, taken just
                             before publishing) to each telemetry sample; for
                             latency drivers (default off).
  --control-stdin            Read control commands from standard input, one a line
                             ("help" lists them): events on request, faults.

Replay:
  --replay FILE              Play back a flight recording (pilot-rpc record writes
                             one): its events go to the subscribers with their
                             recorded spacing, starting 200 ms after the first
                             subscription, while calls are answered as usual. The
                             simulator's own telemetry (unless --telemetry-hz is
                             given) and heartbeats are off meanwhile. Bad lines are
                             reported with their number and skipped.
  --speed X                  Play back X times as fast (0.01 to 1000, default 1).
  --loop                     Start again after the last event, without end.

Faults:
  --delay PROCEDURE=MS       Answer calls of PROCEDURE only after MS milliseconds
                             (repeatable), e.g. --delay getBoolConfig=6000.
  --never-answer PROCEDURE   Never answer calls of PROCEDURE (repeatable).
  --drop-after-frames N      Cut every connection once it has sent N frames.
  --refuse-for MS            Refuse connections for the first MS milliseconds.
  --vehicle-disconnected     Report the vehicle link down ("pilotConnectState"
                             "false") and send no telemetry.
  --bad-frame KIND           After each start handshake ("reportRPCSub"), send every
                             connection a bad frame: zero-length, oversize or bad-type.
  --malformed-publication    After each start handshake, send every subscribed
                             connection a publication that does not decode.
  --fault-delay MS           How long after the handshake those two come (default 500).
)";
}

}  // namespace pilot_sim
