// The thread-safe face of the simulator: each member hands its work to the
// I/O thread and waits for it there.

#include "simulator.h"

#include "engine.h"
#include "event_payloads.h"
#include "sim_texts.h"

namespace pilot_sim {

simulator::simulator(simulator_options options) : engine_(std::make_unique<engine>(std::move(options))) {}

simulator::~simulator() = default;

unsigned short simulator::start() { return engine_->start(); }
void simulator::stop() { engine_->stop(); }
unsigned short simulator::port() const { return engine_->port(); }

vehicle_state simulator::vehicle() const
{
    return engine_->on_io<vehicle_state>([this] { return engine_->vehicle().state(); });
}

void simulator::set_telemetry_rate(double hz)
{
    engine_->on_io<bool>([&] {
        engine_->set_telemetry_rate(hz);
        return true;
    });
}

void simulator::set_vehicle_connected(bool connected)
{
    engine_->on_io<bool>([&] {
        engine_->set_vehicle_connected(connected);
        return true;
    });
}

bool simulator::vehicle_connected() const
{
    return engine_->on_io<bool>([this] { return engine_->vehicle_connected(); });
}

std::size_t simulator::publish(const std::string& topic, const std::string& data)
{
    return engine_->on_io<std::size_t>([&] { return engine_->publish(topic, data); });
}

void simulator::publish_burst(const std::string& topic, const std::string& data, std::size_t count)
{
    engine_->on_io<bool>([&] {
        engine_->publish_burst(topic, data, count);
        return true;
    });
}

std::size_t simulator::request_telemetry_frequency(int value)
{
    return publish(texts::setTelemFrequency, std::to_string(value));
}

std::size_t simulator::report_online_status(const std::string& text)
{
    return publish(texts::vehicleOnlineStatus, text);
}

std::size_t simulator::send_master_control_data(const std::string& text)
{
    return publish(texts::uavData2MaterCtl, text);
}

std::size_t simulator::report_fire_search(const std::string& json)
{
    return engine_->on_io<std::size_t>([&] {
        const std::string text = json.empty() ? fire_search_payload(engine_->vehicle().state(),
                                                                    engine_->settings().pilot_id())
                                              : json;
        return engine_->publish(texts::fireSearchInfo, text);
    });
}

std::size_t simulator::send_to_bus(const std::string& json) { return publish(texts::toMicroService, json); }

void simulator::delay_answers(const std::string& procedure, std::chrono::milliseconds delay)
{
    engine_->on_io<bool>([&] {
        engine_->delay_answers(procedure, delay);
        return true;
    });
}

void simulator::never_answer(const std::string& procedure, bool never)
{
    engine_->on_io<bool>([&] {
        engine_->never_answer(procedure, never);
        return true;
    });
}

void simulator::drop_after_frames(std::size_t count)
{
    engine_->on_io<bool>([&] {
        engine_->drop_after_frames(count);
        return true;
    });
}

void simulator::refuse_connections_for(std::chrono::milliseconds duration)
{
    engine_->on_io<bool>([&] {
        engine_->refuse_connections_for(duration);
        return true;
    });
}

std::size_t simulator::send_bad_frame(bad_frame kind)
{
    return engine_->on_io<std::size_t>([&] { return engine_->send_bad_frame(kind); });
}

std::size_t simulator::send_malformed_publication()
{
    return engine_->on_io<std::size_t>([&] { return engine_->send_malformed_publication(); });
}

std::vector<std::uint64_t> simulator::connections() const { return engine_->connections(); }

std::size_t simulator::subscription_count(std::uint64_t connection) const
{
    return engine_->on_io<std::size_t>([&] { return engine_->subscription_count(connection); });
}

std::string simulator::station_id() const
{
    return engine_->on_io<std::string>([this] { return engine_->station_id(); });
}

std::size_t simulator::handshakes() const
{
    return engine_->on_io<std::size_t>([this] { return engine_->handshakes(); });
}

std::size_t simulator::forwarded_requests() const
{
    return engine_->on_io<std::size_t>([this] { return engine_->forwarded_requests(); });
}

std::size_t simulator::replayed_events() const
{
    return engine_->on_io<std::size_t>([this] { return engine_->replayed_events(); });
}

}  // namespace pilot_sim
