#pragma once

// Inside of `simulator`: the RPC service with the simulator's procedures bound,
// the vehicle, the clocks and the fault controls. Internal to the simulator
// library.
//
// Threads: apart from the constructor, `start`, `stop`, `on_io`, `port` and
// `connections` (any thread), every member runs on the service's I/O thread,
// as do the handlers and the scheduled tasks; that is why none of the state
// below has a lock. The facade reaches it through `on_io`.
//
// Member definitions are split by concern: engine.cpp (life, procedures,
// handshake, connection log), engine_events.cpp (clocks, event sequences,
// vehicle link), engine_faults.cpp (misbehaviour), engine_replay.cpp (playing
// a recording back).

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "rate_clock.h"
#include "replay.h"
#include "request_handler.h"
#include "rpc/service/rpc_service.h"
#include "simulator.h"
#include "task_scheduler.h"

namespace pilot_sim {

class simulator::engine final : public request_effects {
public:
    using clock = std::chrono::steady_clock;

    explicit engine(simulator_options options);
    ~engine() override;

    unsigned short start();
    void stop();
    unsigned short port() const { return service_.port(); }

    /// Runs `task` on the I/O thread and returns its result; a default value
    /// before `start` and after `stop`.
    template <typename R>
    R on_io(const std::function<R()>& task)
    {
        R result{};
        if (running_.load())
            service_.execute([&] { result = task(); });
        return result;
    }

    // request_effects
    void station_announced(const std::string& station_id) override;
    void route_upload_started(const std::string& api, std::vector<waypoint> route) override;
    void publish_later(const std::string& topic, std::string payload) override;
    bool vehicle_connected() const override { return vehicle_connected_; }
    void set_vehicle_connected(bool connected) override;
    void pilot_id_changed(const std::string& pilot_id) override;
    std::int64_t uptime_seconds() const override;
    void log(const std::string& line) override;

    // Events (engine_events.cpp).
    std::size_t publish(const std::string& topic, const std::string& data);
    void publish_burst(const std::string& topic, const std::string& data, std::size_t count);
    void set_telemetry_rate(double hz);
    const vehicle_model& vehicle() const { return vehicle_; }
    const service_settings& settings() const { return settings_; }

    // Faults (engine_faults.cpp).
    void apply_fault_plan();
    void delay_answers(const std::string& procedure, std::chrono::milliseconds delay);
    void never_answer(const std::string& procedure, bool never);
    void drop_after_frames(std::size_t count);
    void refuse_connections_for(std::chrono::milliseconds duration);
    std::size_t send_bad_frame(bad_frame kind);
    std::size_t send_malformed_publication();

    // Records.
    std::vector<std::uint64_t> connections() const { return service_.connections(); }
    std::size_t subscription_count(std::uint64_t connection) const;
    const std::string& station_id() const { return station_id_; }
    std::size_t handshakes() const { return handshakes_; }
    std::size_t forwarded_requests() const { return forwarded_requests_; }
    std::size_t replayed_events() const { return replayed_; }

private:
    // engine.cpp
    static std::string hz_text(double hz);
    void bind_procedures();
    void bind_setting(const char* procedure, std::function<pilot_rpc::service_reply(const std::string& key)> read);
    void on_connection(pilot_rpc::connection_event event, std::uint64_t connection, const std::string& topic);
    void on_subscriptions_reported();
    void note_mode();

    // engine_faults.cpp
    void listen_again();

    // engine_events.cpp
    void start_clocks();
    void telemetry_tick();
    void heartbeat_tick();
    void model_tick();
    void announce_vehicle();
    void after_handshake_faults();
    // engine_replay.cpp
    void arm_replay();
    void replay_step();

    void burst_chunk(std::shared_ptr<const std::string> topic, std::shared_ptr<const std::string> data,
                     std::size_t left);

    // The service first: it must outlive the scheduler's timers, which live on
    // its I/O context.
    pilot_rpc::rpc_service service_;
    simulator_options options_;
    std::function<void(const std::string&)> log_;
    std::atomic<bool> running_{false};
    bool stopped_ = false;  ///< stop() ran; caller's thread only

    service_settings settings_;
    vehicle_model vehicle_;
    request_handler handler_{settings_, vehicle_, *this};
    task_scheduler scheduler_;
    rate_clock telemetry_;
    clock::time_point started_ = clock::now();
    clock::time_point last_model_step_ = started_;
    flight_mode logged_mode_ = flight_mode::on_ground;
    bool vehicle_connected_ = true;
    std::uint64_t telemetry_seq_ = 0;
    std::uint64_t heartbeat_seq_ = 0;
    std::uint64_t route_uploads_ = 0;
    std::string station_id_;
    std::size_t handshakes_ = 0;
    std::size_t forwarded_requests_ = 0;  ///< calls of a forwarding procedure received
    std::map<std::uint64_t, std::set<std::string>> topics_;  ///< distinct subscriptions per open connection
    std::optional<replay_cursor> replay_;  ///< set once the playback has been armed
    std::size_t replayed_ = 0;              ///< recorded events published, all rounds
};

}  // namespace pilot_sim
