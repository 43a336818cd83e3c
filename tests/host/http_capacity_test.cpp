// The HTTP server's thread budget against a real client over loopback: with
// every plug-in stream and request slot taken by handlers that do not return,
// the host's own paths still answer, and one more stream or request is refused
// with 503 and Retry-After at once; streams are counted per client address.

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
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

/// An event stream request from one client address (its socket is bound to
/// `source` before it connects), kept open.
struct StreamClient {
    StreamClient(const std::string& source, std::uint16_t port, const std::string& path)
    {
        Poco::Net::StreamSocket socket(Poco::Net::SocketAddress::IPv4);
        socket.impl()->bind(Poco::Net::SocketAddress(source, 0));
        socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(5, 0));
        session = std::make_unique<Poco::Net::HTTPClientSession>(socket);
        session->setTimeout(Poco::Timespan(10, 0));
        Poco::Net::HTTPRequest request("GET", path, "HTTP/1.1");
        request.setHost("127.0.0.1", port);
        session->sendRequest(request);
        in = &session->receiveResponse(response);
    }

    /// The first line of the stream, or of the refusal's body.
    std::string firstLine()
    {
        std::string line;
        std::getline(*in, line);
        return line;
    }

    std::unique_ptr<Poco::Net::HTTPClientSession> session;
    Poco::Net::HTTPResponse response;
    std::istream* in = nullptr;
};

class HttpCapacityTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // 2 + 3 + 3 = 8: every thread not reserved for /host/ can be taken.
        vlm::HttpApiServerOptions options;
        options.workerThreads = 8;
        options.reservedHostThreads = 2;
        options.maxStreams = 3;
        options.maxStreamsPerClient = 2;
        options.maxWaitingRequests = 3;
        server = std::make_unique<vlm::HttpApiServer>(options);
        server->start();
        // Plug-in style routes that hold their thread until the test releases them.
        server->apiRegist(streamPath, vlm::StreamApiHandler([this](auto&, auto& response, const auto&, auto&) {
                              response.setContentType("text/event-stream");
                              response.send() << "id: 1\n\n" << std::flush;
                              waitFor([this] { return released; });
                          }));
        server->apiRegist(requestPath, vlm::RequestApiHandler([this](auto&, auto&, const auto&, auto& reply,
                                                                     const auto&) {
                              {
                                  std::lock_guard<std::mutex> lock(mutex);
                                  ++requestsEntered;
                              }
                              changed.notify_all();
                              waitFor([this] { return released; });
                              reply.set("answered", true);
                          }));
        server->apiRegist("/host/health", vlm::StreamApiHandler([](auto&, auto&, const auto&, auto& reply) {
                              reply.set("status", "ok");
                          }));
    }

    void TearDown() override
    {
        release();
        server->stop();
    }

    void release()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            released = true;
        }
        changed.notify_all();
    }

    /// Waits (bounded) until `condition`, checked under the lock, holds.
    template <typename Condition>
    bool waitFor(Condition condition)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, bound, condition);
    }

    std::uint16_t port() const { return server->port(); }

    const std::string streamPath = "/index/api/pilot/pushTelemetry";
    const std::string requestPath = "/index/api/pilot/neverAnswered";
    vlm::test::LogCapture log;
    std::unique_ptr<vlm::HttpApiServer> server;
    std::mutex mutex;  // guards released, requestsEntered
    std::condition_variable changed;
    bool released = false;
    int requestsEntered = 0;
};

TEST_F(HttpCapacityTest, WithEveryPluginSlotTakenHostPathsAnswerAndOneMoreIsRefusedAtOnce)
{
    {
        // Idle: the host answers and keeps the connection (until the client
        // closes it here).
        Poco::Net::HTTPClientSession idleSession("127.0.0.1", port());
        idleSession.setTimeout(Poco::Timespan(10, 0));
        idleSession.setKeepAlive(true);
        EXPECT_TRUE(vlm::test::get("/host/health").sendOn(idleSession).keepAlive);
    }
    ASSERT_TRUE(vlm::test::eventually([this] { return server->counters().connections == 0; }));

    std::vector<std::unique_ptr<StreamClient>> streams;
    for (const char* source : {"127.0.0.1", "127.0.0.1"})
        streams.push_back(std::make_unique<StreamClient>(source, port(), streamPath));
    // A third stream of one client is refused; a burst of refusals is logged once.
    for (int i = 0; i < 20; ++i) {
        StreamClient refused("127.0.0.1", port(), streamPath);
        EXPECT_EQ(refused.response.getStatus(), 503);
        EXPECT_EQ(refused.response.get("Retry-After", ""), "5");
        EXPECT_EQ(refused.firstLine(),
                  "{\"code\":503,\"msg\":\"too many event streams open from 127.0.0.1 (2)\"}");
    }
    // Another address has its own count while the total allows it.
    streams.push_back(std::make_unique<StreamClient>("127.0.0.2", port(), streamPath));
    for (auto& stream : streams) {
        ASSERT_EQ(stream->response.getStatus(), 200);
        EXPECT_EQ(stream->firstLine(), "id: 1");
    }

    std::vector<std::future<vlm::test::HttpAnswer>> hung;
    for (int i = 0; i < 3; ++i)
        hung.push_back(std::async(std::launch::async, [this] {
            return vlm::test::post(requestPath, "{}").sendTo(port());
        }));
    ASSERT_TRUE(waitFor([this] { return requestsEntered == 3; }));

    // The host's own path still finds a thread and does not keep the
    // connection while threads are this scarce.
    Poco::Net::HTTPClientSession quick("127.0.0.1", port());
    quick.setTimeout(Poco::Timespan(10, 0));
    quick.setKeepAlive(true);
    const auto health = vlm::test::get("/host/health").sendOn(quick);
    EXPECT_EQ(health.body, "{\"status\":\"ok\"}");
    EXPECT_FALSE(health.keepAlive);

    // One stream more is refused; the handler is never reached, nothing waits.
    StreamClient extraStream("127.0.0.2", port(), streamPath);
    EXPECT_EQ(extraStream.response.getStatus(), 503);
    EXPECT_EQ(extraStream.firstLine(), "{\"code\":503,\"msg\":\"too many event streams open (3)\"}");
    // One request more is refused before the first three were answered.
    const auto extraRequest = vlm::test::post(requestPath, "{}").sendTo(port());
    EXPECT_EQ(extraRequest.status, 503);
    EXPECT_EQ(extraRequest.headers.at("Retry-After"), "5");
    EXPECT_EQ(extraRequest.body, "{\"code\":503,\"msg\":\"too many requests in progress (3)\"}");
    for (auto& request : hung)
        EXPECT_EQ(request.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

    const auto counters = server->counters();
    EXPECT_EQ(counters.openStreams, 3);
    EXPECT_EQ(counters.waitingRequests, 3);
    EXPECT_EQ(counters.streamsRefusedPerClient, 20u);
    EXPECT_EQ(counters.streamsRefused, 1u);
    EXPECT_EQ(counters.requestsRefused, 1u);
    EXPECT_EQ(vlm::test::linesWith(log, "http refused with 503: too many event streams open from 127.0.0.1 (2); "
                                        "refusal 1 of this kind"), 1);
    EXPECT_EQ(vlm::test::linesWith(log, "http refused with 503: too many"), 3);

    release();
    for (auto& request : hung) {
        ASSERT_EQ(request.wait_for(bound), std::future_status::ready);
        EXPECT_EQ(request.get().body, "{\"answered\":true}");
    }
    streams.clear();
    ASSERT_TRUE(vlm::test::eventually([this] {
        const auto c = server->counters();
        return c.openStreams == 0 && c.waitingRequests == 0;
    }));
    // The slots were given back.
    StreamClient again("127.0.0.1", port(), streamPath);
    EXPECT_EQ(again.response.getStatus(), 200);
}

} // namespace
