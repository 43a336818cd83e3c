// Slow clients against the HTTP server's request deadline, over loopback with
// raw sockets: slow and silent clients are cut, a kept-alive client pausing
// between requests is not.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "host/HostTestSupport.h"
#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"
#include "support/LogCapture.h"

namespace {

/// Sends `head`, then `slow` one byte every 100 ms until the server answers
/// or closes, and returns what it wrote ("" when it just closed, "<open>"
/// when it neither answered nor closed). Bounded by `slow`'s length and the
/// socket's time-out.
std::string trickle(std::uint16_t port, const std::string& head, const std::string& slow)
{
    Poco::Net::StreamSocket socket(Poco::Net::SocketAddress("127.0.0.1", port));
    socket.setReceiveTimeout(Poco::Timespan(10, 0));
    std::string answer;
    try {
        socket.sendBytes(head.data(), static_cast<int>(head.size()));
        for (std::size_t sent = 0; sent < slow.size(); ++sent) {
            socket.sendBytes(&slow[sent], 1);
            if (socket.poll(Poco::Timespan(0, 100000), Poco::Net::Socket::SELECT_READ))
                break;
        }
        char buffer[1024];
        for (int n = 1, reads = 0; n > 0 && reads < 64; ++reads) {
            n = socket.receiveBytes(buffer, sizeof buffer);
            answer.append(buffer, static_cast<std::size_t>(std::max(n, 0)));
        }
    } catch (const Poco::TimeoutException&) {
        return "<open>";
    } catch (const Poco::Exception&) {
        // A reset is one way to be cut.
    }
    return answer;
}

class HttpRequestDeadlineTest : public ::testing::Test {
protected:
    void start(int threads)
    {
        vlm::HttpApiServerOptions options;
        options.workerThreads = threads;
        options.requestDeadline = std::chrono::seconds(1);
        server = std::make_unique<vlm::HttpApiServer>(options);
        server->start();
        server->apiRegist(path, vlm::RequestApiHandler([this](auto&, auto&, const auto&, auto& reply, const auto&) {
                              ++calls;
                              reply.set("served", true);
                          }));
    }

    std::uint16_t port() const { return server->port(); }

    const std::string path = "/index/api/pilot/getConfig";
    vlm::test::LogCapture log;
    std::unique_ptr<vlm::HttpApiServer> server;
    std::atomic<int> calls{0};
};

TEST_F(HttpRequestDeadlineTest, SlowAndSilentClientsAreCutAndTheirThreadsServeOthersAgain)
{
    // Three threads, each taken by a slow client; a fourth client is only
    // served once they are free again.
    start(3);
    const std::string head = "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    // Each trickle would take seconds at 100 ms a byte; the deadline is 1 s.
    auto slowHead = std::async(std::launch::async, trickle, port(), "", head + "X-Padding: pppp\r\n");
    auto slowBody = std::async(std::launch::async, trickle, port(), head + "Content-Length: 60\r\n\r\n",
                               std::string(60, ' '));
    auto silent = std::async(std::launch::async, trickle, port(), "", "");

    // A head cut short is no request: the parser's own 400, not a 408.
    const std::string headCut = slowHead.get();
    EXPECT_EQ(headCut.rfind("HTTP/1.1 400", 0), 0u) << headCut;
    const std::string body = slowBody.get();
    EXPECT_EQ(body.rfind("HTTP/1.1 408", 0), 0u) << body;
    EXPECT_NE(body.find(R"({"code":408,"msg":"request not received within 1000 ms"})"), std::string::npos);
    EXPECT_EQ(silent.get(), "");

    EXPECT_EQ(calls.load(), 0);
    EXPECT_EQ(server->counters().slowClientsCut, 3u);
    EXPECT_EQ(vlm::test::linesWith(log, "cut: request not received within 1000 ms; cut 1 (logged first and every "
                                        "1000th)"), 1);
    EXPECT_EQ(vlm::test::linesWith(log, "cut: request not received"), 1);

    const auto answer = vlm::test::post(path, "{}").sendTo(port());
    EXPECT_EQ(answer.body, "{\"served\":true}");
}

TEST_F(HttpRequestDeadlineTest, EachRequestOnAKeptAliveConnectionGetsItsOwnDeadline)
{
    start(4);
    Poco::Net::HTTPClientSession session("127.0.0.1", port());
    session.setTimeout(Poco::Timespan(5, 0));
    session.setKeepAlive(true);
    // Three requests spread over more than the first deadline (1 s from the
    // connection's start), each well within its own.
    for (int i = 0; i < 3; ++i) {
        if (i > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
        const auto answer = vlm::test::post(path, "{}").sendOn(session);
        EXPECT_EQ(answer.status, 200);
        EXPECT_TRUE(answer.keepAlive);
    }
    EXPECT_EQ(calls.load(), 3);
    EXPECT_EQ(server->counters().slowClientsCut, 0u);
}

} // namespace
