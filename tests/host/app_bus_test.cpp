// The host's message bus: who gets a message, on which thread, in which
// order, and what happens to messages nobody can take.

#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "app/MessageBus.h"
#include "host/RecordingPlugin.h"
#include "support/LogCapture.h"

namespace {

using vlm::host::BusTap;
using vlm::host::MessageBus;
using vlm::test::RecordingPlugin;

const char* const guidA = "{AAAAAAAA-1111-2222-3333-444444444444}";
const char* const guidB = "{BBBBBBBB-1111-2222-3333-444444444444}";
const auto bound = std::chrono::seconds(5);

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

TEST_F(MessageBusTest, DeliversToEveryNamedPluginInWhateverFormTheGuidIsWritten)
{
    deliver(addressedTo(R"("aaaaaaaa-1111-2222-3333-444444444444","{bbbbbbbb-1111-2222-3333-444444444444}")"));
    EXPECT_EQ(a->received().size(), 1u);
    EXPECT_EQ(b->received().size(), 1u);

    deliver(addressedTo(R"("BBBBBBBB-1111-2222-3333-444444444444")"));
    EXPECT_EQ(a->received().size(), 1u);
    EXPECT_EQ(b->received().size(), 2u);
}

TEST_F(MessageBusTest, HandsOverTheTextUnchangedOnTheBusThreadOncePerPlugin)
{
    const std::string text = addressedTo(std::string("\"") + guidA + "\",\"" + guidA + "\"", R"(,"n":1.50)");
    deliver(text);
    const auto got = a->received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].text, text);
    EXPECT_NE(got[0].thread, std::this_thread::get_id());
}

TEST_F(MessageBusTest, KeepsTheOrderOfPosting)
{
    for (int i = 0; i < 200; ++i)
        ASSERT_NE(bus.post(addressedTo(std::string("\"") + guidB + "\"", ",\"i\":" + std::to_string(i)), "test"), 0u);
    const auto got = b->waitFor(200);
    ASSERT_EQ(got.size(), 200u);
    for (int i = 0; i < 200; ++i)
        EXPECT_NE(got[i].text.find("\"i\":" + std::to_string(i) + "}"), std::string::npos) << i;
}

TEST_F(MessageBusTest, APluginMayAnswerFromInsidePushMessage)
{
    b->answer = [](const std::string&) { return std::string(); };
    a->answer = [](const std::string&) { return addressedTo(std::string("\"") + guidB + "\"", R"(,"answer":true)"); };
    deliver(addressedTo(std::string("\"") + guidA + "\""));
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
    deliver(addressedTo(std::string("\"") + guidA + "\""));
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
    EXPECT_EQ(bus.post(addressedTo(std::string("\"") + guidA + "\""), "late"), 0u);
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
    EXPECT_EQ(log.errors("bus queue full (3 messages): dropping messages, the first from p"), 1);

    bus.start();
    ASSERT_TRUE(bus.waitUntilIdle(bound));
    EXPECT_TRUE(log.contains("bus queue has room again after dropping 2 message(s)"));
    EXPECT_NE(bus.post("{}", "p"), 0u);
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
