#include "engine.h"

#include <cstdio>
#include <ctime>

#include "sim_texts.h"

namespace pilot_sim {

namespace {

void log_to_stderr(const std::string& line)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(millis));
    const std::string text = std::string(stamp) + " pilot-sim: " + line + "\n";
    // One write per line keeps lines from different threads whole.
    std::fwrite(text.data(), 1, text.size(), stderr);
}

/// The single text argument of a settings query.
std::string setting_key(const char* procedure, const msgpack::object& args)
{
    if (args.type != msgpack::type::ARRAY || args.via.array.size != 1 ||
        args.via.array.ptr[0].type != msgpack::type::STR)
        throw std::invalid_argument(std::string(procedure) + " expects one text argument: the dotted key");
    const msgpack::object& key = args.via.array.ptr[0];
    return std::string(key.via.str.ptr, key.via.str.size);
}

}  // namespace

simulator::engine::engine(simulator_options options)
    : options_(std::move(options)),
      log_(options_.log ? options_.log : log_to_stderr),
      settings_(options_.settings),
      vehicle_(options_.home),
      scheduler_(service_.executor(), [this](const std::string& line) { log(line); }),
      telemetry_(options_.telemetry_hz, clock::now())
{
    // Nothing of the recorded frames is ever read here; recording them would
    // only grow without bound.
    service_.set_recording(false);
    service_.set_connection_observer(
        [this](pilot_rpc::connection_event event, std::uint64_t connection, const std::string& topic) {
            on_connection(event, connection, topic);
        });
    bind_procedures();
}

simulator::engine::~engine() { stop(); }

unsigned short simulator::engine::start()
{
    const unsigned short port = service_.start(options_.bind_address, options_.port);
    running_.store(true);
    service_.execute([this] {
        started_ = clock::now();
        last_model_step_ = started_;
        apply_fault_plan();
        start_clocks();
    });
    log("listening on " + options_.bind_address + ":" + std::to_string(port) + ", vehicle " +
        settings_.pilot_id() + ", telemetry " + hz_text(options_.telemetry_hz));
    return port;
}

void simulator::engine::stop()
{
    if (stopped_)
        return;
    stopped_ = true;
    if (running_.load())
        service_.execute([this] { scheduler_.cancel_all(); });
    running_.store(false);
    service_.stop();
}

std::string simulator::engine::hz_text(double hz)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g Hz", hz);
    return text;
}

std::int64_t simulator::engine::uptime_seconds() const
{
    return std::chrono::duration_cast<std::chrono::seconds>(clock::now() - started_).count();
}

void simulator::engine::log(const std::string& line)
{
    try {
        log_(line);
    } catch (const std::exception&) {
        // A failing log sink must not take the simulator down with it.
    }
}

void simulator::engine::bind_setting(const char* procedure,
                                     std::function<pilot_rpc::service_reply(const std::string& key)> read)
{
    // A missing or unconvertible key throws; the service answers that as a
    // failure carrying the text ("unknown configuration key: <key>").
    service_.bind(procedure, [procedure, read](const msgpack::object& args) {
        return read(setting_key(procedure, args));
    });
}

void simulator::engine::bind_procedures()
{
    using pilot_rpc::service_reply;
    bind_setting(texts::procGetIntConfig,
                 [this](const std::string& key) { return service_reply::success(settings_.int_value(key)); });
    bind_setting(texts::procGetStringConfig,
                 [this](const std::string& key) { return service_reply::success(settings_.string_value(key)); });
    bind_setting(texts::procGetBoolConfig,
                 [this](const std::string& key) { return service_reply::success(settings_.bool_value(key)); });

    service_.bind(texts::procReportRpcSub, [this](const msgpack::object&) {
        on_subscriptions_reported();
        return service_reply::success(true);
    });

    for (const char* procedure : texts::forwardingProcedures) {
        const std::string name = procedure;
        service_.bind(name, [this, name](const msgpack::object& args) {
            ++forwarded_requests_;
            std::string answer = handler_.answer(name, args);
            note_mode();
            return service_reply::success(answer);
        });
    }
}

void simulator::engine::station_announced(const std::string& station_id)
{
    station_id_ = station_id;
    log("station " + station_id + " announced itself");
}

void simulator::engine::on_subscriptions_reported()
{
    ++handshakes_;
    log("subscriptions reported; announcing vehicle " + settings_.pilot_id() + " in " +
        std::to_string(options_.announce_delay.count()) + " ms");
    scheduler_.after(options_.announce_delay, [this] { announce_vehicle(); });
    const fault_plan& plan = options_.faults;
    if (plan.bad_frame_after_handshake || plan.malformed_publication_after_handshake)
        scheduler_.after(plan.after_handshake, [this] { after_handshake_faults(); }, "fault");
}

void simulator::engine::on_connection(pilot_rpc::connection_event event, std::uint64_t connection,
                                      const std::string& topic)
{
    const std::string name = "connection " + std::to_string(connection);
    switch (event) {
    case pilot_rpc::connection_event::opened:
        log(name + " opened (" + std::to_string(service_.connections().size()) + " open)");
        break;
    case pilot_rpc::connection_event::closed:
        topics_.erase(connection);
        scheduler_.cancel("subscriptions " + name);
        log(name + " closed");
        break;
    case pilot_rpc::connection_event::subscribed: {
        auto& topics = topics_[connection];
        if (!topics.insert(topic).second)
            break;
        arm_replay();
        // A client subscribes to its topics in one go: say so once, when the
        // burst is over, instead of once per topic.
        const std::string group = "subscriptions " + name;
        scheduler_.cancel(group);
        scheduler_.after(
            std::chrono::milliseconds(200),
            [this, connection, name] {
                log(name + " subscribed to " + std::to_string(subscription_count(connection)) + " topics");
            },
            group);
        break;
    }
    }
}

std::size_t simulator::engine::subscription_count(std::uint64_t connection) const
{
    const auto it = topics_.find(connection);
    return it == topics_.end() ? 0 : it->second.size();
}

void simulator::engine::note_mode()
{
    const flight_mode now = vehicle_.state().mode;
    if (now == logged_mode_)
        return;
    log(std::string("flight mode ") + flight_mode_name(logged_mode_) + " -> " + flight_mode_name(now));
    logged_mode_ = now;
}

}  // namespace pilot_sim
