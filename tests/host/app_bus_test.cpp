// The host's message bus: who gets a message, on which thread, in which
// order, and what happens to messages nobody can take.

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

const char* const guidA = "{AAAAAAAA-1111-2222-3333-444444444444}";
const char* const guidB = "{BBBBBBBB-1111-2222-3333-444444444444}";
const auto bound = std::chrono::seconds(5);

std::string quoted(const std::string& guid)
{
    return "\"" + guid + "\"";
}

std::string addressedTo(const std::string& receivers, const std::string& extra = "")
{
    return R"({"to":[)" + receivers + R"(],"api":"x")" + extra + "}";
}

class MessageBusTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        bus.attach(guidA, a);
        bus.attach(guidB, b);
        a->setCallback([this](std::string text) { bus.post(std::move(text), guidA); });
        bus.start();
    }

    /// Posts and waits until the bus has handled everything.
    void deliver(const std::string& text)
    {
        ASSERT_NE(bus.post(text, "test"), 0u);
        ASSERT_TRUE(bus.waitUntilIdle(bound));
    }

    vlm::test::LogCapture log;
    MessageBus bus;
    std::shared_ptr<RecordingPlugin> a = std::make_shared<RecordingPlugin>();
    std::shared_ptr<RecordingPlugin> b = std::make_shared<RecordingPlugin>();
};

TEST(BusGuid, ComparesWithoutBracesAndCase)
{
    EXPECT_EQ(vlm::host::normalizeGuid("{d639b3d5-a951-4bc7-a629-91255ebf9638}"),
              "D639B3D5-A951-4BC7-A629-91255EBF9638");
    EXPECT_EQ(vlm::host::normalizeGuid(" D639B3D5-A951-4BC7-A629-91255EBF9638 "),
              "D639B3D5-A951-4BC7-A629-91255EBF9638");
    EXPECT_EQ(vlm::host::normalizeGuid(""), "");
}

TEST_F(MessageBusTest, DeliversTheTextUnchangedOnTheBusThreadOnceToEveryNamedPluginHoweverItsGuidIsWritten)
{
    const std::string both =
        addressedTo(R"("aaaaaaaa-1111-2222-3333-444444444444","{bbbbbbbb-1111-2222-3333-444444444444}")", R"(,"n":1.50)");
    deliver(both);
    deliver(addressedTo(R"("BBBBBBBB-1111-2222-3333-444444444444")"));
    deliver(addressedTo(quoted(guidA) + "," + quoted(guidA)));
    const auto got = a->received();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].text, both);
    EXPECT_NE(got[0].thread, std::this_thread::get_id());
    EXPECT_EQ(b->received().size(), 2u);
}

TEST_F(MessageBusTest, KeepsTheOrderOfPosting)
{
    for (int i = 0; i < 200; ++i)
        ASSERT_NE(bus.post(addressedTo(quoted(guidB), ",\"i\":" + std::to_string(i)), "test"), 0u);
    const auto got = b->waitFor(200);
    ASSERT_EQ(got.size(), 200u);
    for (int i = 0; i < 200; ++i)
        EXPECT_NE(got[i].text.find("\"i\":" + std::to_string(i) + "}"), std::string::npos) << i;
}

TEST_F(MessageBusTest, APluginMayAnswerFromInsidePushMessage)
{
    b->answer = [](const std::string&) { return std::string(); };
    a->answer = [](const std::string&) { return addressedTo(quoted(guidB), R"(,"answer":true)"); };
    deliver(addressedTo(quoted(guidA)));
    const auto got = b->waitFor(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_NE(got[0].text.find("\"answer\":true"), std::string::npos);
}

TEST_F(MessageBusTest, MessagesNoPluginCanTakeAreCountedAndDropped)
{
    deliver(addressedTo("\"CCCCCCCC-0000-0000-0000-000000000000\""));
    deliver(R"({"api":"noReceivers"})");
    deliver(R"({"to":"not-a-list"})");
    deliver("not json at all");
    deliver("[1,2]");
    EXPECT_TRUE(a->received().empty());
    EXPECT_TRUE(b->received().empty());
    const auto stats = bus.stats();
    EXPECT_EQ(stats.posted, 5u);
    EXPECT_EQ(stats.unaddressed, 3u);
    EXPECT_EQ(stats.rejected, 2u);
    EXPECT_TRUE(log.contains("bus: dropped a message from test: not JSON"));
    EXPECT_TRUE(log.contains("bus: dropped a message from test: not a JSON object: [1,2]"));
}

TEST_F(MessageBusTest, EveryMessageReachesEveryTapInOrder)
{
    auto first = bus.openTap();
    auto second = bus.openTap();
    deliver(addressedTo(quoted(guidA)));
    deliver("broken");
    for (const auto& tap : {first, second}) {
        const BusTap::Batch batch = tap->take(std::chrono::milliseconds(0));
        ASSERT_EQ(batch.messages.size(), 2u);
        EXPECT_TRUE(batch.messages[0].wellFormed);
        EXPECT_EQ(batch.messages[0].origin, "test");
        EXPECT_FALSE(batch.messages[1].wellFormed);
        EXPECT_EQ(batch.messages[1].text, "broken");
        EXPECT_LT(batch.messages[0].seq, batch.messages[1].seq);
    }
    EXPECT_EQ(bus.stats().taps, 2u);
    bus.closeTap(first);
    EXPECT_EQ(bus.stats().taps, 1u);
    EXPECT_TRUE(first->take(std::chrono::milliseconds(0)).closed);
}

TEST_F(MessageBusTest, StopClosesTapsAndRefusesLaterPosts)
{
    auto tap = bus.openTap();
    bus.stop();
    EXPECT_TRUE(tap->take(bound).closed);
    EXPECT_EQ(bus.post(addressedTo(quoted(guidA)), "late"), 0u);
    EXPECT_EQ(bus.stats().dropped, 1u);
    EXPECT_TRUE(bus.openTap()->take(std::chrono::milliseconds(0)).closed);
}

TEST(MessageBusLimits, AFullQueueRefusesAndSaysSoOnce)
{
    vlm::test::LogCapture log;
    MessageBus::Options options;
    options.queueLimit = 3;
    MessageBus bus(options);  // not started: nothing leaves the queue
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(bus.post("{}", "p"), 0u);
    EXPECT_EQ(bus.post("{}", "p"), 0u);
    EXPECT_EQ(bus.post("{}", "p"), 0u);
    EXPECT_EQ(bus.stats().dropped, 2u);
    EXPECT_EQ(bus.stats().droppedForBytes, 0u);
    EXPECT_EQ(bus.stats().queued, 3u);
    EXPECT_EQ(log.errors("bus queue full (3 messages, 6 bytes, a message of 2 bytes): dropping messages, the "
                         "first from p"),
              1);

    bus.start();
    ASSERT_TRUE(bus.waitUntilIdle(bound));
    EXPECT_TRUE(log.contains("bus queue has room again after dropping 2 message(s)"));
    EXPECT_NE(bus.post("{}", "p"), 0u);
}

// A JSON message for guidA padded to `size` bytes, numbered `n`.
std::string paddedMessage(std::size_t size, int n)
{
    std::string text = R"({"to":[")" + std::string(guidA) + R"("],"n":)" + std::to_string(n) + R"(,"pad":")";
    text.append(size - text.size() - 2, 'x');
    return text + "\"}";
}

TEST(MessageBusLimits, AFewHugeMessagesFillTheByteBudgetAndTheRestIsRefused)
{
    vlm::test::LogCapture log;
    MessageBus::Options options;
    options.queueByteLimit = 4u << 20;
    options.messageByteLimit = 2u << 20;
    MessageBus bus(options);  // not started: nothing leaves the queue
    auto receiver = std::make_shared<RecordingPlugin>();
    bus.attach(guidA, receiver);

    const std::size_t huge = 1398000;  // three fit in 4 MiB with 304 bytes to spare
    int accepted = 0;
    for (int n = 1; n <= 6; ++n) {
        accepted += bus.post(paddedMessage(huge, n), "sender-a") != 0 ? 1 : 0;
        const MessageBus::Stats stats = bus.stats();
        EXPECT_LE(stats.queuedBytes, options.queueByteLimit);
        EXPECT_EQ(stats.queuedBytes, stats.queued * huge);
    }
    EXPECT_EQ(accepted, 3);
    EXPECT_EQ(bus.post(paddedMessage(1000, 7), "sender-b"), 0u) << "a small message does not fit either";
    MessageBus::Stats stats = bus.stats();
    EXPECT_EQ(stats.dropped, 4u);
    EXPECT_EQ(stats.droppedForBytes, 4u);
    EXPECT_EQ(stats.oversize, 0u);
    EXPECT_EQ(log.errors("bus queue full (3 messages, 4194000 bytes, a message of 1398000 bytes): dropping "
                         "messages, the first from sender-a"),
              1);

    bus.start();
    ASSERT_TRUE(bus.waitUntilIdle(bound));
    const auto got = receiver->waitFor(3);
    ASSERT_EQ(got.size(), 3u);
    for (int n = 1; n <= 3; ++n)
        EXPECT_EQ(got[n - 1].text, paddedMessage(huge, n)) << "in order, unchanged";
    EXPECT_TRUE(log.contains("bus queue has room again after dropping 4 message(s)"));
    stats = bus.stats();
    EXPECT_EQ(stats.queued, 0u);
    EXPECT_EQ(stats.queuedBytes, 0u);
    EXPECT_NE(bus.post(paddedMessage(huge, 8), "sender-a"), 0u);
    ASSERT_TRUE(bus.waitUntilIdle(bound));
    EXPECT_EQ(receiver->received().size(), 4u);
}

TEST(MessageBusLimits, AMessageLargerThanTheBoundIsRefusedAndLoggedOncePerBurst)
{
    vlm::test::LogCapture log;
    MessageBus::Options options;
    options.messageByteLimit = 5000;
    MessageBus bus(options);
    auto receiver = std::make_shared<RecordingPlugin>();
    bus.attach(guidA, receiver);
    bus.start();

    for (int n = 1; n <= 1500; ++n)
        EXPECT_EQ(bus.post(paddedMessage(5001, n), "sender-a"), 0u);
    EXPECT_NE(bus.post(paddedMessage(5000, 0), "sender-a"), 0u) << "exactly the bound is taken";
    ASSERT_TRUE(bus.waitUntilIdle(bound));

    const MessageBus::Stats stats = bus.stats();
    EXPECT_EQ(stats.oversize, 1500u);
    EXPECT_EQ(stats.dropped, 0u);
    EXPECT_EQ(stats.posted, 1u);
    ASSERT_EQ(receiver->received().size(), 1u);
    EXPECT_EQ(receiver->received()[0].text, paddedMessage(5000, 0));
    // The first and the 1000th, not one line per message.
    EXPECT_EQ(log.errors("bus: refused a message of 5001 bytes from sender-a: larger than 5000 bytes (1 refused so "
                         "far)"),
              1);
    EXPECT_EQ(log.errors("bus: refused a message of 5001 bytes from sender-a: larger than 5000 bytes (1000 refused "
                         "so far)"),
              1);
    EXPECT_EQ(vlm::test::linesWith(log, "bus: refused a message"), 2);
}

TEST(MessageBusLimits, StopDropsWhatIsStillQueuedAndLogsHowMuch)
{
    vlm::test::LogCapture log;
    MessageBus bus;
    for (int i = 0; i < 4; ++i)
        bus.post("{}", "p");
    bus.stop();
    EXPECT_EQ(bus.stats().dropped, 4u);
    EXPECT_TRUE(log.contains("bus stopped with 4 undelivered message(s)"));
}

TEST(BusTapQueue, ASlowReaderLosesTheOldestAndLearnsHowMany)
{
    BusTap tap(2);
    for (std::uint64_t seq = 1; seq <= 5; ++seq)
        tap.offer({seq, "{}", "p", true});
    const BusTap::Batch batch = tap.take(std::chrono::milliseconds(0));
    EXPECT_EQ(batch.dropped, 3u);
    ASSERT_EQ(batch.messages.size(), 2u);
    EXPECT_EQ(batch.messages[0].seq, 4u);
    EXPECT_EQ(batch.messages[1].seq, 5u);
    EXPECT_EQ(tap.take(std::chrono::milliseconds(0)).dropped, 0u);
}

TEST(BusTapQueue, AReaderBehindByBytesLosesTheOldestAndNeverHoldsMore)
{
    BusTap tap(1000, 3000);
    std::size_t dropped = 0;
    for (std::uint64_t seq = 1; seq <= 10; ++seq) {
        dropped += tap.offer({seq, std::string(1000, 'x'), "p", false}).dropped;
        EXPECT_LE(tap.queuedBytes(), 3000u);
    }
    EXPECT_EQ(tap.queuedMessages(), 3u);
    EXPECT_EQ(dropped, 7u);

    // Larger than the whole budget: not shown, counted, and what waits stays.
    const BusTap::Offered huge = tap.offer({11, std::string(3001, 'x'), "p", false});
    EXPECT_EQ(huge.dropped, 1u);
    EXPECT_EQ(huge.droppedTotal, 8u);
    EXPECT_EQ(tap.queuedMessages(), 3u);

    const BusTap::Batch batch = tap.take(std::chrono::milliseconds(0));
    EXPECT_EQ(batch.dropped, 8u);
    ASSERT_EQ(batch.messages.size(), 3u);
    EXPECT_EQ(batch.messages[0].seq, 8u);
    EXPECT_EQ(batch.messages[2].seq, 10u);
    EXPECT_EQ(tap.queuedBytes(), 0u);
}

TEST(BusTapQueue, TakeWakesOnAMessageOrTheClose)
{
    BusTap tap(10);
    std::thread offerer([&] { tap.offer({1, "{}", "p", true}); });
    EXPECT_EQ(tap.take(bound).messages.size(), 1u);
    offerer.join();
    std::thread closer([&] { tap.close(); });
    EXPECT_TRUE(tap.take(bound).closed);
    closer.join();
}

} // namespace
