// Splitting a byte stream into frames: empty, truncated, split, boundary and
// oversize input, for both ends of the link.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "rpc/frame_reader.h"
#include "rpc_test_support.h"

namespace pilot_rpc {
namespace {

std::string frame_bytes(std::uint8_t type, std::uint64_t req_id, const std::string& body, std::uint32_t claimed_len)
{
    return test::header_of(type, claimed_len, req_id) + body;
}

std::string frame_bytes(std::uint8_t type, std::uint64_t req_id, const std::string& body)
{
    return frame_bytes(type, req_id, body, static_cast<std::uint32_t>(body.size()));
}

void feed(frame_reader& reader, const std::string& bytes)
{
    std::size_t offset = 0;
    while (offset < bytes.size()) {
        const std::size_t n = std::min(reader.prepare_size(), bytes.size() - offset);
        std::memcpy(reader.prepare_data(), bytes.data() + offset, n);
        reader.commit(n);
        offset += n;
    }
}

// Unknown frame types pass through whole: the reader's owner judges them.
TEST(FrameReader, FramesSplitAtEveryByteComeOutWhole)
{
    const std::string stream = frame_bytes(0, 1, "\x92\x00\xc3") + frame_bytes(1, 0, "abc") + frame_bytes(9, 7, "z");
    frame_reader reader;
    frame_view none;
    EXPECT_EQ(reader.next(none), frame_reader::status::need_more);
    EXPECT_FALSE(reader.header_pending());
    std::vector<std::pair<std::uint64_t, std::string>> seen;
    std::vector<int> types;
    for (char byte : stream) {
        feed(reader, std::string(1, byte));
        frame_view frame;
        while (reader.next(frame) == frame_reader::status::frame) {
            seen.emplace_back(frame.header.req_id, std::string(frame.body));
            types.push_back(frame.header.frame_type);
        }
    }
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], std::make_pair(std::uint64_t{1}, std::string("\x92\x00\xc3")));
    EXPECT_EQ(seen[1], std::make_pair(std::uint64_t{0}, std::string("abc")));
    EXPECT_EQ(seen[2], std::make_pair(std::uint64_t{7}, std::string("z")));
    EXPECT_EQ(types, (std::vector<int>{0, 1, 9}));
}

TEST(FrameReader, ClientRefusesEmptyAndOversizeBodiesForGood)
{
    for (std::uint32_t length : {0u, 10485761u, UINT32_MAX}) {
        frame_reader reader(peer_role::client);
        feed(reader, frame_bytes(0, 1, "", length) + frame_bytes(0, 2, "ok"));
        frame_view frame;
        EXPECT_EQ(reader.next(frame), frame_reader::status::bad_length) << length;
        EXPECT_EQ(reader.next(frame), frame_reader::status::bad_length) << length;
    }
}

TEST(FrameReader, ServiceAcceptsHeartbeatsAndRefusesTheLimit)
{
    frame_reader reader(peer_role::service);
    feed(reader, frame_bytes(0, 0, "") + frame_bytes(0, 1, "", 10485760));
    frame_view frame;
    ASSERT_EQ(reader.next(frame), frame_reader::status::frame);
    EXPECT_TRUE(frame.body.empty());
    EXPECT_EQ(reader.next(frame), frame_reader::status::bad_length);
}

TEST(FrameReader, ResetForgetsBytesAndStickyState)
{
    frame_reader reader;
    feed(reader, frame_bytes(0, 1, "", 0));
    frame_view frame;
    ASSERT_EQ(reader.next(frame), frame_reader::status::bad_length);
    reader.reset();
    feed(reader, frame_bytes(0, 5, "a"));
    ASSERT_EQ(reader.next(frame), frame_reader::status::frame);
    EXPECT_EQ(frame.header.req_id, 5u);
}

}  // namespace
}  // namespace pilot_rpc
