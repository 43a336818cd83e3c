#include <future>
#include <sstream>
#include <regex>
#include <thread>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include "EventStreamData.h"
#include "FrontsFixture.h"
#include "host/HttpTestClient.h"

namespace {

// Reads an event stream line by line as a browser's EventSource would.
class StreamReader {
public:
    StreamReader(uint16_t port, const std::string& api) : session("127.0.0.1", port)
    {
        session.setTimeout(Poco::Timespan(5, 0));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/index/api/pilot/" + api,
                                       Poco::Net::HTTPMessage::HTTP_1_1);
        session.sendRequest(request);
        in = &session.receiveResponse(response);
    }

    /// Next line without its line feed; empty optional at the end of the stream.
    std::optional<std::string> line()
    {
        std::string text;
        if (!std::getline(*in, text))
            return std::nullopt;
        return text;
    }

    /// Lines up to and including the one that matches, bounded in count.
    std::vector<std::string> until(const std::function<bool(const std::string&)>& match, int maxLines = 400)
    {
        std::vector<std::string> lines;
        for (int i = 0; i < maxLines; ++i) {
            auto next = line();
            if (!next)
                break;
            lines.push_back(*next);
            if (match(*next))
                break;
        }
        return lines;
    }

    /// Lines up to the end of the next block's head.
    std::vector<std::string> block()
    {
        return until([](const std::string& l) { return l == "retry: 10000"; });
    }

    void drop() { session.abort(); }

    Poco::Net::HTTPClientSession session;
    Poco::Net::HTTPResponse response;
    std::istream* in = nullptr;
};

class EventStream : public vlm::test::FrontsFixture {};

TEST_F(EventStream, WithoutAVehicleTheAnswerIsOneError)
{
    const auto answer = vlm::test::get("/index/api/pilot/pushTelemetry").sendTo(server->port());
    auto json = answer.json();
    ASSERT_TRUE(json) << answer.body;
    EXPECT_EQ(json->getValue<std::string>("api"), "pushTelemetry");
    EXPECT_EQ(json->getValue<std::string>("from"), "station-1");
    EXPECT_EQ(json->getObject("message")->getValue<int>("code"), 4001);
}

TEST_F(EventStream, BlocksCarryRisingIdsAndPendingDataOnce)
{
    vehicleConnected(true);
    StreamReader stream(server->port(), "pushTelemetry");
    EXPECT_EQ(stream.response.getContentType(), "text/event-stream");
    EXPECT_EQ(stream.response.get("Cache-Control"), "no-cache");

    auto head = stream.block();
    ASSERT_EQ(head.size(), 3u);
    EXPECT_EQ(head[0], "id: 1");
    EXPECT_EQ(head[1], "event: pushTelemetry");

    service.service.publish("pushTelemetry", R"({"alt":42})");
    auto lines = stream.until([](const std::string& l) { return l.rfind("data: ", 0) == 0; });
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), R"(data: {"alt":42})");

    // Ids keep rising; the same data never comes twice.
    std::vector<int> ids;
    int dataLines = 0;
    for (const auto& l : stream.until([&](const std::string& l) { return l == "id: 30"; })) {
        if (l.rfind("id: ", 0) == 0)
            ids.push_back(std::stoi(l.substr(4)));
        dataLines += l.rfind("data: ", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(dataLines, 0);
    ASSERT_GE(ids.size(), 2u);
    for (size_t i = 1; i < ids.size(); ++i)
        EXPECT_EQ(ids[i], ids[i - 1] + 1);
}

TEST_F(EventStream, TwoStreamsShareOnePendingText)
{
    vehicleConnected(true);
    StreamReader first(server->port(), "pushTelemetry");
    StreamReader second(server->port(), "pushTelemetry");
    first.block();
    second.block();
    service.service.publish("pushTelemetry", R"({"only":"once"})");

    // Long enough for a loaded machine to deliver the event to one of them.
    auto countData = [](StreamReader& s) {
        int n = 0;
        for (const auto& l : s.until([](const std::string& l) { return l == "id: 60"; }))
            n += l == R"(data: {"only":"once"})" ? 1 : 0;
        return n;
    };
    auto a = std::async(std::launch::async, [&] { return countData(first); });
    auto b = std::async(std::launch::async, [&] { return countData(second); });
    EXPECT_EQ(a.get() + b.get(), 1);
}

TEST_F(EventStream, AVehicleDisconnectEndsTheStreamWithOneErrorThenTheCloseSequence)
{
    const std::string error =
        R"(data: {"code":4001,"id":"UAV-1","msg":"The vehicle not connected","type":"response"})";
    // The handler checks the vehicle before a block's data and again after
    // its flush; a disconnect between the two goes straight to the close
    // sequence. A disconnect while the handler sleeps between blocks must
    // give the error line: the flag changes a little after a block arrived,
    // and a run that still met the narrow window is tried again (bounded).
    std::vector<std::string> tail;
    for (int attempt = 0; attempt < 3; ++attempt) {
        vehicleConnected(true);
        StreamReader stream(server->port(), "updateProgress");
        stream.block();
        stream.block();  // a whole block, flushed
        std::this_thread::sleep_for(std::chrono::milliseconds(30));  // into the pause between blocks
        state().pilotConnected = false;
        auto lines = stream.until([](const std::string&) { return false; });
        ASSERT_GE(lines.size(), 9u);
        ASSERT_LE(std::count(lines.begin(), lines.end(), error), 1);
        tail.assign(lines.end() - 9, lines.end());
        if (tail[3] == error)
            break;
    }
    ASSERT_EQ(tail[0].rfind("id: ", 0), 0u);
    const int id = std::stoi(tail[0].substr(4));
    EXPECT_EQ(tail, (std::vector<std::string>{"id: " + std::to_string(id), "event: updateProgress", "retry: 10000",
                                              error, "", "id: " + std::to_string(id + 1), "event: disconnect",
                                              "data: Connection closed", ""}));
}

TEST(EventStreamData, EveryLineGetsItsOwnDataPrefixSoNoneForgesAField)
{
    struct Case {
        std::string text;
        std::string framed;
    };
    const Case cases[] = {
        {R"({"alt":42})", "data: {\"alt\":42}\n\n"},
        {"a\nb", "data: a\ndata: b\n\n"},
        {"a\r\nb", "data: a\ndata: b\n\n"},
        {"a\rb", "data: a\ndata: b\n\n"},
        {"a\n\rb", "data: a\ndata: \ndata: b\n\n"},
        {"a\r\n\r\nb", "data: a\ndata: \ndata: b\n\n"},
        {"a\n", "data: a\ndata: \n\n"},
        {"\nid: 9\nevent: x\r\nretry: 1\rdata: y", "data: \ndata: id: 9\ndata: event: x\ndata: retry: 1\ndata: data: y\n\n"},
    };
    for (const auto& c : cases) {
        std::ostringstream out;
        vlm::writeEventData(out, c.text);
        EXPECT_EQ(out.str(), c.framed) << c.text;
    }
}

TEST_F(EventStream, APushedTextWithLineBreaksArrivesAsDataLinesOfOneEvent)
{
    vehicleConnected(true);
    StreamReader stream(server->port(), "pushTelemetry");
    stream.block();
    // Valid JSON whose whitespace holds every kind of line break and a blank
    // line, which unframed would end the event early.
    service.service.publish("pushTelemetry", "{\"a\":1,\n\n\"b\":\r\n2\r}");
    auto lines = stream.until([](const std::string& l) { return l == "data: }"; });
    const std::vector<std::string> expected{R"(data: {"a":1,)", "data: ", R"(data: "b":)", "data: 2", "data: }"};
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(lines.end() - 5, lines.end()), expected);
    EXPECT_EQ(stream.line(), std::optional<std::string>(""));  // the event ends there
}

TEST_F(EventStream, AClientThatGoesAwayFreesItsThread)
{
    vehicleConnected(true);
    {
        StreamReader stream(server->port(), "pushTelemetry");
        stream.block();
        EXPECT_EQ(server->runningHandlers(), 1);
        stream.drop();
    }
    // The handler notices the failed write on one of its next ticks.
    EXPECT_TRUE(vlm::test::eventually([&] { return server->runningHandlers() == 0; }, std::chrono::seconds(3)));
}

} // namespace
