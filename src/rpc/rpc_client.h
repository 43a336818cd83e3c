#pragma once

// Client of the pilot control micro service: one TCP connection carrying
// MessagePack frames, with its own I/O thread, heartbeat, reconnection, send
// queue, pending-call tables and topic subscriptions.
//
// Threads: every public member may be called from any thread except where
// noted. Completions, publication handlers and the error callback run on the
// client's I/O thread, one at a time; they must not block it. The not-connected
// completion of `call_with_callback` runs on the caller's thread.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include "rpc/codec.h"
#include "rpc/frame.h"
#include "rpc/link_traffic.h"
#include "rpc/req_result.h"

namespace pilot_rpc {

class client_core;

/// What `call_future` returns: the call id and the future of its response.
template <typename T>
struct future_result {
    std::uint64_t id = 0;
    std::future<T> future;

    template <typename Rep, typename Period>
    std::future_status wait_for(const std::chrono::duration<Rep, Period>& timeout) const
    {
        return future.wait_for(timeout);
    }
    T get() { return future.get(); }
};

/// Bytes a request carrying `args` puts on the wire, header included: exactly
/// what `call_future` or `call_with_callback` would send. Pure; packs nothing.
template <typename... Args>
std::size_t call_frame_size(const Args&... args)
{
    return header_size + packed_args_size(args...);
}

class rpc_client {
public:
    /// Starts the I/O thread.
    rpc_client();
    /// Closes the link, stops the heartbeat and the I/O thread. Never waits for
    /// the service; pending callbacks are not called. Safe from any thread,
    /// including from inside one of this client's own callbacks.
    ~rpc_client();
    rpc_client(const rpc_client&) = delete;
    rpc_client& operator=(const rpc_client&) = delete;

    /// Reconnect after every lost link and failed attempt, without limit
    /// (budget 2147483647), pausing 1000 ms on the I/O thread between attempts.
    void enable_auto_reconnect(bool enable = true);

    /// Queues a heartbeat frame every `interval` while connected.
    void enable_auto_heartbeat(bool enable = true,
                               std::chrono::milliseconds interval = std::chrono::seconds(5));

    /// The first call fixes host and port; later calls ignore their arguments.
    /// Returns true at once when connected; otherwise starts a connect and
    /// waits up to `timeout_seconds` for it. `host` must be a numeric IPv6 or
    /// IPv4 address: anything else throws (std::system_error). `is_ssl` is
    /// accepted and ignored. Called on this client's I/O thread it starts the
    /// connect without waiting and returns false.
    bool connect(const std::string& host, unsigned short port, bool is_ssl = false,
                 std::size_t timeout_seconds = 3);

    bool has_connected() const;

    /// Synchronous call: waits TIMEOUT ms for the answer.
    /// Throws std::out_of_range("timeout or deferred") when none came (the
    /// pending entry stays in the table), std::future_error (broken promise)
    /// when the link was closed meanwhile, and what `req_result::value<T>` or
    /// `check` throw for a failed or undecodable answer. Not from this
    /// client's own I/O thread: the answer could not arrive while it waits.
    template <std::size_t TIMEOUT, typename T = void, typename... Args>
    T call(const std::string& rpc_name, Args&&... args);

    /// Queues the request whether or not the link is up and returns its id
    /// (1, 2, 3 ...) with the future of the response.
    template <typename... Args>
    future_result<req_result> call_future(const std::string& rpc_name, Args&&... args);

    /// As `call_future`, for arguments whose types are known only at run time
    /// (a command-line client): `packed_args` is the request body, one
    /// MessagePack array of the arguments, sent as it is.
    future_result<req_result> call_future_packed(const std::string& rpc_name, msgpack::sbuffer packed_args)
    {
        return send_future_call(rpc_name, std::move(packed_args));
    }

    /// While disconnected: calls `cb(not_connected, "not connected")` at once,
    /// on the caller's thread. Otherwise queues the request under an id with
    /// bit 63 set; `cb` later gets (no error, raw [code, value] body), or
    /// (timed_out, "") when the answer came after TIMEOUT ms, or the read
    /// error when the link fails first. Never called if the link is closed
    /// before either happens. TIMEOUT 0 disables the time-out.
    template <std::size_t TIMEOUT = 120000, typename... Args>
    void call_with_callback(const std::string& rpc_name,
                            std::function<void(std::error_code, std::string_view)> cb, Args&&... args);

    /// Registers `handler` for publications on `topic` and sends the topic
    /// frame. A topic that already has a handler is left alone (no frame).
    /// Subscriptions are sent again, in topic order, after every connect.
    /// `handler` runs on the I/O thread; a standard exception escaping it
    /// starts the error routine with invalid_argument.
    void subscribe(const std::string& topic, std::function<void(std::string_view)> handler);

    /// If connected: marks the link down, shuts the socket, drops the queued
    /// frames and every pending call (waiting futures get broken_promise;
    /// callbacks are not called). Otherwise does nothing.
    void close(bool close_ssl = true);

    /// Called on the I/O thread with the error of a lost link, before any
    /// reconnection; never during destruction.
    void set_error_callback(std::function<void(std::error_code)> cb);

    // State queries, mainly for tests; any thread.
    std::size_t outbox_size() const;
    std::size_t pending_future_calls() const;
    std::size_t pending_callback_calls() const;
    bool has_pending_future(std::uint64_t id) const;
    std::uint64_t last_response_id() const;
    std::size_t subscription_count() const;

    // Link health; any thread.
    /// When the last complete frame (answer or publication) arrived; empty
    /// before the first. Survives reconnections.
    std::optional<std::chrono::steady_clock::time_point> last_receive_time() const;
    /// How often the link came up again after its first connection.
    std::uint64_t reconnect_count() const;
    /// What went over the link so far.
    link_traffic traffic() const;

private:
    future_result<req_result> send_future_call(const std::string& rpc_name, msgpack::sbuffer body);
    void send_callback_call(const std::string& rpc_name, std::size_t timeout_ms,
                            std::function<void(std::error_code, std::string_view)> cb, msgpack::sbuffer body);

    std::shared_ptr<client_core> core_;
};

template <std::size_t TIMEOUT, typename T, typename... Args>
T rpc_client::call(const std::string& rpc_name, Args&&... args)
{
    future_result<req_result> result = call_future(rpc_name, std::forward<Args>(args)...);
    const std::future_status status = result.future.wait_for(std::chrono::milliseconds(TIMEOUT));
    if (status == std::future_status::timeout || status == std::future_status::deferred)
        throw std::out_of_range("timeout or deferred");
    if constexpr (std::is_void_v<T>)
        result.future.get().check();
    else
        return result.future.get().template value<T>();
}

template <typename... Args>
future_result<req_result> rpc_client::call_future(const std::string& rpc_name, Args&&... args)
{
    return send_future_call(rpc_name, pack_args(args...));
}

template <std::size_t TIMEOUT, typename... Args>
void rpc_client::call_with_callback(const std::string& rpc_name,
                                    std::function<void(std::error_code, std::string_view)> cb, Args&&... args)
{
    send_callback_call(rpc_name, TIMEOUT, std::move(cb), pack_args(args...));
}

}  // namespace pilot_rpc
