// Pure pieces: header layout, function ids, the length rules of both ends
// and the packed size the plug-in checks before sending.

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "rpc/codec.h"
#include "rpc/frame_reader.h"
#include "rpc_test_support.h"

namespace pilot_rpc {
namespace {

void feed(frame_reader& reader, const std::string& bytes)
{
    for (std::size_t offset = 0; offset < bytes.size();) {
        const std::size_t n = std::min(reader.prepare_size(), bytes.size() - offset);
        std::memcpy(reader.prepare_data(), bytes.data() + offset, n);
        reader.commit(n);
        offset += n;
    }
}

TEST(FrameHeader, EncodesLittleEndianFieldsAtTheirOffsetsAndHashesNamesUpToANul)
{
    const header_bytes expected{0x27, 0x01, 0x00, 0x00, 0x04, 0x03, 0x02, 0x01, 0x01, 0x00,
                                0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0xd4, 0x4e, 0x6c, 0x13};
    EXPECT_EQ(encode_header(frame_header{frame_magic, topic_frame, 0x01020304, 0x8000000000000001ULL, 0x136C4ED4}),
              expected);
    using namespace std::string_literals;
    EXPECT_EQ(function_id("heartBeat\0tail"s), 0x136C4ED4u);
    EXPECT_EQ(function_id("\0heartBeat"s), 0xD41D8CD9u);
}

// Unknown frame types pass through whole: the reader's owner judges them.
TEST(FrameReader, FramesSplitAtEveryByteComeOutWhole)
{
    const std::string body("\x92\x00\xc3", 3);
    const std::string stream = test::header_of(0, 3, 1) + body + test::header_of(1, 3, 0) + "abc" +
                               test::header_of(9, 1, 7) + "z";
    frame_reader reader;
    std::string seen;  // type, id and body of each frame
    for (char byte : stream) {
        feed(reader, std::string(1, byte));
        frame_view frame;
        while (reader.next(frame) == frame_reader::status::frame)
            seen += std::to_string(frame.header.frame_type) + "/" + std::to_string(frame.header.req_id) + "/" +
                    std::string(frame.body) + ";";
    }
    EXPECT_EQ(seen, "0/1/" + body + ";1/0/abc;9/7/z;");
}

// A refused length is sticky: the valid frame behind it never comes out,
// until reset() (a new connection) forgets it.
TEST(FrameReader, EachEndsLengthRuleAtItsBoundaries)
{
    using status = frame_reader::status;
    const auto client = peer_role::client;
    const auto service = peer_role::service;
    for (const auto& [role, length, expected] : std::vector<std::tuple<peer_role, std::uint32_t, status>>{
             {client, 0, status::bad_length}, {client, 10485759, status::frame}, {client, 10485760, status::stalled},
             {client, 10485761, status::bad_length}, {client, UINT32_MAX, status::bad_length},
             {service, 0, status::frame}, {service, 10485759, status::frame}, {service, 10485760, status::bad_length}}) {
        SCOPED_TRACE(std::to_string(length) + (role == peer_role::client ? " client" : " service"));
        frame_reader reader(role);
        const std::string body = expected == status::frame ? std::string(length, 'b') : "";
        feed(reader, test::header_of(0, length, 1) + body + test::header_of(0, 2, 2) + "ok");
        frame_view frame;
        ASSERT_EQ(reader.next(frame), expected);
        if (expected == status::frame) {
            EXPECT_EQ(frame.body.size(), length);
            continue;
        }
        EXPECT_EQ(reader.next(frame), expected);
        reader.reset();
        feed(reader, test::header_of(0, 1, 5) + "a");
        ASSERT_EQ(reader.next(frame), status::frame);
        EXPECT_EQ(frame.header.req_id, 5u);
    }
}

// The size the plug-in checks against the frame limit must be what the packer
// really produces, at every width change of a MessagePack length prefix.
TEST(PackedSize, MatchesThePackedBodyAtEveryLengthPrefixBoundary)
{
    for (std::size_t length : {0u, 31u, 32u, 255u, 256u, 65535u, 65536u, 70000u}) {
        const std::string text(length, 'x');
        EXPECT_EQ(packed_args_size(text), pack_args(text).size()) << length;
        EXPECT_EQ(call_frame_size(text, std::string("pushRoute")),
                  header_size + pack_args(text, std::string("pushRoute")).size())
            << length;
    }
    EXPECT_EQ(packed_args_size(), pack_args().size());
    EXPECT_EQ(packed_args_size(std::string("k"), 70000, true, -5), pack_args(std::string("k"), 70000, true, -5).size());
    // The header counts against the limit: a frame of exactly the limit is refused.
    EXPECT_TRUE(frame_fits(10485759));
    EXPECT_FALSE(frame_fits(10485760));
}

}  // namespace
}  // namespace pilot_rpc
