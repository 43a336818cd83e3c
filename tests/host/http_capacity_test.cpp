// The HTTP server's thread budget against a real client over loopback: with
// every plug-in stream and request slot taken by handlers that do not return,
// the host's own paths still answer, and one more stream or request is refused
// with 503 and Retry-After at once; streams are counted per client address.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "host/HostTestSupport.h"
#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"
#include "support/LogCapture.h"

namespace {


const auto bound = std::chrono::seconds(10);

/// A client session whose socket is bound to `source` (a loopback address)
/// before it connects, so the server sees that client address.
std::unique_ptr<Poco::Net::HTTPClientSession> sessionFrom(const std::string& source, std::uint16_t port)
{
    Poco::Net::StreamSocket socket(Poco::Net::SocketAddress::IPv4);
    socket.impl()->bind(Poco::Net::SocketAddress(source, 0));
    socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(5, 0));
    auto session = std::make_unique<Poco::Net::HTTPClientSession>(socket);
    session->setTimeout(Poco::Timespan(10, 0));
    return session;
}

/// An event stream request from one client address, kept open.
struct StreamClient {
    StreamClient(const std::string& source, std::uint16_t port, const std::string& path)
        : session(sessionFrom(source, port))
    {
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path, Poco::Net::HTTPMessage::HTTP_1_1);
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
                              std::ostream& out = response.send();
                              out << "id: 1\n\n";
                              out.flush();
                              waitForRelease();
                          }));
        server->apiRegist(requestPath, vlm::RequestApiHandler([this](auto&, auto&, const auto&, auto& reply,
                                                                     const auto&) {
                              {
                                  std::lock_guard<std::mutex> lock(mutex);
                                  ++requestsEntered;
                              }
                              changed.notify_all();
                              waitForRelease();
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

    void waitForRelease()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, bound, [this] { return released; });
    }

    void release()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            released = true;
        }
        changed.notify_all();
    }

    bool waitForRequestsEntered(int n)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, bound, [&] { return requestsEntered >= n; });
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

void expectRefusal(const vlm::test::HttpAnswer& answer)
{
    EXPECT_EQ(answer.status, 503);
    ASSERT_EQ(answer.headers.count("Retry-After"), 1u);
    EXPECT_EQ(answer.headers.at("Retry-After"), "5");
    const auto json = answer.json();
    ASSERT_TRUE(json) << answer.body;
    EXPECT_EQ(json->getValue<int>("code"), 503);
}

TEST_F(HttpCapacityTest, WithEveryPluginSlotTakenHostPathsAnswerAndOneMoreIsRefusedAtOnce)
{
    {
        // Idle: the host answers and keeps the connection (until the client
        // closes it here).
        Poco::Net::HTTPClientSession idleSession("127.0.0.1", port());
        idleSession.setTimeout(Poco::Timespan(10, 0));
        idleSession.setKeepAlive(true);
        const auto idle = vlm::test::get("/host/health").sendOn(idleSession);
        EXPECT_EQ(idle.status, 200);
        EXPECT_TRUE(idle.keepAlive);
    }
    ASSERT_TRUE(vlm::test::eventually([this] { return server->counters().connections == 0; }));

    std::vector<std::unique_ptr<StreamClient>> streams;
    streams.push_back(std::make_unique<StreamClient>("127.0.0.1", port(), streamPath));
    streams.push_back(std::make_unique<StreamClient>("127.0.0.1", port(), streamPath));
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
    ASSERT_TRUE(waitForRequestsEntered(3));

    // The host's own path still finds a thread, well within a second, and
    // does not keep the connection while threads are this scarce.
    Poco::Net::HTTPClientSession quick("127.0.0.1", port());
    quick.setTimeout(Poco::Timespan(1, 0));
    quick.setKeepAlive(true);
    const auto health = vlm::test::get("/host/health").sendOn(quick);
    EXPECT_EQ(health.status, 200);
    EXPECT_EQ(health.body, "{\"status\":\"ok\"}");
    EXPECT_FALSE(health.keepAlive);

    // One stream more is refused; the handler is never reached, nothing waits.
    StreamClient extraStream("127.0.0.2", port(), streamPath);
    EXPECT_EQ(extraStream.response.getStatus(), 503);
    EXPECT_EQ(extraStream.response.get("Retry-After", ""), "5");
    EXPECT_NE(extraStream.firstLine().find("too many event streams open (3)"), std::string::npos);

    // One request more is refused before the first three were answered.
    expectRefusal(vlm::test::post(requestPath, "{}").sendTo(port()));
    for (auto& request : hung)
        EXPECT_EQ(request.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

    auto counters = server->counters();
    EXPECT_EQ(counters.openStreams, 3);
    EXPECT_EQ(counters.waitingRequests, 3);
    EXPECT_EQ(counters.streamsRefused, 1u);
    EXPECT_EQ(counters.requestsRefused, 1u);
    EXPECT_EQ(counters.streamsRefusedPerClient, 0u);
    EXPECT_TRUE(log.contains("too many requests in progress (3)"));

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

TEST_F(HttpCapacityTest, StreamsAreCountedPerClientAddressAndRefusalsLoggedOncePerBurst)
{
    StreamClient first("127.0.0.1", port(), streamPath);
    StreamClient second("127.0.0.1", port(), streamPath);
    ASSERT_EQ(first.response.getStatus(), 200);
    ASSERT_EQ(second.response.getStatus(), 200);

    StreamClient third("127.0.0.1", port(), streamPath);
    EXPECT_EQ(third.response.getStatus(), 503);
    EXPECT_EQ(third.response.get("Retry-After", ""), "5");
    EXPECT_NE(third.firstLine().find("from 127.0.0.1 (2)"), std::string::npos);
    for (int i = 0; i < 19; ++i)
        EXPECT_EQ(StreamClient("127.0.0.1", port(), streamPath).response.getStatus(), 503);

    // Another address has its own count while the total allows it.
    StreamClient other("127.0.0.2", port(), streamPath);
    EXPECT_EQ(other.response.getStatus(), 200);
    EXPECT_EQ(other.firstLine(), "id: 1");

    const auto counters = server->counters();
    EXPECT_EQ(counters.streamsRefusedPerClient, 20u);
    EXPECT_EQ(counters.streamsRefused, 0u);
    EXPECT_EQ(counters.openStreams, 3);
    EXPECT_TRUE(log.contains("from 127.0.0.1 (2)"));
    EXPECT_EQ(vlm::test::linesWith(log, "too many event streams open from"), 1);
}

// The shares and the checks of each cap are read through the host's
// configuration in app_config_test.cpp; here the server itself refuses.
TEST(HttpCapacity, AServerWhoseCapsDoNotFitItsThreadsIsNotMade)
{
    vlm::HttpApiServerOptions options;
    options.workerThreads = 128;
    options.maxWaitingRequests = 49;  // 16 + 64 + 49 > 128
    EXPECT_THROW(vlm::HttpApiServer{options}, std::invalid_argument);
}

} // namespace
