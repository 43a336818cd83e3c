// Exact bytes on the wire, read by a raw socket peer.

#include <gtest/gtest.h>

#include "raw_peer.h"
#include "rpc/codec.h"
#include "rpc_test_support.h"

namespace pilot_rpc::test {
namespace {

const std::string subscription = header_of(1, 12, 0, 0x136C4ED4) + std::string("\x92\xa9heartBeat\xa0", 12);

class ClientWire : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(client.connect("127.0.0.1", peer.port(), false, 3));
        ASSERT_TRUE(peer.accept_newest(3s));
    }

    raw_peer peer;
    rpc_client client;
};

// Future ids and callback ids count from one each; callback ids set bit 63.
// Bodies carry only the arguments; a subscription carries an empty token.
TEST_F(ClientWire, FramesCarryTheirIdFunctionIdAndArgumentsOnlyAndHeartbeatsNothing)
{
    EXPECT_EQ(client.call_future("setSelfGuid", std::string("{D639}")).id, 1u);
    EXPECT_EQ(client.call_future("reportRPCSub").id, 2u);
    client.call_with_callback<0>("flightControl", [](std::error_code, std::string_view) {}, std::string("{}"),
                                 std::string("pushRoute"));
    client.subscribe("heartBeat", [](std::string_view) {});
    const std::string expected =
        header_of(0, 8, 1, 0x9571C9A0) + std::string("\x91\xa6{D639}", 8) + header_of(0, 1, 2, 0xD7A17A50) + "\x90" +
        header_of(0, 14, 0x8000000000000001ULL, 0xCF15697B) + std::string("\x92\xa2{}\xa9pushRoute", 14) + subscription;
    EXPECT_EQ(peer.read_exact(expected.size(), 3s).value_or(""), expected);
    // A heartbeat is a bare header, sent only while connected.
    client.enable_auto_heartbeat(true, 20ms);
    EXPECT_EQ(peer.read_exact(20, 3s).value_or(""), header_of(0, 0, 0));
    client.close();
    EXPECT_FALSE(wait_until([&] { return client.outbox_size() > 0; }, 200ms));
}

TEST_F(ClientWire, FrameTheSocketCannotTakeAtOnceIsFinishedInOrderBeforeLaterFrames)
{
    // The peer reads nothing yet, so a 4 MB frame only partly fits into the
    // socket: the I/O thread must send the rest from where the caller's own
    // send stopped, and the next frame must wait.
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
