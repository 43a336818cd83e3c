#pragma once

// Shared set-up of the client tests: a service on a loopback port with a few
// procedures, and bounded waits.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "rpc/frame.h"
#include "rpc/function_id.h"
#include "rpc/rpc_client.h"
#include "rpc/service/rpc_service.h"
#include "support/PollUntil.h"
#include "support/RestartablePort.h"

namespace pilot_rpc::test {

using namespace std::chrono_literals;

/// Polls `condition` until it holds or `timeout` passes; for state that offers
/// nothing to wait on (table sizes, flags).
inline bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 3s)
{
    return vlm::test::pollUntil(condition, timeout, 2ms);
}

/// A one-shot slot that a callback fills and the test waits on.
template <typename T>
struct slot {
    std::promise<T> promise;
    std::future<T> future = promise.get_future();
    bool ready_within(std::chrono::milliseconds timeout) { return future.wait_for(timeout) == std::future_status::ready; }
};

template <typename Error, typename Call>
void expect_thrown_text(Call&& call, const char* text)
{
    try {
        call();
        ADD_FAILURE() << "no exception; expected \"" << text << "\"";
    } catch (const Error& e) {
        EXPECT_STREQ(e.what(), text);
    }
}

template <typename Future>
void expect_broken_promise(Future& pending)
{
    ASSERT_EQ(pending.wait_for(3s), std::future_status::ready);
    try {
        pending.get();
        ADD_FAILURE() << "no exception";
    } catch (const std::future_error& e) {
        EXPECT_EQ(e.code(), std::future_errc::broken_promise);
    }
}

/// The 20 header bytes of a frame, as they go on the wire.
inline std::string header_of(std::uint8_t type, std::uint32_t body_len, std::uint64_t req_id,
                             std::uint32_t func_id = 0)
{
    const header_bytes bytes = encode_header(frame_header{frame_magic, type, body_len, req_id, func_id});
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

class service_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        service.bind("echo", [](const msgpack::object& args) {
            return service_reply::success(args.via.array.size > 0 ? args.via.array.ptr[0] : msgpack::object());
        });
        service.bind("fail", [](const msgpack::object&) { return service_reply::failure(3, "no vehicle"); });
        service.bind("never", [](const msgpack::object&) { return service_reply::success(0); });
        service.withhold_answers("never");
        // Tests stop and resume listening on this port, so no other socket may
        // be handed it meanwhile; another test may pick it too.
        for (int attempt = 0; attempt < 5 && port == 0; ++attempt) {
            try {
                port = service.start(static_cast<unsigned short>(vlm::test::pickRestartablePort()));
            } catch (const std::exception&) {
            }
        }
        ASSERT_NE(port, 0);
    }

    std::vector<received_frame> frames_named(const std::string& name) const
    {
        std::vector<received_frame> matching;
        for (const auto& frame : service.frames())
            if (frame.func_id == function_id(name))
                matching.push_back(frame);
        return matching;
    }

    bool wait_for_frame_count(std::size_t count, std::chrono::milliseconds timeout = 3s)
    {
        return service.wait_for_frames([count](const auto& frames) { return frames.size() >= count; }, timeout);
    }

    rpc_service service;
    unsigned short port = 0;
};

}  // namespace pilot_rpc::test
