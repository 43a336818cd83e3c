#include "commands.h"

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <future>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "answer_text.h"
#include "plugin/ServiceTopics.h"
#include "recording.h"
#include "rpc/rpc_client.h"
#include "stop_signals.h"
#include "typed_arguments.h"

namespace pilot_rpc_tool {

namespace {

using steady = std::chrono::steady_clock;

void print_error(const std::string& text)
{
    const std::string line = "pilot-rpc: " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void print_out(const std::string& text)
{
    const std::string line = text + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

std::string endpoint_text(const service_address& address)
{
    const bool v6 = address.host.find(':') != std::string::npos;
    return (v6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

std::string seconds_text(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

/// Connects or explains why not; the client needs whole seconds.
bool connect_or_report(pilot_rpc::rpc_client& client, const tool_options& options)
{
    const auto wait = static_cast<std::size_t>(std::ceil(options.timeout_seconds));
    if (client.connect(options.address.host, options.address.port, false, wait))
        return true;
    print_error("cannot reach " + endpoint_text(options.address) + ": no connection within " +
                seconds_text(static_cast<double>(wait)) + " s (is the service running and listening there?)");
    return false;
}

exit_code report_answer(const tool_options& options, const std::string& body)
{
    decoded_answer answer;
    try {
        answer = decode_answer(body);
    } catch (const std::exception& e) {
        print_error("the answer to " + options.procedure + " does not decode: " + e.what());
        return exit_failure;
    }
    if (options.json)
        print_out("{\"code\":" + std::to_string(answer.code) + ",\"value\":" + answer.value_json + "}");
    if (answer.code != 0) {
        print_error(options.procedure + " answered error " + std::to_string(answer.code) + ": " + answer.value_text);
        return exit_error_answer;
    }
    if (!options.json)
        print_out(answer.value_text);
    return exit_ok;
}

/// Waits for SIGINT or SIGTERM, `done`, or the deadline, whichever comes first.
void wait_for_end(const std::atomic<bool>& done, std::optional<steady::time_point> deadline)
{
    const sigset_t stop_signals = velmora_signals::stop_signal_set();
    // Short slices, so that `done` and the deadline are noticed promptly.
    const timespec slice{0, 100 * 1000 * 1000};
    while (!done.load()) {
        if (deadline && steady::now() >= *deadline)
            return;
        const int got = sigtimedwait(&stop_signals, nullptr, &slice);
        if (got == SIGINT || got == SIGTERM)
            return;
    }
}

/// Where subscribed events go: standard output or the record file. Handlers
/// run on the client's I/O thread; the main thread reads the counters.
class event_sink {
public:
    event_sink(const tool_options& options, std::FILE* file) : options_(options), file_(file) {}

    void deliver(const std::string& topic, std::string_view data)
    {
        if (done_.load())
            return;
        const auto now = steady::now();
        velmora_recording::recorded_event event;
        event.t_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - started_).count();
        event.topic = topic;
        event.data = std::string(data);
        const auto wall = std::chrono::system_clock::now();
        const std::string line =
            file_ || options_.json ? velmora_recording::format_record_line(event, wall)
                                   : velmora_recording::utc_time_text(wall) + " " + topic + " " + event.data;
        if (file_) {
            write_record(line);
        } else {
            print_out(line);
        }
        const std::size_t delivered = ++count_;
        if (options_.count && delivered >= *options_.count)
            done_.store(true);
    }

    std::size_t count() const { return count_.load(); }
    const std::atomic<bool>& done() const { return done_; }
    bool write_failed() const { return write_failed_.load(); }
    bool full() const { return full_.load(); }

private:
    void write_record(const std::string& line)
    {
        // A recording that could not be played back is of no use: stop at the bound.
        if (bytes_ + line.size() + 1 > limits_.max_file_bytes || count_.load() >= limits_.max_events) {
            full_.store(true);
            done_.store(true);
            return;
        }
        if (std::fwrite(line.data(), 1, line.size(), file_) != line.size() || std::fputc('\n', file_) == EOF ||
            std::fflush(file_) != 0) {
            write_failed_.store(true);
            done_.store(true);
            return;
        }
        bytes_ += line.size() + 1;
    }

    const tool_options& options_;
    std::FILE* const file_;
    const velmora_recording::recording_limits limits_;
    const steady::time_point started_ = steady::now();
    std::size_t bytes_ = 0;  ///< I/O thread only
    std::atomic<std::size_t> count_{0};
    std::atomic<bool> done_{false};
    std::atomic<bool> write_failed_{false};
    std::atomic<bool> full_{false};
};

/// What the plug-in subscribes to, so a recording holds everything it would
/// have received.
std::vector<std::string> plugin_topics()
{
    std::vector<std::string> topics(std::begin(vlm::serviceTopics::beforeApis),
                                    std::end(vlm::serviceTopics::beforeApis));
    topics.emplace_back(vlm::serviceTopics::vehicleOnlineStatus);
    return topics;
}

// Subscribes and waits for the end. The client is destroyed before this
// returns, so no handler can deliver after it.
exit_code listen_until_done(const tool_options& options, event_sink& sink, bool recording)
{
    pilot_rpc::rpc_client client;
    if (!connect_or_report(client, options))
        return exit_unreachable;
    const std::string where = endpoint_text(options.address);
    client.set_error_callback([where](std::error_code ec) {
        print_error("link to " + where + " lost (" + ec.message() + "); reconnecting");
    });
    client.enable_auto_reconnect();
    client.enable_auto_heartbeat();
    for (const std::string& topic : recording ? plugin_topics() : options.topics)
        client.subscribe(topic, [&sink, topic](std::string_view data) { sink.deliver(topic, data); });
    std::optional<steady::time_point> deadline;
    if (options.duration_seconds)
        deadline = steady::now() + std::chrono::duration_cast<steady::duration>(
                                       std::chrono::duration<double>(*options.duration_seconds));
    wait_for_end(sink.done(), deadline);
    return exit_ok;
}

}  // namespace

exit_code run_call(const tool_options& options)
{
    msgpack::sbuffer packed;
    try {
        packed = pack_arguments(options.arguments);
    } catch (const std::exception& e) {
        print_error(std::string(e.what()) + " (see pilot-rpc --help)");
        return exit_usage;
    }
    pilot_rpc::rpc_client client;
    if (!connect_or_report(client, options))
        return exit_unreachable;
    auto pending = client.call_future_packed(options.procedure, std::move(packed));
    const auto limit = std::chrono::duration<double>(options.timeout_seconds);
    if (pending.wait_for(limit) != std::future_status::ready) {
        print_error("no answer to " + options.procedure + " from " + endpoint_text(options.address) + " within " +
                    seconds_text(options.timeout_seconds) + " s");
        return exit_timeout;
    }
    try {
        return report_answer(options, pending.get().data());
    } catch (const std::future_error&) {
        print_error("the link to " + endpoint_text(options.address) + " closed before " + options.procedure +
                    " was answered");
        return exit_failure;
    }
}

exit_code run_subscribe(const tool_options& options)
{
    const bool recording = options.command == subcommand::record;
    std::FILE* file = nullptr;
    if (recording) {
        file = std::fopen(options.out_path.c_str(), "w");
        if (!file) {
            print_error("cannot write " + options.out_path + ": " + std::strerror(errno));
            return exit_failure;
        }
    }
    exit_code result = exit_ok;
    std::size_t recorded = 0;
    {
        event_sink sink(options, file);
        result = listen_until_done(options, sink, recording);
        // The client is gone: the count and the file are final.
        recorded = sink.count();
        if (sink.write_failed()) {
            print_error("cannot write " + options.out_path + ": " + std::strerror(errno));
            result = exit_failure;
        } else if (sink.full()) {
            print_error("stopped at the size a recording may have");
        }
    }
    if (file && std::fclose(file) != 0 && result == exit_ok) {
        print_error("cannot write " + options.out_path + ": " + std::strerror(errno));
        result = exit_failure;
    }
    if (recording && result == exit_ok)
        print_error("recorded " + std::to_string(recorded) + " events to " + options.out_path);
    return result;
}

}  // namespace pilot_rpc_tool
