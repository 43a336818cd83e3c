// The bus tap over a real HTTP server and client: a stream shows every bus
// message, a POST delivers one, bad posts are refused with the reason.

#include <algorithm>
#include <future>
#include <memory>
#include <utility>
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
#include "support/LogCapture.h"

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
        vlm::test::eventually([this] { return bus->stats().taps > 0; });
        return in;
    }

    vlm::test::LogCapture log;
    std::shared_ptr<vlm::host::MessageBus> bus = std::make_shared<vlm::host::MessageBus>();
    std::shared_ptr<RecordingPlugin> receiver = std::make_shared<RecordingPlugin>();
    std::shared_ptr<vlm::HttpApiServer> server;
    std::unique_ptr<vlm::host::BusTapRoute> route;
    Poco::Net::HTTPClientSession session;
    Poco::Net::HTTPResponse response;
};

// Tap readers with a small byte budget, so that a stream falls behind soon.
class SmallTapBudgetTest : public BusTapRouteTest {
protected:
    static constexpr std::size_t tapBytes = 1u << 20;

    SmallTapBudgetTest()
    {
        vlm::host::MessageBus::Options options;
        options.tapQueueByteLimit = tapBytes;
        bus = std::make_shared<vlm::host::MessageBus>(options);
    }
};

/// Reads the stream up to the event with id `last`: the ids shown, in the
/// order shown, and the sum of the "dropped" counts.
std::pair<std::vector<std::uint64_t>, std::uint64_t> readUpTo(std::istream& in, std::uint64_t last, int maxBlocks)
{
    std::vector<std::uint64_t> shown;
    std::uint64_t dropped = 0;
    for (int i = 0; i < maxBlocks && (shown.empty() || shown.back() != last); ++i) {
        const std::string block = readBlock(in);
        if (block.empty())
            break;
        if (block.rfind("event: dropped\ndata: {\"dropped\":", 0) == 0)
            dropped += std::stoull(block.substr(block.find(':', block.find("dropped\"")) + 1));
        else if (block.rfind("id: ", 0) == 0)
            shown.push_back(std::stoull(block.substr(4)));
    }
    return {shown, dropped};
}

TEST_F(SmallTapBudgetTest, AStreamThatFallsBehindByBytesIsToldWhatItMissedAndGetsTheRestInOrder)
{
    std::istream& in = openStream();
    ASSERT_EQ(bus->stats().taps, 1u);
    // A second reader that reads nothing until the end.
    const auto probe = bus->openTap();

    // 40 MB in all: more than the socket buffers of the stream hold, so its
    // handler blocks in a write while the bus goes on.
    constexpr int count = 400;
    const std::string pad(100 * 1024, 'x');
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    for (int n = 1; n <= count; ++n) {
        last = bus->post(R"({"to":[],"n":)" + std::to_string(n) + R"(,"pad":")" + pad + R"("})", "p");
        ASSERT_NE(last, 0u);
        first = first == 0 ? last : first;
        ASSERT_LE(probe->queuedBytes(), tapBytes);
    }
    ASSERT_TRUE(bus->waitUntilIdle(bound));
    EXPECT_LE(probe->queuedBytes(), tapBytes);
    EXPECT_LE(probe->queuedMessages(), tapBytes / pad.size());

    const vlm::host::BusTap::Batch kept = probe->take(std::chrono::milliseconds(0));
    ASSERT_FALSE(kept.messages.empty());
    EXPECT_EQ(kept.dropped + kept.messages.size(), static_cast<std::size_t>(count));
    EXPECT_EQ(kept.messages.back().seq, last) << "the newest are kept";
    for (std::size_t i = 1; i < kept.messages.size(); ++i)
        EXPECT_EQ(kept.messages[i].seq, kept.messages[i - 1].seq + 1);

    const auto [shown, streamDropped] = readUpTo(in, last, 3 * count);
    ASSERT_FALSE(shown.empty());
    EXPECT_EQ(shown.back(), last);
    EXPECT_GT(streamDropped, 0u);
    EXPECT_EQ(shown.size() + streamDropped, static_cast<std::size_t>(count));
    EXPECT_TRUE(std::is_sorted(shown.begin(), shown.end()));
    EXPECT_GE(shown.front(), first);

    EXPECT_EQ(bus->stats().tapDropped, kept.dropped + streamDropped);
    EXPECT_EQ(vlm::test::linesWith(log, "bus tap reader behind"), 2) << "one line for each reader's burst";
}

TEST_F(BusTapRouteTest, QuietStreamsGetKeepAliveCommentsAndEveryMessageAsAnEventInBusOrder)
{
    std::istream& in = openStream();
    EXPECT_EQ(response.getContentType(), "text/event-stream");
    ASSERT_EQ(bus->stats().taps, 1u);
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
    const std::string event = readEvent(in);
    EXPECT_NE(event.find("id: " + std::to_string(json->getValue<std::uint64_t>("seq"))), std::string::npos);
    EXPECT_NE(event.find("data: " + body), std::string::npos);
}

TEST_F(BusTapRouteTest, BadPostsAndOtherMethodsAreRefusedWithTheReason)
{
    struct Case {
        std::string body;
        int status;
        std::string reason;
    };
    const Case cases[] = {
        {"{not json", 400, "bus message is not JSON"},
        {"[1]", 400, "bus message must be a JSON object"},
        {R"({"api":"x"})", 400, "list of receiver GUIDs"},
        {R"({"to":"AAAAAAAA-1111-2222-3333-444444444444"})", 400, "list of receiver GUIDs"},
        {R"({"to":[1,2]})", 400, "list of receiver GUIDs"},
        {std::string(5000, ' '), 413, "larger than 4096 bytes"},
    };
    for (const auto& c : cases) {
        const auto answer = vlm::test::post(vlm::host::busTapPath, c.body).sendTo(server->port());
        EXPECT_EQ(answer.status, c.status) << c.body.substr(0, 40);
        EXPECT_NE(answer.body.find(c.reason), std::string::npos) << answer.body;
    }
    EXPECT_EQ(bus->stats().posted, 0u);
    EXPECT_TRUE(receiver->received().empty());

    vlm::test::HttpCall put;
    put.method = Poco::Net::HTTPRequest::HTTP_PUT;
    put.uri = vlm::host::busTapPath;
    const auto answer = put.sendTo(server->port());
    EXPECT_EQ(answer.status, 405);
    EXPECT_EQ(answer.headers.at("Allow"), "GET, POST");
}

TEST_F(BusTapRouteTest, StreamsEndWhenTheBusStops)
{
    std::istream& in = openStream();
    auto ended = std::async(std::launch::async, [&] {
        while (!readBlock(in).empty()) {
        }
    });
    bus->stop();
    EXPECT_EQ(ended.wait_for(bound), std::future_status::ready);
    EXPECT_EQ(bus->stats().taps, 0u);
}

TEST_F(BusTapRouteTest, StreamsEndWhenTheServerStops)
{
    openStream();
    EXPECT_TRUE(server->stop());
    EXPECT_EQ(server->runningHandlers(), 0);
}

} // namespace
