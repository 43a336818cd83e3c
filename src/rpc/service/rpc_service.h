#pragma once

// The service side of the micro-service link, as a scriptable peer: it accepts
// clients on a loopback port, answers calls by procedure name through bound
// handlers, records every frame it receives and the subscriptions of each
// connection, pushes publications to subscribers, and misbehaves on request.
//
// Threads: the service runs its own I/O thread. Handlers run on it, one at a
// time, together with whatever is scheduled on `executor()`. Every public
// member may be called from any other thread; the members that act on
// connections (publish, send_*, close_*, *_listening, execute) may also be
// called from inside a handler or such a task. Waits use the given time-out
// and never hang.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <asio/io_context.hpp>
#include <msgpack.hpp>

#include "rpc/frame.h"
#include "rpc/service/service_reply.h"

namespace pilot_rpc {

/// One frame as the service received it.
struct received_frame {
    std::uint64_t connection = 0;  ///< id of the connection, 1, 2, ... in accept order
    std::uint8_t frame_type = 0;
    std::uint64_t req_id = 0;
    std::uint32_t func_id = 0;
    std::string body;     ///< raw body bytes
    std::string decoded;  ///< the body as MessagePack text, e.g. ["heartBeat", ""]; empty for no body;
                          ///< "<undecodable>" when it does not decode
};

/// What happened on a connection, as told to a `connection_observer`.
enum class connection_event {
    opened,      ///< accepted
    closed,      ///< gone, for whatever reason
    subscribed,  ///< sent a subscription; `topic` names it (repeats are told again)
};

/// Told about connections on the service's I/O thread; must not block it.
/// `topic` is empty except for `subscribed`.
using connection_observer =
    std::function<void(connection_event event, std::uint64_t connection, const std::string& topic)>;

/// Answers a call; `args` is the decoded argument array (valid during the call).
/// A std::exception escaping it is answered as failure code 1 with its text.
using service_handler = std::function<service_reply(const msgpack::object& args)>;

class rpc_service {
public:
    /// Failure code and text of a call to a procedure nobody bound.
    static constexpr int unbound_code = 1;
    static constexpr const char* unbound_text = "procedure not bound";

    rpc_service();
    /// Stops (see `stop`).
    ~rpc_service();
    rpc_service(const rpc_service&) = delete;
    rpc_service& operator=(const rpc_service&) = delete;

    /// Answers calls of `name` with `handler`; replaces an earlier binding.
    void bind(const std::string& name, service_handler handler);

    /// Listens on 127.0.0.1:`port` (0 picks a free port) and returns the port.
    /// Throws std::system_error when the port cannot be bound.
    unsigned short start(unsigned short port = 0);
    /// Listens on `address`:`port` instead; `address` is a numeric IPv4 or
    /// IPv6 address. Throws std::system_error when it does not parse or the
    /// port cannot be bound.
    unsigned short start(const std::string& address, unsigned short port);
    unsigned short port() const;
    /// Closes the listener and every connection and ends the I/O thread.
    /// Idempotent; pending delayed answers are dropped.
    void stop();

    // Misbehaviour, per procedure name; takes effect for calls received later.
    /// Answer `name` only after `delay`.
    void delay_answers(const std::string& name, std::chrono::milliseconds delay);
    /// Never answer `name` (true) or answer again (false).
    void withhold_answers(const std::string& name, bool withhold = true);
    /// Send every answer to `name` twice.
    void answer_twice(const std::string& name, bool twice = true);
    /// Cut every connection once it has sent `count` frames (heartbeats and
    /// subscriptions included, counted from its accept): the next frame it
    /// sends is recorded but not handled, and the connection is closed.
    /// Applies to open connections too; 0 (the default) turns it off.
    void drop_after_frames(std::size_t count);

    /// Installs the observer of connection events. Call before `start`.
    void set_connection_observer(connection_observer observer);

    /// The executor of the I/O thread, for timers and tasks that belong beside
    /// the handlers (they then need no lock to share state with them). Work on
    /// it stops running at `stop`.
    asio::io_context::executor_type executor();
    /// Runs `task` on the I/O thread and waits for it; runs it inline when
    /// called there. Does nothing once the service has stopped. A
    /// std::exception escaping `task` is rethrown to the caller.
    void execute(const std::function<void()>& task);

    // Pushing. `connection` 0 means every open connection.
    /// Sends the publication [code, topic, data] to every connection that
    /// subscribed to `topic`; returns how many got it.
    std::size_t publish(const std::string& topic, const std::string& data, int code = 0);
    /// Sends `header` (its body_len as given, even if it lies) followed by `body`.
    /// Returns false when no such connection is open.
    bool send_frame(std::uint64_t connection, const frame_header& header, const std::string& body);
    /// Sends a well-formed frame: body_len is the body's size.
    bool send_frame(std::uint64_t connection, std::uint8_t frame_type, std::uint64_t req_id,
                    const std::string& body);
    /// Sends raw bytes.
    bool send_raw(std::uint64_t connection, const std::string& bytes);
    bool close_connection(std::uint64_t connection);
    void close_all_connections();
    /// Closes the listener: new connects are refused until `resume_listening`.
    void stop_listening();
    /// Listens again on the same port. Throws std::system_error if it is taken.
    void resume_listening();

    // Records.
    /// Stop or resume recording received frames (benchmarks turn it off).
    void set_recording(bool record);
    std::vector<received_frame> frames() const;
    void clear_frames();
    /// Waits until `done(frames)` holds or `timeout` passes; returns the last verdict.
    bool wait_for_frames(const std::function<bool(const std::vector<received_frame>&)>& done,
                         std::chrono::milliseconds timeout) const;
    /// Topics of the subscription frames of `connection`, in arrival order, repeats included.
    std::vector<std::string> subscriptions(std::uint64_t connection) const;
    /// Waits until an open connection has subscribed to `topic`; a `publish`
    /// of that topic from then on reaches it.
    bool wait_for_subscriber(const std::string& topic, std::chrono::milliseconds timeout) const;
    /// Ids of the open connections, ascending.
    std::vector<std::uint64_t> connections() const;
    /// Connections accepted since start.
    std::uint64_t accepted_count() const;
    /// Waits until `accepted_count() >= count`.
    bool wait_for_accepted(std::uint64_t count, std::chrono::milliseconds timeout) const;
    /// Waits until no connection is open.
    bool wait_for_no_connections(std::chrono::milliseconds timeout) const;

private:
    class engine;
    std::shared_ptr<engine> engine_;
};

}  // namespace pilot_rpc
