#pragma once

// The machinery behind `rpc_client`: one connection, its I/O context and the
// thread that runs it, the outbox, the pending-call tables and the read loop.
// `rpc_client` is a handle to it; the I/O thread holds its own reference, so a
// client dropped from inside one of its own callbacks stays alive until that
// callback has returned.
//
// Timers and pauses, all on the I/O thread:
//
//   connect()          ---- async connect ---->| ok:   connected, read loop, replay subscriptions,
//   (caller waits up to   (no timer: the OS    |       wake the waiting connect()
//    timeout seconds on    decides)            | fail: budget > 0 ? reset socket, connect again,
//    connect_cv_)                              |       then PAUSE 1000 ms (blocks the I/O thread)
//
//   heartbeat_timer_   |--- interval (5 s) ---|--- interval ---|--- ...
//                      ^ armed at enable      ^ connected ? queue a 20-byte heartbeat; re-arm always
//                                             (cancelled only at shutdown, which stops re-arming)
//
//   call_t timer       |--- TIMEOUT ms ---|
//   (one per callback  ^ request queued   ^ marks the call timed out, calls nothing;
//    call, not 0)                           the callback runs when the answer (-> timed_out)
//                                           or a read failure (-> that error) arrives
//
//   sync call()        caller waits on its future for TIMEOUT ms; no timer on the I/O thread
//
//   error routine      error callback, then (reconnect enabled) reset socket, connect,
//                      PAUSE 1000 ms; does not spend the reconnect budget

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include <asio/buffer.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <msgpack.hpp>

#include "rpc/call_t.h"
#include "rpc/frame.h"
#include "rpc/frame_reader.h"
#include "rpc/link_traffic.h"
#include "rpc/req_result.h"
#include "rpc/subscription_registry.h"

namespace pilot_rpc {

/// One frame waiting in the outbox; the body is sent from the buffer that
/// packed it and released when the frame leaves the outbox.
struct outgoing_message {
    std::uint64_t req_id = 0;
    std::uint8_t frame_type = call_frame;
    msgpack::sbuffer body{0};
    std::uint32_t func_id = 0;
    header_bytes header{};  ///< filled when the frame is handed to the socket
    std::size_t sent = 0;   ///< header and body bytes already on the wire
};

class client_core {
public:
    /// Builds a core and starts its I/O thread.
    static std::shared_ptr<client_core> create();
    ~client_core();
    client_core(const client_core&) = delete;
    client_core& operator=(const client_core&) = delete;

    /// Stops everything: closes the link, stops the heartbeat, releases the I/O
    /// thread. From another thread it waits for the I/O thread to finish; on
    /// the I/O thread itself it cannot join, so it lets the thread finish the
    /// current handler and end on its own. Called once, by the handle.
    void shutdown();

    // Any thread.
    void enable_auto_reconnect(bool enable);
    void enable_auto_heartbeat(bool enable, std::chrono::milliseconds interval);
    bool connect(const std::string& host, unsigned short port, std::size_t timeout_seconds);
    bool has_connected() const { return connected_.load(); }
    std::uint64_t send_future_call(std::string_view rpc_name, msgpack::sbuffer body,
                                   std::future<req_result>& future);
    void send_callback_call(std::string_view rpc_name, std::size_t timeout_ms, call_callback callback,
                            msgpack::sbuffer body);
    void subscribe(const std::string& topic, topic_handler handler);
    void close_from_caller();
    void set_error_callback(std::function<void(std::error_code)> callback);

    std::size_t outbox_size() const;
    std::size_t pending_future_calls() const;
    std::size_t pending_callback_calls() const;
    bool has_pending_future(std::uint64_t id) const;
    std::uint64_t last_response_id() const { return last_response_id_.load(); }
    std::size_t subscription_count() const { return subscriptions_.size(); }
    std::optional<std::chrono::steady_clock::time_point> last_receive_time() const;
    std::uint64_t reconnect_count() const;
    link_traffic traffic() const;

private:
    client_core();
    void run();
    bool on_io_thread();

    // Connection (I/O thread).
    void start_connect();
    void on_connect(const std::error_code& result, std::uint64_t socket_generation);
    bool has_real_peer();
    void reset_socket();
    void pause_before_retry();
    void error_routine(const std::error_code& ec);
    void close(bool close_ssl);
    void stop_on_io_thread();
    bool wait_connected(std::size_t timeout_seconds);

    // Heartbeat (I/O thread).
    void arm_heartbeat();

    // Sending: `write` from any thread, the rest on the I/O thread.
    enum class send_mode { queued, from_caller };
    void write(outgoing_message message, send_mode mode = send_mode::queued);
    bool send_now(outgoing_message& message);
    void stop_sending_now();
    void write_front();
    void on_write(const std::error_code& ec, std::uint64_t outbox_generation, std::size_t frames);
    std::uint32_t cached_function_id(std::string_view name);
    void send_subscribe(const std::string& topic, const std::string& token);

    // Receiving (I/O thread).
    void start_read();
    void read_more();
    void on_read(const std::error_code& ec, std::size_t bytes);
    void process_frames();
    void on_header_error(const std::error_code& ec);
    void on_body_error(const std::error_code& ec);
    void dispatch_response(std::uint64_t id, const std::error_code& ec, std::string_view body);
    void deliver_publication(std::string_view body);

    asio::io_context io_;
    asio::ip::tcp::socket socket_;  ///< I/O thread only
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_;
    std::thread thread_;

    mutable std::mutex endpoint_mutex_;  ///< guards host_, port_, endpoint_
    std::string host_;
    unsigned short port_ = 0;
    asio::ip::tcp::endpoint endpoint_;

    const std::chrono::milliseconds reconnect_pause_{1000};
    std::atomic<int> reconnect_budget_{-1};
    std::atomic<bool> connected_{false};
    std::mutex connect_mutex_;  ///< pairs with connect_cv_; guards no data, orders the wake-up
    std::condition_variable connect_cv_;

    asio::steady_timer heartbeat_timer_;                    ///< I/O thread only
    std::chrono::milliseconds heartbeat_interval_{5000};  ///< I/O thread only
    bool heartbeat_enabled_ = false;                       ///< I/O thread only
    std::uint64_t heartbeat_generation_ = 0;               ///< I/O thread only; drops stale expiries
    std::atomic<bool> stopping_{false};
    std::atomic<bool> destroying_{false};  ///< set by shutdown from any thread; cuts a pause short
    std::mutex pause_mutex_;               ///< pairs with pause_cv_; guards no data
    std::condition_variable pause_cv_;
    std::uint64_t socket_generation_ = 0;  ///< I/O thread only; bumped whenever the socket is replaced

    mutable std::mutex write_mutex_;  ///< guards outbox_, write_in_flight_, outbox_generation_, send_now_fd_
    std::deque<outgoing_message> outbox_;
    bool write_in_flight_ = false;
    std::uint64_t outbox_generation_ = 0;  ///< bumped when close() empties the outbox
    /// The connected socket's descriptor while callers may send on it
    /// themselves, else -1. Cleared under write_mutex_ before the socket is
    /// closed or replaced, so no caller ever sends on a closed or reused one.
    int send_now_fd_ = -1;
    std::uint32_t write_size_ = 0;         ///< I/O thread only; body bytes of the write under way
    std::vector<asio::const_buffer> write_buffers_;  ///< I/O thread only

    std::mutex id_cache_mutex_;  ///< guards id_cache_
    std::unordered_map<std::string, std::uint32_t> id_cache_;

    mutable std::mutex error_mutex_;  ///< guards error_callback_
    std::function<void(std::error_code)> error_callback_;
    std::atomic<bool> reconnect_enabled_{false};

    mutable std::mutex table_mutex_;  ///< guards future_map_, callback_map_, future_id_, callback_id_
    std::unordered_map<std::uint64_t, std::shared_ptr<std::promise<req_result>>> future_map_;
    std::unordered_map<std::uint64_t, std::shared_ptr<call_t>> callback_map_;
    std::uint64_t future_id_ = 0;
    std::uint64_t callback_id_ = 0;
    std::atomic<std::uint64_t> last_response_id_{0};
    /// Steady-clock nanoseconds of the last complete frame received; -1 before
    /// the first. Written on the I/O thread, read anywhere.
    std::atomic<std::int64_t> last_receive_ns_{-1};
    /// Connections established since construction. Written on the I/O thread.
    std::atomic<std::uint64_t> connections_made_{0};
    // Traffic counters (relaxed: figures for reports, ordering nothing).
    std::atomic<std::uint64_t> frames_sent_{0};
    std::atomic<std::uint64_t> bytes_sent_{0};
    std::atomic<std::uint64_t> frames_received_{0};
    std::atomic<std::uint64_t> bytes_received_{0};

    frame_reader reader_{peer_role::client};  ///< I/O thread only
    subscription_registry subscriptions_;
    // Publications mostly repeat one topic: its handler is kept at hand so a
    // stream of them skips the registry's lock. Safe because a registered
    // handler is never replaced. I/O thread only.
    std::string last_topic_;
    std::shared_ptr<const topic_handler> last_handler_;
};

}  // namespace pilot_rpc
