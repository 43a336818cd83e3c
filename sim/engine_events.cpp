// The simulator's clocks and event sequences: telemetry, heartbeat and model
// steps, the vehicle announcement after the handshake, route uploads and the
// delayed result events. All of it runs on the service's I/O thread.

#include <asio/post.hpp>

#include "engine.h"
#include "event_payloads.h"
#include "sim_texts.h"

namespace pilot_sim {

namespace {

/// Percentages an upload reports, in order.
constexpr int upload_steps[] = {0, 25, 50, 75, 100};

/// Publications per turn of a burst; the I/O thread serves other work in between.
constexpr std::size_t burst_chunk_size = 1024;

}  // namespace

void simulator::engine::start_clocks()
{
    const auto now = clock::now();
    telemetry_ = rate_clock(telemetry_.rate(), now);
    if (telemetry_.rate() > 0.0)
        scheduler_.at(telemetry_.next_wakeup(now), [this] { telemetry_tick(); }, "telemetry");
    // A replayed flight brings its own heartbeats; two streams of them would mix two vehicles.
    if (!options_.replay)
        scheduler_.after(options_.heartbeat_interval, [this] { heartbeat_tick(); }, "heartbeat");
    scheduler_.after(options_.model_step, [this] { model_tick(); }, "model");
}

std::size_t simulator::engine::publish(const std::string& topic, const std::string& data)
{
    return service_.publish(topic, data);
}

void simulator::engine::telemetry_tick()
{
    const auto now = clock::now();
    const std::size_t due = telemetry_.take_due(now);
    // No vehicle link, no telemetry: the samples simply lapse.
    if (due > 0 && vehicle_connected_) {
        // Samples of one wake-up (several only above 1 kHz) share one text.
        telemetry_seq_ += due;
        std::string text =
            telemetry_payload(vehicle_.state(), settings_.pilot_id(), telemetry_seq_, wall_clock_ms());
        if (options_.stamp_publish_time)
            text = with_publish_stamp(text, wall_clock_us());
        for (std::size_t i = 0; i < due; ++i)
            service_.publish(texts::pushTelemetry, text);
    }
    scheduler_.at(telemetry_.next_wakeup(clock::now()), [this] { telemetry_tick(); }, "telemetry");
}

void simulator::engine::set_telemetry_rate(double hz)
{
    scheduler_.cancel("telemetry");
    const auto now = clock::now();
    telemetry_ = rate_clock(hz, now);
    if (hz > 0.0)
        scheduler_.at(telemetry_.next_wakeup(now), [this] { telemetry_tick(); }, "telemetry");
    log("telemetry rate " + hz_text(hz));
}

void simulator::engine::heartbeat_tick()
{
    service_.publish(texts::heartBeat,
                     heartbeat_payload(settings_.pilot_id(), ++heartbeat_seq_, wall_clock_ms(), vehicle_connected_));
    scheduler_.after(options_.heartbeat_interval, [this] { heartbeat_tick(); }, "heartbeat");
}

void simulator::engine::model_tick()
{
    const auto now = clock::now();
    vehicle_.advance(now - last_model_step_);
    last_model_step_ = now;
    note_mode();
    scheduler_.after(options_.model_step, [this] { model_tick(); }, "model");
}

void simulator::engine::announce_vehicle()
{
    service_.publish(texts::pilotConnectState, vehicle_connected_ ? "true" : "false");
    service_.publish(texts::pushUavSn, settings_.pilot_id());
}

void simulator::engine::set_vehicle_connected(bool connected)
{
    const bool changed = connected != vehicle_connected_;
    vehicle_connected_ = connected;
    const std::size_t told = service_.publish(texts::pilotConnectState, connected ? "true" : "false");
    if (connected)
        service_.publish(texts::pilotConnect, pilot_connect_payload(settings_.pilot_id()));
    if (changed)
        log(std::string("vehicle link ") + (connected ? "up" : "down") + ", told " + std::to_string(told) +
            " subscriber(s)");
}

void simulator::engine::pilot_id_changed(const std::string& pilot_id)
{
    log("vehicle serial number is now " + pilot_id);
    service_.publish(texts::pushUavSn, pilot_id);
}

void simulator::engine::publish_later(const std::string& topic, std::string payload)
{
    scheduler_.after(options_.result_delay,
                     [this, topic, payload = std::move(payload)] { service_.publish(topic, payload); });
}

void simulator::engine::route_upload_started(const std::string& api, std::vector<waypoint> route)
{
    // A new upload replaces one still under way, as on the vehicle.
    scheduler_.cancel("upload");
    const std::string route_id = "R-" + std::to_string(++route_uploads_);
    log(api + ": uploading route " + route_id + " with " + std::to_string(route.size()) + " waypoints");

    clock::duration delay = options_.progress_step;
    for (const int percent : upload_steps) {
        scheduler_.after(
            delay, [this, api, percent] { service_.publish(texts::updateProgress, progress_payload(api, percent)); },
            "upload");
        delay += options_.progress_step;
    }
    scheduler_.after(
        delay,
        [this, api, route_id, route = std::move(route)]() mutable {
            const std::size_t count = route.size();
            const command_result loaded = vehicle_.load_route(std::move(route));
            if (!loaded.ok) {
                log(api + ": route " + route_id + " not loaded: " + loaded.reason);
                return;
            }
            service_.publish(api, route_result_payload(api, route_id, count));
            log(api + ": route " + route_id + " loaded");
        },
        "upload");
}

void simulator::engine::publish_burst(const std::string& topic, const std::string& data, std::size_t count)
{
    burst_chunk(std::make_shared<const std::string>(topic), std::make_shared<const std::string>(data), count);
}

void simulator::engine::burst_chunk(std::shared_ptr<const std::string> topic, std::shared_ptr<const std::string> data,
                                    std::size_t left)
{
    const std::size_t now = std::min(left, burst_chunk_size);
    for (std::size_t i = 0; i < now; ++i)
        service_.publish(*topic, *data);
    left -= now;
    if (left == 0)
        return;
    // Posted rather than looped so that answers, timers and the socket writes
    // of this very burst get their turn.
    asio::post(service_.executor(), [this, topic, data, left] {
        try {
            burst_chunk(topic, data, left);
        } catch (const std::exception& e) {
            log(std::string("burst stopped: ") + e.what());
        }
    });
}

}  // namespace pilot_sim
