// Slow clients against the HTTP server's request deadline, over loopback with
// raw sockets: a silent connection, a head trickled a byte at a time and a
// body trickled after a whole head are cut at the deadline and their threads
// serve others again; a kept-alive client that is merely pausing between
// requests gets a fresh deadline for each.

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"
#include "support/LogCapture.h"

namespace {


/// What a slow client saw.
struct SlowOutcome {
    bool cut = false;       // the server answered or closed before all was sent
    std::size_t sent = 0;   // bytes of the slow part sent before that
    std::string answer;     // what the server wrote, if anything
};

/// Sends `head` at once, then `slow` one byte every `pause`, watching after
/// each byte whether the server answered or closed. Bounded by `slow`'s length.
SlowOutcome trickle(std::uint16_t port, const std::string& head, const std::string& slow,
                    std::chrono::milliseconds pause)
{
    SlowOutcome outcome;
    Poco::Net::StreamSocket socket(Poco::Net::SocketAddress("127.0.0.1", port));
    socket.setReceiveTimeout(Poco::Timespan(10, 0));
    if (!head.empty())
        socket.sendBytes(head.data(), static_cast<int>(head.size()));
    const Poco::Timespan wait(std::chrono::duration_cast<std::chrono::microseconds>(pause).count());
    for (; outcome.sent < slow.size(); ++outcome.sent) {
        try {
            socket.sendBytes(&slow[outcome.sent], 1);
            if (!socket.poll(wait, Poco::Net::Socket::SELECT_READ))
                continue;
        } catch (const Poco::Exception&) {
            outcome.cut = true;
            return outcome;
        }
        outcome.cut = true;
        break;
    }
    if (!outcome.cut)
        return outcome;
    char buffer[1024];
    try {
        for (int i = 0; i < 64; ++i) {
            const int n = socket.receiveBytes(buffer, sizeof buffer);
            if (n <= 0)
                break;
            outcome.answer.append(buffer, static_cast<std::size_t>(n));
        }
    } catch (const Poco::Exception&) {
        // A reset after the answer is one way to end.
    }
    return outcome;
}

/// Connects and sends nothing; true once the server closed the connection.
bool closedWhileSilent(std::uint16_t port)
{
    Poco::Net::StreamSocket socket(Poco::Net::SocketAddress("127.0.0.1", port));
    if (!socket.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ))
        return false;
    char byte = 0;
    try {
        return socket.receiveBytes(&byte, 1) == 0;
    } catch (const Poco::Exception&) {
        return true;
    }
}

class HttpRequestDeadlineTest : public ::testing::Test {
protected:
    void start(int threads)
    {
        vlm::HttpApiServerOptions options;
        options.workerThreads = threads;
        options.requestDeadline = std::chrono::seconds(1);
        options.keepAliveTimeout = std::chrono::seconds(2);
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
    const auto pause = std::chrono::milliseconds(100);
    // 60 bytes at 100 ms would take 6 s; the deadline is 1 s.
    const std::string requestLine = "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Padding: " +
                                    std::string(20, 'p') + "\r\n";
    auto slowHead = std::async(std::launch::async, trickle, port(), "", requestLine, pause);
    const std::string wholeHead = "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 60\r\n\r\n";
    auto slowBody = std::async(std::launch::async, trickle, port(), wholeHead, std::string(60, ' '), pause);
    auto silent = std::async(std::launch::async, closedWhileSilent, port());

    const SlowOutcome head = slowHead.get();
    EXPECT_TRUE(head.cut);
    EXPECT_LT(head.sent, requestLine.size());
    const SlowOutcome body = slowBody.get();
    EXPECT_TRUE(body.cut);
    EXPECT_LT(body.sent, 60u);
    EXPECT_EQ(body.answer.rfind("HTTP/1.1 408", 0), 0u) << body.answer;
    EXPECT_NE(body.answer.find("request not received within 1000 ms"), std::string::npos);
    EXPECT_TRUE(silent.get());

    EXPECT_EQ(calls.load(), 0);
    EXPECT_EQ(server->counters().slowClientsCut, 3u);
    EXPECT_TRUE(log.contains("request not received within 1000 ms"));

    const auto answer = vlm::test::post(path, "{}").sendTo(port());
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, "{\"served\":true}");
    EXPECT_EQ(calls.load(), 1);
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
        const auto answer = vlm::test::post(path, "{}").sendOn(session);
        EXPECT_EQ(answer.status, 200);
        EXPECT_TRUE(answer.keepAlive);
        if (i < 2)
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
    }
    EXPECT_EQ(calls.load(), 3);
    EXPECT_EQ(server->counters().slowClientsCut, 0u);

    // Left idle, the connection is let go at the keep-alive time-out, which
    // is no slow client.
    for (int i = 0; i < 500 && server->counters().connections > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(server->counters().connections, 0);
    EXPECT_EQ(server->counters().slowClientsCut, 0u);
}

} // namespace
