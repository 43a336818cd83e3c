// pilot-sim: the micro-service simulator as a program. See --help.

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "command_line.h"
#include "control_commands.h"
#include "recording.h"
#include "replay.h"
#include "stop_signals.h"
#include "simulator.h"

namespace {

void print_line(const std::string& text)
{
    const std::string line = text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

/// Reads control commands from standard input until `stop` is set or input
/// ends. Polls so that a stop is noticed within a fraction of a second even
/// when nobody types.
void read_commands(pilot_sim::simulator& sim, const std::atomic<bool>& stop)
{
    std::string pending;
    char chunk[4096];
    while (!stop.load()) {
        pollfd in{STDIN_FILENO, POLLIN, 0};
        const int ready = ::poll(&in, 1, 200);
        if (ready < 0 && errno != EINTR)
            return;
        if (ready <= 0)
            continue;
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got <= 0)
            return;
        pending.append(chunk, static_cast<std::size_t>(got));
        for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            std::string reply;
            try {
                reply = pilot_sim::run_control_command(sim, pending.substr(0, end));
            } catch (const std::exception& e) {
                reply = std::string("error: ") + e.what();
            }
            pending.erase(0, end + 1);
            if (!reply.empty())
                print_line(reply);
        }
    }
}

/// Bad lines of a recording told one by one up to this many, then only counted.
constexpr std::size_t bad_lines_told = 20;

/// Reads the recording to play back. Throws std::runtime_error when the file
/// cannot be played at all; bad lines are told on standard error and skipped.
std::shared_ptr<const pilot_sim::replay_plan> load_replay(const pilot_sim::command_line& parsed)
{
    const std::string& path = parsed.replay_path;
    const auto tell = [&path](std::size_t line, const std::string& why) {
        static std::size_t told = 0;
        if (++told <= bad_lines_told)
            std::cerr << "pilot-sim: " << path << " line " << line << ": " << why << "; skipped\n";
    };
    velmora_recording::loaded_recording loaded = velmora_recording::load_recording(path, tell);
    if (loaded.bad_lines > bad_lines_told)
        std::cerr << "pilot-sim: " << path << ": " << loaded.bad_lines << " bad lines skipped in all\n";
    auto plan = std::make_shared<pilot_sim::replay_plan>();
    plan->events = std::move(loaded.events);
    plan->speed = parsed.replay_speed;
    plan->loop = parsed.replay_loop;
    const double seconds = static_cast<double>(plan->events.back().t_ms - plan->events.front().t_ms) / 1000.0;
    char summary[160];
    std::snprintf(summary, sizeof summary, "%zu events over %.3f s at speed %g%s", plan->events.size(), seconds,
                  plan->speed, plan->loop ? ", looping" : "");
    std::cerr << "pilot-sim: replaying " << path << ": " << summary << '\n';
    return plan;
}

}  // namespace

int main(int argc, char** argv)
{
    // SIGINT and SIGTERM are taken by sigwait below, so every thread started
    // from here on must have them blocked; a reader of standard output that
    // went away must not kill the simulator.
    const sigset_t stop_signals = velmora_signals::block_stop_signals();

    pilot_sim::command_line parsed;
    try {
        parsed = pilot_sim::parse_command_line(std::vector<std::string>(argv + 1, argv + argc));
        if (parsed.help) {
            std::cout << pilot_sim::usage_text();
            return 0;
        }
        if (!parsed.settings_path.empty())
            parsed.options.settings = pilot_sim::service_settings::load(parsed.settings_path);
        if (!parsed.replay_path.empty())
            parsed.options.replay = load_replay(parsed);
    } catch (const std::exception& e) {
        std::cerr << "pilot-sim: " << e.what() << '\n';
        return 2;
    }

    const std::string address = parsed.options.bind_address;
    const unsigned short wanted = parsed.options.port;
    pilot_sim::simulator sim(std::move(parsed.options));
    unsigned short port = 0;
    try {
        port = sim.start();
    } catch (const std::exception& e) {
        std::cerr << "pilot-sim: cannot listen on " << address << ":" << wanted << ": " << e.what() << '\n';
        return 1;
    }
    print_line("pilot-sim listening on " + address + ":" + std::to_string(port));

    std::atomic<bool> stop{false};
    std::thread commands;
    if (parsed.control_stdin)
        commands = std::thread([&sim, &stop] { read_commands(sim, stop); });

    int signal_number = 0;
    while (sigwait(&stop_signals, &signal_number) != 0) {
    }
    std::cerr << "pilot-sim: stopping on " << (signal_number == SIGINT ? "SIGINT" : "SIGTERM") << '\n';
    stop.store(true);
    if (commands.joinable())
        commands.join();
    sim.stop();
    return 0;
}
