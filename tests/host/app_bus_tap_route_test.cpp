// The bus tap over a real HTTP server and client: a stream shows every bus
// message, a POST delivers one, bad posts are refused with the reason, and
// open streams end with the bus or the server.

#include <future>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include "app/BusTapRoute.h"
#include "host/HostTestSupport.h"
#include "host/HttpTestClient.h"
#include "host/RecordingPlugin.h"
#include "http/HttpApiServer.h"

namespace {

using vlm::test::readBlock;
using vlm::test::RecordingPlugin;

const char* const guid = "{AAAAAAAA-1111-2222-3333-444444444444}";
const auto bound = std::chrono::seconds(10);

/// The next block that is an event (not a comment or the retry hint).
std::string readEvent(std::istream& in)
{
    for (int i = 0; i < 100; ++i) {
        const std::string block = readBlock(in);
        if (block.empty() || block.find("event: ") != std::string::npos)
            return block;
    }
    return "";
}

class BusTapRouteTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vlm::HttpApiServerOptions options;
        options.maxBodyBytes = 4096;
        server = std::make_shared<vlm::HttpApiServer>(options);
        route = std::make_unique<vlm::host::BusTapRoute>(
            bus, [this] { return server->stopping(); }, options.maxBodyBytes, std::chrono::milliseconds(200));
        route->install(*server);
        server->start();
        bus->attach(guid, receiver);
        bus->start();
    }

    void TearDown() override
    {
        server->stop();
        bus->stop();
    }

    /// Opens the stream and returns once the server has opened the tap.
    std::istream& openStream()
    {
        session.setHost("127.0.0.1");
        session.setPort(server->port());
        session.setTimeout(Poco::Timespan(10, 0));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, vlm::host::busTapPath,
                                       Poco::Net::HTTPMessage::HTTP_1_1);
        session.sendRequest(request);
        std::istream& in = session.receiveResponse(response);
        EXPECT_TRUE(vlm::test::eventually([this] { return bus->stats().taps == 1; }));
        return in;
    }

    std::shared_ptr<vlm::host::MessageBus> bus = std::make_shared<vlm::host::MessageBus>();
    std::shared_ptr<RecordingPlugin> receiver = std::make_shared<RecordingPlugin>();
    std::shared_ptr<vlm::HttpApiServer> server;
    std::unique_ptr<vlm::host::BusTapRoute> route;
    Poco::Net::HTTPClientSession session;
    Poco::Net::HTTPResponse response;
};

TEST_F(BusTapRouteTest, QuietStreamsGetKeepAliveCommentsAndEveryMessageAsAnEventInBusOrder)
{
    std::istream& in = openStream();
    EXPECT_EQ(response.getContentType(), "text/event-stream");
    EXPECT_EQ(readBlock(in), "retry: 3000\n");
    EXPECT_EQ(readBlock(in), ": keep-alive\n");

    const std::uint64_t first = bus->post(R"({"to":[],"n":1})", "p");
    const std::uint64_t second = bus->post("line one\nline two", "p");
    EXPECT_EQ(readEvent(in), "id: " + std::to_string(first) + "\nevent: bus\ndata: {\"to\":[],\"n\":1}\n");
    EXPECT_EQ(readEvent(in), "id: " + std::to_string(second) + "\nevent: rejected\ndata: line one\ndata: line two\n");
}

TEST_F(BusTapRouteTest, PostDeliversTheBodyUnchangedAndTheStreamShowsIt)
{
    std::istream& in = openStream();
    const std::string body = R"({"to": ["aaaaaaaa-1111-2222-3333-444444444444"], "api": "getConfig"})";
    const auto answer = vlm::test::post(vlm::host::busTapPath, body).sendTo(server->port());
    EXPECT_EQ(answer.status, 202);
    const auto json = answer.json();
    ASSERT_TRUE(json);
    EXPECT_EQ(json->getValue<std::string>("msg"), "queued");

    const auto delivered = receiver->waitFor(1);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0].text, body);
    EXPECT_EQ(readEvent(in), "id: " + std::to_string(json->getValue<std::uint64_t>("seq")) + "\nevent: bus\ndata: " +
                                 body + "\n");
}

TEST_F(BusTapRouteTest, BadPostsAreRefusedWithTheReason)
{
    struct Case {
        std::string body;
        int status;
        std::string reason;
    };
    const Case cases[] = {
        {"{not json", 400, "bus message is not JSON"},
        {R"({"to":"AAAAAAAA-1111-2222-3333-444444444444"})", 400, "list of receiver GUIDs"},
        {std::string(5000, ' '), 413, "larger than 4096 bytes"},
    };
    for (const auto& c : cases) {
        const auto answer = vlm::test::post(vlm::host::busTapPath, c.body).sendTo(server->port());
        EXPECT_EQ(answer.status, c.status) << c.body.substr(0, 40);
        EXPECT_NE(answer.body.find(c.reason), std::string::npos) << answer.body;
    }
    EXPECT_EQ(bus->stats().posted, 0u);
    EXPECT_TRUE(receiver->received().empty());
}

TEST_F(BusTapRouteTest, StreamsEndWhenTheBusStops)
{
    std::istream& in = openStream();
    auto ended = std::async(std::launch::async, [&] {
        for (int i = 0; i < 1000 && !readBlock(in).empty(); ++i) {
        }
    });
    bus->stop();
    EXPECT_EQ(ended.wait_for(bound), std::future_status::ready);
    EXPECT_EQ(bus->stats().taps, 0u);
}

TEST_F(BusTapRouteTest, AnOpenStreamDoesNotHoldUpTheServersStop)
{
    openStream();
    EXPECT_TRUE(server->stop());
    EXPECT_EQ(server->runningHandlers(), 0);
}

} // namespace
