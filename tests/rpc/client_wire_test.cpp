// Exact bytes on the wire, read by a raw socket peer.

#include <gtest/gtest.h>

#include "raw_peer.h"
#include "rpc/codec.h"
#include "rpc/frame.h"
#include "rpc/function_id.h"
#include "rpc/rpc_client.h"
#include "rpc_test_support.h"

namespace pilot_rpc::test {
namespace {

class ClientWire : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(client.connect("127.0.0.1", peer.port(), false, 3));
        ASSERT_TRUE(peer.accept(3s));
    }

    raw_peer peer;
    rpc_client client;
};

TEST_F(ClientWire, HeartbeatIsAHeaderOfTwentyBytesAndNothingElse)
{
    client.enable_auto_heartbeat(true, 20ms);
    const auto heartbeat = peer.read_exact(20, 3s);
    ASSERT_TRUE(heartbeat);
    EXPECT_EQ(*heartbeat, header_of(0, 0, 0, 0));
    // The next 20 bytes are the next heartbeat, not a body of the first.
    EXPECT_EQ(peer.read_exact(20, 3s).value_or(""), header_of(0, 0, 0, 0));
}

TEST_F(ClientWire, CallAndSubscribeFramesCarryIdFunctionIdAndArgumentsOnly)
{
    EXPECT_EQ(client.call_future("setSelfGuid", std::string("{D639}")).id, 1u);
    const std::string call_body("\x91\xa6{D639}", 8);
    EXPECT_EQ(peer.read_exact(20 + 8, 3s).value_or(""), header_of(0, 8, 1, 0x9571C9A0) + call_body);
    // Without arguments: an empty array.
    client.call_future("reportRPCSub");
    EXPECT_EQ(peer.read_exact(21, 3s).value_or(""), header_of(0, 1, 2, 0xD7A17A50) + std::string("\x90", 1));
    // A subscription: the topic and an empty token.
    client.subscribe("heartBeat", [](std::string_view) {});
    const std::string subscribe_body("\x92\xa9heartBeat\xa0", 12);
    EXPECT_EQ(peer.read_exact(20 + 12, 3s).value_or(""), header_of(1, 12, 0, 0x136C4ED4) + subscribe_body);
}

TEST_F(ClientWire, IdsOfBothKindsCountFromOneAndCallbackIdsSetBit63)
{
    EXPECT_EQ(client.call_future("a").id, 1u);
    EXPECT_EQ(client.call_future("a").id, 2u);
    client.call_with_callback<0>("flightControl", [](std::error_code, std::string_view) {}, std::string("{}"),
                                 std::string("pushRoute"));
    client.call_with_callback<0>("flightControl", [](std::error_code, std::string_view) {}, true);
    const std::string first_body("\x92\xa2{}\xa9pushRoute", 14);
    const auto bytes = peer.read_exact(2 * 21 + 20 + first_body.size() + 20 + 2, 3s);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes->substr(42, 34), header_of(0, 14, 0x8000000000000001ULL, 0xCF15697B) + first_body);
    EXPECT_EQ(bytes->substr(76, 20), header_of(0, 2, 0x8000000000000002ULL, 0xCF15697B));
}

TEST_F(ClientWire, FrameTheSocketCannotTakeAtOnceIsFinishedInOrderBeforeLaterFrames)
{
    // The peer reads nothing yet, so a 4 MB frame only partly fits into the
    // socket: the caller's own send takes the first part, the I/O thread must
    // send the rest from where it stopped, and the next frame must wait.
    const std::string big(4u << 20, 'x');
    client.call_future("big", big);
    EXPECT_EQ(client.outbox_size(), 1u);
    client.call_future("small", 7);
    EXPECT_EQ(client.outbox_size(), 2u);

    const msgpack::sbuffer big_body = pack_args(big);
    const std::string expected = header_of(0, static_cast<std::uint32_t>(big_body.size()), 1, function_id("big")) +
                                 std::string(big_body.data(), big_body.size()) +
                                 header_of(0, 2, 2, function_id("small")) + std::string("\x91\x07", 2);
    const auto bytes = peer.read_exact(expected.size(), 10s);
    ASSERT_TRUE(bytes);
    EXPECT_TRUE(*bytes == expected) << "the two frames arrived altered or interleaved";
}

// A write that fails on a live link keeps its frame at the head of the outbox:
// after the reconnection the replayed subscription and every heartbeat queue
// behind it, and only a failed read lets frames leave again.
TEST_F(ClientWire, FailedWriteHoldsTheReplayAndHeartbeatsUntilAReadFails)
{
    client.enable_auto_reconnect();
    client.subscribe("heartBeat", [](std::string_view) {});
    const std::string subscription = header_of(1, 12, 0, 0x136C4ED4) + std::string("\x92\xa9heartBeat\xa0", 12);
    ASSERT_EQ(peer.read_exact(subscription.size(), 3s).value_or(""), subscription);

    // The peer reads nothing more, so an 8 MB frame is still being written
    // when the peer resets the connection under it.
    client.call_future("big", std::string(8u << 20, 'x'));
    ASSERT_FALSE(wait_until([&] { return client.outbox_size() == 0; }, 300ms)) << "the frame left at once";
    peer.reset_client();

    ASSERT_TRUE(wait_until([&] { return client.has_connected() && client.reconnect_count() == 1; }, 10s));
    ASSERT_TRUE(peer.accept_newest(3s));
    client.enable_auto_heartbeat(true, 20ms);
    // The failed frame, the replayed subscription and at least two heartbeats.
    EXPECT_TRUE(wait_until([&] { return client.outbox_size() >= 4; })) << client.outbox_size();
    EXPECT_FALSE(peer.read_exact(1, 500ms)) << "a frame passed the failed one";
    EXPECT_TRUE(client.has_connected());

    peer.drop_client();  // the read side fails, and close() empties the outbox
    ASSERT_TRUE(wait_until([&] { return client.reconnect_count() == 2; }, 10s));
    ASSERT_TRUE(peer.accept_newest(3s));
    EXPECT_EQ(peer.read_exact(subscription.size(), 3s).value_or(""), subscription);
}

}  // namespace
}  // namespace pilot_rpc::test
