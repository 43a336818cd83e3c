// Pure pieces: header layout, length rule, function ids, bodies, req_result.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "rpc/codec.h"
#include "rpc/frame.h"
#include "rpc/function_id.h"
#include "rpc/req_result.h"

namespace pilot_rpc {
namespace {

std::string bytes_of(const msgpack::sbuffer& buffer) { return std::string(buffer.data(), buffer.size()); }

TEST(FrameHeader, EncodesLittleEndianFieldsAtTheirOffsets)
{
    frame_header header;
    header.frame_type = topic_frame;
    header.body_len = 0x01020304;
    header.req_id = 0x8000000000000001ULL;
    header.func_id = 0x136C4ED4;
    const header_bytes bytes = encode_header(header);
    const header_bytes expected{0x27, 0x01, 0x00, 0x00, 0x04, 0x03, 0x02, 0x01, 0x01, 0x00,
                                0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0xd4, 0x4e, 0x6c, 0x13};
    EXPECT_EQ(bytes, expected);
}

TEST(FunctionId, StopsAtTheFirstNul)
{
    using namespace std::string_literals;
    EXPECT_EQ(function_id("heartBeat\0tail"s), 0x136C4ED4u);
    EXPECT_EQ(function_id("\0heartBeat"s), 0xD41D8CD9u);
}

TEST(UnpackBody, ConvertsLeadingElementsAndIgnoresTheRest)
{
    const std::string body = bytes_of(pack_args(0, std::string("x"), 3));
    const auto [code] = unpack_body<int>(body);
    EXPECT_EQ(code, 0);
    const auto [c, text] = unpack_body<int, std::string>(body);
    EXPECT_EQ(c, 0);
    EXPECT_EQ(text, "x");
}

TEST(UnpackBody, EveryKindOfMismatchHasTheOneText)
{
    const std::string wrong_type = bytes_of(pack_args(std::string("x")));
    const std::string too_short = bytes_of(pack_args(0));
    const std::string not_array = std::string("\x05", 1);
    const std::string truncated = std::string("\x92\xa5" "ab", 4);
    const std::string lying_count = std::string("\xdd\xff\xff\xff\xff\x00", 6);
    for (const std::string& body : {wrong_type, too_short, not_array, truncated, lying_count, std::string()}) {
        try {
            unpack_body<int, std::string>(body);
            ADD_FAILURE() << "accepted a bad body of " << body.size() << " bytes";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "unpack failed: Args not match!");
        }
    }
}

TEST(Publication, DecodesTheTripleAndRefusesOtherShapes)
{
    const std::string body = bytes_of(pack_publication(0, "heartBeat", "{}"));
    const publication event = unpack_publication(body);
    EXPECT_EQ(event.topic, "heartBeat");
    EXPECT_EQ(event.data, "{}");
    EXPECT_THROW(unpack_publication(bytes_of(pack_args(0, std::string("t")))), std::invalid_argument);
    EXPECT_THROW(unpack_publication(std::string("\xc1", 1)), std::invalid_argument);
}

TEST(ReqResult, UndecodableValueIsAnUnpackError)
{
    const req_result result(bytes_of(pack_args(0, std::string("text"))));
    EXPECT_THROW(result.value<int>(), std::invalid_argument);
    EXPECT_THROW(req_result(std::string("\xc1", 1)).check(), std::invalid_argument);
}

// The size the plug-in checks against the frame limit must be what the
// packer really produces, at every boundary where MessagePack changes the
// width of a length prefix.
TEST(PackedSize, MatchesThePackedBodyAtEveryLengthPrefixBoundary)
{
    for (std::size_t length : {0u, 31u, 32u, 255u, 256u, 65535u, 65536u, 70000u}) {
        const std::string text(length, 'x');
        EXPECT_EQ(packed_args_size(text), pack_args(text).size()) << length;
        EXPECT_EQ(packed_args_size(text, std::string("pushRoute")), pack_args(text, std::string("pushRoute")).size())
            << length;
    }
    EXPECT_EQ(packed_args_size(), pack_args().size());
    EXPECT_EQ(packed_args_size(std::string("k"), 70000, true, -5), pack_args(std::string("k"), 70000, true, -5).size());
}

TEST(FrameLimit, AFrameFitsOnlyBelowTheLimitHeaderIncluded)
{
    EXPECT_TRUE(frame_fits(max_frame_size - 1));
    EXPECT_FALSE(frame_fits(max_frame_size));
    EXPECT_FALSE(frame_fits(max_frame_size + 1));
    EXPECT_EQ(max_frame_size, 10485760u);
}

}  // namespace
}  // namespace pilot_rpc
