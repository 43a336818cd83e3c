#include "rpc/rpc_client.h"

#include "rpc/client_core.h"

namespace pilot_rpc {

rpc_client::rpc_client() : core_(client_core::create()) {}

rpc_client::~rpc_client() { core_->shutdown(); }

void rpc_client::enable_auto_reconnect(bool enable) { core_->enable_auto_reconnect(enable); }

void rpc_client::enable_auto_heartbeat(bool enable, std::chrono::milliseconds interval)
{
    core_->enable_auto_heartbeat(enable, interval);
}

bool rpc_client::connect(const std::string& host, unsigned short port, bool, std::size_t timeout_seconds)
{
    return core_->connect(host, port, timeout_seconds);
}

bool rpc_client::has_connected() const { return core_->has_connected(); }

void rpc_client::subscribe(const std::string& topic, std::function<void(std::string_view)> handler)
{
    core_->subscribe(topic, std::move(handler));
}

void rpc_client::close(bool) { core_->close_from_caller(); }

void rpc_client::set_error_callback(std::function<void(std::error_code)> cb)
{
    core_->set_error_callback(std::move(cb));
}

std::size_t rpc_client::outbox_size() const { return core_->outbox_size(); }
std::size_t rpc_client::pending_future_calls() const { return core_->pending_future_calls(); }
std::size_t rpc_client::pending_callback_calls() const { return core_->pending_callback_calls(); }
bool rpc_client::has_pending_future(std::uint64_t id) const { return core_->has_pending_future(id); }
std::uint64_t rpc_client::last_response_id() const { return core_->last_response_id(); }
std::size_t rpc_client::subscription_count() const { return core_->subscription_count(); }
std::optional<std::chrono::steady_clock::time_point> rpc_client::last_receive_time() const
{
    return core_->last_receive_time();
}
std::uint64_t rpc_client::reconnect_count() const { return core_->reconnect_count(); }
link_traffic rpc_client::traffic() const { return core_->traffic(); }

future_result<req_result> rpc_client::send_future_call(const std::string& rpc_name, msgpack::sbuffer body)
{
    future_result<req_result> result;
    result.id = core_->send_future_call(rpc_name, std::move(body), result.future);
    return result;
}

void rpc_client::send_callback_call(const std::string& rpc_name, std::size_t timeout_ms,
                                    std::function<void(std::error_code, std::string_view)> cb,
                                    msgpack::sbuffer body)
{
    core_->send_callback_call(rpc_name, timeout_ms, std::move(cb), std::move(body));
}

}  // namespace pilot_rpc
