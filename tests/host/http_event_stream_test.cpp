// Event streams on the HTTP API server: blocks reach the client as they are
// flushed, a client that goes away ends the handler, and a server stop ends
// every open stream.

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>

#include "host/HostTestSupport.h"
#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"

namespace {

using vlm::test::readBlock;
using Poco::Net::HTTPServerResponse;

const auto bound = std::chrono::seconds(10);

/// Writes event blocks the way the plug-in's stream handler does: a block,
/// a flush, a short pause, until a write fails. Bounded in count.
struct BlockWriter {
    std::atomic<int> blocksWritten{0};
    std::promise<void> firstBlock;
    std::promise<bool> ended;  // true when it ended because the stream failed

    void run(HTTPServerResponse& response, std::chrono::milliseconds pause)
    {
        response.set("Cache-Control", "no-cache");
        response.setContentType("text/event-stream");
        std::ostream& out = response.send();
        bool failed = false;
        for (int id = 1; id <= 1000 && !failed; ++id) {
            out << "id: " << id << "\nevent: pushTelemetry\nretry: 10000\n\n";
            out.flush();
            failed = !out.good();
            if (!failed && ++blocksWritten == 1)
                firstBlock.set_value();
            std::this_thread::sleep_for(pause);
        }
        ended.set_value(failed);
    }
};

class HttpEventStreamTest : public ::testing::Test {
protected:
    void start(vlm::HttpApiServerOptions options = {})
    {
        server = std::make_unique<vlm::HttpApiServer>(options);
        server->start();
    }

    /// Opens a stream request and returns the body stream once the head came.
    std::istream& open(Poco::Net::HTTPClientSession& session, Poco::Net::HTTPResponse& response,
                       const std::string& path)
    {
        session.setTimeout(Poco::Timespan(10, 0));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path, Poco::Net::HTTPMessage::HTTP_1_1);
        session.sendRequest(request);
        return session.receiveResponse(response);
    }

    std::unique_ptr<vlm::HttpApiServer> server;
};

TEST_F(HttpEventStreamTest, EachFlushedBlockReachesTheClientBeforeTheNextIsWritten)
{
    start();
    std::promise<void> clientHasFirst;
    auto clientHasFirstFuture = clientHasFirst.get_future().share();
    std::promise<bool> handlerSawClient;
    server->apiRegist("/index/api/pilot/pushTelemetry",
                      vlm::StreamApiHandler([&, clientHasFirstFuture](auto&, auto& response, const auto&, auto&) {
                          response.setContentType("text/event-stream");
                          std::ostream& out = response.send();
                          out << "id: 1\nevent: pushTelemetry\ndata: {\"n\":1}\n\n";
                          out.flush();
                          // The second block is only written once the client
                          // has read the first: a buffered first block would
                          // leave both sides waiting until the bound.
                          const bool seen = clientHasFirstFuture.wait_for(bound) == std::future_status::ready;
                          handlerSawClient.set_value(seen);
                          out << "id: 2\nevent: pushTelemetry\ndata: {\"n\":2}\n\n";
                          out.flush();
                      }));

    Poco::Net::HTTPClientSession session("127.0.0.1", server->port());
    Poco::Net::HTTPResponse response;
    std::istream& in = open(session, response, "/index/api/pilot/pushTelemetry");
    EXPECT_EQ(response.getContentType(), "text/event-stream");
    EXPECT_TRUE(response.getChunkedTransferEncoding());

    EXPECT_EQ(readBlock(in), "id: 1\nevent: pushTelemetry\ndata: {\"n\":1}\n");
    clientHasFirst.set_value();
    EXPECT_EQ(readBlock(in), "id: 2\nevent: pushTelemetry\ndata: {\"n\":2}\n");
    EXPECT_EQ(readBlock(in), "");
    auto seen = handlerSawClient.get_future();
    ASSERT_EQ(seen.wait_for(bound), std::future_status::ready);
    EXPECT_TRUE(seen.get());
}

TEST_F(HttpEventStreamTest, AClientThatGoesAwayMidStreamEndsTheHandlerByAFailedWrite)
{
    start();
    BlockWriter writer;
    server->apiRegist("/stream", vlm::StreamApiHandler([&](auto&, auto& response, const auto&, auto&) {
                          writer.run(response, std::chrono::milliseconds(20));
                      }));
    {
        Poco::Net::HTTPClientSession session("127.0.0.1", server->port());
        Poco::Net::HTTPResponse response;
        std::istream& in = open(session, response, "/stream");
        EXPECT_EQ(readBlock(in), "id: 1\nevent: pushTelemetry\nretry: 10000\n");
        session.abort();
    }
    auto ended = writer.ended.get_future();
    ASSERT_EQ(ended.wait_for(bound), std::future_status::ready);
    EXPECT_TRUE(ended.get());
    EXPECT_LT(writer.blocksWritten.load(), 1000);
}

TEST_F(HttpEventStreamTest, StopReturnsPromptlyWithStreamsOpenAndEndsThem)
{
    vlm::HttpApiServerOptions options;
    // Far beyond the test's bound: stop() only returns in time if the open
    // streams really end, not because it gave up waiting for them.
    options.stopTimeout = std::chrono::seconds(60);
    start(options);

    BlockWriter writers[2];
    std::atomic<int> next{0};
    server->apiRegist("/stream", vlm::StreamApiHandler([&](auto&, auto& response, const auto&, auto&) {
                          writers[next++].run(response, std::chrono::milliseconds(80));
                      }));
    std::promise<void> waiterEntered;
    std::promise<bool> waiterSawStop;
    server->apiRegist("/wait", vlm::RequestApiHandler([&](auto&, auto&, const auto&, auto&, const auto&) {
                          waiterEntered.set_value();
                          // A handler that writes nothing learns of the stop by asking.
                          const auto deadline = std::chrono::steady_clock::now() + bound;
                          while (!server->stopping() && std::chrono::steady_clock::now() < deadline)
                              std::this_thread::sleep_for(std::chrono::milliseconds(5));
                          waiterSawStop.set_value(server->stopping());
                      }));

    // Each client reads its answer to the end, however it ends.
    auto readUntilEnd = [this](const std::string& method, const std::string& path) {
        vlm::test::HttpCall call;
        call.method = method;
        call.uri = path;
        try {
            call.sendTo(server->port());
        } catch (const Poco::Exception&) {
            // A connection shut down under the client is one way to end.
        }
    };
    auto client1 = std::async(std::launch::async, readUntilEnd, "GET", "/stream");
    auto client2 = std::async(std::launch::async, readUntilEnd, "GET", "/stream");
    auto client3 = std::async(std::launch::async, readUntilEnd, "POST", "/wait");
    ASSERT_EQ(writers[0].firstBlock.get_future().wait_for(bound), std::future_status::ready);
    ASSERT_EQ(writers[1].firstBlock.get_future().wait_for(bound), std::future_status::ready);
    ASSERT_EQ(waiterEntered.get_future().wait_for(bound), std::future_status::ready);

    std::promise<bool> stopped;
    std::thread stopper([&] { stopped.set_value(server->stop()); });
    auto stopResult = stopped.get_future();
    const bool stopReturned = stopResult.wait_for(std::chrono::seconds(3)) == std::future_status::ready;
    stopper.join();
    ASSERT_TRUE(stopReturned);
    EXPECT_TRUE(stopResult.get());
    EXPECT_EQ(server->runningHandlers(), 0);

    for (auto* writer : {&writers[0], &writers[1]}) {
        auto ended = writer->ended.get_future();
        ASSERT_EQ(ended.wait_for(bound), std::future_status::ready);
        EXPECT_TRUE(ended.get());
    }
    auto sawStop = waiterSawStop.get_future();
    ASSERT_EQ(sawStop.wait_for(bound), std::future_status::ready);
    EXPECT_TRUE(sawStop.get());
    for (auto* client : {&client1, &client2, &client3})
        ASSERT_EQ(client->wait_for(bound), std::future_status::ready);

    EXPECT_THROW(vlm::test::get("/stream").sendTo(server->port()), Poco::Exception);
}

TEST_F(HttpEventStreamTest, AStreamHandlerThatWritesNothingAnswersWithItsReplyObject)
{
    start();
    server->apiRegist("/index/api/pilot/updateProgress",
                      vlm::StreamApiHandler([](auto&, auto&, const auto&, auto& reply) { reply.set("code", 4001); }));
    const auto answer = vlm::test::get("/index/api/pilot/updateProgress").sendTo(server->port());
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.contentType, "application/json");
    EXPECT_EQ(answer.body, "{\"code\":4001}");
}

} // namespace
