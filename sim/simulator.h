#pragma once

// The pilot control micro service, simulated: it listens for the plug-in's RPC
// clients, answers the settings queries and every forwarded request, keeps a
// vehicle in the air, publishes its telemetry, heartbeats, upload progress and
// results to the subscribers, and misbehaves on request.
//
// Threads: everything the simulator does (request handlers, clocks, the
// vehicle model, event sequences) runs on the RPC service's I/O thread, so its
// state needs no lock. Every public member may be called from any other
// thread; it waits until the I/O thread has done the work. Members called
// after `stop` do nothing and return empty results.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "faults.h"
#include "replay.h"
#include "settings.h"
#include "vehicle_model.h"

namespace pilot_sim {

struct simulator_options {
    /// Numeric address to listen on.
    std::string bind_address = "127.0.0.1";
    /// 0 lets the kernel choose.
    unsigned short port = 0;
    service_settings settings = service_settings::defaults();
    /// "pushTelemetry" events a second; 0 or less: none.
    double telemetry_hz = 5.0;
    /// Adds "publishedUs", the wall clock in microseconds just before the
    /// publication is handed to the link, to each telemetry sample, so that a
    /// load driver can tell how old a sample is when it arrives. Off by
    /// default: the sample then looks as it always has.
    bool stamp_publish_time = false;
    std::chrono::milliseconds heartbeat_interval{1000};
    /// From "reportRPCSub" to "pilotConnectState" and "pushUavSn".
    std::chrono::milliseconds announce_delay{100};
    /// Between the "updateProgress" steps of a route upload.
    std::chrono::milliseconds progress_step{100};
    /// From a report request to its result event.
    std::chrono::milliseconds result_delay{200};
    /// How often the vehicle model moves on.
    std::chrono::milliseconds model_step{100};
    waypoint home{48.1500, 11.5800, 0.0};
    fault_plan faults;
    /// A flight recording to play back, starting shortly after the first
    /// subscription arrives; while it is set, the simulator sends no
    /// heartbeats of its own (the recording has them). Null: none.
    std::shared_ptr<const replay_plan> replay;
    /// One line per notable event; empty: standard error. Called from the I/O
    /// thread and from `start`'s caller, so it must be thread-safe.
    std::function<void(const std::string&)> log;
};

class simulator {
public:
    explicit simulator(simulator_options options = simulator_options());
    /// Stops.
    ~simulator();
    simulator(const simulator&) = delete;
    simulator& operator=(const simulator&) = delete;

    /// Listens and starts the clocks; returns the port. Throws std::system_error
    /// when the address does not parse or the port cannot be bound. Once only.
    unsigned short start();
    /// Closes every connection and ends the I/O thread. Idempotent.
    void stop();
    unsigned short port() const;

    // The vehicle and its events.
    vehicle_state vehicle() const;
    /// Telemetry events a second from now on; 0 or less stops them.
    void set_telemetry_rate(double hz);
    /// Reports the vehicle link up or down with "pilotConnectState" ("true" /
    /// "false"); telemetry stops while it is down.
    void set_vehicle_connected(bool connected);
    bool vehicle_connected() const;
    /// Publishes `data` on `topic` to its subscribers; returns how many got it.
    std::size_t publish(const std::string& topic, const std::string& data);
    /// Publishes `data` `count` times on `topic`, in chunks that leave the I/O
    /// thread free in between; returns at once. For load tests.
    void publish_burst(const std::string& topic, const std::string& data, std::size_t count);
    /// "setTelemFrequency" with the plain decimal `value`.
    std::size_t request_telemetry_frequency(int value);
    /// "vehicleOnlineStatus" with `text`.
    std::size_t report_online_status(const std::string& text);
    /// "uavData2MaterCtl" with `text`.
    std::size_t send_master_control_data(const std::string& text);
    /// "fireSearchInfo" with `json`; empty: a report at the vehicle's position.
    std::size_t report_fire_search(const std::string& json = std::string());
    /// "toMicroService" with the bus message `json`.
    std::size_t send_to_bus(const std::string& json);

    // Faults.
    void delay_answers(const std::string& procedure, std::chrono::milliseconds delay);
    void never_answer(const std::string& procedure, bool never = true);
    void drop_after_frames(std::size_t count);
    /// Closes the listener for `duration`; connects are refused meanwhile.
    void refuse_connections_for(std::chrono::milliseconds duration);
    /// Sends `kind` to every open connection; returns how many got it.
    std::size_t send_bad_frame(bad_frame kind);
    /// Sends a publication that does not decode to every connection with a
    /// subscription; returns how many got it.
    std::size_t send_malformed_publication();

    // What happened, mainly for tests.
    /// Open connections, ascending ids.
    std::vector<std::uint64_t> connections() const;
    /// Distinct topics `connection` subscribed to.
    std::size_t subscription_count(std::uint64_t connection) const;
    /// Station id of the last "setSelfGuid".
    std::string station_id() const;
    /// "reportRPCSub" calls answered.
    std::size_t handshakes() const;
    /// Calls of the procedures that carry forwarded requests ("flightControl",
    /// "pilotControlBase", ...), counted on arrival whatever their answer.
    std::size_t forwarded_requests() const;
    /// Events of the recording published so far (all rounds).
    std::size_t replayed_events() const;

private:
    class engine;
    std::unique_ptr<engine> engine_;
};

}  // namespace pilot_sim
