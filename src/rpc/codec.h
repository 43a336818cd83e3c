#pragma once

// MessagePack bodies: packing call arguments and decoding received bodies into
// the tuple of types a caller expects. Pure; any thread.

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include <msgpack.hpp>

namespace pilot_rpc {

/// The one error text of every decoding or conversion failure.
inline constexpr const char* unpack_error_text = "unpack failed: Args not match!";

/// Packs `args` as one MessagePack array, one element per argument.
template <typename... Args>
msgpack::sbuffer pack_args(const Args&... args)
{
    msgpack::sbuffer buffer(64);
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_array(sizeof...(Args));
    (packer.pack(args), ...);
    return buffer;
}

namespace detail {

/// A packer stream that keeps only the count of bytes written to it.
struct byte_counter {
    std::size_t size = 0;
    void write(const char*, std::size_t n) { size += n; }
};

}  // namespace detail

/// The exact number of bytes `pack_args(args...)` produces, computed without
/// packing (and so without copying the arguments).
template <typename... Args>
std::size_t packed_args_size(const Args&... args)
{
    detail::byte_counter counter;
    msgpack::packer<detail::byte_counter> packer(counter);
    packer.pack_array(sizeof...(Args));
    (packer.pack(args), ...);
    return counter.size;
}

/// Decodes one MessagePack object from `body`. String and binary payloads stay
/// in `body` (no copy), so `body` must outlive the handle.
/// Throws std::invalid_argument(unpack_error_text) when the bytes do not decode.
msgpack::object_handle unpack_object(std::string_view body);

namespace detail {

template <typename Tuple, std::size_t... I>
Tuple convert_elements(const msgpack::object& array, std::index_sequence<I...>)
{
    return Tuple(array.via.array.ptr[I].as<std::tuple_element_t<I, Tuple>>()...);
}

}  // namespace detail

/// Converts the leading elements of the array `object` into `Ts...`; later
/// elements are ignored, missing ones are a failure.
/// Throws std::invalid_argument(unpack_error_text) on any mismatch.
template <typename... Ts>
std::tuple<Ts...> convert_array(const msgpack::object& object)
{
    if (object.type != msgpack::type::ARRAY || object.via.array.size < sizeof...(Ts))
        throw std::invalid_argument(unpack_error_text);
    try {
        return detail::convert_elements<std::tuple<Ts...>>(object, std::index_sequence_for<Ts...>{});
    } catch (const std::exception&) {
        throw std::invalid_argument(unpack_error_text);
    }
}

/// Decodes `body` into the expected tuple. Returned string_views point into `body`.
/// Throws std::invalid_argument(unpack_error_text) on any failure.
template <typename... Ts>
std::tuple<Ts...> unpack_body(std::string_view body)
{
    const msgpack::object_handle handle = unpack_object(body);
    return convert_array<Ts...>(handle.get());
}

/// A decoded publication [code, topic, data]; the views point into the body.
struct publication {
    int code = 0;
    std::string_view topic;
    std::string_view data;
};

/// Throws std::invalid_argument(unpack_error_text) when `body` is not a publication.
publication unpack_publication(std::string_view body);

/// Packs a publication body [code, topic, data].
msgpack::sbuffer pack_publication(int code, std::string_view topic, std::string_view data);

}  // namespace pilot_rpc
