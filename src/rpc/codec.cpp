#include "rpc/codec.h"

#include <algorithm>
#include <cstdint>

namespace pilot_rpc {

namespace {

// Every limit is nominally 4294967295, so only the body length constrains a
// body. A count larger than the body's byte count can never be satisfied, yet
// the decoder reserves memory for the claimed elements before it finds that
// out; bounding the limits by the body size changes no outcome (both fail with
// the same text) but keeps a lying header from reserving gigabytes.
msgpack::unpack_limit limits_for(std::size_t body_size)
{
    const std::size_t bound = std::min<std::size_t>(UINT32_MAX, body_size);
    return msgpack::unpack_limit(bound, bound, bound, bound, bound, bound);
}

bool reference_everything(msgpack::type::object_type, std::size_t, void*) { return true; }

}  // namespace

msgpack::object_handle unpack_object(std::string_view body)
{
    try {
        return msgpack::unpack(body.data(), body.size(), reference_everything, nullptr, limits_for(body.size()));
    } catch (const std::exception&) {
        throw std::invalid_argument(unpack_error_text);
    }
}

publication unpack_publication(std::string_view body)
{
    // Publications stream in on one thread; reusing that thread's zone spares
    // an allocation per event. Strings are referenced in `body`, not the zone,
    // so clearing it next time leaves the returned views intact.
    thread_local msgpack::zone zone;
    zone.clear();
    msgpack::object object;
    try {
        object = msgpack::unpack(zone, body.data(), body.size(), reference_everything, nullptr, limits_for(body.size()));
    } catch (const std::exception&) {
        throw std::invalid_argument(unpack_error_text);
    }
    const auto [code, topic, data] = convert_array<int, std::string_view, std::string_view>(object);
    return publication{code, topic, data};
}

msgpack::sbuffer pack_publication(int code, std::string_view topic, std::string_view data)
{
    return pack_args(code, topic, data);
}

}  // namespace pilot_rpc
