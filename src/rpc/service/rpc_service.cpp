#include "rpc/service/rpc_service.h"

#include <future>
#include <iostream>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "rpc/codec.h"
#include "rpc/function_id.h"
#include "rpc/service/service_connection.h"
#include "rpc/service/service_records.h"

namespace pilot_rpc {

namespace {

std::string describe_body(std::string_view body)
{
    if (body.empty())
        return {};
    try {
        const msgpack::object_handle handle = unpack_object(body);
        std::ostringstream text;
        text << handle.get();
        return text.str();
    } catch (const std::exception&) {
        return "<undecodable>";
    }
}

}  // namespace

class rpc_service::engine {
public:
    struct procedure {
        service_handler handler;
        std::chrono::milliseconds delay{0};
        bool withhold = false;
        bool twice = false;
    };

    engine() : acceptor_(io_) {}

    unsigned short start(const asio::ip::address& address, unsigned short port);
    void stop();

    /// Runs `task` on the I/O thread and returns its result; inline when
    /// already there, a default value once the service has stopped.
    template <typename R>
    R on_io(std::function<R()> task);

    void configure(const std::string& name, const std::function<void(procedure&)>& change)
    {
        std::lock_guard<std::mutex> lock(config_mutex_);
        change(procedures_[function_id(name)]);
    }

    // I/O thread only.
    void listen();
    void stop_listening();
    std::size_t publish(const std::string& topic, const std::string& data, int code);
    std::shared_ptr<service_connection> find(std::uint64_t id) const;
    void close_all();

    asio::io_context::executor_type executor() { return io_.get_executor(); }

    service_records records;
    std::atomic<unsigned short> port{0};
    std::atomic<std::size_t> drop_after{0};  ///< frames a connection may send before it is cut; 0: never
    connection_observer observer;             ///< set before start, then only read on the I/O thread

private:
    void accept_next();
    void on_frame(std::uint64_t connection, const frame_view& frame);
    void on_closed(std::uint64_t connection);
    void answer(std::uint64_t connection, const frame_header& request, std::string_view body);
    void send_answer(std::uint64_t connection, const frame_header& request, const std::string& body, bool twice);
    void open_acceptor();
    void tell(connection_event event, std::uint64_t connection, const std::string& topic = std::string());

    asio::io_context io_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_;
    std::thread thread_;
    std::mutex post_mutex_;  ///< guards running_; orders tasks posted from other threads against stop()
    bool running_ = false;

    asio::ip::tcp::acceptor acceptor_;                                          ///< I/O thread only
    std::map<std::uint64_t, std::shared_ptr<service_connection>> connections_;  ///< I/O thread only
    std::map<std::uint64_t, std::set<std::string>> subscribed_;                 ///< I/O thread only
    std::map<std::uint64_t, std::size_t> frames_seen_;                          ///< I/O thread only
    asio::ip::address address_ = asio::ip::address_v4::loopback();              ///< fixed by start
    std::list<std::shared_ptr<asio::steady_timer>> delayed_;                    ///< I/O thread only
    std::uint64_t next_id_ = 0;                                                 ///< I/O thread only

    std::mutex config_mutex_;  ///< guards procedures_
    std::unordered_map<std::uint32_t, procedure> procedures_;
};

template <typename R>
R rpc_service::engine::on_io(std::function<R()> task)
{
    if (io_.get_executor().running_in_this_thread())
        return task();
    std::packaged_task<R()> packaged(std::move(task));
    std::future<R> result = packaged.get_future();
    {
        // Checked and posted under the lock with which stop() shuts the door:
        // a task that gets in is queued ahead of stop()'s own and so runs
        // before the thread ends, instead of waiting for it forever.
        std::lock_guard<std::mutex> lock(post_mutex_);
        if (!running_)
            return R();
        asio::post(io_, [&packaged] { packaged(); });
    }
    return result.get();
}

void rpc_service::engine::open_acceptor()
{
    const asio::ip::tcp::endpoint endpoint(address_, port.load());
    acceptor_.open(endpoint.protocol());
    try {
        acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true));
        acceptor_.bind(endpoint);
        acceptor_.listen();
    } catch (...) {
        // Closed again, so that another try (a start on another port, a
        // later resume) begins from scratch.
        std::error_code ignored;
        acceptor_.close(ignored);
        throw;
    }
}

unsigned short rpc_service::engine::start(const asio::ip::address& address, unsigned short wanted)
{
    address_ = address;
    port.store(wanted);
    open_acceptor();
    port.store(acceptor_.local_endpoint().port());
    accept_next();
    work_.emplace(asio::make_work_guard(io_));
    {
        std::lock_guard<std::mutex> lock(post_mutex_);
        running_ = true;
    }
    thread_ = std::thread([this] {
        for (;;) {
            try {
                io_.run();
                return;
            } catch (const std::exception& e) {
                std::cerr << "rpc service I/O thread: " << e.what() << '\n';
            }
        }
    });
    return port.load();
}

void rpc_service::engine::stop()
{
    std::promise<void> closed;
    std::future<void> done = closed.get_future();
    {
        std::lock_guard<std::mutex> lock(post_mutex_);
        if (!running_)
            return;
        running_ = false;
        asio::post(io_, [this, &closed] {
            std::error_code ignored;
            acceptor_.close(ignored);
            close_all();
            for (const auto& timer : delayed_)
                timer->cancel();
            delayed_.clear();
            closed.set_value();
        });
    }
    done.wait();
    work_.reset();
    io_.stop();
    if (thread_.joinable())
        thread_.join();
}

void rpc_service::engine::listen()
{
    if (acceptor_.is_open())
        return;
    open_acceptor();
    accept_next();
}

void rpc_service::engine::stop_listening()
{
    std::error_code ignored;
    acceptor_.close(ignored);
}

void rpc_service::engine::accept_next()
{
    acceptor_.async_accept([this](const std::error_code& ec, asio::ip::tcp::socket socket) {
        if (ec) {
            if (acceptor_.is_open() && ec != asio::error::operation_aborted)
                accept_next();
            return;
        }
        const std::uint64_t id = ++next_id_;
        auto connection = std::make_shared<service_connection>(
            id, std::move(socket), [this](std::uint64_t from, const frame_view& frame) { on_frame(from, frame); },
            [this](std::uint64_t from) { on_closed(from); });
        connections_.emplace(id, connection);
        records.connection_opened(id);
        tell(connection_event::opened, id);
        connection->start();
        accept_next();
    });
}

std::shared_ptr<service_connection> rpc_service::engine::find(std::uint64_t id) const
{
    const auto it = connections_.find(id);
    return it == connections_.end() ? nullptr : it->second;
}

void rpc_service::engine::close_all()
{
    for (const auto& entry : connections_)
        entry.second->close();
}

void rpc_service::engine::on_closed(std::uint64_t connection)
{
    connections_.erase(connection);
    subscribed_.erase(connection);
    frames_seen_.erase(connection);
    records.connection_closed(connection);
    tell(connection_event::closed, connection);
}

void rpc_service::engine::tell(connection_event event, std::uint64_t connection, const std::string& topic)
{
    if (!observer)
        return;
    try {
        observer(event, connection, topic);
    } catch (const std::exception& e) {
        std::cerr << "rpc service: connection observer failed: " << e.what() << '\n';
    }
}

void rpc_service::engine::on_frame(std::uint64_t connection, const frame_view& frame)
{
    const std::size_t seen = ++frames_seen_[connection];
    const std::size_t limit = drop_after.load();
    const bool dropped = limit != 0 && seen > limit;

    // A subscription is in force before its frame is on record, so whoever
    // waited for the frame can publish to the topic at once.
    if (!dropped && frame.header.frame_type == topic_frame) {
        try {
            const auto [topic] = unpack_body<std::string>(frame.body);
            subscribed_[connection].insert(topic);
            records.add_subscription(connection, topic);
            tell(connection_event::subscribed, connection, topic);
        } catch (const std::exception& e) {
            std::cerr << "rpc service: bad subscription from connection " << connection << ": " << e.what()
                      << '\n';
        }
    }
    records.add_frame(received_frame{connection, frame.header.frame_type, frame.header.req_id,
                                     frame.header.func_id, std::string(frame.body), describe_body(frame.body)});

    if (dropped) {
        if (const auto target = find(connection))
            target->close();
        return;
    }
    // Heartbeats (and anything else without an id) expect no answer.
    if (frame.header.frame_type == call_frame && frame.header.req_id != 0)
        answer(connection, frame.header, frame.body);
}

void rpc_service::engine::answer(std::uint64_t connection, const frame_header& request, std::string_view body)
{
    std::optional<procedure> bound;
    {
        std::lock_guard<std::mutex> lock(config_mutex_);
        const auto it = procedures_.find(request.func_id);
        if (it != procedures_.end())
            bound = it->second;
    }
    if (bound && bound->withhold)
        return;

    std::string reply;
    if (!bound || !bound->handler) {
        reply = service_reply::failure(unbound_code, unbound_text).body();
    } else {
        try {
            const msgpack::object_handle args = unpack_object(body);
            reply = bound->handler(args.get()).body();
        } catch (const std::exception& e) {
            reply = service_reply::failure(1, e.what()).body();
        }
    }

    const bool twice = bound && bound->twice;
    if (!bound || bound->delay.count() <= 0) {
        send_answer(connection, request, reply, twice);
        return;
    }
    auto timer = std::make_shared<asio::steady_timer>(io_, bound->delay);
    delayed_.push_back(timer);
    timer->async_wait([this, timer, connection, request, reply, twice](const std::error_code& ec) {
        delayed_.remove(timer);
        if (!ec)
            send_answer(connection, request, reply, twice);
    });
}

void rpc_service::engine::send_answer(std::uint64_t connection, const frame_header& request,
                                      const std::string& body, bool twice)
{
    const auto target = find(connection);
    if (!target)
        return;
    frame_header header;
    header.frame_type = call_frame;
    header.body_len = static_cast<std::uint32_t>(body.size());
    header.req_id = request.req_id;
    header.func_id = request.func_id;
    target->send(header, body);
    if (twice)
        target->send(header, body);
}

std::size_t rpc_service::engine::publish(const std::string& topic, const std::string& data, int code)
{
    const msgpack::sbuffer packed = pack_publication(code, topic, data);
    const std::string body(packed.data(), packed.size());
    frame_header header;
    header.frame_type = topic_frame;
    header.body_len = static_cast<std::uint32_t>(body.size());
    header.func_id = function_id(topic);
    std::size_t sent = 0;
    for (const auto& [id, topics] : subscribed_) {
        if (topics.count(topic) == 0)
            continue;
        if (const auto target = find(id)) {
            target->send(header, body);
            ++sent;
        }
    }
    return sent;
}

rpc_service::rpc_service() : engine_(std::make_shared<engine>()) {}

rpc_service::~rpc_service() { stop(); }

void rpc_service::bind(const std::string& name, service_handler handler)
{
    engine_->configure(name, [&](engine::procedure& p) { p.handler = std::move(handler); });
}

unsigned short rpc_service::start(unsigned short port)
{
    return engine_->start(asio::ip::address_v4::loopback(), port);
}

unsigned short rpc_service::start(const std::string& address, unsigned short port)
{
    return engine_->start(asio::ip::make_address(address), port);
}
unsigned short rpc_service::port() const { return engine_->port.load(); }
void rpc_service::stop() { engine_->stop(); }

void rpc_service::delay_answers(const std::string& name, std::chrono::milliseconds delay)
{
    engine_->configure(name, [&](engine::procedure& p) { p.delay = delay; });
}

void rpc_service::withhold_answers(const std::string& name, bool withhold)
{
    engine_->configure(name, [&](engine::procedure& p) { p.withhold = withhold; });
}

void rpc_service::answer_twice(const std::string& name, bool twice)
{
    engine_->configure(name, [&](engine::procedure& p) { p.twice = twice; });
}

void rpc_service::drop_after_frames(std::size_t count) { engine_->drop_after.store(count); }

void rpc_service::set_connection_observer(connection_observer observer)
{
    engine_->observer = std::move(observer);
}

asio::io_context::executor_type rpc_service::executor() { return engine_->executor(); }

void rpc_service::execute(const std::function<void()>& task)
{
    engine_->on_io<bool>([&] {
        task();
        return true;
    });
}

std::size_t rpc_service::publish(const std::string& topic, const std::string& data, int code)
{
    return engine_->on_io<std::size_t>([&] { return engine_->publish(topic, data, code); });
}

bool rpc_service::send_frame(std::uint64_t connection, const frame_header& header, const std::string& body)
{
    return engine_->on_io<bool>([&] {
        const auto target = engine_->find(connection);
        if (target)
            target->send(header, body);
        return target != nullptr;
    });
}

bool rpc_service::send_frame(std::uint64_t connection, std::uint8_t frame_type, std::uint64_t req_id,
                             const std::string& body)
{
    frame_header header;
    header.frame_type = frame_type;
    header.body_len = static_cast<std::uint32_t>(body.size());
    header.req_id = req_id;
    return send_frame(connection, header, body);
}

bool rpc_service::send_raw(std::uint64_t connection, const std::string& bytes)
{
    return engine_->on_io<bool>([&] {
        const auto target = engine_->find(connection);
        if (target)
            target->send_raw(bytes);
        return target != nullptr;
    });
}

bool rpc_service::close_connection(std::uint64_t connection)
{
    return engine_->on_io<bool>([&] {
        const auto target = engine_->find(connection);
        if (target)
            target->close();
        return target != nullptr;
    });
}

void rpc_service::close_all_connections()
{
    engine_->on_io<bool>([&] {
        engine_->close_all();
        return true;
    });
}

void rpc_service::stop_listening()
{
    engine_->on_io<bool>([&] {
        engine_->stop_listening();
        return true;
    });
}

void rpc_service::resume_listening()
{
    engine_->on_io<bool>([&] {
        engine_->listen();
        return true;
    });
}

void rpc_service::set_recording(bool record) { engine_->records.set_recording(record); }
std::vector<received_frame> rpc_service::frames() const { return engine_->records.frames(); }
void rpc_service::clear_frames() { engine_->records.clear_frames(); }

bool rpc_service::wait_for_frames(const std::function<bool(const std::vector<received_frame>&)>& done,
                                  std::chrono::milliseconds timeout) const
{
    return engine_->records.wait_for_frames(done, timeout);
}

bool rpc_service::wait_for_subscriber(const std::string& topic, std::chrono::milliseconds timeout) const
{
    return engine_->records.wait_for_subscriber(topic, timeout);
}

std::vector<std::string> rpc_service::subscriptions(std::uint64_t connection) const
{
    return engine_->records.subscriptions(connection);
}

std::vector<std::uint64_t> rpc_service::connections() const { return engine_->records.open_connections(); }
std::uint64_t rpc_service::accepted_count() const { return engine_->records.accepted_count(); }

bool rpc_service::wait_for_accepted(std::uint64_t count, std::chrono::milliseconds timeout) const
{
    return engine_->records.wait_for_accepted(count, timeout);
}

bool rpc_service::wait_for_no_connections(std::chrono::milliseconds timeout) const
{
    return engine_->records.wait_for_no_connections(timeout);
}

}  // namespace pilot_rpc
