#include "rpc/frame.h"

namespace pilot_rpc {

namespace {

template <typename T>
void put_le(std::uint8_t* out, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
        out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

template <typename T>
T get_le(const std::uint8_t* in)
{
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        value |= static_cast<T>(static_cast<T>(in[i]) << (8 * i));
    return value;
}

}  // namespace

header_bytes encode_header(const frame_header& header)
{
    header_bytes out{};
    out[0] = header.magic;
    out[1] = header.frame_type;
    put_le(out.data() + 4, header.body_len);
    put_le(out.data() + 8, header.req_id);
    put_le(out.data() + 16, header.func_id);
    return out;
}

frame_header decode_header(const std::uint8_t* data)
{
    frame_header header;
    header.magic = data[0];
    header.frame_type = data[1];
    header.body_len = get_le<std::uint32_t>(data + 4);
    header.req_id = get_le<std::uint64_t>(data + 8);
    header.func_id = get_le<std::uint32_t>(data + 16);
    return header;
}

body_len_verdict check_body_len(std::uint32_t body_len)
{
    if (body_len == 0 || body_len > max_buffer_len)
        return body_len_verdict::reject;
    if (body_len == max_buffer_len)
        return body_len_verdict::stall;
    return body_len_verdict::read_body;
}

}  // namespace pilot_rpc
