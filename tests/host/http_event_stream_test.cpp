// Event streams on the HTTP API server: blocks reach the client as they are
// flushed, and a server stop ends every open stream.

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "host/HostTestSupport.h"
#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"

namespace {

using vlm::test::readBlock;

const auto bound = std::chrono::seconds(10);

TEST(HttpEventStream, EachFlushedBlockReachesTheClientBeforeTheNextIsWritten)
{
    vlm::HttpApiServer server;
    server.start();
    std::promise<void> clientHasFirst;
    auto clientHasFirstFuture = clientHasFirst.get_future().share();
    server.apiRegist("/index/api/pilot/pushTelemetry",
                     vlm::StreamApiHandler([clientHasFirstFuture](auto&, auto& response, const auto&, auto&) {
                         response.setContentType("text/event-stream");
                         std::ostream& out = response.send();
                         out << "id: 1\ndata: {\"n\":1}\n\n" << std::flush;
                         // The second block waits until the client has read
                         // the first: a buffered first block would leave both
                         // sides waiting until the bound.
                         const bool seen = clientHasFirstFuture.wait_for(bound) == std::future_status::ready;
                         out << "id: 2\ndata: " << (seen ? "after the first" : "timed out") << "\n\n" << std::flush;
                     }));

    Poco::Net::HTTPClientSession session("127.0.0.1", server.port());
    session.setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request("GET", "/index/api/pilot/pushTelemetry", "HTTP/1.1");
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& in = session.receiveResponse(response);
    EXPECT_TRUE(response.getChunkedTransferEncoding());

    EXPECT_EQ(readBlock(in), "id: 1\ndata: {\"n\":1}\n");
    clientHasFirst.set_value();
    EXPECT_EQ(readBlock(in), "id: 2\ndata: after the first\n");
    EXPECT_EQ(readBlock(in), "");
}

TEST(HttpEventStream, StopReturnsPromptlyWithStreamsOpenAndEndsThem)
{
    vlm::HttpApiServerOptions options;
    // Far beyond the test's bound: stop() only returns in time if the open
    // streams really end, not because it gave up waiting for them.
    options.stopTimeout = std::chrono::seconds(60);
    vlm::HttpApiServer server(options);
    server.start();
    std::atomic<int> writing{0};
    std::atomic<int> endedByAFailedWrite{0};
    server.apiRegist("/stream", vlm::StreamApiHandler([&](auto&, auto& response, const auto&, auto&) {
                         // The plug-in's stream loop: a block, a flush, a pause, until a write fails.
                         std::ostream& out = response.send();
                         bool failed = false;
                         for (int id = 1; id <= 1000 && !failed; ++id) {
                             out << "id: " << id << "\n\n" << std::flush;
                             failed = !out.good();
                             writing += id == 1 ? 1 : 0;
                             std::this_thread::sleep_for(std::chrono::milliseconds(80));
                         }
                         endedByAFailedWrite += failed ? 1 : 0;
                     }));
    // Each client reads its answer to the end, however it ends.
    auto readToEnd = [&server] {
        try {
            vlm::test::get("/stream").sendTo(server.port());
        } catch (const Poco::Exception&) {
            // A connection shut down under the client is one way to end.
        }
    };
    auto client1 = std::async(std::launch::async, readToEnd);
    auto client2 = std::async(std::launch::async, readToEnd);
    ASSERT_TRUE(vlm::test::eventually([&writing] { return writing == 2; }));

    auto stopped = std::async(std::launch::async, [&server] { return server.stop(); });
    ASSERT_EQ(stopped.wait_for(bound), std::future_status::ready);
    EXPECT_TRUE(stopped.get());
    EXPECT_EQ(server.runningHandlers(), 0);
    EXPECT_EQ(endedByAFailedWrite.load(), 2);
    for (auto* client : {&client1, &client2})
        ASSERT_EQ(client->wait_for(bound), std::future_status::ready);
    EXPECT_THROW(vlm::test::get("/stream").sendTo(server.port()), Poco::Exception);
}

} // namespace
