#include "rpc/client_core.h"

#include <climits>
#include <iostream>

#include <asio/connect.hpp>
#include <asio/ip/address.hpp>
#include <asio/post.hpp>

namespace pilot_rpc {

namespace {

// Numeric addresses only: the IPv6 form first, then IPv4. The IPv4 parse
// throws for anything else, and that exception is the caller's answer.
asio::ip::address parse_numeric(const std::string& host)
{
    std::error_code ec;
    const asio::ip::address_v6 v6 = asio::ip::make_address_v6(host, ec);
    if (!ec)
        return v6;
    return asio::ip::make_address_v4(host);
}

}  // namespace

client_core::client_core() : socket_(io_), work_(asio::make_work_guard(io_)), heartbeat_timer_(io_) {}

std::shared_ptr<client_core> client_core::create()
{
    std::shared_ptr<client_core> core(new client_core());
    // The thread owns a reference so that the core outlives the handler that
    // is running when the last handle goes away on the I/O thread itself.
    core->thread_ = std::thread([self = core]() mutable {
        self->run();
        self.reset();
    });
    return core;
}

client_core::~client_core()
{
    if (thread_.joinable())
        thread_.detach();
}

void client_core::run()
{
    // Handlers catch what they can; this only keeps a stray exception from
    // ending the process through std::thread.
    for (;;) {
        try {
            io_.run();
            return;
        } catch (const std::exception& e) {
            std::cerr << "rpc client I/O thread: " << e.what() << '\n';
        }
    }
}

bool client_core::on_io_thread() { return io_.get_executor().running_in_this_thread(); }

void client_core::shutdown()
{
    destroying_.store(true);
    if (on_io_thread()) {
        // Joining our own thread would fail with resource_deadlock; stop the
        // context instead and let the thread end after the current handler.
        stop_on_io_thread();
        work_.reset();
        io_.stop();
        thread_.detach();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(pause_mutex_);
    }
    pause_cv_.notify_all();

    std::promise<void> stopped;
    std::future<void> done = stopped.get_future();
    asio::post(io_, [this, &stopped] {
        stop_on_io_thread();
        stopped.set_value();
    });
    done.wait();
    work_.reset();
    io_.stop();
    if (thread_.joinable())
        thread_.join();
}

void client_core::stop_on_io_thread()
{
    close(true);
    stopping_.store(true);
    heartbeat_timer_.cancel();
    // A connect attempt still in flight would keep the context busy until the
    // OS gives up on it.
    stop_sending_now();
    std::error_code ignored;
    socket_.close(ignored);
}

void client_core::enable_auto_reconnect(bool enable)
{
    reconnect_enabled_.store(enable);
    reconnect_budget_.store(enable ? INT_MAX : 0);
}

void client_core::enable_auto_heartbeat(bool enable, std::chrono::milliseconds interval)
{
    asio::post(io_, [this, enable, interval] {
        heartbeat_interval_ = interval;
        heartbeat_enabled_ = enable;
        if (enable) {
            arm_heartbeat();
        } else {
            ++heartbeat_generation_;
            heartbeat_timer_.cancel();
        }
    });
}

void client_core::arm_heartbeat()
{
    if (stopping_.load() || !heartbeat_enabled_)
        return;
    // Re-arming cancels the previous wait; the generation keeps that
    // cancelled expiry from arming a second chain of heartbeats.
    const std::uint64_t generation = ++heartbeat_generation_;
    heartbeat_timer_.expires_after(heartbeat_interval_);
    heartbeat_timer_.async_wait([this, generation](const std::error_code& ec) {
        if (generation != heartbeat_generation_)
            return;
        if (!ec && connected_.load())
            write(outgoing_message{0, call_frame, msgpack::sbuffer(0), 0});
        arm_heartbeat();
    });
}

bool client_core::connect(const std::string& host, unsigned short port, std::size_t timeout_seconds)
{
    std::string stored_host;
    unsigned short stored_port = 0;
    {
        std::lock_guard<std::mutex> lock(endpoint_mutex_);
        if (port_ == 0) {
            host_ = host;
            port_ = port;
        }
        stored_host = host_;
        stored_port = port_;
    }
    if (connected_.load())
        return true;

    const asio::ip::address address = parse_numeric(stored_host);
    {
        std::lock_guard<std::mutex> lock(endpoint_mutex_);
        endpoint_ = asio::ip::tcp::endpoint(address, stored_port);
    }
    // On the I/O thread a wait could never see the connect complete.
    if (on_io_thread()) {
        start_connect();
        return connected_.load();
    }
    asio::post(io_, [this] { start_connect(); });
    return wait_connected(timeout_seconds);
}

bool client_core::wait_connected(std::size_t timeout_seconds)
{
    if (connected_.load())
        return true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
    std::unique_lock<std::mutex> lock(connect_mutex_);
    connect_cv_.wait_until(lock, deadline, [this] { return connected_.load(); });
    return connected_.load();
}

void client_core::start_connect()
{
    if (stopping_.load())
        return;
    asio::ip::tcp::endpoint endpoint;
    {
        std::lock_guard<std::mutex> lock(endpoint_mutex_);
        endpoint = endpoint_;
    }
    const std::uint64_t generation = socket_generation_;
    socket_.async_connect(endpoint, [this, generation](const std::error_code& ec) { on_connect(ec, generation); });
}

bool client_core::has_real_peer()
{
    std::error_code local_error;
    std::error_code remote_error;
    const auto local = socket_.local_endpoint(local_error);
    const auto remote = socket_.remote_endpoint(remote_error);
    return !local_error && !remote_error && local != remote;
}

void client_core::on_connect(const std::error_code& result, std::uint64_t socket_generation)
{
    if (connected_.load() || stopping_.load())
        return;
    // The attempt ran on a socket that has been replaced since: a newer
    // attempt owns the link now, and answering this one would tear it down.
    if (socket_generation != socket_generation_)
        return;

    std::error_code ec = result;
    // Two ways a connect "succeeds" without a link, both taken as refused:
    // - a connect() asked for while the retry loop's attempt is in flight
    //   starts a second attempt on the same socket; when both fail, the
    //   attempt that reads the socket's one pending error second finds none;
    // - a loopback connect to a port nobody listens on can pick that very
    //   port as its own source and connect to itself by simultaneous open.
    if (!ec && !has_real_peer())
        ec = asio::error::connection_refused;

    if (!ec) {
        connected_.store(true);
        connections_made_.fetch_add(1);
        // Frames are small and a caller usually waits for the answer.
        std::error_code ignored;
        socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
        {
            std::lock_guard<std::mutex> lock(write_mutex_);
            send_now_fd_ = socket_.native_handle();
        }
        start_read();
        for (const auto& [topic, token] : subscriptions_.replay_list())
            send_subscribe(topic, token);
        {
            std::lock_guard<std::mutex> lock(connect_mutex_);
        }
        connect_cv_.notify_all();
        return;
    }

    connected_.store(false);
    if (reconnect_budget_.load() <= 0) {
        // Closed for good until the next connect(). A socket whose connect
        // failed refuses the next attempt once more, so that attempt gets a
        // fresh one.
        stop_sending_now();
        std::error_code ignored;
        socket_.close(ignored);
        return;
    }
    reconnect_budget_.fetch_sub(1);
    reset_socket();
    start_connect();
    pause_before_retry();
}

void client_core::reset_socket()
{
    stop_sending_now();
    std::error_code ec;
    socket_.close(ec);
    socket_ = asio::ip::tcp::socket(io_);
    ++socket_generation_;
    asio::ip::tcp::endpoint endpoint;
    {
        std::lock_guard<std::mutex> lock(endpoint_mutex_);
        endpoint = endpoint_;
    }
    // Opened for the stored address's family so that an IPv6 service can be
    // reached again too. A failure is only reported: the connect that follows
    // opens the socket itself or fails, and that failure drives the retry.
    socket_.open(endpoint.protocol(), ec);
    if (ec)
        std::cerr << "open: " << ec.message() << '\n';
}

void client_core::pause_before_retry()
{
    // Blocks the I/O thread on purpose: nothing else of this client runs
    // during the pause. Shutdown cuts it short.
    std::unique_lock<std::mutex> lock(pause_mutex_);
    pause_cv_.wait_for(lock, reconnect_pause_, [this] { return destroying_.load(); });
}

void client_core::error_routine(const std::error_code& ec)
{
    if (stopping_.load() || destroying_.load())
        return;
    std::function<void(std::error_code)> callback;
    {
        std::lock_guard<std::mutex> lock(error_mutex_);
        callback = error_callback_;
    }
    if (callback) {
        try {
            callback(ec);
        } catch (const std::exception& e) {
            std::cerr << "rpc error callback threw: " << e.what() << '\n';
        } catch (...) {
            std::cerr << "rpc error callback threw\n";
        }
    }
    if (reconnect_enabled_.load()) {
        reset_socket();
        start_connect();
        pause_before_retry();
    }
}

void client_core::set_error_callback(std::function<void(std::error_code)> callback)
{
    std::lock_guard<std::mutex> lock(error_mutex_);
    error_callback_ = std::move(callback);
}

void client_core::close(bool)
{
    if (!connected_.exchange(false))
        return;
    stop_sending_now();
    std::error_code ignored;
    socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    socket_.close(ignored);

    // Released after the locks: dropping promises wakes waiters, dropping
    // calls destroys their timers.
    std::deque<outgoing_message> dropped_messages;
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
        dropped_messages.swap(outbox_);
        ++outbox_generation_;
    }
    std::unordered_map<std::uint64_t, std::shared_ptr<call_t>> dropped_calls;
    std::unordered_map<std::uint64_t, std::shared_ptr<std::promise<req_result>>> dropped_futures;
    {
        std::lock_guard<std::mutex> lock(table_mutex_);
        dropped_calls.swap(callback_map_);
        dropped_futures.swap(future_map_);
    }
}

std::optional<std::chrono::steady_clock::time_point> client_core::last_receive_time() const
{
    const std::int64_t ns = last_receive_ns_.load();
    if (ns < 0)
        return std::nullopt;
    return std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::nanoseconds(ns)));
}

std::uint64_t client_core::reconnect_count() const
{
    const std::uint64_t made = connections_made_.load();
    return made > 0 ? made - 1 : 0;
}

link_traffic client_core::traffic() const
{
    link_traffic t;
    t.frames_sent = frames_sent_.load(std::memory_order_relaxed);
    t.bytes_sent = bytes_sent_.load(std::memory_order_relaxed);
    t.frames_received = frames_received_.load(std::memory_order_relaxed);
    t.bytes_received = bytes_received_.load(std::memory_order_relaxed);
    return t;
}

void client_core::close_from_caller()
{
    if (on_io_thread()) {
        close(true);
        return;
    }
    std::promise<void> closed;
    std::future<void> done = closed.get_future();
    asio::post(io_, [this, &closed] {
        close(true);
        closed.set_value();
    });
    done.wait();
}

}  // namespace pilot_rpc
