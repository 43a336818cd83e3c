// The HTTP server's thread budget over loopback: with every plug-in stream and
// request slot taken by handlers that do not return, the host's own paths
// still answer, and one more stream or request is refused at once.

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "host/HostTestSupport.h"
#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"
#include "support/LogCapture.h"

namespace {

const auto bound = std::chrono::seconds(10);
const std::string streamPath = "/index/api/pilot/pushTelemetry";

/// An event stream request from one client address (its socket is bound to
/// `source` before it connects), kept open.
struct StreamClient {
    StreamClient(const std::string& source, std::uint16_t port)
    {
        Poco::Net::StreamSocket socket(Poco::Net::SocketAddress::IPv4);
        socket.impl()->bind(Poco::Net::SocketAddress(source, 0));
        socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(5, 0));
        session = std::make_unique<Poco::Net::HTTPClientSession>(socket);
        session->setTimeout(Poco::Timespan(10, 0));
        Poco::Net::HTTPRequest request("GET", streamPath, "HTTP/1.1");
        request.setHost("127.0.0.1", port);
        session->sendRequest(request);
        std::getline(session->receiveResponse(response), firstLine);
    }

    std::unique_ptr<Poco::Net::HTTPClientSession> session;
    Poco::Net::HTTPResponse response;
    std::string firstLine;  // of the stream, or of the refusal's body
};

TEST(HttpCapacity, WithEveryPluginSlotTakenHostPathsAnswerAndOneMoreIsRefusedAtOnce)
{
    vlm::test::LogCapture log;
    // 2 + 3 + 3 = 8: every thread not reserved for /host/ can be taken.
    vlm::HttpApiServerOptions options;
    options.workerThreads = 8;
    options.reservedHostThreads = 2;
    options.maxStreams = 3;
    options.maxStreamsPerClient = 2;
    options.maxWaitingRequests = 3;
    vlm::HttpApiServer server(options);
    server.start();
    // Plug-in style routes that hold their thread until the test releases them.
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::atomic<int> entered{0};
    server.apiRegist(streamPath, vlm::StreamApiHandler([released](auto&, auto& response, const auto&, auto&) {
                         response.send() << "id: 1\n\n" << std::flush;
                         released.wait_for(bound);
                     }));
    server.apiRegist("/index/api/pilot/hold", vlm::RequestApiHandler([&, released](auto&, auto&, const auto&,
                                                                                    auto& reply, const auto&) {
                         ++entered;
                         reply.set("answered", released.wait_for(bound) == std::future_status::ready);
                     }));
    server.apiRegist("/host/health", vlm::StreamApiHandler([](auto&, auto&, const auto&, auto& reply) {
                         reply.set("status", "ok");
                     }));
    auto health = [&server] {
        Poco::Net::HTTPClientSession session("127.0.0.1", server.port());
        session.setTimeout(Poco::Timespan(10, 0));
        session.setKeepAlive(true);
        return vlm::test::get("/host/health").sendOn(session);
    };
    // Idle, the host keeps the connection.
    EXPECT_TRUE(health().keepAlive);
    ASSERT_TRUE(vlm::test::eventually([&server] { return server.counters().connections == 0; }));

    std::vector<std::unique_ptr<StreamClient>> streams;
    for (const char* source : {"127.0.0.1", "127.0.0.1"})
        streams.push_back(std::make_unique<StreamClient>(source, server.port()));
    // A third stream of one client is refused; a burst of refusals is logged once.
    for (int i = 0; i < 20; ++i) {
        StreamClient refused("127.0.0.1", server.port());
        EXPECT_EQ(refused.response.getStatus(), 503);
        EXPECT_EQ(refused.response.get("Retry-After", ""), "5");
        EXPECT_EQ(refused.firstLine, "{\"code\":503,\"msg\":\"too many event streams open from 127.0.0.1 (2)\"}");
    }
    // Another address has its own count while the total allows it.
    streams.push_back(std::make_unique<StreamClient>("127.0.0.2", server.port()));
    for (auto& stream : streams)
        EXPECT_EQ(stream->firstLine, "id: 1");
    std::vector<std::future<vlm::test::HttpAnswer>> held;
    for (int i = 0; i < 3; ++i)
        held.push_back(std::async(std::launch::async, [&server] {
            return vlm::test::post("/index/api/pilot/hold", "{}").sendTo(server.port());
        }));
    ASSERT_TRUE(vlm::test::eventually([&entered] { return entered == 3; }));

    // The host's own path still finds a thread, and does not keep the
    // connection while threads are this scarce.
    const auto scarce = health();
    EXPECT_EQ(scarce.body, "{\"status\":\"ok\"}");
    EXPECT_FALSE(scarce.keepAlive);
    // One stream or request more is refused; no handler is reached.
    EXPECT_EQ(StreamClient("127.0.0.2", server.port()).firstLine,
              "{\"code\":503,\"msg\":\"too many event streams open (3)\"}");
    const auto extraRequest = vlm::test::post("/index/api/pilot/hold", "{}").sendTo(server.port());
    EXPECT_EQ(extraRequest.status, 503);
    EXPECT_EQ(extraRequest.headers.at("Retry-After"), "5");
    EXPECT_EQ(extraRequest.body, "{\"code\":503,\"msg\":\"too many requests in progress (3)\"}");
    EXPECT_EQ(entered.load(), 3);

    const auto counters = server.counters();
    EXPECT_EQ(counters.openStreams, 3);
    EXPECT_EQ(counters.waitingRequests, 3);
    EXPECT_EQ(counters.streamsRefusedPerClient, 20u);
    EXPECT_EQ(counters.streamsRefused, 1u);
    EXPECT_EQ(counters.requestsRefused, 1u);
    EXPECT_EQ(vlm::test::linesWith(log, "http refused with 503: too many event streams open from 127.0.0.1 (2); "
                                        "refusal 1 of this kind (logged first and every 1000th)"), 1);
    EXPECT_EQ(vlm::test::linesWith(log, "http refused with 503: "), 3);

    release.set_value();
    for (auto& request : held) {
        ASSERT_EQ(request.wait_for(bound), std::future_status::ready);
        EXPECT_EQ(request.get().body, "{\"answered\":true}");
    }
    streams.clear();
    ASSERT_TRUE(vlm::test::eventually([&server] {
        const auto c = server.counters();
        return c.openStreams == 0 && c.waitingRequests == 0;
    }));
    // The slots were given back.
    EXPECT_EQ(StreamClient("127.0.0.1", server.port()).firstLine, "id: 1");
}

} // namespace
