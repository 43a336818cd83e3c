// Feeds arbitrary bytes through what the client does with received data:
// stream framing with the length rules, then response and publication decoding.
// The first input byte picks the read sizes, so frames are split at varying
// points as a socket would split them.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include "rpc/codec.h"
#include "rpc/frame_reader.h"
#include "rpc/req_result.h"

namespace {

void decode_response(std::string_view body)
{
    const pilot_rpc::req_result result(body);
    try {
        result.check();
    } catch (const std::logic_error&) {
    }
    try {
        (void)result.value<int>();
    } catch (const std::logic_error&) {
    }
    try {
        (void)result.value<bool>();
    } catch (const std::logic_error&) {
    }
    try {
        (void)result.value<std::string>();
    } catch (const std::logic_error&) {
    }
}

void decode_publication(std::string_view body)
{
    try {
        const pilot_rpc::publication event = pilot_rpc::unpack_publication(body);
        // Non-empty views must lie inside the body they came from: the handler
        // reads them after the decoder's own memory is reused.
        for (const std::string_view view : {event.topic, event.data})
            if (!view.empty() && (view.data() < body.data() || view.data() + view.size() > body.data() + body.size()))
                __builtin_trap();
    } catch (const std::invalid_argument&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t chunk = std::size_t{data[0]} % 64 + 1;
    ++data;
    --size;

    pilot_rpc::frame_reader reader(pilot_rpc::peer_role::client);
    std::size_t offset = 0;
    while (offset < size) {
        const std::size_t n = std::min({chunk, size - offset, reader.prepare_size()});
        std::memcpy(reader.prepare_data(), data + offset, n);
        reader.commit(n);
        offset += n;
        for (;;) {
            pilot_rpc::frame_view frame;
            const auto status = reader.next(frame);
            if (status == pilot_rpc::frame_reader::status::need_more)
                break;
            if (status != pilot_rpc::frame_reader::status::frame)
                return 0;  // the client closes or stops reading here
            if (frame.header.frame_type == pilot_rpc::call_frame)
                decode_response(frame.body);
            else if (frame.header.frame_type == pilot_rpc::topic_frame)
                decode_publication(frame.body);
            else
                return 0;  // unknown type: the client closes the link
        }
    }
    return 0;
}
