// The host's message bus: who gets a message, on which thread, in which
// order, and what happens to messages nobody can take or no bound admits.

#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "app/MessageBus.h"
#include "host/HostTestSupport.h"
#include "host/RecordingPlugin.h"
#include "support/LogCapture.h"

namespace {

using vlm::host::BusTap;
using vlm::host::MessageBus;
using vlm::test::RecordingPlugin;

const std::string guidA = "{AAAAAAAA-1111-2222-3333-444444444444}";
const std::string guidB = "{BBBBBBBB-1111-2222-3333-444444444444}";
const auto bound = std::chrono::seconds(5);

/// A message for guidA numbered `n`, padded to `size` bytes when that is longer.
std::string toA(int n, std::size_t size = 0)
{
    std::string text = R"({"to":[")" + guidA + R"("],"n":)" + std::to_string(n) + R"(,"pad":")";
    text.append(size > text.size() + 2 ? size - text.size() - 2 : 0, 'x');
    return text + "\"}";
}

TEST(MessageBus, DeliversUnchangedInOrderOnceToEveryNamedPluginAndCountsWhatNoOneCanTake)
{
    vlm::test::LogCapture log;
    MessageBus bus;
    auto a = std::make_shared<RecordingPlugin>();
    auto b = std::make_shared<RecordingPlugin>();
    bus.attach(guidA, a);
    bus.attach(guidB, b);
    // a answers each message to b from inside pushMessage: the bus holds no lock then.
    a->setCallback([&bus](std::string text) { bus.post(std::move(text), guidA); });
    a->answer = [](const std::string& text) { return R"({"to":[")" + guidB + R"("],"answer":)" + text + "}"; };
    bus.start();
    const std::string both = R"({"to":["aaaaaaaa-1111-2222-3333-444444444444",)"
                             R"("{bbbbbbbb-1111-2222-3333-444444444444}", " AAAAAAAA-1111-2222-3333-444444444444 "]})";
    for (const std::string& text : {both, std::string(R"({"to":["CCCCCCCC-0000-0000-0000-000000000000"]})"),
                                    std::string(R"({"api":"x"})"), std::string(R"({"to":"x"})"),
                                    std::string("not json at all"), std::string("[1,2]")})
        ASSERT_NE(bus.post(text, "test"), 0u);
    for (int i = 0; i < 100; ++i)
        ASSERT_NE(bus.post(toA(i), "test"), 0u);
    ASSERT_TRUE(bus.waitUntilIdle(bound));

    const auto gotA = a->received();
    ASSERT_EQ(gotA.size(), 101u);
    EXPECT_EQ(gotA[0].text, both);
    EXPECT_NE(gotA[0].thread, std::this_thread::get_id());
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(gotA[i + 1].text, toA(i));
    const auto gotB = b->received();
    ASSERT_EQ(gotB.size(), 102u);
    EXPECT_EQ(gotB[0].text, both);
    EXPECT_EQ(gotB[1].text, R"({"to":[")" + guidB + R"("],"answer":)" + both + "}");
    EXPECT_EQ(bus.stats().unaddressed, 3u);
    EXPECT_EQ(bus.stats().rejected, 2u);
    EXPECT_TRUE(log.contains("bus: dropped a message from test: not a JSON object: [1,2]"));
}

TEST(MessageBusLimits, RefusesBeyondEachBoundCountsItAndLogsOncePerBurst)
{
    vlm::test::LogCapture log;
    MessageBus::Options options;
    options.queueLimit = 3;
    options.queueByteLimit = 3000;
    options.messageByteLimit = 2000;
    options.tapQueueLimit = 2;
    MessageBus bus(options);  // not started: nothing leaves the queue
    auto receiver = std::make_shared<RecordingPlugin>();
    bus.attach(guidA, receiver);
    const auto tap = bus.openTap();

    ASSERT_NE(bus.post(toA(1, 1000), "p"), 0u);
    ASSERT_NE(bus.post(toA(2, 1000), "p"), 0u);
    EXPECT_EQ(bus.post(toA(3, 1001), "big"), 0u) << "beyond the byte budget";
    ASSERT_NE(bus.post(toA(4, 1000), "p"), 0u) << "exactly the byte budget";
    EXPECT_EQ(bus.post(toA(5), "p"), 0u) << "beyond the count";
    EXPECT_EQ(bus.stats().dropped, 2u);
    EXPECT_EQ(bus.stats().droppedForBytes, 1u);
    EXPECT_EQ(log.errors("bus queue full (2 messages, 2000 bytes, a message of 1001 bytes): dropping messages, the "
                         "first from big"),
              1);

    for (int n = 0; n < 1500; ++n)
        ASSERT_EQ(bus.post(std::string(2001, ' '), "huge"), 0u);
    EXPECT_EQ(bus.stats().oversize, 1500u);
    // The first and the 1000th, not one line per message.
    for (const char* count : {"1", "1000"})
        EXPECT_EQ(log.errors("bus: refused a message of 2001 bytes from huge: larger than 2000 bytes (" +
                             std::string(count) + " refused so far)"),
                  1);
    EXPECT_EQ(vlm::test::linesWith(log, "bus: refused a message"), 2);

    bus.start();
    ASSERT_TRUE(bus.waitUntilIdle(bound));
    const auto got = receiver->received();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].text, toA(1, 1000));
    EXPECT_EQ(got[2].text, toA(4, 1000));
    EXPECT_TRUE(log.contains("bus queue has room again after dropping 2 message(s)"));
    EXPECT_NE(bus.post(toA(6, 2000), "p"), 0u) << "exactly the message bound";

    // The tap, never read, kept the newest two and counted the one it lost.
    ASSERT_TRUE(bus.waitUntilIdle(bound));
    EXPECT_EQ(bus.stats().tapDropped, 2u);
    EXPECT_EQ(log.count("bus tap reader behind (at most 2 messages, 16777216 bytes): 1 message(s) dropped for it so "
                        "far, the last of 1000 bytes",
                        Poco::Message::PRIO_WARNING),
              1);
    const BusTap::Batch batch = tap->take(std::chrono::milliseconds(0));
    EXPECT_EQ(batch.dropped, 2u);
    ASSERT_EQ(batch.messages.size(), 2u);
    EXPECT_EQ(batch.messages[1].text, toA(6, 2000));
}

TEST(MessageBusStop, DropsWhatIsQueuedClosesTapsAndRefusesLaterPosts)
{
    vlm::test::LogCapture log;
    MessageBus bus;  // not started: everything stays queued
    const auto tap = bus.openTap();
    for (int i = 0; i < 4; ++i)
        ASSERT_NE(bus.post("{}", "p"), 0u);
    bus.stop();
    EXPECT_TRUE(log.contains("bus stopped with 4 undelivered message(s)"));
    EXPECT_TRUE(tap->take(bound).closed);
    EXPECT_EQ(bus.post(toA(1), "late"), 0u);
    EXPECT_EQ(bus.stats().dropped, 5u);
    EXPECT_EQ(bus.stats().taps, 0u);
}

} // namespace
